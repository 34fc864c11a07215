#ifndef VIDORA_PROTOCOL_TEXTWRITER_H
#define VIDORA_PROTOCOL_TEXTWRITER_H

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
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

    // Appends one text, or its first `length` bytes, or an integer.
    CTextWriter& Text(const char* text) { return Add(text); }
    CTextWriter& Text(const char* text, size_t length) { return Add(std::string_view(text, length)); }
    template <typename Integer>
    CTextWriter& Number(Integer value) {
        add_number(value);
        return *this;
    }

    // Takes back what was written behind `length`; the count of what is needed stays.
    void CutBack(size_t length) {
        m_length = length < m_length ? length : m_length;
        m_out[m_length] = '\0';
    }

    // Bytes written, and bytes that it would be in a buffer without an end.
    size_t Length() const { return m_length; }
    size_t Needed() const { return m_needed; }
    size_t Room() const { return m_room - m_length; }
    // Whether something was cut.
    bool Cut() const { return m_cut; }

private:
    void add(std::string_view text) {
        const size_t taken = std::min(text.size(), Room());
        m_needed += text.size();
        m_cut = m_cut || taken < text.size();
        if (taken > 0) {
            std::memcpy(m_out + m_length, text.data(), taken);
            m_length += taken;
            m_out[m_length] = '\0';
        }
    }
    void add(const char* text) { add(text != nullptr ? std::string_view(text) : std::string_view()); }
    void add(int value) { add_number(value); }
    void add(unsigned int value) { add_number(value); }
    void add(uint64_t value) { add_number(value); }
    void add(const text_fixed& number) {
        char digits[384];  // the largest double has 309 digits before the point
        const std::to_chars_result end =
            std::to_chars(digits, digits + sizeof digits, number.value, std::chars_format::fixed, number.digits);
        add(std::string_view(digits, static_cast<size_t>(end.ptr - digits)));
    }
    void add(const text_padded& number) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%0*d", number.width, number.value);
        add(digits);
    }
    void add(const text_hex8& number) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%08X", number.value);
        add(digits);
    }

    template <typename T>
    void add_number(T value) {
        char digits[24];
        const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
        add(std::string_view(digits, static_cast<size_t>(end.ptr - digits)));
    }

    char* m_out;
    size_t m_room;
    size_t m_length = 0;
    size_t m_needed = 0;
    bool m_cut = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_TEXTWRITER_H
