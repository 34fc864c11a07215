#include "StateMachine.h"

#include <sys/mman.h>

#include <condition_variable>
#include <mutex>

#include "Vidora/Types.h"

// AddressSanitizer watches heap memory only.
#if defined(__SANITIZE_ADDRESS__)
#define VIDORA_HEAP_MACHINE
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VIDORA_HEAP_MACHINE
#endif
#endif

namespace Kavio {
namespace Vidora {

namespace {

// Identifiers from here down are not pool nodes' own.
const uint64_t FIRST_EVENT_ID = 0x2012;
const uint64_t SPARE_EVENT_ID = 0x2011;
const int NO_STATE = 4;  // stands in m_next_state only
const int STATUS_OK = 200;

typedef int (IState::*state_slot_t)(const StateEvent&);

// By rtsp_method_t; an unknown method, 8, has none.
const state_slot_t STATE_SLOTS[] = {&IState::options,       &IState::describe,     &IState::setup,
                                    &IState::play,          &IState::pause,        &IState::teardown,
                                    &IState::set_parameter, &IState::get_parameter};

}  // namespace

// Lets the thread that destroys the keeper wait for the one that runs an event.
struct CStateMachine::CDestroyWait {
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_done = false;

    void Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_condition.wait(lock, [this] { return m_done; });
    }
    void Done() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
        m_condition.notify_one();
    }
};

// Fresh pages of the system take no memory until they are touched, while memory that the heap hands out again may be
// resident. Huge pages would make the whole pool resident at once.
#ifdef VIDORA_HEAP_MACHINE

void* CStateMachine::operator new(size_t size, const std::nothrow_t&) noexcept {
    return ::operator new(size, std::nothrow);
}

void CStateMachine::operator delete(void* memory, size_t) noexcept {
    ::operator delete(memory);
}

void CStateMachine::operator delete(void* memory, const std::nothrow_t&) noexcept {
    ::operator delete(memory);
}

#else

void* CStateMachine::operator new(size_t size, const std::nothrow_t&) noexcept {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    madvise(memory, size, MADV_NOHUGEPAGE);
    return memory;
}

void CStateMachine::operator delete(void* memory, size_t size) noexcept {
    munmap(memory, size);
}

void CStateMachine::operator delete(void* memory, const std::nothrow_t&) noexcept {
    munmap(memory, sizeof(CStateMachine));
}

#endif

CStateMachine::CStateMachine() : m_next_id(FIRST_EVENT_ID) {
    m_rx_list.Init(m_rx_nodes, LIST_SIZE);
    m_asyn_list.Init(m_asyn_nodes, LIST_SIZE);
    m_pool.Init(m_pool_memory, POOL_SIZE, NODE_SIZE);
}

CStateMachine::~CStateMachine() {
    for (IState* state : m_states) {
        delete state;
    }
}

int CStateMachine::set_state_obj(int number, IState* state) {
    if (number < 0 || number >= STATE_COUNT) {
        delete state;
        return -1;
    }
    delete m_states[number];
    m_states[number] = state;
    return 0;
}

int CStateMachine::set_state(int number) {
    if (number < 0 || number > NO_STATE) {
        return -1;
    }
    m_state = number < STATE_COUNT ? m_states[number] : nullptr;
    m_next_state = number;
    return 0;
}

StateEvent* CStateMachine::GetEvent(int type, uint32_t event_size, uint64_t id) {
    if (!OSTRA_ASSERT(event_size <= MAX_EVT_SIZE)) {
        return nullptr;
    }
    StateEvent* event = static_cast<StateEvent*>(m_pool.Get());
    const CGuard guard(m_mutex);
    if (event != nullptr) {
        event->id = id != 0 ? id : ++m_next_id;
    } else if (type == STATE_EVENT_ASYN) {
        event = take_spare();
    } else {
        logError("%s:%d too many message, invalid rtsp flow!\n", "Vidora::CStateMachine::GetEvent", __LINE__);
    }
    if (event != nullptr) {
        event->type = type;
        event->size = event_size;
    }
    return event;
}

StateEvent* CStateMachine::take_spare() {
    const CGuard guard(m_mutex);
    for (int i = 0; i < SPARE_COUNT; ++i) {
        if (!m_spare_used[i]) {
            m_spare_used[i] = true;
            m_spare_event[i].id = SPARE_EVENT_ID;
            return &m_spare_event[i];
        }
    }
    return nullptr;
}

bool CStateMachine::is_spare(const StateEvent* event) const {
    return event >= m_spare_event && event <= &m_spare_event[DESTROY_EVENT];
}

