#ifndef VIDORA_TRAMEL_STRPARSER_H
#define VIDORA_TRAMEL_STRPARSER_H

#include <cstdint>

namespace Kavio {
namespace Tramel {

// CStrParser: a cursor over one text that it doesn't own. No call reads past the text's length or needs a final NUL.
//
// Every Consume moves the cursor; a failed one sets the status (negative, sticky until ResetAll or Attach), moves
// nothing, and returns a negative length or the number 0. White space is blank and tab in the InLine forms, and CR, LF,
// VT, FF as well in the others. A line ends in LF, or CR LF. Used by one thread at a time.
class CStrParser {
public:
    CStrParser() = default;
    explicit CStrParser(const char* text);
    CStrParser(const char* text, unsigned int length);

    // Binds to a text and rewinds. 0, or -1 for null (then bound to an empty text).
    int Attach(const char* text, unsigned int length);
    // Rewinds and clears the status.
    void ResetAll();
    // 0 while no Consume or Expect failed.
    int GetStatus() const { return m_status; }

    // Moves the cursor to the first match at or behind it and returns the match's offset in the text; negative, without
    // a move and without touching the status, if there is none. The InLine forms look only up to the line's end; the
    // Case forms ignore the case of ASCII letters.
    int LocateString(const char* text);
    int LocateStringInLine(const char* text);
    int LocateStringCase(const char* text);
    int LocateStringInLineCase(const char* text);

    // Moves to an offset from 0 to the length. 0 or -1.
    int LocateOffset(int offset);
    int GetCurOffset() const { return static_cast<int>(m_offset); }
    // The number of lines in the whole text, wherever the cursor is: a bound for a loop over them. A last line
    // without a line feed counts; an empty text has none.
    int GetLineNum() const;
    // Bytes from the cursor to the end of its line, without the line's end.
    unsigned int GetCurLinelength() const;
    // The character at the cursor, and the one before it; 0 at the text's ends.
    char GetCurChar() const;
    char CheckPrevChar() const;
    // The text at the cursor, and the bytes left there.
    const char* GetString() const;
    int GetStringLen() const;

    // Move the cursor forward to the first character that isn't white space, that is the given one, is a digit, a
    // hexadecimal digit, or begins the next line. They return the number of bytes stepped over; negative with the
    // status set if there is no such character (white space at the very end is no failure).
    int ConsumeWhitespace();
    int ConsumeWhitespaceInLine();
    int ConsumeUntil(char c);
    int ConsumeUntilDigit();
    int ConsumeUntilHexDigit();
    int ConsumeUntilNextLine();

    // A number at the cursor, without skipping. A sign is taken by the signed forms and ConsumeDouble; a number out of
    // range is a failure; the hexadecimal form takes no prefix.
    int16_t ConsumeInt16();
    int32_t ConsumeInt32();
    uint16_t ConsumeUint16();
    uint32_t ConsumeUint32();
    uint64_t ConsumeUint64();
    uint32_t ConsumeHexUint32();
    double ConsumeDouble();

    // Copy into `buf` of `size` bytes, NUL-terminated and cut at the size, and return the length copied; what was cut
    // off is stepped over as well. A null buffer just skips, and the length is that of the text skipped. A word runs to
    // the next white space and may be empty. A sentence runs to any character of `delims`, which is stepped over, or to
    // the text's end.
    int ConsumeWord(char* buf, unsigned int size);
    int ConsumeSentence(const char* delims, char* buf, unsigned int size);
    // Exactly `n` bytes. Fewer left is a failure.
    int ConsumeLength(unsigned int n, char* buf, unsigned int size);
    // An IPv4 address, an IPv6 address (bare or in brackets, which are not copied), or an RFC 1123 host name that holds
    // a letter; `family`, unless null, becomes 4, 6 or 1. The address is the longest run of letters, digits, hyphens
    // and dots (of hexadecimal digits, colons and dots for IPv6), and fails as a whole: "10.0.0.256" is no address.
    int ConsumeIpAddr(char* buf, unsigned int size, int* family);

    // Steps over `c` if it is at the cursor: 0; otherwise -1 and the status is set.
    int Expect(char c);
    // 0 if the text at the cursor begins with `text`, with the case of ASCII letters ignored; otherwise non-zero. Moves
    // nothing, sets no status.
    int CompareCase(const char* text) const;

    // The first place of `needle` in `haystack`, any bytes allowed; null if absent, or a length is below 1.
    static unsigned char* MemMem(unsigned char* haystack, int haystack_length, unsigned char* needle,
                                 int needle_length);
    static unsigned char* MemMemCase(unsigned char* haystack, int haystack_length, unsigned char* needle,
                                     int needle_length);

private:
    const char* cursor() const { return m_text + m_offset; }
    unsigned int left() const { return m_length - m_offset; }
    int fail();
    unsigned int line_end() const;
    int locate(const char* text, unsigned int end, bool any_case);
    int skip_white(bool (*is_white)(char));
    int skip_until(bool (*is_wanted)(char));
    int take(unsigned int length, char* buf, unsigned int size);
    template <typename T>
    T take_number(int base, bool with_sign);

    const char* m_text = "";
    unsigned int m_length = 0;
    unsigned int m_offset = 0;
    int m_status = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_STRPARSER_H
