#ifndef VIDORA_RTSPSTATE_H
#define VIDORA_RTSPSTATE_H

#include <memory>
#include <new>

#include "MachineKeeper.h"
#include "State.h"

namespace Kavio {
namespace Vidora {

// The states of an RTSP conversation, over the operations of an owner of type T. An owner's operation returns a
// negative number on failure, 0 when it is done, and a positive number when the reply follows later as a tx event with
// the event's identifier; the states turn that into a state_result_t.
//
// A server session has these operations (public, or with `friend struct RtspServerOwner<T>`):
//     int on_describe(const StateEvent&)       DESCRIBE in Init
//     int on_setup(const StateEvent&)          SETUP in Init, Ready and Play
//     int on_play(const StateEvent&)           PLAY in Ready
//     int on_replay(const StateEvent&)         PLAY in Play
//     int on_pause(const StateEvent&)          PAUSE in Play
//     int on_teardown(const StateEvent&)       TEARDOWN in any state, and so on down:
//     int on_options(const StateEvent&)
//     int on_set_parameter(const StateEvent&)
//     int on_get_parameter(const StateEvent&)
//     int on_unsupported(const StateEvent&)    ANNOUNCE, RECORD, REDIRECT
//     int send_data(const char* text, int length)
//     void on_asyn_msg(const StateEvent&)
// It may have these as well:
//     int on_unknown(const StateEvent&)        a method that isn't in the table
//     int on_refused(const StateEvent&, int result)  after a refusal, by a state (STATE_RESULT_FAIL) or with the
//                                              negative result of one of the above: 0 if it has answered
template <typename T>
struct RtspServerOwner {
    static int describe(T& owner, const StateEvent& event) { return owner.on_describe(event); }
    static int setup(T& owner, const StateEvent& event) { return owner.on_setup(event); }
    static int setup_again(T& owner, const StateEvent& event) { return owner.on_setup(event); }
    static int play(T& owner, const StateEvent& event) { return owner.on_play(event); }
    static int play_again(T& owner, const StateEvent& event) { return owner.on_replay(event); }
    static int pause(T& owner, const StateEvent& event) { return owner.on_pause(event); }
    static int teardown(T& owner, const StateEvent& event) { return owner.on_teardown(event); }
    static int options(T& owner, const StateEvent& event) { return owner.on_options(event); }
    static int set_parameter(T& owner, const StateEvent& event) { return owner.on_set_parameter(event); }
    static int get_parameter(T& owner, const StateEvent& event) { return owner.on_get_parameter(event); }
    static int unsupported(T& owner, const StateEvent& event) { return owner.on_unsupported(event); }
    static int unknown(T& owner, const StateEvent& event) { return unknown_of(owner, event, 0); }
    static int refused(T& owner, const StateEvent& event, int result) { return refused_of(owner, event, result, 0); }
    static int send(T& owner, const char* text, uint32_t length) {
        return owner.send_data(text, static_cast<int>(length));
    }
    static void asyn_msg(T& owner, const StateEvent& event) { owner.on_asyn_msg(event); }

private:
    // The last argument prefers the owner's own operation.
    template <typename Owner>
    static auto unknown_of(Owner& owner, const StateEvent& event, int) -> decltype(owner.on_unknown(event)) {
        return owner.on_unknown(event);
    }
    template <typename Owner>
    static int unknown_of(Owner&, const StateEvent&, long) {
        return 0;
    }
    template <typename Owner>
    static auto refused_of(Owner& owner, const StateEvent& event, int result, int)
        -> decltype(owner.on_refused(event, result)) {
        return owner.on_refused(event, result);
    }
    template <typename Owner>
    static int refused_of(Owner&, const StateEvent&, int result, long) {
        return result;
    }
};

// A client has these (public, or with `friend struct RtspClientOwner<T>`); each gets the reply to its method. An
// operation that sends the next request puts a tx event with identifier 0 and returns 0, since the machine runs that
// event as soon as the operation is over. A positive result would hold that event back, and after on_describe_reply the
// machine would refuse the next reply.
//     int on_describe_reply(const StateEvent&), on_setup_reply (Init), on_setup_reply_ready (Ready, Play),
//     on_play_reply (Ready, Play), on_pause_reply, on_teardown_reply, on_options_reply, on_set_parameter_reply,
//     on_get_parameter_reply
//     int on_unsupported(const StateEvent&)    ANNOUNCE, RECORD, REDIRECT
//     int send_request(const char* text, int length)
//     void on_async_msg(const StateEvent&)
template <typename T>
struct RtspClientOwner {
    static int describe(T& owner, const StateEvent& event) { return owner.on_describe_reply(event); }
    static int setup(T& owner, const StateEvent& event) { return owner.on_setup_reply(event); }
    static int setup_again(T& owner, const StateEvent& event) { return owner.on_setup_reply_ready(event); }
    static int play(T& owner, const StateEvent& event) { return owner.on_play_reply(event); }
    static int play_again(T& owner, const StateEvent& event) { return owner.on_play_reply(event); }
    static int pause(T& owner, const StateEvent& event) { return owner.on_pause_reply(event); }
    static int teardown(T& owner, const StateEvent& event) { return owner.on_teardown_reply(event); }
    static int options(T& owner, const StateEvent& event) { return owner.on_options_reply(event); }
    static int set_parameter(T& owner, const StateEvent& event) { return owner.on_set_parameter_reply(event); }
    static int get_parameter(T& owner, const StateEvent& event) { return owner.on_get_parameter_reply(event); }
    static int unsupported(T& owner, const StateEvent& event) { return owner.on_unsupported(event); }
    static int unknown(T&, const StateEvent&) { return 0; }
    static int refused(T&, const StateEvent&, int result) { return result; }
    static int send(T& owner, const char* text, uint32_t length) {
        return owner.send_request(text, static_cast<int>(length));
    }
    static void asyn_msg(T& owner, const StateEvent& event) { owner.on_async_msg(event); }
};

// Which of the two an owner is. A client's header says so, before its states are made:
//     template <> struct RtspStateOwner<CRtspClient> : RtspClientOwner<CRtspClient> {};
template <typename T>
struct RtspStateOwner : RtspServerOwner<T> {};

// The state_result_t of an owner's result; a refusal stays as it is.
inline int state_result(int result, int done, int later) {
    return result < 0 ? result : result == 0 ? done : later;
}

// CInitState: no stream is set up. PLAY and PAUSE are refused, and the peer gets no answer.
template <typename T>
class CInitState : public IState {
public:
    explicit CInitState(T* owner) : m_owner(owner) {}

