#ifndef VIDORA_STATE_H
#define VIDORA_STATE_H

#include <cstdint>

#include "Protocol/RtspMsgInfo.h"

namespace Kavio {
namespace Vidora {

// Kinds of event that a state machine takes.
enum state_event_t {
    STATE_EVENT_RX = 0,      // a received message
    STATE_EVENT_TX = 1,      // a prepared reply (server) or request (client)
    STATE_EVENT_ASYN = 2,    // an asynchronous message
    STATE_EVENT_REFUSED = 3  // the number of kinds
};

// StateEvent: one event, with its text behind it. It is valid during the call that gets it.
struct StateEvent {
    int type;         // state_event_t
    uint32_t size;    // of the whole record: header and text, or 24 for STATE_EVENT_ASYN, which ends with `method`
    uint64_t id;      // event identifier; has nothing to do with CSeq
    int method;       // RX: rtsp_method_t. TX: the sender's kind, not looked at. ASYN: the message number
    int status;       // RX, TX: RTSP status, 0 for a request
    int cseq;         // RX: the CSeq. TX: 0
    uint32_t length;  // RX, TX: bytes of text

    // The text, `length` bytes and a NUL, of RX and TX events.
    const char* text() const { return reinterpret_cast<const char*>(this + 1); }
    char* text() { return reinterpret_cast<char*>(this + 1); }
    rtsp_msg_info info() const { return {method, status, cseq}; }
};

const uint32_t STATE_EVENT_TEXT_OFFSET = 32;
const uint32_t STATE_EVENT_ASYN_SIZE = 24;
static_assert(sizeof(StateEvent) == STATE_EVENT_TEXT_OFFSET, "the text follows the header");

// Results of a state's operations.
enum state_result_t {
    STATE_RESULT_FAIL = -1,  // the machine goes on waiting for a reply event, which nobody may ever send
    STATE_RESULT_INIT = 0,   // 0 to 3: enter that state
    STATE_RESULT_READY = 1,
    STATE_RESULT_PLAY = 2,
    STATE_RESULT_STAY = 4,       // done, the state stays
    STATE_RESULT_LATER = 4,      // added to a state: enter it when the reply event comes
    STATE_RESULT_STAY_LATER = 8  // wait for the reply event, then stay
};

// IState: one state of a CStateMachine. The machine calls it on one thread at a time and without its lock. Every
// operation returns a state_result_t; the defaults refuse.
class IState {
public:
    IState() = default;
    IState(const IState&) = delete;
    IState& operator=(const IState&) = delete;

    virtual int describe(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int setup(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int play(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int pause(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int teardown(const StateEvent&) { return STATE_RESULT_FAIL; }
    // Three further methods of RFC 2326; no dispatch leads to them.
    virtual int announce(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int record(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int redirect(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int options(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int set_parameter(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual int get_parameter(const StateEvent&) { return STATE_RESULT_FAIL; }
    virtual ~IState() = default;
    // Hands a prepared text to the transport.
    virtual int send(const char*, uint32_t) { return STATE_RESULT_FAIL; }
    virtual void asyn_msg(const StateEvent&) {}
    // A method that isn't in the table.
    virtual int unknown(const StateEvent&) { return STATE_RESULT_STAY; }
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STATE_H
