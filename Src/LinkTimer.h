#ifndef VIDORA_LINKTIMER_H
#define VIDORA_LINKTIMER_H

#include "SvrLink.h"

namespace Kavio {
namespace Vidora {

// CLinkTimer: one timer of a link, which runs or doesn't. It dies before the link.
class CLinkTimer {
public:
    explicit CLinkTimer(ISvrLink& link) : m_link(link) {}
    ~CLinkTimer() { Stop(); }
    CLinkTimer(const CLinkTimer&) = delete;
    CLinkTimer& operator=(const CLinkTimer&) = delete;

    // Lets it fire every `period_us` microseconds; one that runs goes on as it is. Whether it runs.
    bool Start(int64_t period_us) {
        if (m_id == 0) {
            m_id = m_link.StartTimer(period_us);
        }
        return m_id != 0;
    }
    void Stop() {
        if (m_id != 0) {
            m_link.StopTimer(m_id);
            m_id = 0;
        }
    }
    bool Runs() const { return m_id != 0; }
    // Whether this is the timer that has fired.
    bool Is(long timer_id) const { return m_id != 0 && m_id == timer_id; }

private:
    ISvrLink& m_link;
    long m_id = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_LINKTIMER_H
