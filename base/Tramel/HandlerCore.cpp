#include "Tramel/HandlerCore.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Tramel/Reactor.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

namespace {

// Callbacks of one handler in a row before others get their turn.
constexpr int MAX_EVENTS_A_TURN = 16;

// Room of a handler's event queue at least. A session has several handlers.
constexpr size_t IDLE_EVENTS = 1;

// An emptied event queue with more room than this releases it.
constexpr size_t MAX_IDLE_EVENTS = 256;

// No period or time-out is longer; 30 years keep all sums far from the end of the number.
constexpr uint64_t MAX_PERIOD_US = 1000000000000000ULL;

std::atomic<long> g_next_timer_id{1};

}  // namespace

std::shared_ptr<CHandlerCore> CHandlerCore::Create(CNetHandler* handler) {
    CReactor& reactor = CReactor::Instance();
    const long id = reactor.Handlers().NewId();
    std::shared_ptr<CHandlerCore> core;
    try {
        core = std::make_shared<CHandlerCore>(reactor, handler, id);
        core->reserve_events();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return reactor.Handlers().Add(id, core) == 0 ? core : nullptr;
}

CHandlerCore::CHandlerCore(CReactor& reactor, CNetHandler* handler, long id)
    : m_reactor(reactor), m_id(id), m_place(handler), m_handler(handler) {}

std::shared_ptr<CHandlerCore> CHandlerCore::self() {
    return std::static_pointer_cast<CHandlerCore>(shared_from_this());
}

int CHandlerCore::RegisterSock(int fd, unsigned int mask, int64_t timeout_us) {
    if (fd < 0 || timeout_us < 0 || !m_reactor.TakesHandlers()) {
        return -1;
    }
    const uint64_t timeout = std::min(static_cast<uint64_t>(timeout_us), MAX_PERIOD_US);
    Ostra::CGuard guard(m_mutex);
    return note_sock_locked(fd) ? m_reactor.Socks().Watch(self(), fd, mask, timeout) : -1;
}

// False if the handler closes or has gone, or memory is short.
bool CHandlerCore::note_sock_locked(int fd) {
    if (m_closing.load() || m_handler == nullptr) {
        return false;
    }
    try {
        m_socks.insert(fd);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

int CHandlerCore::UnregisterSock(int fd, unsigned int mask) {
    return fd < 0 ? -1 : m_reactor.Socks().Unwatch(this, fd, mask);
}

int CHandlerCore::RemoveSock(int fd) {
    if (fd < 0) {
        return -1;
    }
    Ostra::CGuard guard(m_mutex);
    m_socks.erase(fd);
    return m_reactor.Socks().Remove(this, fd);
}

int CHandlerCore::RequestOutput(int fd) {
    if (fd < 0 || !m_reactor.TakesHandlers()) {
        return -1;
    }
    Ostra::CGuard guard(m_mutex);
    return note_sock_locked(fd) ? m_reactor.Socks().WatchOutputOnce(self(), fd) : -1;
}

void CHandlerCore::Resume() {
    Ostra::CGuard guard(m_mutex);
    for (const int fd : m_socks) {
        m_reactor.Socks().Resume(this, fd);
    }
}

long CHandlerCore::SetTimer(int64_t period_us) {
    if (period_us < 1 || !m_reactor.TakesHandlers()) {
        return 0;
    }
    CTimer timer = {};
    timer.id = g_next_timer_id.fetch_add(1);
    timer.period = std::min(static_cast<uint64_t>(period_us), MAX_PERIOD_US);
    timer.deadline = CEpollPoller::Now() + timer.period;
    Ostra::CGuard guard(m_mutex);
    if (m_closing.load() || m_handler == nullptr) {
        return 0;
    }
    try {
        m_timers.reserve(m_timers.size() + 1);
    } catch (const std::bad_alloc&) {
        return 0;
    }
    timer.handle = m_reactor.Timers().Add(timer.deadline, CTimerTarget{self(), -1, static_cast<uint64_t>(timer.id)});
    if (timer.handle == 0) {
        return 0;
    }
    m_timers.push_back(timer);
    return timer.id;
}

void CHandlerCore::DestroyTimer(long timer_id) {
    Ostra::CGuard guard(m_mutex);
    CTimer* timer = find_timer_locked(timer_id);
    if (timer != nullptr) {
        m_reactor.Timers().Cancel(timer->handle);
        m_timers.erase(m_timers.begin() + (timer - m_timers.data()));
    }
}

void CHandlerCore::OnTimer(long timer_id, uint64_t now) {
    Ostra::CGuard guard(m_mutex);
    CTimer* timer = find_timer_locked(timer_id);
    if (timer == nullptr) {
        return;
    }
    // A handler that was busy for several periods hears of them once.
    timer->queued = timer->queued || push_locked(CEvent{EVENT_TIMER, 0, timer_id, 0});
    const uint64_t next = timer->deadline + timer->period;
    timer->deadline = next > now ? next : now + timer->period;
    m_reactor.Timers().Rearm(timer->handle, timer->deadline);
    guard.Leave();
    Schedule();
}

void CHandlerCore::Close() {
    {
        Ostra::CGuard guard(m_mutex);
        if (m_closing.load() || m_handler == nullptr) {
            return;
        }
        m_closing.store(true);
        m_events.clear();
        m_first = 0;
    }
    release_registrations();
    Schedule();
}

void CHandlerCore::Abandon() {
    {
        Ostra::CGuard guard(m_mutex);
        m_handler = nullptr;
        m_events.clear();
        m_first = 0;
    }
    release_registrations();
    m_reactor.Handlers().Remove(m_id);
}

// Nothing is added any more when this is called.
void CHandlerCore::release_registrations() {
    Ostra::CGuard guard(m_mutex);
    for (const int fd : m_socks) {
        m_reactor.Socks().Remove(this, fd);
    }
    m_socks.clear();
    for (const CTimer& timer : m_timers) {
        m_reactor.Timers().Cancel(timer.handle);
    }
    m_timers.clear();
}

bool CHandlerCore::PostMessage(long sender_id, unsigned int msg, long param) {
    {
        Ostra::CGuard guard(m_mutex);
        if (!push_locked(CEvent{EVENT_MESSAGE, msg, sender_id, param})) {
            return false;
        }
    }
    Schedule();
    return true;
}

bool CHandlerCore::PostSock(int fd, uint64_t serial) {
    {
        Ostra::CGuard guard(m_mutex);
        if (!push_locked(CEvent{EVENT_SOCK, static_cast<unsigned int>(fd), static_cast<long>(serial), 0})) {
            return false;
        }
    }
    Schedule();
    return true;
}

bool CHandlerCore::push_locked(const CEvent& event) {
    if (m_closing.load() || m_handler == nullptr) {
        return true;
    }
    // Room that taken events left in front is used before more is asked for.
    if (m_events.size() == m_events.capacity() && m_first > 0 && m_first >= m_events.size() / 2) {
        m_events.erase(m_events.begin(), m_events.begin() + static_cast<std::ptrdiff_t>(m_first));
        m_first = 0;
    }
    try {
        m_events.push_back(event);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool CHandlerCore::RunTurn() {
    for (int i = 0; i < MAX_EVENTS_A_TURN; ++i) {
        if (m_closing.load()) {
            deliver_close();
            return false;
        }
        if (m_reactor.IsStopping() && !m_ending.load()) {
            return true;
        }
        CEvent event = {};
        CNetHandler* handler = nullptr;
        bool is_last = false;
        if (!take(event, handler, is_last)) {
            return false;
        }
        deliver(event, handler);
        if (is_last) {
            return IsDueAgain();  // what came meanwhile, the handler's own messages too, waits behind the others
        }
    }
    return true;
}

// So that an idle handler hears what is posted to it next, however short memory is then.
void CHandlerCore::reserve_events() {
    Ostra::CGuard guard(m_mutex);
    m_events.reserve(IDLE_EVENTS);
}

void CHandlerCore::give_room_back_locked() {
    try {
        std::vector<CEvent> small;
        small.reserve(IDLE_EVENTS);
        m_events.swap(small);
    } catch (const std::bad_alloc&) {
        // The large one serves as well.
    }
}

bool CHandlerCore::take(CEvent& event, CNetHandler*& handler, bool& is_last) {
    Ostra::CGuard guard(m_mutex);
    if (m_first == m_events.size()) {
        return false;
    }
    event = m_events[m_first++];
    handler = m_handler;
    is_last = m_first == m_events.size();
    if (is_last) {
        m_events.clear();
        m_first = 0;
        if (m_events.capacity() > MAX_IDLE_EVENTS) {
            give_room_back_locked();
        }
    }
    return true;
}

void CHandlerCore::deliver(const CEvent& event, CNetHandler* handler) {
    if (handler == nullptr) {
        return;
    }
    switch (event.kind) {
        case EVENT_MESSAGE:
            handler->handle_message(event.subject, event.number, event.param);
            break;
        case EVENT_SOCK:
            deliver_sock(static_cast<int>(event.number), static_cast<uint64_t>(event.subject), handler);
            break;
        case EVENT_TIMER:
            if (deliver_timer_starts(event.subject)) {
                handler->handle_timeout(event.subject);
            }
            break;
    }
}

void CHandlerCore::deliver_sock(int fd, uint64_t serial, CNetHandler* handler) {
    typedef int (CNetHandler::*callback_t)(int);
    static constexpr struct {
        unsigned int bit;
        callback_t event;
        callback_t timeout;
    } CALLS[] = {
        // An error first: its callback usually takes the socket out, and then there is nothing to read or write.
        {SOCK_EVENT_EXCEPTION, &CNetHandler::handle_exception, &CNetHandler::handle_exception_timeout},
        {SOCK_EVENT_READ, &CNetHandler::handle_input, &CNetHandler::handle_input_timeout},
        {SOCK_EVENT_WRITE, &CNetHandler::handle_output, &CNetHandler::handle_output_timeout},
    };
    CSockTable& socks = m_reactor.Socks();
    const CSockTable::CDelivery due = socks.Begin(this, fd, serial);
    CSockTable::CDelivery left = due;
    const bool is_one = due.timeouts == 0 && (due.events & (due.events - 1)) == 0;
    const auto call_if = [&](bool wanted, callback_t callback) {
        if (!wanted) {
            return;
        }
        (handler->*callback)(fd);
        // The callback may have removed the socket, closed the handler or deleted it: each takes the watch away.
        left = is_one ? CSockTable::CDelivery() : socks.Still(this, fd, serial);
    };
    for (const auto& call : CALLS) {
        call_if((due.events & left.events & call.bit) != 0, call.event);
        call_if((due.timeouts & left.timeouts & call.bit) != 0, call.timeout);
    }
    if (due.events != 0) {
        socks.End(this, fd, serial, due.events);
    }
}

bool CHandlerCore::deliver_timer_starts(long timer_id) {
    Ostra::CGuard guard(m_mutex);
    CTimer* timer = find_timer_locked(timer_id);
    if (timer == nullptr) {
        return false;
    }
    timer->queued = false;
    return true;
}

void CHandlerCore::deliver_close() {
    m_reactor.Handlers().Remove(m_id);
    CNetHandler* handler = nullptr;
    {
        Ostra::CGuard guard(m_mutex);
        std::swap(handler, m_handler);
    }
    if (handler != nullptr) {
        handler->handle_close(handler);
    }
}

CHandlerCore::CTimer* CHandlerCore::find_timer_locked(long timer_id) {
    for (CTimer& timer : m_timers) {
        if (timer.id == timer_id) {
            return &timer;
        }
    }
    return nullptr;
}

}  // namespace Tramel
}  // namespace Kavio
