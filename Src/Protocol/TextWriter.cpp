#include "Protocol/TextWriter.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace Kavio {
namespace Vidora {

namespace {

const size_t MAX_FIXED_SIZE = 384;  // the largest double has 309 digits before the point
const size_t MAX_INT_SIZE = 24;

std::string_view written(const char* digits, const std::to_chars_result& result) {
    return std::string_view(digits, static_cast<size_t>(result.ptr - digits));
}

}  // namespace

void CTextWriter::CutBack(size_t length) {
    if (length < m_length) {
        m_length = length;
        m_out[m_length] = '\0';
    }
}

void CTextWriter::add(std::string_view text) {
    const size_t taken = std::min(text.size(), Room());
    m_needed += text.size();
    if (taken > 0) {
        std::memcpy(m_out + m_length, text.data(), taken);
        m_length += taken;
        m_out[m_length] = '\0';
    }
}

void CTextWriter::add(const char* text) {
    if (text != nullptr) {
        add(std::string_view(text));
    }
}

void CTextWriter::add(int value) {
    char digits[MAX_INT_SIZE];
    add(written(digits, std::to_chars(digits, digits + sizeof digits, value)));
}

void CTextWriter::add(unsigned int value) {
    add(uint64_t{value});
}

void CTextWriter::add(uint64_t value) {
    char digits[MAX_INT_SIZE];
    add(written(digits, std::to_chars(digits, digits + sizeof digits, value)));
}

void CTextWriter::add(const text_fixed& number) {
    char digits[MAX_FIXED_SIZE];
    add(written(digits,
                std::to_chars(digits, digits + sizeof digits, number.value, std::chars_format::fixed, number.digits)));
}

void CTextWriter::add(const text_padded& number) {
    char digits[MAX_INT_SIZE];
    std::snprintf(digits, sizeof digits, "%0*d", number.width, number.value);
    add(digits);
}

void CTextWriter::add(const text_hex8& number) {
    char digits[MAX_INT_SIZE];
    std::snprintf(digits, sizeof digits, "%08X", number.value);
    add(digits);
}

}  // namespace Vidora
}  // namespace Kavio
