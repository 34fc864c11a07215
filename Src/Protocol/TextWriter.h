#ifndef VIDORA_PROTOCOL_TEXTWRITER_H
#define VIDORA_PROTOCOL_TEXTWRITER_H

#include <charconv>
#include <cstddef>
#include <cstring>

namespace Kavio {
namespace Vidora {

// CTextWriter: appends text to a buffer that it doesn't own. The text is always NUL-terminated and is cut at the
// buffer's end; Needed() goes on counting. Numbers don't depend on the locale.
class CTextWriter {
public:
    // `size` is at least 1.
    CTextWriter(char* buffer, size_t size) : m_buffer(buffer), m_size(size) { m_buffer[0] = '\0'; }

    CTextWriter& Text(const char* text) { return Text(text, std::strlen(text)); }
    CTextWriter& Text(const char* text, size_t length) {
        const size_t room = m_size - 1 - m_length;
        const size_t copied = length < room ? length : room;
        std::memcpy(m_buffer + m_length, text, copied);
        m_length += copied;
        m_needed += length;
        m_buffer[m_length] = '\0';
        return *this;
    }
    template <typename Integer>
    CTextWriter& Number(Integer value) {
        char digits[24];
        const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), value);
        return Text(digits, static_cast<size_t>(end.ptr - digits));
    }

    // Bytes written, and bytes that it would be in a buffer without an end.
    size_t Length() const { return m_length; }
    size_t Needed() const { return m_needed; }
    // Takes back what was written behind `length`; the count of what is needed stays.
    void CutBack(size_t length) {
        m_length = length < m_length ? length : m_length;
        m_buffer[m_length] = '\0';
    }

private:
    char* m_buffer;
    size_t m_size;
    size_t m_length = 0;
    size_t m_needed = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_TEXTWRITER_H
