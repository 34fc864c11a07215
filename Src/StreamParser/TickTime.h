#ifndef VIDORA_STREAMPARSER_TICKTIME_H
#define VIDORA_STREAMPARSER_TICKTIME_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// CTickTime: the milliseconds that a clock of `rate` ticks a second has run. What a step leaves of a millisecond is
// carried over to the next one, so that the time never drifts from the sum of the ticks by a whole millisecond.
class CTickTime {
public:
    explicit CTickTime(uint32_t rate) : m_rate(rate) {}

    // Ticks a second from now on, above 0; what is left of a millisecond is dropped with another rate.
    void SetRate(uint32_t rate) {
        m_rest = rate == m_rate ? m_rest : 0;
        m_rate = rate;
    }
    // Moves on by `ticks`, or back.
    void Advance(int32_t ticks) {
        if (ticks == 0) {
            return;  // most packets of a frame
        }
        const int64_t sum = m_rest + int64_t{ticks} * MS_PER_SEC;
        m_ms += static_cast<uint64_t>(sum / m_rate);
        m_rest = sum % m_rate;
    }
    // Goes on with the ticks of another clock, which may begin anywhere: by `ticks` if they look like a step on, or
    // else not at all.
    void Join(int32_t ticks) {
        if (ticks >= 0 && ticks <= MAX_JOIN_SEC * m_rate) {
            Advance(ticks);
        }
    }
    uint64_t Ms() const { return m_ms; }

private:
    static constexpr int64_t MS_PER_SEC = 1000;
    static constexpr int64_t MAX_JOIN_SEC = 10;

    int64_t m_rate;
    uint64_t m_ms = 0;
    int64_t m_rest = 0;  // in thousandths of a tick, of the sign of the step that left it
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_TICKTIME_H
