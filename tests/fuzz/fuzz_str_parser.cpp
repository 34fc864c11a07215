// Drives all operations of CStrParser over one text. The input is the text, a line "\n---\n", and the script: steps of
// a byte that chooses the operation, a byte that sets the room of its buffer and the length of its key, and the key.
// A step that fails leaves the cursor where it stood, another one moves it forward and inside the text.
#include <algorithm>
#include <iterator>
#include <string>

#include "FuzzSupport.h"
#include "Tramel/StrParser.h"

using Kavio::Ostra::CByteReader;
using Kavio::Tramel::CStrParser;
using Kavio::Vidora::Fuzz::Bytes;
using Kavio::Vidora::Fuzz::Require;

namespace {

struct Arguments {
    std::string key;
    char first = '\n';                       // of the key
    unsigned int room = 0;                   // in the buffer; what lies behind it stays as it was
    std::string buf = std::string(24, '#');  // more than any room
};

// What an operation gave, as its result: negative for a failure.
int found(const CStrParser& parser, int offset, const Arguments& with) {
    Require(offset < 0 || (offset == parser.GetCurOffset() && parser.CompareCase(with.key.c_str()) == 0));
    return offset;
}

int number(const CStrParser& parser, double value) {
    Require(value - value == 0 && (parser.GetStatus() == 0 || value == 0));  // neither infinite nor "not a number"
    return parser.GetStatus();
}

int taken(int length, const Arguments& with) {
    Require(length < static_cast<int>(with.room) || (length == 0 && with.room == 0));
    Require(length < 0 || with.room == 0 || with.buf[static_cast<size_t>(length)] == '\0');
    return length;
}

typedef int (*Operation)(CStrParser& parser, Arguments& with);

const Operation OPERATIONS[] = {
    [](CStrParser& parser, Arguments& with) { return found(parser, parser.LocateString(with.key.c_str()), with); },
    [](CStrParser& parser, Arguments& with) {
        return found(parser, parser.LocateStringInLine(with.key.c_str()), with);
    },
    [](CStrParser& parser, Arguments& with) { return found(parser, parser.LocateStringCase(with.key.c_str()), with); },
    [](CStrParser& parser, Arguments& with) {
        return found(parser, parser.LocateStringInLineCase(with.key.c_str()), with);
    },
    [](CStrParser& parser, Arguments&) { return parser.ConsumeWhitespace(); },
    [](CStrParser& parser, Arguments&) { return parser.ConsumeWhitespaceInLine(); },
    [](CStrParser& parser, Arguments&) { return parser.ConsumeUntilDigit(); },
    [](CStrParser& parser, Arguments&) { return parser.ConsumeUntilHexDigit(); },
    [](CStrParser& parser, Arguments&) { return parser.ConsumeUntilNextLine(); },
    [](CStrParser& parser, Arguments& with) { return parser.ConsumeUntil(with.first); },
    [](CStrParser& parser, Arguments& with) { return parser.Expect(with.first); },
    [](CStrParser& parser, Arguments&) { return number(parser, parser.ConsumeInt16()); },
    [](CStrParser& parser, Arguments&) { return number(parser, parser.ConsumeInt32()); },
    [](CStrParser& parser, Arguments&) { return number(parser, parser.ConsumeUint16()); },
    [](CStrParser& parser, Arguments&) { return number(parser, parser.ConsumeUint32()); },
    [](CStrParser& parser, Arguments&) { return number(parser, static_cast<double>(parser.ConsumeUint64())); },
    [](CStrParser& parser, Arguments&) { return number(parser, parser.ConsumeHexUint32()); },
    [](CStrParser& parser, Arguments&) { return number(parser, parser.ConsumeDouble()); },
    [](CStrParser& parser, Arguments& with) { return taken(parser.ConsumeWord(&with.buf[0], with.room), with); },
    [](CStrParser& parser, Arguments& with) {
        return taken(parser.ConsumeSentence(with.key.c_str(), &with.buf[0], with.room), with);
    },
    [](CStrParser& parser, Arguments& with) {
        return taken(parser.ConsumeLength(static_cast<uint8_t>(with.first), &with.buf[0], with.room), with);
    },
    [](CStrParser& parser, Arguments& with) {
        int family = 6;
        const int length = parser.ConsumeIpAddr(&with.buf[0], with.room, &family);
        Require(family == 1 || family == 4 || family == 6);
        return taken(length, with);
    },
    [](CStrParser& parser, Arguments&) { return parser.LocateOffset(parser.GetCurOffset() / 2); },
};

void check_position(const CStrParser& parser, const Bytes& text) {
    const int offset = parser.GetCurOffset();
    const int left = static_cast<int>(text.size()) - offset;
    Require(offset >= 0 && left >= 0 && parser.GetStringLen() == left);
    Require(text.empty() || parser.GetString() == reinterpret_cast<const char*>(text.data()) + offset);
    Require(static_cast<int>(parser.GetCurLinelength()) <= left);
    Require(parser.GetCurChar() == (left > 0 ? *parser.GetString() : '\0'));
    Require(parser.CheckPrevChar() == (offset > 0 ? parser.GetString()[-1] : '\0'));
    Require(parser.GetLineNum() >= 0 && static_cast<size_t>(parser.GetLineNum()) <= text.size());
}

void step(CStrParser& parser, CByteReader& script) {
    const size_t operation = script.ReadU8() % std::size(OPERATIONS);
    const unsigned int sizes = script.ReadU8();
    const size_t length = std::min<size_t>(sizes / 32, script.Remaining());
    const Bytes key(script.Rest(), script.Rest() + length);
    script.Skip(length);
    Arguments with;
    with.key.assign(key.begin(), std::find(key.begin(), key.end(), 0));
    with.first = key.empty() ? '\n' : static_cast<char>(key[0]);
    with.room = sizes % 20;
    const int from = parser.GetCurOffset();
    parser.ResetAll();  // clears the last step's failure
    parser.LocateOffset(from);
    const bool failed = OPERATIONS[operation](parser, with) < 0;
    const bool back = operation + 1 == std::size(OPERATIONS);
    Require(back || (failed ? parser.GetCurOffset() == from : parser.GetCurOffset() >= from));
    Require(with.buf.find_first_not_of('#', with.room) == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char MARK[] = "\n---\n";
    const Bytes text(data, std::search(data, data + size, MARK, MARK + 5));  // a block of its own, without a NUL
    CByteReader script(data, size);
    script.Skip(std::min(text.size() + 5, size));
    CStrParser parser(reinterpret_cast<const char*>(text.data()), static_cast<unsigned int>(text.size()));
    for (int steps = 0; steps < 200 && script.Remaining() >= 2; ++steps) {
        step(parser, script);
        check_position(parser, text);
    }
    return 0;
}
