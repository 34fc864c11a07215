#include "Tramel/Reactor.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <new>
#include <system_error>
#include <utility>

#include "Tramel/HandlerCore.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

namespace {

// Turns that a thread runs before it looks at the poller again while there is no end of them: those that were due when
// it looked last, since what comes now would be queued behind them, and this number at least.
constexpr size_t MIN_TURNS_A_POLL = 8;

// Deadlines taken from the queue at a time.
constexpr size_t DEADLINES_A_TAKE = 64;

// A thread that rests is called when the one that polled has been out for that long. Longer than the 4 ms from one tick
// of a usual system's clock to the next: an alarm behind the next tick is set and cleared without touching the
// processor's timer, which costs several microseconds on a virtual machine.
constexpr uint64_t HELP_AFTER_US = 5000;

// A spare thread is added when nobody has polled for that long, and nobody rests.
constexpr uint64_t HELD_UP_AFTER_US = 500000;

// A thread that has rested for that long leaves while there are spare ones.
constexpr int SPARE_IDLE_MS = 2000;
constexpr uint64_t SPARE_IDLE_US = SPARE_IDLE_MS * 1000U;

// Polls in a row with an event of a descriptor that nobody watches, after which the poller is made anew.
constexpr unsigned int MAX_STRANGE_POLLS = 16;

thread_local bool t_is_pool_thread = false;
// What this thread gathers from the poller, or null while it doesn't.
thread_local CStrandQueue* t_gathered = nullptr;

// Threads that are made in its scope take no signal: those are the host's.
class CNoSignals {
public:
    CNoSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_former);
    }
    ~CNoSignals() { pthread_sigmask(SIG_SETMASK, &m_former, nullptr); }
    CNoSignals(const CNoSignals&) = delete;
    CNoSignals& operator=(const CNoSignals&) = delete;

private:
    sigset_t m_former;
};

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
    if (t_is_pool_thread) {
        return m_running.load() ? 0 : -1;
    }
    Ostra::CGuard guard(m_control);
    if (m_running.load() || m_stopping.load()) {
        return m_running.load() ? 0 : -1;
    }
    std::shared_ptr<CPollers> pollers;
    try {
        pollers = std::make_shared<CPollers>();
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (pollers->events.Open() != 0 || pollers->help.Open() != 0 || pollers->watch.Open() != 0) {
        return -1;
    }
    set_pollers(pollers);
    m_may_grow = threads > 1;
    m_running.store(true);
    if (start_threads(threads, pollers) != 0) {
        Stop();
        return -1;
    }
    return 0;
}

int CReactor::start_threads(unsigned int threads, const std::shared_ptr<CPollers>& pollers) {
    for (unsigned int i = 0; i < threads; ++i) {
        if (!start_thread(pollers)) {
            return -1;
        }
    }
    if (!m_may_grow) {
        return 0;
    }
    try {
        const CNoSignals none;
        m_watcher = std::thread([this, pollers] { watch(pollers); });
    } catch (const std::system_error&) {
        return -1;
    } catch (const std::bad_alloc&) {
        return -1;
    }
    pthread_setname_np(m_watcher.native_handle(), "vidora-watch");
    return 0;
}

// False if the system has none.
bool CReactor::start_thread(const std::shared_ptr<CPollers>& pollers) {
    const CNoSignals none;
    const size_t before = m_threads.size();
    try {
        m_threads.emplace_back();
        CPoolThread& added = m_threads.back();
        added.thread = std::thread([this, pollers, &added] { work(pollers, added.has_left); });
        pthread_setname_np(added.thread.native_handle(), "vidora");
        return true;
    } catch (const std::system_error&) {
    } catch (const std::bad_alloc&) {
    }
    m_threads.resize(before);
    return false;
}

int CReactor::Stop() {
    if (t_is_pool_thread) {
        return -1;
    }
    std::shared_ptr<CPollers> pollers;
    {
        Ostra::CGuard control(m_control);
        Ostra::CGuard guard(m_mutex);
        if (!m_running.load()) {
            return -1;
        }
        m_stopping.store(true);
        m_running.store(false);
        pollers = m_pollers;
    }
    pollers->watch.Wake();
    if (m_watcher.joinable()) {
        m_watcher.join();
    }
    pollers->events.Wake();
    pollers->help.Wake();  // each thread that ends wakes the next
    for (CPoolThread& ended : m_threads) {
        ended.thread.join();
    }
    m_threads.clear();
    m_spares.store(0);
    set_pollers(nullptr);
    m_stopping.store(false);
    return 0;
}

