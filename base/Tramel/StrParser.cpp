#include "Tramel/StrParser.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>

#include "Tramel/HostText.h"
#include "Tramel/TextSearch.h"

namespace Kavio {
namespace Tramel {

namespace {

// Character classes are those of ASCII, whatever the host's locale.
bool is_white_in_line(char c) {
    return c == ' ' || c == '\t';
}

bool is_white(char c) {
    return is_white_in_line(c) || (c >= '\n' && c <= '\r');  // LF, VT, FF, CR
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_hex_digit(char c) {
    const unsigned char lower = FoldCase(c);
    return is_digit(c) || (lower >= 'a' && lower <= 'f');
}

}  // namespace

CStrParser::CStrParser(const char* text) {
    const size_t length = text != nullptr ? std::strlen(text) : 0;
    Attach(text, static_cast<unsigned int>(std::min<size_t>(length, INT_MAX)));
}

CStrParser::CStrParser(const char* text, unsigned int length) {
    Attach(text, length);
}

int CStrParser::Attach(const char* text, unsigned int length) {
    m_text = text != nullptr ? text : "";
    m_length = text != nullptr ? std::min<unsigned int>(length, INT_MAX) : 0;  // offsets are given as int
    ResetAll();
    return text != nullptr ? 0 : -1;
}

void CStrParser::ResetAll() {
    m_offset = 0;
    m_status = 0;
}

int CStrParser::fail() {
    m_status = -1;
    return -1;
}

// Offset of the end of the cursor's line: of its LF or CR LF, or of the text's end.
unsigned int CStrParser::line_end() const {
    const void* feed = std::memchr(cursor(), '\n', left());
    if (feed == nullptr) {
        return m_length;
    }
    const unsigned int end = static_cast<unsigned int>(static_cast<const char*>(feed) - m_text);
    return end > m_offset && m_text[end - 1] == '\r' ? end - 1 : end;
}

int CStrParser::locate(const char* text, unsigned int end, bool any_case) {
    if (text == nullptr) {
        return -1;
    }
    const auto find = any_case ? &FindTextCase : &FindText;
    const size_t found = find(cursor(), end - m_offset, text, std::strlen(text));
    if (found == TEXT_NOT_FOUND) {
        return -1;
    }
    m_offset += static_cast<unsigned int>(found);
    return GetCurOffset();
}

int CStrParser::LocateString(const char* text) {
    return locate(text, m_length, false);
}

int CStrParser::LocateStringInLine(const char* text) {
    return locate(text, line_end(), false);
}

int CStrParser::LocateStringCase(const char* text) {
    return locate(text, m_length, true);
}

int CStrParser::LocateStringInLineCase(const char* text) {
    return locate(text, line_end(), true);
}

int CStrParser::LocateOffset(int offset) {
    if (offset < 0 || static_cast<unsigned int>(offset) > m_length) {
        return -1;
    }
    m_offset = static_cast<unsigned int>(offset);
    return 0;
}

int CStrParser::GetLineNum() const {
    const auto feeds = std::count(m_text, m_text + m_length, '\n');
    const bool open_line = m_length > 0 && m_text[m_length - 1] != '\n';
    return static_cast<int>(feeds) + (open_line ? 1 : 0);
}

unsigned int CStrParser::GetCurLinelength() const {
    return line_end() - m_offset;
}

char CStrParser::GetCurChar() const {
    return left() > 0 ? *cursor() : '\0';
}

char CStrParser::CheckPrevChar() const {
    return m_offset > 0 ? m_text[m_offset - 1] : '\0';
}

const char* CStrParser::GetString() const {
    return cursor();
}

int CStrParser::GetStringLen() const {
    return static_cast<int>(left());
}

int CStrParser::skip_white(bool (*is_skipped)(char)) {
    const unsigned int start = m_offset;
    while (m_offset < m_length && is_skipped(m_text[m_offset])) {
        ++m_offset;
    }
    return static_cast<int>(m_offset - start);
}

int CStrParser::skip_until(bool (*is_wanted)(char)) {
    const char* end = m_text + m_length;
    const char* found = std::find_if(cursor(), end, is_wanted);
    return found != end ? take(static_cast<unsigned int>(found - cursor()), nullptr, 0) : fail();
}

int CStrParser::ConsumeWhitespace() {
    return skip_white(is_white);
}

int CStrParser::ConsumeWhitespaceInLine() {
    return skip_white(is_white_in_line);
}

int CStrParser::ConsumeUntil(char c) {
    const void* found = std::memchr(cursor(), c, left());
    if (found == nullptr) {
        return fail();
    }
    return take(static_cast<unsigned int>(static_cast<const char*>(found) - cursor()), nullptr, 0);
}

int CStrParser::ConsumeUntilDigit() {
    return skip_until(is_digit);
}

int CStrParser::ConsumeUntilHexDigit() {
    return skip_until(is_hex_digit);
}

int CStrParser::ConsumeUntilNextLine() {
    const void* feed = std::memchr(cursor(), '\n', left());
    if (feed == nullptr) {
        return fail();
    }
    return take(static_cast<unsigned int>(static_cast<const char*>(feed) - cursor()) + 1, nullptr, 0);
}

template <typename T>
T CStrParser::take_number(int base, bool with_sign) {
    const char* first = cursor();
    const char* end = m_text + m_length;
    if (with_sign && end - first > 1 && first[0] == '+' && is_digit(first[1])) {
        ++first;
    }
    T value = 0;
    const std::from_chars_result result = std::from_chars(first, end, value, base);
    if (result.ec != std::errc()) {
        fail();
        return 0;
    }
    m_offset = static_cast<unsigned int>(result.ptr - m_text);
    return value;
}

int16_t CStrParser::ConsumeInt16() {
    return take_number<int16_t>(10, true);
}

int32_t CStrParser::ConsumeInt32() {
    return take_number<int32_t>(10, true);
}

uint16_t CStrParser::ConsumeUint16() {
    return take_number<uint16_t>(10, false);
}

uint32_t CStrParser::ConsumeUint32() {
    return take_number<uint32_t>(10, false);
}

uint64_t CStrParser::ConsumeUint64() {
    return take_number<uint64_t>(10, false);
}

uint32_t CStrParser::ConsumeHexUint32() {
    return take_number<uint32_t>(16, false);
}

double CStrParser::ConsumeDouble() {
    const char* first = cursor();
    const char* end = m_text + m_length;
    const bool negative = first != end && *first == '-';
    if (first != end && (*first == '-' || *first == '+')) {
        ++first;
    }
    // Digits and a point only: no exponent, no "inf", as the decimals of RFC 2326 3.6 have none.
    const char* last = std::find_if_not(first, end, is_digit);
    if (last != end && *last == '.') {
        last = std::find_if_not(last + 1, end, is_digit);
    }
    double value = 0;
    const std::from_chars_result result = std::from_chars(first, last, value, std::chars_format::fixed);
    if (result.ec != std::errc() || !std::isfinite(value)) {
        fail();
        return 0;
    }
    m_offset = static_cast<unsigned int>(result.ptr - m_text);
    return negative ? -value : value;
}

int CStrParser::take(unsigned int length, char* buf, unsigned int size) {
    const char* text = cursor();
    m_offset += length;
    if (buf == nullptr) {
        return static_cast<int>(length);
    }
    if (size == 0) {
        return 0;
    }
    const unsigned int copied = std::min(length, size - 1);
    std::memcpy(buf, text, copied);
    buf[copied] = '\0';
    return static_cast<int>(copied);
}

int CStrParser::ConsumeWord(char* buf, unsigned int size) {
    const char* end = std::find_if(cursor(), m_text + m_length, is_white);
    return take(static_cast<unsigned int>(end - cursor()), buf, size);
}

int CStrParser::ConsumeSentence(const char* delims, char* buf, unsigned int size) {
    const size_t delim_count = delims != nullptr ? std::strlen(delims) : 0;
    const char* end = m_text + m_length;
    const char* found = std::find_if(
        cursor(), end, [=](char c) { return delim_count > 0 && std::memchr(delims, c, delim_count) != nullptr; });
    const int copied = take(static_cast<unsigned int>(found - cursor()), buf, size);
    m_offset += found != end ? 1 : 0;
    return copied;
}

int CStrParser::ConsumeLength(unsigned int n, char* buf, unsigned int size) {
    return n > left() ? fail() : take(n, buf, size);
}

int CStrParser::ConsumeIpAddr(char* buf, unsigned int size, int* family) {
    const HostText host = ReadHostText(cursor(), left());
    if (host.family == 0) {
        return fail();
    }
    if (family != nullptr) {
        *family = host.family;
    }
    m_offset += host.skip;
    const int copied = take(host.length, buf, size);
    m_offset += host.skip;  // the closing bracket is as long as the opening one
    return copied;
}

int CStrParser::Expect(char c) {
    if (left() == 0 || *cursor() != c) {
        return fail();
    }
    ++m_offset;
    return 0;
}

int CStrParser::CompareCase(const char* text) const {
    const size_t size = text != nullptr ? std::strlen(text) : SIZE_MAX;
    return size <= left() && EqualCase(cursor(), text, size) ? 0 : -1;
}

namespace {

unsigned char* find_bytes(unsigned char* haystack, int haystack_length, unsigned char* needle, int needle_length,
                          bool any_case) {
    if (haystack == nullptr || needle == nullptr || haystack_length < 1 || needle_length < 1) {
        return nullptr;
    }
    const auto find = any_case ? &FindTextCase : &FindText;
    const size_t found = find(reinterpret_cast<char*>(haystack), static_cast<size_t>(haystack_length),
                              reinterpret_cast<char*>(needle), static_cast<size_t>(needle_length));
    return found != TEXT_NOT_FOUND ? haystack + found : nullptr;
}

}  // namespace

unsigned char* CStrParser::MemMem(unsigned char* haystack, int haystack_length, unsigned char* needle,
                                  int needle_length) {
    return find_bytes(haystack, haystack_length, needle, needle_length, false);
}

unsigned char* CStrParser::MemMemCase(unsigned char* haystack, int haystack_length, unsigned char* needle,
                                      int needle_length) {
    return find_bytes(haystack, haystack_length, needle, needle_length, true);
}

}  // namespace Tramel
}  // namespace Kavio
