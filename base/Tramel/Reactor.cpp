#include "Tramel/Reactor.h"

#include <pthread.h>
#include <signal.h>

#include <new>
#include <system_error>
#include <utility>

#include "Tramel/HandlerCore.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

namespace {

// Turns that a thread runs before it looks at the poller again while there is no end of them.
constexpr unsigned int MAX_TURNS_A_POLL = 8;

// Deadlines taken from the queue at a time.
constexpr size_t DEADLINES_A_TAKE = 64;

thread_local bool t_is_pool_thread = false;
// This thread is queueing what it gathered from the poller, and runs the first of it itself: no other need wake yet.
thread_local bool t_is_gathering = false;

}  // namespace

CReactor& CReactor::Instance() {
    static CReactor* const reactor = new CReactor;
    return *reactor;
}

CReactor::CReactor() : m_socks(m_timers) {}

bool CReactor::IsPoolThread() {
    return t_is_pool_thread;
}

int CReactor::Start(unsigned int threads) {
    if (threads < 1 || threads > MAX_THREADS) {
        return -1;
    }
    if (m_running.load()) {
        return 0;
    }
    std::shared_ptr<CEpollPoller> poller;
    try {
        poller = std::make_shared<CEpollPoller>();
        m_threads.reserve(threads);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (poller->Open() != 0) {
        return -1;
    }
    set_poller(poller);
    m_running.store(true);
    if (start_threads(threads, poller) != 0) {
        Stop();
        return -1;
    }
    return 0;
}

// The threads take no signal: those are the host's.
int CReactor::start_threads(unsigned int threads, const std::shared_ptr<CEpollPoller>& poller) {
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    int result = 0;
    try {
        for (unsigned int i = 0; i < threads; ++i) {
            m_threads.emplace_back([this, poller] { work(poller); });
            pthread_setname_np(m_threads.back().native_handle(), "vidora");
        }
    } catch (const std::system_error&) {
        result = -1;
    } catch (const std::bad_alloc&) {
        result = -1;
    }
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    return result;
}

int CReactor::Stop() {
    if (!m_running.load() || t_is_pool_thread) {
        return -1;
    }
    std::shared_ptr<CEpollPoller> poller;
    {
        Ostra::CGuard guard(m_mutex);
        m_stopping.store(true);
        m_running.store(false);
        poller = m_poller;
    }
    poller->Wake();  // each thread that ends wakes the next
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    m_threads.clear();
    set_poller(nullptr);
    m_stopping.store(false);
    return 0;
}

void CReactor::set_poller(const std::shared_ptr<CEpollPoller>& poller) {
    {
        Ostra::CGuard guard(m_mutex);
        m_poller = poller;
        m_wake_sent = false;
    }
    m_socks.SetPoller(poller);
    m_timers.SetPoller(poller);
}

void CReactor::Post(long sender_id, long target_id, unsigned int msg, long param) {
    const std::shared_ptr<CHandlerCore> core = m_handlers.Find(target_id);
    if (core != nullptr) {
        core->PostMessage(sender_id, msg, param);
    }
}

int CReactor::RequestOutput(CNetHandler& owner, int fd) {
    return owner.m_core == nullptr ? -1 : owner.m_core->RequestOutput(fd);
}

int CReactor::Rest(CNetHandler& owner, int fd, unsigned int mask) {
    return fd < 0 ? -1 : m_socks.Rest(owner.m_core.get(), fd, mask);
}

void CReactor::Resume(CNetHandler& owner) {
    if (owner.m_core != nullptr) {
        owner.m_core->Resume();
    }
}

void CReactor::CountAsEnding(CNetHandler& owner) {
    if (owner.m_core != nullptr) {
        owner.m_core->CountAsEnding();
    }
}

void CReactor::Enqueue(std::shared_ptr<CStrand> strand) {
    std::shared_ptr<CEpollPoller> to_wake;
    {
        Ostra::CGuard guard(m_mutex);
        push_locked(std::move(strand));
        if (!t_is_gathering && claim_wake_locked()) {
            to_wake = m_poller;
        }
    }
    if (to_wake != nullptr) {
        to_wake->Wake();
    }
}

void CReactor::work(const std::shared_ptr<CEpollPoller>& poller) {
    t_is_pool_thread = true;
    unsigned int turns = 0;
    while (!m_stopping.load()) {
        bool sleeps = false;
        const std::shared_ptr<CStrand> strand = turns < MAX_TURNS_A_POLL ? take_strand(*poller, sleeps) : nullptr;
        if (strand != nullptr) {
            ++turns;
            strand->run();
        } else {
            turns = 0;
            poll(*poller, sleeps);
        }
    }
    while (const std::shared_ptr<CStrand> strand = take_ending_strand()) {
        strand->run();
    }
    poller->Wake();
}

// The next strand, having woken a thread for the one behind it. Null if there is none: `sleeps` is then true, and the
// thread counts as idle until poll() has returned.
std::shared_ptr<CStrand> CReactor::take_strand(CEpollPoller& poller, bool& sleeps) {
    Ostra::CGuard guard(m_mutex);
    if (m_head == nullptr) {
        sleeps = !m_stopping.load();
        m_idle += sleeps ? 1 : 0;
        return nullptr;
    }
    std::shared_ptr<CStrand> strand = std::move(m_head);
    m_head = std::move(strand->m_next);
    const bool wake = m_head != nullptr && claim_wake_locked();
    guard.Leave();
    if (wake) {
        poller.Wake();
    }
    return strand;
}

// While the pool ends: the next strand whose turn is to run all the same, or null.
std::shared_ptr<CStrand> CReactor::take_ending_strand() {
    Ostra::CGuard guard(m_mutex);
    CStrand* before = nullptr;
    for (std::shared_ptr<CStrand>* link = &m_head; *link != nullptr; link = &(*link)->m_next) {
        if ((*link)->IsEnding()) {
            std::shared_ptr<CStrand> strand = std::move(*link);
            *link = std::move(strand->m_next);
            m_tail = *link == nullptr ? before : m_tail;
            return strand;
        }
        before = link->get();
    }
    return nullptr;
}

void CReactor::push_locked(std::shared_ptr<CStrand> strand) {
    std::shared_ptr<CStrand>& link = m_head == nullptr ? m_head : m_tail->m_next;
    m_tail = strand.get();
    link = std::move(strand);
}

// True if a thread sleeps and no wake-up is under way; the caller then owes the poller a Wake().
bool CReactor::claim_wake_locked() {
    if (m_idle == 0 || m_wake_sent) {
        return false;
    }
    m_wake_sent = true;
    return true;
}

void CReactor::poll(CEpollPoller& poller, bool sleeps) {
    CPollBatch batch;
    poller.Wait(batch, sleeps);
    {
        Ostra::CGuard guard(m_mutex);
        m_idle -= sleeps ? 1 : 0;
        m_wake_sent = m_wake_sent && !batch.woken;
    }
    if (batch.count == 0 && !batch.alarm) {
        return;
    }
    const uint64_t now = CEpollPoller::Now();
    t_is_gathering = true;
    for (int i = 0; i < batch.count; ++i) {
        m_socks.OnEvent(batch.events[i], now);
    }
    if (batch.alarm) {
        run_deadlines(now);
    }
    t_is_gathering = false;
}

void CReactor::run_deadlines(uint64_t now) {
    CTimerTarget due[DEADLINES_A_TAKE];
    size_t count = 0;
    do {
        count = m_timers.TakeDue(now, due, DEADLINES_A_TAKE);
        for (size_t i = 0; i < count; ++i) {
            const CTimerTarget& target = due[i];
            if (target.fd < 0) {
                target.core->OnTimer(static_cast<long>(target.serial), now);
            } else {
                m_socks.OnDeadline(target.core, target.fd, target.serial, now);
            }
        }
    } while (count == DEADLINES_A_TAKE);
    m_timers.ResetAlarm();
}

}  // namespace Tramel
}  // namespace Kavio
