#ifndef VIDORA_RTSPCLIENT_SEQUENCECOUNT_H
#define VIDORA_RTSPCLIENT_SEQUENCECOUNT_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// CSequenceCount: counts 16-bit running numbers that came in sequence, and what gaps are worth: the distance from the
// last number to the next one. A last number of 0 means none, so that a gap behind it isn't seen.
class CSequenceCount {
public:
    void Count(uint16_t number) {
        if (m_last == 0) {
            m_last = static_cast<uint16_t>(number - 1);
        }
        const int step = static_cast<int16_t>(number - m_last);
        m_received += step == 1 ? 1 : 0;
        m_lost += step > 1 ? static_cast<uint64_t>(step) : 0;
        m_last = number;
    }
    uint64_t Received() const { return m_received; }
    uint64_t Lost() const { return m_lost; }

private:
    uint64_t m_received = 0;
    uint64_t m_lost = 0;
    uint16_t m_last = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_SEQUENCECOUNT_H
