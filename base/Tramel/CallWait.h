#ifndef VIDORA_TRAMEL_CALLWAIT_H
#define VIDORA_TRAMEL_CALLWAIT_H

#include <condition_variable>

#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

// CCallWait: lets a thread that holds a mutex once wait until a call on another thread has ended.
class CCallWait {
public:
    // Leaves the mutex, waits for Wake, and enters it again. May return early: ask again.
    void Wait(Ostra::CMutex& mutex) VIDORA_NO_THREAD_SAFETY_ANALYSIS {
        ++m_waiters;
        CLock lock{mutex};
        m_condition.wait(lock);
        --m_waiters;
    }
    // With the mutex held: a call has ended.
    void Wake() {
        if (m_waiters > 0) {
            m_condition.notify_all();
        }
    }

private:
    struct CLock {
        Ostra::CMutex& mutex;
        void lock() VIDORA_NO_THREAD_SAFETY_ANALYSIS { mutex.enter(); }
        void unlock() VIDORA_NO_THREAD_SAFETY_ANALYSIS { mutex.leave(); }
    };

    unsigned int m_waiters = 0;  // under the mutex
    std::condition_variable_any m_condition;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_CALLWAIT_H
