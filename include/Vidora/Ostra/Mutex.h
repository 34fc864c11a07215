#ifndef VIDORA_OSTRA_MUTEX_H
#define VIDORA_OSTRA_MUTEX_H

#include <mutex>

#include "Vidora/Ostra/ThreadAnnotations.h"

namespace Kavio {
namespace Ostra {

// CMutex: a recursive mutex. Any thread may enter; the thread that entered must leave as often as it entered.
class VIDORA_CAPABILITY("mutex") CMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    // Blocks until the mutex is the caller's. Always true.
    bool enter() VIDORA_ACQUIRE() {
        m_mutex.lock();
        return true;
    }

    // Releases one entry. Always true. The caller must hold the mutex.
    bool leave() VIDORA_RELEASE() {
        m_mutex.unlock();
        return true;
    }

private:
    std::recursive_mutex m_mutex;
};

// CGuard: holds a mutex for a scope, or until Leave().
class VIDORA_SCOPED_CAPABILITY CGuard {
public:
    explicit CGuard(CMutex& mutex) VIDORA_ACQUIRE(mutex) : m_mutex(&mutex) { m_mutex->enter(); }
    ~CGuard() VIDORA_RELEASE() {
        if (m_mutex != nullptr) {
            m_mutex->leave();
        }
    }
    CGuard(const CGuard&) = delete;
    CGuard& operator=(const CGuard&) = delete;

    // Leaves the mutex before the scope ends; at most once.
    void Leave() VIDORA_RELEASE() {
        CMutex* mutex = m_mutex;
        m_mutex = nullptr;
        mutex->leave();
    }

private:
    CMutex* m_mutex;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_MUTEX_H