    int describe(const StateEvent& event) override {
        return state_result(RtspStateOwner<T>::describe(*m_owner, event), STATE_RESULT_STAY, STATE_RESULT_STAY_LATER);
    }
    int setup(const StateEvent& event) override {
        return state_result(RtspStateOwner<T>::setup(*m_owner, event), STATE_RESULT_READY,
                            STATE_RESULT_READY + STATE_RESULT_LATER);
    }

private:
    T* m_owner;
};

// CReadyState: streams are set up and don't flow.
template <typename T>
class CReadyState : public IState {
public:
    explicit CReadyState(T* owner) : m_owner(owner) {}

    int setup(const StateEvent& event) override {
        return state_result(RtspStateOwner<T>::setup_again(*m_owner, event), STATE_RESULT_STAY, STATE_RESULT_STAY);
    }
    int play(const StateEvent& event) override {
        return state_result(RtspStateOwner<T>::play(*m_owner, event), STATE_RESULT_PLAY,
                            STATE_RESULT_PLAY + STATE_RESULT_LATER);
    }

private:
    T* m_owner;
};

// CPlayState: streams flow.
template <typename T>
class CPlayState : public IState {
public:
    explicit CPlayState(T* owner) : m_owner(owner) {}

    int setup(const StateEvent& event) override {
        return state_result(RtspStateOwner<T>::setup_again(*m_owner, event), STATE_RESULT_STAY, STATE_RESULT_STAY);
    }
    int play(const StateEvent& event) override {
        return state_result(RtspStateOwner<T>::play_again(*m_owner, event), STATE_RESULT_PLAY,
                            STATE_RESULT_PLAY + STATE_RESULT_LATER);
    }
    int pause(const StateEvent& event) override {
        return state_result(RtspStateOwner<T>::pause(*m_owner, event), STATE_RESULT_READY,
                            STATE_RESULT_READY + STATE_RESULT_LATER);
    }

private:
    T* m_owner;
};

// CRecordState: no path leads here, and every method is refused.
template <typename T>
class CRecordState : public IState {
public:
    explicit CRecordState(T*) {}
};

// CRtspState: what the machine sees of a state. DESCRIBE, SETUP, PLAY and PAUSE depend on the inner state, which it
// owns; all else goes to the owner, whatever the state.
template <typename T>
class CRtspState : public IState {
public:
    CRtspState(T* owner, IState* state) : m_owner(owner), m_state(state) {}
    ~CRtspState() override { delete m_state; }

