// Drives the operations of CStrParser over one text. The input is the text, a line "\n---\n", and the script: steps of
// a byte that chooses the operation and a byte that sets the room of its buffer. A step that fails leaves the cursor
// where it stood, another one moves it forward and inside the text; none writes behind its room.
#include <iterator>

#include "FuzzSupport.h"
#include "Tramel/StrParser.h"

using Kavio::Tramel::CStrParser;

namespace {

typedef int (*Operation)(CStrParser& parser, char* buf, unsigned int room);

const Operation OPERATIONS[] = {
    [](CStrParser& parser, char*, unsigned int) { return parser.LocateString(" "); },
    [](CStrParser& parser, char*, unsigned int) { return parser.LocateStringInLine("="); },
    [](CStrParser& parser, char*, unsigned int) { return parser.LocateStringCase("a"); },
    [](CStrParser& parser, char*, unsigned int) { return parser.LocateStringInLineCase("seq:"); },
    [](CStrParser& parser, char*, unsigned int) { return parser.ConsumeWhitespace(); },
    [](CStrParser& parser, char*, unsigned int) { return parser.ConsumeWhitespaceInLine(); },
    [](CStrParser& parser, char*, unsigned int) { return parser.ConsumeUntilDigit(); },
    [](CStrParser& parser, char*, unsigned int) { return parser.ConsumeUntilHexDigit(); },
    [](CStrParser& parser, char*, unsigned int) { return parser.ConsumeUntilNextLine(); },
    [](CStrParser& parser, char*, unsigned int) { return parser.ConsumeUntil(':'); },
    [](CStrParser& parser, char*, unsigned int) { return parser.Expect('-'); },
    [](CStrParser& parser, char*, unsigned int) { return (parser.ConsumeInt32(), parser.GetStatus()); },
    [](CStrParser& parser, char*, unsigned int) { return (parser.ConsumeUint64(), parser.GetStatus()); },
    [](CStrParser& parser, char*, unsigned int) { return (parser.ConsumeHexUint32(), parser.GetStatus()); },
    [](CStrParser& parser, char*, unsigned int) { return (parser.ConsumeDouble(), parser.GetStatus()); },
    [](CStrParser& parser, char* buf, unsigned int room) { return parser.ConsumeWord(buf, room); },
    [](CStrParser& parser, char* buf, unsigned int room) { return parser.ConsumeSentence(";,", buf, room); },
    [](CStrParser& parser, char* buf, unsigned int room) { return parser.ConsumeLength(2 * room, buf, room); },
    [](CStrParser& parser, char* buf, unsigned int room) { return parser.ConsumeIpAddr(buf, room, nullptr); },
};

}  // namespace

void Kavio::Vidora::Fuzz::Target(const uint8_t* data, size_t size) {
    static const char MARK[] = "\n---\n";
    const Bytes text(data, std::search(data, data + size, MARK, MARK + 5));  // a block of its own, without a NUL
    Ostra::CByteReader script(data, size);
    script.Skip(std::min(text.size() + 5, size));
    CStrParser parser(reinterpret_cast<const char*>(text.data()), static_cast<unsigned int>(text.size()));
    for (int steps = 0; steps < 200 && script.Remaining() >= 2; ++steps) {
        const Operation operation = OPERATIONS[script.ReadU8() % std::size(OPERATIONS)];
        const unsigned int room = script.ReadU8() % 20;
        std::string buf(24, '#');  // more than any room
        const int from = parser.GetCurOffset();
        parser.ResetAll();  // clears the last step's failure
        parser.LocateOffset(from);
        const bool failed = operation(parser, &buf[0], room) < 0;
        const int offset = parser.GetCurOffset();
        Require(failed ? offset == from : offset >= from);
        Require(offset + parser.GetStringLen() == static_cast<int>(text.size()));
        Require(static_cast<int>(parser.GetCurLinelength()) <= parser.GetStringLen());
        Require(buf.find_first_not_of('#', room) == std::string::npos);
    }
}
