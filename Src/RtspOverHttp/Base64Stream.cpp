#include "RtspOverHttp/Base64Stream.h"

#include <cstring>

namespace Kavio {
namespace Vidora {

namespace {

const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const int CHAR_BITS = 6;
const int BYTE_BITS = 8;
const int QUANTUM = 4;     // characters
const int MIN_PADDED = 2;  // characters of a quantum that hold a byte

// The six bits of a character, or -1 outside the alphabet.
int value_of(char c) {
    const char* place = c == '\0' ? nullptr : strchr(ALPHABET, c);
    return place == nullptr ? -1 : static_cast<int>(place - ALPHABET);
}

}  // namespace

int CBase64Stream::Decode(std::string_view& text, char* out, int room) {
    int count = 0;
    while (!text.empty() && count < room) {
        const char c = text.front();
        text.remove_prefix(1);
        if (c == '\r' || c == '\n') {
            continue;
        }
        if (c == '=') {
            if (!take_pad()) {
                return -1;
            }
            continue;
        }
        const int value = value_of(c);
        if (value < 0) {
            return -1;
        }
        count += take_value(value, out + count) ? 1 : 0;
    }
    return count;
}

// Whether a byte became whole.
bool CBase64Stream::take_value(int value, char* out) {
    m_pad_waits = false;
    m_chars = (m_chars + 1) % QUANTUM;
    m_bits = m_bits << CHAR_BITS | static_cast<uint32_t>(value);
    m_bit_count += CHAR_BITS;
    if (m_bit_count < BYTE_BITS) {
        return false;
    }
    m_bit_count -= BYTE_BITS;
    *out = static_cast<char>(m_bits >> m_bit_count);
    m_bits &= (1U << m_bit_count) - 1;
    return true;
}

bool CBase64Stream::take_pad() {
    const bool second = m_pad_waits;
    const int chars = m_chars;
    *this = CBase64Stream();
    m_pad_waits = chars == MIN_PADDED;
    return second || chars >= MIN_PADDED;
}

}  // namespace Vidora
}  // namespace Kavio