// A spare record is free again as soon as its message runs, so one in use waits. One of each message is enough: what
// the first one ends, the second one needn't end again, and a peer that keeps the pool full can't use up the records.
bool CStateMachine::already_waits(const StateEvent* event, uint32_t msg) {
    const CGuard guard(m_mutex);
    for (int i = 0; is_spare(event) && i < SPARE_COUNT; ++i) {
        if (m_spare_used[i] && &m_spare_event[i] != event && static_cast<uint32_t>(m_spare_event[i].method) == msg) {
            return true;
        }
    }
    return false;
}

int CStateMachine::deliver(StateEvent* event) {
    if (event == nullptr || event->type < STATE_EVENT_RX || event->type >= STATE_EVENT_REFUSED) {
        return 0;
    }
    return admit(event) < 0 ? 0 : execute(event);
}

// 0 if the caller is to run the event; otherwise it is queued or dropped.
int CStateMachine::admit(StateEvent* event) {
    const CGuard guard(m_mutex);
    if (m_asyn_mask != 0) {  // the conversation is ending
        free_event(event);
        return -1;
    }
    if (!m_busy && (m_wait_id == 0 || m_wait_id == event->id)) {
        m_busy = true;
        m_runner = std::this_thread::get_id();
        return 0;
    }
    if (event->id == m_wait_id) {
        if (m_matched_event != nullptr) {
            free_event(m_matched_event);
        }
        m_matched_event = event;
    } else if (m_rx_list.Push(event) < 0) {
        free_event(event);
    }
    return -1;
}

void CStateMachine::put_asyn_msg(uint32_t msg, uint64_t id) {
    StateEvent* asyn_msg = GetEvent(STATE_EVENT_ASYN, STATE_EVENT_ASYN_SIZE, id);
    if (!OSTRA_ASSERT(asyn_msg)) {
        return;
    }
    if (already_waits(asyn_msg, msg)) {
        free_event(asyn_msg);
        return;
    }
    asyn_msg->method = static_cast<int>(msg);
    deliver_asyn(asyn_msg);
}

int CStateMachine::deliver_asyn(StateEvent* event) {
    if (event == nullptr || event->type != STATE_EVENT_ASYN) {
        return -1;
    }
    {
        const CGuard guard(m_mutex);
        // After a fatal message later ones are shed. Their nodes stay taken: the session is ending.
        const bool shed = m_asyn_mask >= MSG_SESSION_BROKEN && event->id != m_wait_id;
        if (event->method != MSG_MACHINE_DESTROY && shed) {
            if (is_spare(event)) {
                free_event(event);
            }
            return -1;
        }
        m_asyn_mask |= static_cast<uint32_t>(event->method);
        if (m_busy || m_hold_count > 0) {
            return m_asyn_list.Push(event);
        }
        m_busy = true;
        m_runner = std::this_thread::get_id();
    }
    return execute(event);
}

int CStateMachine::execute(StateEvent* first) {
    static const event_handler_t handlers[] = {&CStateMachine::process_rx_msg_event,
                                               &CStateMachine::process_tx_msg_event,
                                               &CStateMachine::process_asyn_msg_event};
    for (StateEvent* event = first; event != nullptr; event = next_event()) {
        StateEvent copy;  // of a spare record, which is free for the next message while this one runs
        const bool spare = is_spare(event);
        if (spare) {
            copy = *event;
            free_event(event);
        }
        StateEvent& current = spare ? copy : *event;
        const event_handler_t handler = handlers[current.type];
        const int result = (this->*handler)(current);
        if (result == MSG_MACHINE_DESTROY) {
            return 0;  // the machine is gone
        }
        if (result < 0) {
            logWarn("%s:%d:%s exception occured!\n", __FILE__, __LINE__, "Vidora::CStateMachine::execute");
        }
        if (!spare) {
            free_event(event);
        }
    }
    return 0;
}

// The next event that may run now; without one the machine is free again.
StateEvent* CStateMachine::next_event() {
    const CGuard guard(m_mutex);
    StateEvent* event = nullptr;
    if (m_asyn_mask != 0) {
        event = m_hold_count < 1 ? m_asyn_list.Pop() : nullptr;
        while (m_owner_gone && event != nullptr && event->method != MSG_MACHINE_DESTROY) {
            free_event(event);
            event = m_asyn_list.Pop();
        }
    } else if (m_wait_id != 0) {
        event = m_matched_event;
        m_matched_event = nullptr;
    } else {
        event = m_rx_list.Pop();
    }
    m_busy = event != nullptr;
    return event;
}

