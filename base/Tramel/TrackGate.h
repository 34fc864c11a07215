#ifndef VIDORA_TRAMEL_TRACKGATE_H
#define VIDORA_TRAMEL_TRACKGATE_H

#include "Tramel/OutputUnit.h"

namespace Kavio {
namespace Tramel {

// CTrackGate: which tracks of a queue lost a unit, or were paused, and wait for a key frame since. A track that never
// carried a key frame never waits. A value without a lock.
class CTrackGate {
public:
    // Whether a unit may follow what its track has sent so far.
    bool Open(const COutputUnit& unit) const {
        const unsigned int closed = m_waiting | (unit.OnKeyTrack() ? m_rested : 0);
        return (closed & bit(unit)) == 0 || unit.IsKey();
    }
    void Passed(const COutputUnit& unit) {
        m_waiting &= ~bit(unit);
        m_rested &= ~bit(unit);
    }
    void Dropped(const COutputUnit& unit) { m_waiting |= unit.OnKeyTrack() ? bit(unit) : 0; }
    // A track that has been paused.
    void Rest(unsigned int slot) { m_rested |= 1U << slot; }
    bool AnyWaiting() const { return (m_waiting | m_rested) != 0; }
    // All tracks that wait at `other` wait here as well.
    void Merge(const CTrackGate& other) { m_waiting |= other.m_waiting; }

private:
    static unsigned int bit(const COutputUnit& unit) { return 1U << unit.Slot(); }

    unsigned int m_waiting = 0;  // since a unit was lost
    unsigned int m_rested = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_TRACKGATE_H
