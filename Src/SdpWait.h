#ifndef VIDORA_SDPWAIT_H
#define VIDORA_SDPWAIT_H

#include "LinkTimer.h"

namespace Kavio {
namespace Vidora {

// CSdpWait: the patience of a DESCRIBE whose channel is still starting: three seconds for its description. A timer
// tries again, so that no thread of the pool is held.
class CSdpWait {
public:
    explicit CSdpWait(ISvrLink& link) : m_timer(link) {}

    void Begin() { m_tries = 0; }
    // Whether there will be another try.
    bool Again() { return m_tries++ < MAX_TRIES && m_timer.Start(PERIOD_US); }
    void Stop() { m_timer.Stop(); }
    bool Runs() const { return m_timer.Runs(); }
    bool Is(long timer_id) const { return m_timer.Is(timer_id); }

private:
    static const int64_t PERIOD_US = 300000;
    static const int MAX_TRIES = 10;

    CLinkTimer m_timer;
    int m_tries = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SDPWAIT_H
