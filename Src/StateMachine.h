#ifndef VIDORA_STATEMACHINE_H
#define VIDORA_STATEMACHINE_H

#include <atomic>
#include <cstdint>
#include <thread>

#include "State.h"
#include "Vidora/Names.h"
#include "Vidora/SeqList.h"

namespace Kavio {
namespace Vidora {

// The largest event: its header, and the largest RTSP message as its text.
const uint32_t MAX_MESSAGE_SIZE = 4096;
const uint32_t MAX_EVT_SIZE = STATE_EVENT_TEXT_OFFSET + MAX_MESSAGE_SIZE;

// CStateMachine: serialises the events of one RTSP conversation and runs them, one at a time, on whatever thread finds
// the machine free. A request whose reply follows later holds the machine: further messages wait until the event with
// the same identifier comes. The first asynchronous message (the source failed, the connection broke) ends that: from
// then on only such messages run.
//
// THREADING
// Any thread may put an event. m_mutex is not held while a state's operation runs, so that an operation may put events
// into its own machine; those are queued.
//
// OWNERSHIP
// Owns its states. It deletes itself when MSG_MACHINE_DESTROY runs, the only way that it ends.
//
// MEMORY
// An event is on the heap, with its text, while it waits or runs. A peer can make it keep ten messages of 4 kB; the
// eleventh ends the session.
class CStateMachine {
public:
    CStateMachine();
    virtual ~CStateMachine();
    CStateMachine(const CStateMachine&) = delete;
    CStateMachine& operator=(const CStateMachine&) = delete;

    // Before the first event. set_state_obj takes the state over, also on failure; 0, or -1 for a number outside 0
    // to 3. set_state enters 0 to 4, where 4 is "no state"; 0 or -1.
    int set_state_obj(int number, IState* state);
    int set_state(int number);
    // Before the first event.
    bool has_state() const { return m_state != nullptr; }

    // An event of `event_size` bytes in all, behind which there is room for a NUL, with a new identifier if `id` is 0.
    // Null when ten are in flight, or memory is short; but an asynchronous message then gets m_spare_event with its own
    // identifier, and so never null.
    StateEvent* GetEvent(int type, uint32_t event_size, uint64_t id);

    // Runs or queues an event of type rx or tx. 0, or negative on failure. The machine may be gone on return.
    int deliver(StateEvent* event);
    // The same for an asynchronous event, which becomes message `msg`. A message that finds m_spare_event still waiting
    // for its turn takes the place of the one in it, unless that one is fatal, MSG_SESSION_BROKEN.
    int deliver_asyn(StateEvent* event, uint32_t msg);

    // What the keeper's put_asyn_msg does. The machine may be gone on return.
    void put_asyn_msg(uint32_t msg, uint64_t id);

    // The owner is going: posts MSG_MACHINE_DESTROY, once, in an event that nothing else uses. No operation runs on
    // another thread when it returns: if one runs, it waits for that one and for the messages that are queued behind
    // it. While the machine is held none of these may run, so it waits for that one operation alone, and never for the
    // hold, which can be the caller's own. From inside an operation it returns at once. No operation begins after it;
    // the machine ends when the operation and the hold are over.
    void destroy();

    // Holds asynchronous messages back. False if one came already.
    bool hold();
    // Ends one hold and runs what came meanwhile. The machine may be gone then.
    void release();

    // Whether no event is in flight, and no reply is awaited.
    bool idle();

private:
    typedef int (CStateMachine::*event_handler_t)(StateEvent&);
    struct CDestroyWait;

    static const int STATE_COUNT = 4;
    static const int LIST_SIZE = 20;
    static const int MAX_EVENTS = 10;

    // Results: the event that is to run, null for none; 0 or negative. admit: 0 if the caller is to run the event.
    StateEvent* new_event(uint32_t event_size);
    int admit(StateEvent* event);
    StateEvent* admit_asyn_locked(StateEvent* event, uint32_t msg) VIDORA_REQUIRES(m_mutex);
    void set_busy_locked() VIDORA_REQUIRES(m_mutex);
    void drop_messages_locked() VIDORA_REQUIRES(m_mutex);
    void queue_asyn_locked(StateEvent* event) VIDORA_REQUIRES(m_mutex);
    StateEvent* pop_asyn_locked() VIDORA_REQUIRES(m_mutex);
    StateEvent* runnable_locked(StateEvent* event) VIDORA_REQUIRES(m_mutex);
    int execute(StateEvent* first);
    StateEvent* next_event();
    StateEvent* next_event_locked() VIDORA_REQUIRES(m_mutex);
    void free_event(StateEvent* event);
    void set_wait_id(uint64_t id);

    int process_rx_msg_event(StateEvent& event);
    int process_tx_msg_event(StateEvent& event);
    int process_asyn_msg_event(StateEvent& event);
    int dispatch(const StateEvent& event);
    void end();

    CMutex m_mutex;
    bool m_busy VIDORA_GUARDED_BY(m_mutex) = false;       // some thread executes events,
    std::thread::id m_runner VIDORA_GUARDED_BY(m_mutex);  // this one
    int m_hold_count VIDORA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_asyn_mask VIDORA_GUARDED_BY(m_mutex) = 0;   // all asynchronous messages so far, by OR; never cleared
    bool m_owner_gone VIDORA_GUARDED_BY(m_mutex) = false;  // nothing but MSG_MACHINE_DESTROY may run
    CDestroyWait* m_destroy_wait VIDORA_GUARDED_BY(m_mutex) = nullptr;  // to be told once no operation runs
    StateEvent* m_matched_event VIDORA_GUARDED_BY(m_mutex) = nullptr;   // the awaited one, come while busy
    uint64_t m_wait_id VIDORA_GUARDED_BY(m_mutex) = 0;                  // of the request being served; 0 for none
    uint64_t m_next_id VIDORA_GUARDED_BY(m_mutex);
    SeqList<StateEvent> m_rx_list VIDORA_GUARDED_BY(m_mutex);
    SeqList<StateEvent> m_asyn_list VIDORA_GUARDED_BY(m_mutex);
    StateEvent* m_rx_nodes[LIST_SIZE];
    StateEvent* m_asyn_nodes[LIST_SIZE];
    StateEvent m_spare_event VIDORA_GUARDED_BY(m_mutex);    // for an asynchronous message when the pool is empty,
    bool m_spare_waits VIDORA_GUARDED_BY(m_mutex) = false;  // in m_asyn_list now
    StateEvent m_end_event VIDORA_GUARDED_BY(m_mutex);      // for MSG_MACHINE_DESTROY

    // Touched before the first event, then only by the thread that made the machine busy.
    StateEvent m_spare_copy;  // of m_spare_event while it runs, so that the next message can wait in that
    IState* m_states[STATE_COUNT] = {};
    IState* m_state = nullptr;
    int m_next_state = 0;  // the state's number, or that of the state to enter when the awaited event comes

    std::atomic<int> m_events_in_flight{0};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STATEMACHINE_H