void CStateMachine::free_event(StateEvent* event) {
    if (is_spare(event)) {
        const CGuard guard(m_mutex);
        m_spare_used[event - m_spare_event] = false;
    } else if (event->id >= FIRST_EVENT_ID) {
        m_pool.Put(event);
    }
}

void CStateMachine::set_wait_id(uint64_t id) {
    const CGuard guard(m_mutex);
    m_wait_id = id;
}

int CStateMachine::process_rx_msg_event(StateEvent& event) {
    if (event.size < STATE_EVENT_TEXT_OFFSET) {
        return -1;
    }
    if (event.status > 0) {  // a reply from the peer, at a client
        if (event.status <= STATUS_OK && m_next_state != NO_STATE) {
            set_state(m_next_state);
        } else {
            return event.status >= 400 ? logWarn("%s:%d status:%d\n", __FILE__, __LINE__, event.status) : -1;
        }
    }
    set_wait_id(event.id);
    if (event.method < 0 || event.method > RTSP_METHOD_UNKNOWN) {
        return 0;
    }
    const int result = dispatch(event);
    if (result < 0) {
        // The wait goes on. A refused request gets no answer, later ones queue behind it, and the keep-alive ends the
        // connection: peers of this system know it so, and it stays.
        return -1;
    }
    if (result > NO_STATE) {
        m_next_state = result - STATE_RESULT_LATER;
        return 0;
    }
    set_wait_id(0);
    if (result != STATE_RESULT_STAY) {
        set_state(result);
    }
    return 0;
}

// Gives the event to the current state; an unknown method calls nothing.
int CStateMachine::dispatch(const StateEvent& event) {
    if (event.method == RTSP_METHOD_UNKNOWN) {
        return STATE_RESULT_STAY;
    }
    const state_slot_t slot = STATE_SLOTS[event.method];
    return m_state != nullptr ? (m_state->*slot)(event) : STATE_RESULT_FAIL;
}

int CStateMachine::process_tx_msg_event(StateEvent& event) {
    if (event.size < STATE_EVENT_TEXT_OFFSET) {
        return -1;
    }
    if (event.status >= 1 && event.status <= 299 && m_next_state != NO_STATE) {
        set_state(m_next_state);
    }
    set_wait_id(0);
    if (event.length == 0) {
        return 0;
    }
    return m_state != nullptr ? m_state->send(event.text(), event.length) : STATE_RESULT_FAIL;
}

int CStateMachine::process_asyn_msg_event(StateEvent& event) {
    if (event.size < STATE_EVENT_ASYN_SIZE) {
        return -1;
    }
    if (event.method == MSG_MACHINE_DESTROY) {
        CDestroyWait* wait = nullptr;
        {
            const CGuard guard(m_mutex);
            wait = m_destroy_wait;
        }
        delete this;
        if (wait != nullptr) {
            wait->Done();
        }
        return MSG_MACHINE_DESTROY;
    }
    set_wait_id(event.id);
    if (m_state != nullptr) {
        m_state->asyn_msg(event);
    }
    return 0;
}

void CStateMachine::destroy() {
    CDestroyWait wait;
    bool waits = false;
    {
        const CGuard guard(m_mutex);
        if (m_busy && m_runner == std::this_thread::get_id()) {
            m_owner_gone = true;
        } else if (m_busy && m_hold_count < 1) {
            m_destroy_wait = &wait;
            waits = true;
        }
    }
    StateEvent& event = m_spare_event[DESTROY_EVENT];  // ready whatever else is in flight
    event.type = STATE_EVENT_ASYN;
    event.size = STATE_EVENT_ASYN_SIZE;
    event.id = SPARE_EVENT_ID;
    event.method = MSG_MACHINE_DESTROY;
    deliver_asyn(&event);
    if (waits) {
        wait.Wait();
    }
}

int CStateMachine::keep(int operation) {
    StateEvent* event = nullptr;
    {
        const CGuard guard(m_mutex);
        if (operation == 1) {
            if (m_asyn_mask != 0) {
                return -1;
            }
            ++m_hold_count;
            return 0;
        }
        --m_hold_count;
        if (m_hold_count != 0 || m_busy || m_asyn_list.Empty()) {
            return 0;
        }
        logDebug("tracepoint: %s, %d.\n", __FILE__, __LINE__);
        m_busy = true;
        m_runner = std::this_thread::get_id();
        event = m_asyn_list.Pop();
    }
    return execute(event);
}

}  // namespace Vidora
}  // namespace Kavio
