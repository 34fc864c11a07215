#include "StateMachine.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <new>

#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

// An event with a smaller identifier is the machine's own.
const uint64_t FIRST_EVENT_ID = 0x2012;
const uint64_t SPARE_EVENT_ID = 0x2011;
const uint64_t END_EVENT_ID = 0x2010;
const int NO_STATE = 4;  // in m_next_state only
const int STATUS_OK = 200;
const int LAST_SUCCESS = 299;
const int FIRST_REFUSAL = 400;

typedef int (IState::*state_slot_t)(const StateEvent&);

// By rtsp_method_t; an unknown method, 8, has none.
const state_slot_t STATE_SLOTS[] = {&IState::options,       &IState::describe,     &IState::setup,
                                    &IState::play,          &IState::pause,        &IState::teardown,
                                    &IState::set_parameter, &IState::get_parameter};

}  // namespace

// Lets the thread that destroys the keeper wait until the one that runs an event has left the owner's operations.
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

CStateMachine::CStateMachine()
    : m_next_id(FIRST_EVENT_ID),
      m_spare_event{STATE_EVENT_ASYN, STATE_EVENT_ASYN_SIZE, SPARE_EVENT_ID, 0, 0, 0, 0},
      m_end_event{STATE_EVENT_ASYN, STATE_EVENT_ASYN_SIZE, END_EVENT_ID, 0, 0, 0, 0},
      m_spare_copy(m_spare_event) {
    m_rx_list.Init(m_rx_nodes, LIST_SIZE);
    m_asyn_list.Init(m_asyn_nodes, LIST_SIZE);
}

