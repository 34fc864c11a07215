#ifndef VIDORA_TRAMEL_CALLWAIT_H
#define VIDORA_TRAMEL_CALLWAIT_H

#include <condition_variable>
#include <mutex>

#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

// CCallWait: lets a thread that holds a mutex once wait until a call on another thread has ended. Making it takes no
// memory of the heap's, as std::condition_variable_any does, whose constructor may throw.
class CCallWait {
public:
    // Leaves the mutex, waits for Wake, and enters it again. May return early: ask again.
    void Wait(Ostra::CMutex& mutex) VIDORA_NO_THREAD_SAFETY_ANALYSIS {
        ++m_waiters;
        {
            std::unique_lock<std::mutex> lock(m_gate);  // until it waits, no Wake passes unheard
            mutex.leave();
            m_condition.wait(lock);
        }
        mutex.enter();
        --m_waiters;
    }
    // With the mutex held: a call has ended.
    void Wake() {
        if (m_waiters > 0) {
            const std::lock_guard<std::mutex> lock(m_gate);
            m_condition.notify_all();
        }
    }

private:
    unsigned int m_waiters = 0;  // under the mutex
    std::mutex m_gate;
    std::condition_variable m_condition;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_CALLWAIT_H