void CReactor::set_pollers(const std::shared_ptr<CPollers>& pollers) {
    {
        Ostra::CGuard guard(m_mutex);
        m_pollers = pollers;
        m_wake_sent = false;
        m_help_at = 0;
        m_watched = false;
    }
    const std::shared_ptr<CEpollPoller> events(pollers, pollers != nullptr ? &pollers->events : nullptr);
    m_socks.SetPoller(events);
    m_timers.SetPoller(events);
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

int CReactor::Drain(CNetHandler& owner, int fd) {
    return fd < 0 ? -1 : m_socks.Drain(owner.m_core.get(), fd);
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
    if (t_gathered != nullptr) {
        t_gathered->Push(std::move(strand));
        return;
    }
    std::shared_ptr<CPollers> to_wake;
    {
        Ostra::CGuard guard(m_mutex);
        m_queue.Push(std::move(strand));
        if (m_asleep && !m_wake_sent) {
            m_wake_sent = true;
            to_wake = m_pollers;
        }
    }
    if (to_wake != nullptr) {
        to_wake->events.Wake();
    }
}

void CReactor::work(const std::shared_ptr<CPollers>& pollers, std::atomic<bool>& has_left) {
    t_is_pool_thread = true;
    size_t turns = MIN_TURNS_A_POLL;
    while (!m_stopping.load()) {
        std::shared_ptr<CStrand> strand;
        const role_t role = next_role(*pollers, turns > 0, strand);
        if (role == ROLE_RUN) {
            strand->run();
            turns -= turns > 0 ? 1 : 0;
        } else if (role == ROLE_REST) {
            if (!rest(*pollers)) {
                has_left.store(true);
                pollers->watch.Wake();
                return;
            }
            turns = MIN_TURNS_A_POLL;
        } else {
            turns = std::max(MIN_TURNS_A_POLL, poll(*pollers, role == ROLE_POLL));
        }
    }
    while (const std::shared_ptr<CStrand> strand = take_ending_strand()) {
        strand->run();
    }
    pollers->events.Wake();
    pollers->help.Wake();
}

// Enters the role that it returns; for ROLE_RUN with the next strand. `may_run` is false when it is time to look for
// events again.
CReactor::role_t CReactor::next_role(CPollers& pollers, bool may_run, std::shared_ptr<CStrand>& strand) {
    Ostra::CGuard guard(m_mutex);
    const bool idle = m_queue.IsEmpty();
    if (!idle && (may_run || m_polled)) {
        strand = m_queue.Take();
        if (!m_polled) {
            call_others_locked(pollers);
        }
        return ROLE_RUN;
    }
    if (m_polled) {
        ++m_resting;
        return ROLE_REST;
    }
    m_polled = true;
    ++m_polls;
    m_asleep = idle && !m_stopping.load();
    // While it is called often, the alarm is left alone, and wakes a thread in vain each HELP_AFTER_US at most.
    if (m_asleep && m_help_at != 0 && !m_called_often) {
        m_help_at = 0;
        pollers.help.ClearAlarm();
    }
    return m_asleep ? ROLE_POLL : ROLE_LOOK;
}

std::shared_ptr<CStrand> CReactor::take_ending_strand() {
    Ostra::CGuard guard(m_mutex);
    return m_queue.TakeEnding();
}

// A thread leaves for a turn, and nobody polls: sees to it that another one will, should that take long.
void CReactor::call_others_locked(CPollers& pollers) {
    if (m_resting == 0 && !m_watched && m_may_grow) {
        set_watch_locked(pollers);
    } else if (m_resting > 0 && m_help_at == 0) {
        set_help_locked(pollers, m_busy_since);
    }
}

// The call for help of one that has been out since `from`.
void CReactor::set_help_locked(CPollers& pollers, uint64_t from) {
    m_help_at = from + HELP_AFTER_US;
    pollers.help.SetAlarm(m_help_at);
}

// The number of strands that are due then.
size_t CReactor::poll(CPollers& pollers, bool sleeps) {
    CPollBatch batch;
    m_socks.BeginPoll();
    pollers.events.Wait(batch, sleeps ? CEpollPoller::FOREVER : 0);
    const uint64_t now = CEpollPoller::Now();
    CStrandQueue gathered;
    t_gathered = &gathered;
    gather(pollers, batch, now);
    t_gathered = nullptr;
    Ostra::CGuard guard(m_mutex);
    m_polled = false;
    m_asleep = false;
    m_wake_sent = m_wake_sent && !batch.woken;
    // Behind a full batch there may have been more: this thread hadn't caught up when it began to wait.
    if (sleeps && !m_behind) {
        m_called_often = now < m_busy_since + HELP_AFTER_US;
        m_busy_since = now;
    }
    m_behind = batch.count == CPollBatch::MAX_EVENTS;
    m_queue.Append(gathered);
    return m_queue.Size();
}

void CReactor::gather(CPollers& pollers, const CPollBatch& batch, uint64_t now) {
    bool strangers = false;
    m_socks.Fetch(batch);
    for (int i = 0; i < batch.count; ++i) {
        strangers = !m_socks.OnEvent(batch.events[i], now) || strangers;
    }
    if (batch.alarm) {
        run_deadlines(now);
    }
    follow_strangers(pollers, strangers);
}

// A descriptor that was removed while its event was on the way is heard of once. One whose number was closed, while the
// file lives on in another process, would be heard of for ever, and only a new poller knows nothing of it.
void CReactor::follow_strangers(CPollers& pollers, bool came) {
    m_strange_polls = came ? m_strange_polls + 1 : 0;
    if (m_strange_polls == MAX_STRANGE_POLLS) {
        m_strange_polls = 0;
        std::shared_ptr<CPollers> ours;
        {
            Ostra::CGuard guard(m_mutex);
            ours = m_pollers;
        }
        if (pollers.events.Renew() == 0) {
            m_socks.SetPoller(std::shared_ptr<CEpollPoller>(ours, &ours->events));
        }
    }
}

// Waits until there is something to do for this thread: help, or the end of the pool. False if it is to leave.
bool CReactor::rest(CPollers& pollers) {
    const uint64_t since = CEpollPoller::Now();
    bool leaves = false;
    CPollBatch batch;
    do {
        pollers.help.Wait(batch, m_spares.load() > 0 ? SPARE_IDLE_MS : CEpollPoller::FOREVER);
    } while (rest_goes_on(pollers, batch, since, leaves));
    return !leaves;
}

bool CReactor::rest_goes_on(CPollers& pollers, const CPollBatch& batch, uint64_t since, bool& leaves) {
    const uint64_t now = CEpollPoller::Now();
    Ostra::CGuard guard(m_mutex);
    m_help_at = batch.alarm ? 0 : m_help_at;
    const bool is_called = m_stopping.load() || (!m_polled && now >= m_busy_since + HELP_AFTER_US);
    leaves = !is_called && m_polled && m_spares.load() > 0 && now >= since + SPARE_IDLE_US;
    if (!is_called && !leaves) {
        if (!m_polled && m_help_at == 0) {
            set_help_locked(pollers, m_busy_since);
        }
        return true;
    }
    --m_resting;
    if (leaves) {
        m_spares.fetch_sub(1);
    } else {
        m_busy_since = now;  // the next one is called in as much time again
    }
    return false;
}

void CReactor::set_watch_locked(CPollers& pollers) {
    m_watched = true;
    m_polls_seen = m_polls;
    pollers.watch.SetAlarm(CEpollPoller::Now() + HELD_UP_AFTER_US);
}

// The thread that watches: adds spare ones, and joins those that have left.
void CReactor::watch(const std::shared_ptr<CPollers>& pollers) {
    while (!m_stopping.load()) {
        CPollBatch batch;
        pollers->watch.Wait(batch, CEpollPoller::FOREVER);
        join_left();
        if (batch.alarm && needs_spare(*pollers) && !start_thread(pollers)) {
            m_spares.fetch_sub(1);
        }
    }
}

// True if all threads are held up; the spare one is counted then. The alarm is set anew as long as nobody is free.
bool CReactor::needs_spare(CPollers& pollers) {
    Ostra::CGuard guard(m_mutex);
    m_watched = false;
    if (m_polled || m_resting > 0 || m_stopping.load()) {
        return false;
    }
    const bool are_held_up = m_polls == m_polls_seen && m_spares.load() < MAX_SPARES;
    m_spares.fetch_add(are_held_up ? 1 : 0);
    set_watch_locked(pollers);
    return are_held_up;
}

void CReactor::join_left() {
    m_threads.remove_if([](CPoolThread& thread) {
        const bool has_left = thread.has_left.load();
        if (has_left) {
            thread.thread.join();
        }
        return has_left;
    });
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
