#ifndef VIDORA_STATEMACHINE_H
#define VIDORA_STATEMACHINE_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <thread>

#include "State.h"
#include "Vidora/Names.h"
#include "Vidora/NodePool.h"
#include "Vidora/SeqList.h"

namespace Kavio {
namespace Vidora {

// The largest event: header and text. One more byte in each node takes the text's NUL.
const uint32_t MAX_EVT_SIZE = 4096;

// CStateMachine: serialises the events of one RTSP conversation and runs them, one at a time, on whatever thread finds
// the machine free. A request whose reply follows later holds the machine: further messages wait until the event with
// the same identifier comes.
//
// THREADING  Any thread may put an event. m_mutex is not held while a state's operation runs, so that an operation may
// put
//            events into its own machine; those are queued.
// OWNERSHIP  Owns its states. It deletes itself when MSG_MACHINE_DESTROY runs, the only way that it ends.
// MEMORY     One block of fixed size, taken from the system as untouched pages: a machine that serves one short request
// at
//            a time has one page of its 40 kB pool resident. A peer can make it keep ten messages of 4 kB; the eleventh
//            ends the session.
class CStateMachine {
public:
    CStateMachine();
    virtual ~CStateMachine();
    CStateMachine(const CStateMachine&) = delete;
    CStateMachine& operator=(const CStateMachine&) = delete;

    // Only the form without exceptions: `new (std::nothrow)`.
    static void* operator new(size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* memory, size_t size) noexcept;
    static void operator delete(void* memory, const std::nothrow_t&) noexcept;

    // Before the first event. set_state_obj takes the state over, also on failure; 0, or -1 for a number outside 0
    // to 3. set_state enters 0 to 4, where 4 is "no state"; 0 or -1.
    int set_state_obj(int number, IState* state);
    int set_state(int number);

    // Takes an event from the pool, with `event_size` bytes in all, and with a new identifier if `id` is 0. Null when
    // ten are in flight; an asynchronous message then takes a spare record, and gets null only when all of those wait.
    StateEvent* GetEvent(int type, uint32_t event_size, uint64_t id);

    // Runs or queues an event of type rx or tx. 0, or negative on failure. The machine may be gone on return.
    int deliver(StateEvent* event);
    // The same for an asynchronous message. -1 if it was shed.
    int deliver_asyn(StateEvent* event);

    // What the keeper's put_asyn_msg does. The machine may be gone on return.
    void put_asyn_msg(uint32_t msg, uint64_t id);

    // The owner is going: posts MSG_MACHINE_DESTROY and returns when no operation of the owner runs or will run on
    // another thread. Called from inside an operation it doesn't wait; then what is queued is dropped.
    void destroy();

    // Operation 1 holds asynchronous messages back: 0, or -1 if one came already. Operation 2 ends one hold and runs
    // what came meanwhile: 0.
    int keep(int operation);

private:
    typedef int (CStateMachine::*event_handler_t)(StateEvent&);
    struct CDestroyWait;

    static const int STATE_COUNT = 4;
    static const int LIST_SIZE = 20;
    static const int POOL_SIZE = 10;
    static const int SPARE_COUNT = 8;              // one for each message that may come
    static const int DESTROY_EVENT = SPARE_COUNT;  // index of the record that is kept for MSG_MACHINE_DESTROY
    static const uint16_t NODE_SIZE = MAX_EVT_SIZE + 16;

    int admit(StateEvent* event);
    int execute(StateEvent* first);
    StateEvent* next_event();
    void free_event(StateEvent* event);
    bool is_spare(const StateEvent* event) const;
    StateEvent* take_spare();
    bool already_waits(const StateEvent* event, uint32_t msg);
    void set_wait_id(uint64_t id);

    int process_rx_msg_event(StateEvent& event);
    int process_tx_msg_event(StateEvent& event);
    int process_asyn_msg_event(StateEvent& event);
    int dispatch(const StateEvent& event);

    CMutex m_mutex;
    bool m_busy VIDORA_GUARDED_BY(m_mutex) = false;  // some thread executes events
    std::thread::id m_runner VIDORA_GUARDED_BY(m_mutex);
    int m_hold_count VIDORA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_asyn_mask VIDORA_GUARDED_BY(m_mutex) = 0;  // all asynchronous messages so far, by OR; never cleared
    bool m_owner_gone VIDORA_GUARDED_BY(m_mutex) = false;
    CDestroyWait* m_destroy_wait VIDORA_GUARDED_BY(m_mutex) = nullptr;
    StateEvent* m_matched_event VIDORA_GUARDED_BY(m_mutex) = nullptr;  // the awaited one, come while busy
    uint64_t m_wait_id VIDORA_GUARDED_BY(m_mutex) = 0;                 // of the request being served; 0 for none
    uint64_t m_next_id VIDORA_GUARDED_BY(m_mutex);
    SeqList<StateEvent> m_rx_list VIDORA_GUARDED_BY(m_mutex);
    SeqList<StateEvent> m_asyn_list VIDORA_GUARDED_BY(m_mutex);
    StateEvent* m_rx_nodes[LIST_SIZE];
    StateEvent* m_asyn_nodes[LIST_SIZE];
    StateEvent m_spare_event[SPARE_COUNT + 1];  // for asynchronous messages when the pool is empty
    bool m_spare_used[SPARE_COUNT + 1] VIDORA_GUARDED_BY(m_mutex) = {};

    // Touched before the first event, then only by the thread that made the machine busy.
    IState* m_states[STATE_COUNT] = {};
    IState* m_state = nullptr;
    int m_next_state = 0;  // the state's number, or that of the state to enter when the awaited event comes

    NodePool m_pool;
    // Never initialised, so that its pages stay untouched; the last member, so that the rest fits one page.
    alignas(std::max_align_t) unsigned char m_pool_memory[POOL_SIZE * NODE_SIZE];
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STATEMACHINE_H
