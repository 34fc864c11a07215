// Drives all operations of CStrParser over one text. The input is the text, a line "\n---\n", and the script: each byte
// chooses an operation, and some take a key out of the bytes that follow. After each step the cursor must stand in the
// text, a failed step must not have moved it, and the searches must agree with a plain comparison at every place.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Tramel/StrParser.h"

using Kavio::Tramel::CStrParser;

namespace {

#define CHECK(expression)  \
    do {                   \
        if (!(expression)) \
            std::abort();  \
    } while (false)

// Takes the script's bytes, zeros behind its end.
class CScript {
public:
    CScript(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool Ended() const { return m_offset >= m_size; }
    uint8_t Byte() { return Ended() ? 0 : m_data[m_offset++]; }
    // A key without a NUL, as the operations take.
    std::string Key() {
        std::string key;
        for (size_t left = Byte() % 8u; left > 0 && !Ended(); --left) {
            key.push_back(static_cast<char>(Byte()));
        }
        return key.substr(0, key.find('\0'));
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_offset = 0;
};

char fold(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool matches(const std::string& text, size_t at, const std::string& key, bool any_case) {
    for (size_t i = 0; i < key.size(); ++i) {
        if (at + i >= text.size() || (any_case ? fold(text[at + i]) != fold(key[i]) : text[at + i] != key[i])) {
            return false;
        }
    }
    return true;
}

int plain_search(const std::string& text, size_t from, size_t end, const std::string& key, bool any_case) {
    for (size_t at = from; at + key.size() <= end; ++at) {
        if (matches(text, at, key, any_case)) {
            return static_cast<int>(at);
        }
    }
    return -1;
}

void search(CStrParser& parser, const std::string& text, const std::string& key, unsigned form) {
    const size_t from = static_cast<size_t>(parser.GetCurOffset());
    const bool in_line = (form & 1) != 0;
    const bool any_case = (form & 2) != 0;
    const size_t end = in_line ? from + parser.GetCurLinelength() : text.size();
    const int wanted = plain_search(text, from, end, key, any_case);
    int (CStrParser::*const forms[])(const char*) = {&CStrParser::LocateString, &CStrParser::LocateStringInLine,
                                                     &CStrParser::LocateStringCase,
                                                     &CStrParser::LocateStringInLineCase};
    CHECK((parser.*forms[form & 3])(key.c_str()) == wanted);
    CHECK(parser.GetCurOffset() == (wanted < 0 ? static_cast<int>(from) : wanted));
}

// An operation that moves by what it gives, or fails and stays.
void skip(CStrParser& parser, unsigned form) {
    const int from = parser.GetCurOffset();
    int moved = 0;
    switch (form) {
        case 0:
            moved = parser.ConsumeWhitespace();
            break;
        case 1:
            moved = parser.ConsumeWhitespaceInLine();
            break;
        case 2:
            moved = parser.ConsumeUntilDigit();
            break;
        case 3:
            moved = parser.ConsumeUntilHexDigit();
            break;
        case 4:
            moved = parser.ConsumeUntilNextLine();
            break;
        case 5:
            moved = parser.ConsumeUntil('\n');
            break;
        default:
            moved = parser.ConsumeLength(form, nullptr, 0);
            break;
    }
    CHECK(moved >= 0 || parser.GetStatus() < 0);
    CHECK(parser.GetCurOffset() == from + (moved < 0 ? 0 : moved));
}

void number(CStrParser& parser, unsigned form) {
    const int from = parser.GetCurOffset();
    double value = 0;
    switch (form) {
        case 0:
            value = parser.ConsumeInt16();
            break;
        case 1:
            value = parser.ConsumeInt32();
            break;
        case 2:
            value = parser.ConsumeUint16();
            break;
        case 3:
            value = parser.ConsumeUint32();
            break;
        case 4:
            value = static_cast<double>(parser.ConsumeUint64());
            break;
        case 5:
            value = parser.ConsumeHexUint32();
            break;
        default:
            value = parser.ConsumeDouble();
            break;
    }
    // Not a number nor infinite in no case; without a move there was no number.
    CHECK(value - value == 0);
    CHECK(parser.GetCurOffset() > from || (value == 0 && parser.GetStatus() < 0));
}

void take_text(CStrParser& parser, CScript& script) {
    const unsigned form = script.Byte() % 4u;
    const std::string delims = script.Key();
    const unsigned size = script.Byte() % 20u;
    const int from = parser.GetCurOffset();
    char buf[20];
    std::memset(buf, '#', sizeof(buf));
    int family = 0;
    int length = 0;
    switch (form) {
        case 0:
            length = parser.ConsumeWord(buf, size);
            break;
        case 1:
            length = parser.ConsumeSentence(delims.c_str(), buf, size);
            break;
        case 2:
            length = parser.ConsumeLength(script.Byte(), buf, size);
            break;
        default:
            length = parser.ConsumeIpAddr(buf, size, &family);
            CHECK(length < 0 || family == 1 || family == 4 || family == 6);
            break;
    }
    CHECK(parser.GetCurOffset() >= from + (length < 0 ? 0 : length));
    CHECK(length < static_cast<int>(size) || (size == 0 && length == 0));
    if (length >= 0 && size > 0) {
        CHECK(buf[length] == '\0');
    }
    for (size_t i = size; i < sizeof(buf); ++i) {
        CHECK(buf[i] == '#');
    }
    CHECK(length >= 0 || parser.GetCurOffset() == from);
}

void step(CStrParser& parser, const std::string& text, CScript& script) {
    const unsigned operation = script.Byte();
    switch (operation % 6) {
        case 0:
            search(parser, text, script.Key(), operation / 6);
            break;
        case 1:
            skip(parser, operation / 6 % 8);
            break;
        case 2:
            number(parser, operation / 6 % 7);
            break;
        case 3:
            take_text(parser, script);
            break;
        case 4: {
            const std::string key = script.Key();
            const size_t at = static_cast<size_t>(parser.GetCurOffset());
            CHECK((parser.CompareCase(key.c_str()) == 0) == matches(text, at, key, true));
            break;
        }
        default: {
            const int target = static_cast<int>(script.Byte()) - 8;
            const bool inside = target >= 0 && static_cast<size_t>(target) <= text.size();
            CHECK((parser.LocateOffset(target) == 0) == inside);
            const char c = static_cast<char>(script.Byte());
            const int from = parser.GetCurOffset();
            const bool stands = static_cast<size_t>(from) < text.size() && text[static_cast<size_t>(from)] == c;
            CHECK((parser.Expect(c) == 0) == stands);
            CHECK(parser.GetCurOffset() == from + (stands ? 1 : 0));
            break;
        }
    }
}

void check_position(const CStrParser& parser, const char* bytes, size_t size) {
    const int offset = parser.GetCurOffset();
    CHECK(offset >= 0 && static_cast<size_t>(offset) <= size);
    CHECK(parser.GetString() == bytes + offset);
    CHECK(parser.GetStringLen() == static_cast<int>(size) - offset);
    CHECK(parser.GetCurLinelength() <= size - static_cast<size_t>(offset));
    CHECK(parser.GetCurChar() == (static_cast<size_t>(offset) < size ? bytes[offset] : '\0'));
    CHECK(parser.CheckPrevChar() == (offset > 0 ? bytes[offset - 1] : '\0'));
    CHECK(parser.GetLineNum() >= 0 && static_cast<size_t>(parser.GetLineNum()) <= size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string all(reinterpret_cast<const char*>(data), size);
    const size_t cut = all.find("\n---\n");
    const size_t text_size = cut == std::string::npos ? size / 2 : cut;
    const size_t script_offset = cut == std::string::npos ? text_size : cut + 5;
    // An exact block without a NUL, so that a byte read past the end is seen.
    char* bytes = static_cast<char*>(std::malloc(text_size > 0 ? text_size : 1));
    CHECK(bytes != nullptr);
    std::memcpy(bytes, data, text_size);
    const std::string text = all.substr(0, text_size);

    CStrParser parser(bytes, static_cast<unsigned int>(text_size));
    CScript script(data + script_offset, size - script_offset);
    for (int steps = 0; steps < 200 && !script.Ended(); ++steps) {
        step(parser, text, script);
        check_position(parser, bytes, text_size);
        if (steps % 16 == 15) {
            parser.ResetAll();
            CHECK(parser.GetCurOffset() == 0 && parser.GetStatus() == 0);
        }
    }
    std::free(bytes);
    return 0;
}
