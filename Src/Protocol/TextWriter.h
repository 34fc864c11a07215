#ifndef VIDORA_PROTOCOL_TEXTWRITER_H
#define VIDORA_PROTOCOL_TEXTWRITER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Kavio {
namespace Vidora {

// Forms of numbers for CTextWriter: "%.<digits>f", "%0<width>d" and "%08X".
struct text_fixed {
    double value;
    int digits;
};
struct text_padded {
    int value;
    int width;
};
struct text_hex8 {
    uint32_t value;
};

// CTextWriter: bounded writing of text into a buffer that it doesn't own, always NUL-terminated and cut at the buffer's
// size. Numbers are written the same in every locale of the host: a comma in "npt=0,5" would be another header.
class CTextWriter {
public:
    // `size` bytes, the NUL included. Only the first byte is cleared.
    CTextWriter(char* out, size_t size) : m_out(out), m_room(out != nullptr && size > 0 ? size - 1 : 0) {
        if (out != nullptr && size > 0) {
            out[0] = '\0';
        }
    }

    // Appends each part: texts (a null one is empty), numbers, and the forms above.
    template <typename... Parts>
    CTextWriter& Add(const Parts&... parts) {
        (add(parts), ...);
        return *this;
    }

    size_t Length() const { return m_length; }
    // Bytes that the text would have in a buffer without an end.
    size_t Needed() const { return m_needed; }
    // Takes back what was written behind `length`; the count of what is needed stays.
    void CutBack(size_t length);
    size_t Room() const { return m_room - m_length; }

private:
    void add(std::string_view text);
    void add(const char* text);
    void add(int value);
    void add(unsigned int value);
    void add(uint64_t value);
    void add(const text_fixed& number);
    void add(const text_padded& number);
    void add(const text_hex8& number);

    char* m_out;
    size_t m_room;
    size_t m_length = 0;
    size_t m_needed = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_TEXTWRITER_H