CStateMachine::~CStateMachine() {
    const CGuard guard(m_mutex);
    drop_messages_locked();
    while (StateEvent* event = m_asyn_list.Pop()) {
        free_event(event);
    }
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

StateEvent* CStateMachine::new_event(uint32_t event_size) {
    const size_t size = std::max(size_t{event_size}, sizeof(StateEvent)) + 1;  // a NUL follows the text
    void* memory = m_events_in_flight++ < MAX_EVENTS ? ::operator new(size, std::nothrow) : nullptr;
    if (memory == nullptr) {
        --m_events_in_flight;
    }
    return static_cast<StateEvent*>(memory);
}

StateEvent* CStateMachine::GetEvent(int type, uint32_t event_size, uint64_t id) {
    if (!OSTRA_ASSERT(event_size <= MAX_EVT_SIZE)) {
        return nullptr;
    }
    StateEvent* event = new_event(event_size);
    if (event == nullptr) {
        if (type == STATE_EVENT_ASYN) {
            return &m_spare_event;
        }
        logError("%s:%d too many message, invalid rtsp flow!\n", "Vidora::CStateMachine::GetEvent", __LINE__);
        return nullptr;
    }
    event->type = type;
    event->size = event_size;
    if (id == 0) {
        const CGuard guard(m_mutex);
        id = ++m_next_id;
    }
    event->id = id;
    return event;
}

int CStateMachine::deliver(StateEvent* event) {
    if (event == nullptr) {
        return 0;
    }
    if (event->type < STATE_EVENT_RX || event->type >= STATE_EVENT_REFUSED) {
        free_event(event);
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
        set_busy_locked();
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

void CStateMachine::set_busy_locked() {
    m_busy = true;
    m_runner = std::this_thread::get_id();
}

void CStateMachine::put_asyn_msg(uint32_t msg, uint64_t id) {
    StateEvent* asyn_msg = GetEvent(STATE_EVENT_ASYN, STATE_EVENT_ASYN_SIZE, id);
    if (OSTRA_ASSERT(asyn_msg)) {
        deliver_asyn(asyn_msg, msg);
    }
}

int CStateMachine::deliver_asyn(StateEvent* event, uint32_t msg) {
    StateEvent* first = nullptr;
    {
        const CGuard guard(m_mutex);
        first = admit_asyn_locked(event, msg);
    }
    return execute(first);
}

// The event if the caller is to run it; null if it is queued or dropped.
StateEvent* CStateMachine::admit_asyn_locked(StateEvent* event, uint32_t msg) {
    // After a fatal message later ones are shed, but for an answer to the one that ran last.
    if (msg != MSG_MACHINE_DESTROY && m_asyn_mask >= MSG_SESSION_BROKEN && event->id != m_wait_id) {
        free_event(event);
        return nullptr;
    }
    if (m_asyn_mask == 0) {
        drop_messages_locked();
    }
    m_asyn_mask |= msg;
    if (event == &m_spare_event && m_spare_waits && event->method == MSG_SESSION_BROKEN) {
        return nullptr;
    }
    event->method = static_cast<int>(msg);
    if (m_busy || m_hold_count > 0) {
        queue_asyn_locked(event);
        return nullptr;
    }
    set_busy_locked();
    return runnable_locked(event);
}

// From the first asynchronous message on none of these can run. Their places are for the messages to come: with an
// event of its own a message has the identifier that it was given, by which an answer is known after a fatal one.
void CStateMachine::drop_messages_locked() {
    if (m_matched_event != nullptr) {
        free_event(m_matched_event);
        m_matched_event = nullptr;
    }
    while (StateEvent* event = m_rx_list.Pop()) {
        free_event(event);
    }
}

// The list has room for ten events, m_end_event, and m_spare_event once.
void CStateMachine::queue_asyn_locked(StateEvent* event) {
    const bool spare = event == &m_spare_event;
    if (!spare || !m_spare_waits) {
        m_asyn_list.Push(event);
    }
    m_spare_waits = m_spare_waits || spare;
}

StateEvent* CStateMachine::pop_asyn_locked() {
    StateEvent* event = m_asyn_list.Pop();
    while (m_owner_gone && event != nullptr && event->method != MSG_MACHINE_DESTROY) {
        free_event(event);
        event = m_asyn_list.Pop();
    }
    return event != nullptr ? runnable_locked(event) : nullptr;
}

StateEvent* CStateMachine::runnable_locked(StateEvent* event) {
    if (event != &m_spare_event) {
        return event;
    }
    m_spare_waits = false;
    m_spare_copy = m_spare_event;
    return &m_spare_copy;
}

int CStateMachine::execute(StateEvent* first) {
    static const event_handler_t handlers[] = {&CStateMachine::process_rx_msg_event,
                                               &CStateMachine::process_tx_msg_event,
                                               &CStateMachine::process_asyn_msg_event};
    for (StateEvent* event = first; event != nullptr; event = next_event()) {
        const event_handler_t handler = handlers[event->type];
        const int result = (this->*handler)(*event);
        if (result == MSG_MACHINE_DESTROY) {
            return 0;  // the machine is gone
        }
        if (result < 0) {
            logWarn("%s:%d:%s exception occured!\n", __FILE__, __LINE__, "Vidora::CStateMachine::execute");
        }
        free_event(event);
    }
    return 0;
}

// The next event that may run now; without one the machine is free again, and may be gone when this returns.
StateEvent* CStateMachine::next_event() {
    StateEvent* event = nullptr;
    CDestroyWait* wait = nullptr;
    {
        const CGuard guard(m_mutex);
        event = next_event_locked();
        m_busy = event != nullptr;
        if (!m_busy) {
            wait = m_destroy_wait;
            m_destroy_wait = nullptr;
        }
    }
    if (wait != nullptr) {
        wait->Done();
    }
    return event;
}

StateEvent* CStateMachine::next_event_locked() {
    if (m_asyn_mask != 0) {
        return m_hold_count < 1 ? pop_asyn_locked() : nullptr;
    }
    // What was awaited when it came runs, also if the wait has ended since: nobody else would ever take it.
    StateEvent* matched = m_matched_event;
    m_matched_event = nullptr;
    if (matched != nullptr || m_wait_id != 0) {
        return matched;
    }
    return m_rx_list.Pop();
}

// Of the machine's own events one may have lent its identifier: an answer to it is on the heap all the same.
void CStateMachine::free_event(StateEvent* event) {
    if (event != &m_spare_event && event != &m_spare_copy && event != &m_end_event) {
        ::operator delete(event);
        --m_events_in_flight;
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
        // A success that finds NO_STATE here is refused like a redirection: a client's operation that sends the next
        // request mustn't return STATE_RESULT_STAY_LATER. The order of these tests is fixed.
        if (event.status <= STATUS_OK && m_next_state != NO_STATE) {
            set_state(m_next_state);
        } else {
            return event.status >= FIRST_REFUSAL ? logWarn("%s:%d status:%d\n", __FILE__, __LINE__, event.status) : -1;
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

int CStateMachine::dispatch(const StateEvent& event) {
    if (event.method == RTSP_METHOD_UNKNOWN) {
        return m_state != nullptr ? m_state->unknown(event) : STATE_RESULT_STAY;
    }
    const state_slot_t slot = STATE_SLOTS[event.method];
    return m_state != nullptr ? (m_state->*slot)(event) : STATE_RESULT_FAIL;
}

int CStateMachine::process_tx_msg_event(StateEvent& event) {
    if (event.size < STATE_EVENT_TEXT_OFFSET) {
        return -1;
    }
    if (event.status > 0 && event.status <= LAST_SUCCESS && m_next_state != NO_STATE) {
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
        end();
        return MSG_MACHINE_DESTROY;
    }
    set_wait_id(event.id);
    if (m_state != nullptr) {
        m_state->asyn_msg(event);
    }
    return 0;
}

// Nothing of the machine is touched after this.
void CStateMachine::end() {
    CDestroyWait* wait = nullptr;
    {
        const CGuard guard(m_mutex);
        wait = m_destroy_wait;
    }
    delete this;
    if (wait != nullptr) {
        wait->Done();
    }
}

void CStateMachine::destroy() {
    CDestroyWait wait;
    StateEvent* event = nullptr;
    bool waits = false;
    {
        const CGuard guard(m_mutex);
        waits = m_busy && m_runner != std::this_thread::get_id();
        m_destroy_wait = waits ? &wait : nullptr;
        m_owner_gone = !waits || m_hold_count > 0;
        event = admit_asyn_locked(&m_end_event, MSG_MACHINE_DESTROY);
    }
    execute(event);
    if (waits) {
        wait.Wait();
    }
}

bool CStateMachine::hold() {
    const CGuard guard(m_mutex);
    if (m_asyn_mask != 0) {
        return false;
    }
    ++m_hold_count;
    return true;
}

void CStateMachine::release() {
    StateEvent* event = nullptr;
    {
        const CGuard guard(m_mutex);
        --m_hold_count;
        if (m_hold_count != 0 || m_busy || m_asyn_list.Empty()) {
            return;
        }
        logDebug("tracepoint: %s, %d.\n", __FILE__, __LINE__);
        set_busy_locked();
        event = pop_asyn_locked();
    }
    execute(event);
}

bool CStateMachine::idle() {
    const CGuard guard(m_mutex);
    return !m_busy && m_wait_id == 0 && m_events_in_flight == 0;
}

}  // namespace Vidora
}  // namespace Kavio
