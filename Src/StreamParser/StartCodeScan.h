#ifndef VIDORA_STREAMPARSER_STARTCODESCAN_H
#define VIDORA_STREAMPARSER_STARTCODESCAN_H

#include <cstddef>
#include <cstdint>

#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

// StartCodeScan: walks over the start codes 00 00 01 of a byte string, with the byte behind each: a NAL unit header in
// H.264, a start code value in MPEG video. A start code without such a byte doesn't count.
class StartCodeScan {
public:
    StartCodeScan(const unsigned char* data, size_t len) : m_data(data), m_len(len) {}

    // Moves to the next start code; false at the end.
    bool Next() {
        m_offset = find_start_code3(m_data, m_len, m_from);
        if (m_offset == NO_START_CODE || m_len - m_offset <= 3) {
            m_offset = NO_START_CODE;
            m_from = m_len;
            return false;
        }
        m_from = m_offset + 3;
        return true;
    }
    // Moves to the next one whose value lies in the range; false at the end.
    bool NextOf(uint8_t first, uint8_t last) {
        while (Next()) {
            if (Value() >= first && Value() <= last) {
                return true;
            }
        }
        return false;
    }

    // Of the start code last found: where it begins, the byte behind it, and the byte in front of it (0xFF if none).
    size_t Offset() const { return m_offset; }
    uint8_t Value() const { return m_data[m_offset + 3]; }
    uint8_t Before() const { return m_offset > 0 ? m_data[m_offset - 1] : 0xFF; }

private:
    const unsigned char* m_data;
    size_t m_len;
    size_t m_from = 0;
    size_t m_offset = NO_START_CODE;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_STARTCODESCAN_H
