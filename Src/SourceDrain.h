#ifndef VIDORA_SOURCEDRAIN_H
#define VIDORA_SOURCEDRAIN_H

#include "LinkTimer.h"
#include "SessionSource.h"

namespace Kavio {
namespace Vidora {

// CSourceDrain: the end of a recording waits for its client. A source delivers its media faster than the client takes
// it: the last pictures may still wait when its end is told, and the connection is kept for them as long as the client
// takes some, and for ten seconds more.
class CSourceDrain {
public:
    explicit CSourceDrain(ISvrLink& link) : m_timer(link) {}

    // Whether the end has to wait on; the timer asks again.
    bool Waits(CSessionSource& source) {
        uint64_t unsent = 0;
        if (!source.HasMediaToSend(unsent)) {
            return false;
        }
        if (unsent != m_unsent) {
            m_unsent = unsent;
            m_tries = 0;
        }
        return m_tries++ < MAX_TRIES && m_timer.Start(PERIOD_US);
    }
    void Stop() {
        m_timer.Stop();
        m_tries = 0;
        m_unsent = 0;
    }
    bool Runs() const { return m_timer.Runs(); }
    bool Is(long timer_id) const { return m_timer.Is(timer_id); }

private:
    static const int64_t PERIOD_US = 20000;
    static const int MAX_TRIES = 500;

    CLinkTimer m_timer;
    int m_tries = 0;  // since the client took something
    uint64_t m_unsent = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SOURCEDRAIN_H
