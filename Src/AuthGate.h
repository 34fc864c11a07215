#ifndef VIDORA_AUTHGATE_H
#define VIDORA_AUTHGATE_H

#include <atomic>
#include <string>
#include <thread>

#include "Protocol/RtspMsgInfo.h"
#include "Vidora/AuthModule.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// What the gate needs of the conversation that it guards. All but WakeGate run on the conversation's strand.
class IAuthGateOwner {
public:
    virtual ~IAuthGateOwner() = default;

    // Serves a request that was held. False if it can't be.
    virtual bool PassRequest(const rtsp_msg_info& info, const char* text, unsigned int length) = 0;
    // Answers that request with 401 and the challenge. False if it can't.
    virtual bool SendChallenge(const char* request, unsigned int length, const char* challenge) = 0;
    // Ends the conversation.
    virtual void BreakOff() = 0;
    // Arranges a call of CAuthGate::TakeAnswer on the strand. Any thread.
    virtual void WakeGate() = 0;
};

// CAuthGate: the authentication in front of one conversation: each message passes, or begins a dialogue with the host's
// module.
//
// The first request without credentials is kept while the module makes a challenge, and answered with it; one with
// credentials is kept while the module judges them. Once they are accepted nothing is examined any more.
//
// THREADING  The conversation's strand, but for the module's answer: inside the module's operation it is served at
//            once, so that a second request of the same read finds the first one judged. On any other thread it is
//            stored, and the owner's strand takes it.
// OWNERSHIP  Owns the module, and releases it in Release, at the latest by its destructor. The owner outlives it.
// MEMORY     A peer can make it keep one request, the module one challenge and one answer.
class CAuthGate {
public:
    explicit CAuthGate(IAuthGateOwner& owner) : m_owner(owner) {}
    ~CAuthGate() { Release(); }
    CAuthGate(const CAuthGate&) = delete;
    CAuthGate& operator=(const CAuthGate&) = delete;

    // Puts `module` in front; null leaves the conversation free. `checks_onvif`: whether a URL of ONVIF's form needs
    // authentication as well; otherwise the first request with one frees the whole connection. `conformance`: how
    // requests are read, which must be as the conversation reads them.
    void Open(IAuthModule* module, bool checks_onvif, bool conformance);
    // Releases the module. No answer is taken after it.
    void Release();

    // What Check can't judge.
    enum failure_t {
        UNREAD = -2,  // the request can't be read
        BUSY = -3     // another one is being judged
    };

    // 1: the message passes. 0: the gate has taken it. A failure_t, or -1: the conversation has to end. `peer` is the
    // client's address.
    int Check(const rtsp_msg_info& info, const char* buffer, int length, const CSockAddrStorage& peer);
    // Whether Check would look at a message at all.
    bool Guards() const { return m_module != nullptr && m_state != AUTH_PASSED; }
    // What comes from now on, on another connection of the same client, is judged like the first request.
    void Rearm();
    // Serves an answer that waits.
    void TakeAnswer();

private:
    // The numbers are those of the log.
    enum state_t { AUTH_IDLE = 0, AUTH_PASSED = 2, AUTH_CHALLENGING = 12, AUTH_VERIFYING = 20 };
    // What becomes of the request that was judged.
    enum verdict_t { VERDICT_PASS, VERDICT_CHALLENGE, VERDICT_BREAK, VERDICT_NONE };
    // The module's answer to a question.
    struct Answer {
        bool waits = false;
        IAuthModule::auth_result_t result = IAuthModule::AUTH_RESULT_DENIED;
        bool has_text = false;
        std::string text;
    };

    int judge_request(const rtsp_msg_info& info, const char* buffer, int length, const CSockAddrStorage& peer);
    void tell_request(const char* buffer, int length, const char* url);
    int ask_challenge(const char* url, const CSockAddrStorage& peer);
    int ask_verdict(const char* response, bool onvif);
    int repeat_challenge(const char* buffer, int length);
    bool save_request(const rtsp_msg_info& info, const char* buffer, int length);
    void on_challenge_result(IAuthModule::auth_result_t result, const char* auth_info);
    void take_result(IAuthModule::auth_result_t result, const char* auth_info);
    verdict_t judge(IAuthModule::auth_result_t result, const char* auth_info);
    verdict_t judge_challenge(IAuthModule::auth_result_t result, const char* auth_info);
    void challenge_saved_request();
    void pass_saved_request();

    IAuthGateOwner& m_owner;
    IAuthModule* m_module = nullptr;
    bool m_checks_onvif = false;
    bool m_conformance = false;
    state_t m_state = AUTH_IDLE;
    bool m_passes_once = false;  // the request that is judged frees itself alone
    std::string m_challenge;     // for a 401
    rtsp_msg_info m_saved_info;
    std::string m_saved_request;                               // held while the module thinks
    std::atomic<std::thread::id> m_caller{std::thread::id()};  // the thread that is inside the module now
    CMutex m_mutex;
    Answer m_answer VIDORA_GUARDED_BY(m_mutex);  // of another thread, not taken yet
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_AUTHGATE_H