    int describe(const StateEvent& event) override { return settle(event, m_state->describe(event)); }
    int setup(const StateEvent& event) override { return settle(event, m_state->setup(event)); }
    int play(const StateEvent& event) override { return settle(event, m_state->play(event)); }
    int pause(const StateEvent& event) override { return settle(event, m_state->pause(event)); }
    int teardown(const StateEvent& event) override {
        const int result = RtspStateOwner<T>::teardown(*m_owner, event);
        return settle(event, state_result(result, STATE_RESULT_INIT, STATE_RESULT_INIT));
    }
    int announce(const StateEvent& event) override {
        return stay(event, RtspStateOwner<T>::unsupported(*m_owner, event));
    }
    int record(const StateEvent& event) override {
        return stay(event, RtspStateOwner<T>::unsupported(*m_owner, event));
    }
    int redirect(const StateEvent& event) override {
        return stay(event, RtspStateOwner<T>::unsupported(*m_owner, event));
    }
    int options(const StateEvent& event) override { return stay(event, RtspStateOwner<T>::options(*m_owner, event)); }
    int set_parameter(const StateEvent& event) override {
        return stay(event, RtspStateOwner<T>::set_parameter(*m_owner, event));
    }
    int get_parameter(const StateEvent& event) override {
        return stay(event, RtspStateOwner<T>::get_parameter(*m_owner, event));
    }
    int send(const char* text, uint32_t length) override {
        return state_result(RtspStateOwner<T>::send(*m_owner, text, length), STATE_RESULT_STAY, STATE_RESULT_STAY);
    }
    void asyn_msg(const StateEvent& event) override { RtspStateOwner<T>::asyn_msg(*m_owner, event); }
    int unknown(const StateEvent& event) override { return stay(event, RtspStateOwner<T>::unknown(*m_owner, event)); }

private:
    int stay(const StateEvent& event, int result) {
        return settle(event, state_result(result, STATE_RESULT_STAY, STATE_RESULT_STAY));
    }
    // A refusal that the owner answers leaves everything as it was.
    int settle(const StateEvent& event, int result) {
        return result >= 0                                               ? result
               : RtspStateOwner<T>::refused(*m_owner, event, result) < 0 ? result
                                                                         : STATE_RESULT_STAY;
    }

    T* m_owner;
    IState* m_state;
};

// Sets the state `number` of the keeper's machine around a new inner state. 0, or -1 if memory is short.
template <typename Inner, typename T>
int add_rtsp_state(CMachineKeeper& keeper, int number, T* owner) {
    std::unique_ptr<IState> inner(new (std::nothrow) Inner(owner));
    if (inner == nullptr) {
        return -1;
    }
    IState* state = new (std::nothrow) CRtspState<T>(owner, inner.get());
    if (state == nullptr) {
        return -1;
    }
    inner.release();
    return keeper.set_state_obj(number, state);
}

// Makes the four states over `owner` and enters Init; what an owner's init_state_machine does. `owner` must outlive the
// machine's events. 0, or -1 if memory is short: then the machine refuses everything.
template <typename T>
int init_rtsp_states(CMachineKeeper& keeper, T* owner) {
    if (add_rtsp_state<CInitState<T>>(keeper, 0, owner) < 0 || add_rtsp_state<CReadyState<T>>(keeper, 1, owner) < 0 ||
        add_rtsp_state<CPlayState<T>>(keeper, 2, owner) < 0 || add_rtsp_state<CRecordState<T>>(keeper, 3, owner) < 0) {
        return -1;
    }
    return keeper.set_state(0);
}

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPSTATE_H
