#include "RtspClient/HostResolver.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <list>
#include <new>
#include <system_error>
#include <thread>

#include "RtspClient/ClientTypes.h"

namespace Kavio {
namespace Vidora {

// One look-up, shared by the asker and the thread that does it.
struct CHostResolver::CJob {
    std::string name;
    long handler_id = 0;
    unsigned int msg = 0;
    std::atomic<bool> cancelled{false};
    CSockAddrStorage address;  // written before the message is posted, read after it has come
};

namespace {

typedef std::shared_ptr<CHostResolver::CJob> job_t;

// The threads that look names up: made when there is work, ended when there is none. Never destroyed, as one of them
// may still be in the system's resolver when the process ends.
class CLookUps {
public:
    static CLookUps& Instance() {
        static CLookUps* const look_ups = new CLookUps;
        return *look_ups;
    }

    int Add(const job_t& job) {
        CGuard guard(m_mutex);
        try {
            m_jobs.push_back(job);
        } catch (const std::bad_alloc&) {
            return -1;
        }
        if (m_threads < MAX_THREADS && !start_thread_locked() && m_threads == 0) {
            m_jobs.pop_back();
            return -1;
        }
        return 0;
    }

private:
    static const unsigned int MAX_THREADS = 16;

    // The threads take no signal: those are the host's.
    bool start_thread_locked() VIDORA_REQUIRES(m_mutex) {
        sigset_t all;
        sigset_t former;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &former);
        bool started = true;
        try {
            std::thread([this] { work(); }).detach();
            ++m_threads;
        } catch (const std::system_error&) {
            started = false;
        } catch (const std::bad_alloc&) {
            started = false;
        }
        pthread_sigmask(SIG_SETMASK, &former, nullptr);
        return started;
    }

    job_t next() {
        CGuard guard(m_mutex);
        if (m_jobs.empty()) {
            --m_threads;
            return nullptr;
        }
        job_t job = std::move(m_jobs.front());
        m_jobs.pop_front();
        return job;
    }

    void work() {
        while (const job_t job = next()) {
            if (job->cancelled.load()) {
                continue;
            }
            CSockAddrStorage address;
            address.SetIp(job->name.c_str());
            job->address = address;
            if (!job->cancelled.load()) {
                Tramel::CReactor::Instance().Post(job->handler_id, job->handler_id, job->msg, 0);
            }
        }
    }

    CMutex m_mutex;
    std::list<job_t> m_jobs VIDORA_GUARDED_BY(m_mutex);
    unsigned int m_threads VIDORA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace

int CHostResolver::Begin(CClientHandler& handler, unsigned int msg, const std::string& name) {
    const int result = GuardedCall([&] {
        m_job = std::make_shared<CJob>();
        m_job->name = name;
        m_job->handler_id = handler.GetID();
        m_job->msg = msg;
        return CLookUps::Instance().Add(m_job);
    });
    if (result < 0) {
        m_job = nullptr;
    }
    return result;
}

void CHostResolver::Cancel() {
    if (m_job != nullptr) {
        m_job->cancelled.store(true);
        m_job = nullptr;
    }
}

CSockAddrStorage CHostResolver::Result() {
    CSockAddrStorage address;
    if (m_job != nullptr) {
        address = m_job->address;
        m_job = nullptr;
    }
    return address;
}

}  // namespace Vidora
}  // namespace Kavio
