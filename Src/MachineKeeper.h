#ifndef VIDORA_MACHINEKEEPER_H
#define VIDORA_MACHINEKEEPER_H

#include <cstdint>

#include "Protocol/RtspMsgInfo.h"

namespace Kavio {
namespace Vidora {

class CStateMachine;
class IState;

// CMachineKeeper: the owner's handle on its CStateMachine.
//
// THREADING
// The put and hold operations: any thread, at once. They may run the owner's operations on the calling thread before
// they return, so that no lock may be held that those want. Construction, set_state_obj, set_state and destruction:
// while no other call is under way, but for a put whose operations run just now.
//
// OWNERSHIP
// The keeper makes the machine; destroying the keeper posts the message that deletes it. No operation of the owner runs
// on another thread, and none begins, once the destructor has returned. While another thread runs one, the destructor
// waits for that one and for the messages that are queued; while the machine is held, for that one alone, since held
// messages don't run. So the owner destroys its keeper while it is whole, and holds no lock that its operations want.
// From inside an operation the destructor returns at once. The machine itself ends when the operation and the hold are
// over: the keeper may be destroyed inside the scope of a CMachineGuard, whatever the other threads do.
//
// If memory is short at construction there is no machine, and every operation fails.
class CMachineKeeper {
public:
    CMachineKeeper();
    ~CMachineKeeper();
    CMachineKeeper(const CMachineKeeper&) = delete;
    CMachineKeeper& operator=(const CMachineKeeper&) = delete;

    // Whether it has a state to be in, without which it runs nothing. Before the first event.
    bool valid() const;

    // Sets the machine's state `number`, 0 to 3; it owns `state` from then on, also on failure. 0 or -1.
    int set_state_obj(int number, IState* state);
    // Enters a state. 0 or -1.
    int set_state(int number);

    // Queues a received message, `length` bytes up to 4096, or runs it here and now. `id` 0 asks for a new identifier.
    // True if the machine took it, or dropped it because an asynchronous message came before. False for a null text or
    // one above 4096 bytes. False as well, with message 0x1000 posted, which ends the session, for an eleventh event in
    // flight.
    bool put_rx_event(const rtsp_msg_info& info, const char* text, uint32_t length, uint64_t id);
    // The same for a prepared text with its final NUL: a reply, whose `id` is that of the request's event, or a
    // client's request with `id` 0. `kind` is the caller's own. A `status` from 1 to 299 lets the machine enter the
    // state that waits for this reply.
    bool put_tx_event(int kind, const char* text, int status, uint64_t id);
    // Posts an asynchronous message. From the first one on no message or reply gets into the machine.
    void put_asyn_msg(uint32_t msg, uint64_t id);

    // Keeps asynchronous messages from running until release, which runs them. False if one came already: then there
    // is nothing to release. Used through CMachineGuard.
    bool hold();
    void release();

    // Whether no event runs or waits, and no reply is awaited.
    bool idle();

private:
    friend class CMachineGuard;

    CStateMachine* m_machine;
};

// CMachineGuard: holds a machine for a scope. The keeper may be destroyed inside the scope; see there.
class CMachineGuard {
public:
    explicit CMachineGuard(CMachineKeeper* machine_keeper);
    ~CMachineGuard();
    CMachineGuard(const CMachineGuard&) = delete;
    CMachineGuard& operator=(const CMachineGuard&) = delete;

    // Whether the machine is held; false when an asynchronous message came already.
    bool held() const { return m_machine != nullptr; }

private:
    CStateMachine* m_machine = nullptr;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MACHINEKEEPER_H
