#ifndef VIDORA_SOURCEDRAIN_H
#define VIDORA_SOURCEDRAIN_H

#include "LinkTimer.h"
#include "SessionSource.h"

namespace Kavio {
namespace Vidora {

// CSourceDrain: the end of a recording waits for its client. A source delivers its media faster than the client takes
// it: the last pictures may still wait when its end is told, and the connection is kept for them as long as the client
// takes some, and for ten seconds more. With conformance it is also kept for as long as the last picture is looked at:
// players that see the BYE while the picture's packets still wait in their own sockets, which is where those that read
// RTCP first see it, would drop them.
class CSourceDrain {
public:
    explicit CSourceDrain(ISvrLink& link) : m_timer(link) {}

    void SetConformance(bool on) { m_conformance = on; }

    // Whether the end has to wait on; the timer asks again.
    bool Waits(CSessionSource& source) {
        uint64_t unsent = 0;
        if (m_leaves) {
            return false;
        }
        if (!source.HasMediaToSend(unsent)) {
            return m_conformance && m_rests++ < MAX_RESTS && m_timer.Start(PERIOD_US);
        }
        m_rests = 0;
        if (unsent != m_unsent) {
            m_unsent = unsent;
            m_tries = 0;
        }
        return m_tries++ < MAX_TRIES && m_timer.Start(PERIOD_US);
    }
    // The client has been told of the end: it may take leave by itself, or go back in the recording. Whether the end
    // has to wait on.
    bool WaitsForLeave() {
        m_leaves = true;
        m_timer.Stop();
        return m_timer.Start(LEAVE_US);
    }
    void Stop() {
        m_timer.Stop();
        m_leaves = false;
        m_tries = 0;
        m_rests = 0;
        m_unsent = 0;
    }
    bool Runs() const { return m_timer.Runs(); }
    bool Is(long timer_id) const { return m_timer.Is(timer_id); }

private:
    static const int64_t PERIOD_US = 20000;
    static const int64_t LEAVE_US = 5000000;  // players show first what they hold back against jitter
    static const int MAX_TRIES = 500;
    static const int MAX_RESTS = 5;

    CLinkTimer m_timer;
    bool m_conformance = false;
    int m_tries = 0;  // since the client took something
    int m_rests = 0;  // since all was sent
    bool m_leaves = false;
    uint64_t m_unsent = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SOURCEDRAIN_H
