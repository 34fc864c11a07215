#include "Tramel/Strand.h"

#include "Tramel/Reactor.h"

namespace Kavio {
namespace Tramel {

void CStrand::Schedule() {
    int state = m_state.load();
    for (;;) {
        if (state == QUEUED || state == RUNNING_AGAIN) {
            // The exchange with itself orders what the caller has written before the turn that is due.
            if (m_state.compare_exchange_weak(state, state)) {
                return;
            }
        } else if (m_state.compare_exchange_weak(state, state == IDLE ? QUEUED : RUNNING_AGAIN)) {
            break;
        }
    }
    if (state == IDLE) {
        CReactor::Instance().Enqueue(shared_from_this());
    }
}

void CStrand::run() {
    m_state.exchange(RUNNING);  // reads what Schedule wrote
    const bool more = RunTurn();
    int state = RUNNING;
    if (!more && m_state.compare_exchange_strong(state, IDLE)) {
        return;
    }
    m_state.exchange(QUEUED);
    CReactor::Instance().Enqueue(shared_from_this());
}

}  // namespace Tramel
}  // namespace Kavio
