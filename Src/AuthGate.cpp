#include "AuthGate.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Protocol/RtspRspParser.h"
#include "Tramel/StrParser.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t MAX_METHOD_SIZE = 64;  // the rest of a longer word is not told: no method is
const int AUTH_KIND = 2000;         // the last argument of the module's operations
const char ANY_OPTIONS[] = "OPTIONS *";
const char CREDENTIALS[] = "Authorization:";
const char ONVIF_MARK[] = ".OnvifInterDomain";  // shows the module which table of users to look into

// False if memory is short.
bool set_text(std::string& to, const char* text, size_t length) {
    try {
        to.assign(text, length);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool holds_text(const char* buffer, int length, const char* text) {
    CStrParser parser(buffer, static_cast<unsigned int>(length));
    return parser.LocateString(text) >= 0;
}

bool is_onvif_url(const char* url) {
    const unsigned int length = static_cast<unsigned int>(strlen(url));
    CRtspUrlParser parser;
    return length > 0 && parser.ParseUrl(url, length) && parser.GetLocalStreamProto() == STREAM_PROTO_ONVIF;
}

}  // namespace

void CAuthGate::Open(IAuthModule* module, bool checks_onvif, bool conformance) {
    m_module = module;
    m_checks_onvif = checks_onvif;
    m_conformance = conformance;
}

void CAuthGate::Release() {
    if (m_module != nullptr) {
        m_module->Release();
        m_module = nullptr;
    }
}

int CAuthGate::Check(const rtsp_msg_info& info, const char* buffer, int length, const CSockAddrStorage& peer) {
    if (!Guards() || strncmp(buffer, ANY_OPTIONS, sizeof(ANY_OPTIONS) - 1) == 0) {
        return 1;
    }
    return judge_request(info, buffer, length, peer);
}

int CAuthGate::judge_request(const rtsp_msg_info& info, const char* buffer, int length, const CSockAddrStorage& peer) {
    std::unique_ptr<CRtspRspParser> parser(new (std::nothrow) CRtspRspParser);
    if (!parser) {
        return -1;
    }
    parser->SetConformance(m_conformance);
    if (parser->parse_request(buffer, static_cast<unsigned int>(length), nullptr) != 0) {
        return UNREAD;
    }
    const bool onvif = is_onvif_url(parser->get_url());
    if (onvif && !m_checks_onvif) {
        m_state = AUTH_PASSED;
        return 1;
    }
    if (m_state != AUTH_IDLE) {
        // A client mustn't send a second request before the first has been judged.
        logError("%s:%d auth check processing, new request arrive, state error, refused\n", __FILE__, __LINE__);
        return BUSY;
    }
    const bool has_credentials =
        m_conformance ? parser->get_auth()[0] != '\0' : holds_text(buffer, length, CREDENTIALS);
    const bool first_contact = m_challenge.empty() && !has_credentials;
    if (!first_contact && parser->get_auth()[0] == '\0') {
        return repeat_challenge(buffer, length);
    }
    if (!save_request(info, buffer, length)) {
        return -1;
    }
    tell_request(buffer, length, parser->get_url());
    return first_contact ? ask_challenge(parser->get_url(), peer) : ask_verdict(parser->get_auth(), onvif);
}

void CAuthGate::tell_request(const char* buffer, int length, const char* url) {
    CStrParser text(buffer, static_cast<unsigned int>(length));
    text.ConsumeWhitespace();
    char method[MAX_METHOD_SIZE];
    text.ConsumeWord(method, sizeof(method));
    m_module->SetRequest(method, url);
}

// The first contact.
int CAuthGate::ask_challenge(const char* url, const CSockAddrStorage& peer) {
    char peer_ip[128];
    peer.GetIpStr(peer_ip, sizeof(peer_ip));  // an IPv4-mapped address without its prefix
    m_state = AUTH_CHALLENGING;
    m_caller = std::this_thread::get_id();
    m_module->GetChallenge(url, IAuthModule::result_proc_t(this, &CAuthGate::on_challenge_result), peer_ip, AUTH_KIND);
    m_caller = std::thread::id();
    return 0;
}

int CAuthGate::ask_verdict(const char* response, bool onvif) {
    std::string value;
    try {
        value = response;
        value += onvif ? ONVIF_MARK : "";
    } catch (const std::bad_alloc&) {
        return -1;
    }
    m_state = AUTH_VERIFYING;
    m_caller = std::this_thread::get_id();
    m_module->ProcessChallenge(value.c_str(), IAuthModule::result_proc_t(this, &CAuthGate::on_challenge_result),
                               AUTH_KIND);
    m_caller = std::thread::id();
    return 0;
}

// A request without credentials after a challenge.
int CAuthGate::repeat_challenge(const char* buffer, int length) {
    if (!m_owner.SendChallenge(buffer, static_cast<unsigned int>(length), m_challenge.c_str())) {
        logError("%s:%d, put event failed.\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

bool CAuthGate::save_request(const rtsp_msg_info& info, const char* buffer, int length) {
    m_saved_info = info;
    return set_text(m_saved_request, buffer, static_cast<size_t>(length));
}

// The module's answer, on any thread.
void CAuthGate::on_challenge_result(IAuthModule::auth_result_t result, const char* auth_info) {
    if (m_caller.load() == std::this_thread::get_id()) {
        take_result(result, auth_info);
        return;
    }
    {
        CGuard guard(m_mutex);
        m_answer.waits = true;
        m_answer.result = result;
        m_answer.has_text = auth_info != nullptr && set_text(m_answer.text, auth_info, strlen(auth_info));
    }
    m_owner.WakeGate();
}

void CAuthGate::Rearm() {
    if (m_saved_request.empty()) {
        m_state = AUTH_IDLE;
    } else {
        m_passes_once = true;
    }
}

void CAuthGate::TakeAnswer() {
    Answer answer;
    {
        CGuard guard(m_mutex);
        std::swap(answer, m_answer);
    }
    if (answer.waits) {
        take_result(answer.result, answer.has_text ? answer.text.c_str() : nullptr);
    }
}

void CAuthGate::take_result(IAuthModule::auth_result_t result, const char* auth_info) {
    switch (judge(result, auth_info)) {
        case VERDICT_PASS:
            pass_saved_request();
            break;
        case VERDICT_CHALLENGE:
            challenge_saved_request();
            break;
        case VERDICT_BREAK:
            logWarn("%s:%d challenge_result abnormal, kill this session,m_auth_state:%d\n", __FILE__, __LINE__,
                    m_state);
            m_state = AUTH_IDLE;
            m_owner.BreakOff();
            break;
        case VERDICT_NONE:
            break;
    }
}

// What the answer means by the question that was asked.
CAuthGate::verdict_t CAuthGate::judge(IAuthModule::auth_result_t result, const char* auth_info) {
    if (m_state == AUTH_CHALLENGING) {
        return judge_challenge(result, auth_info);
    }
    if (m_state == AUTH_VERIFYING) {
        // The module's 0 passes here, while it challenges above.
        if (result == IAuthModule::AUTH_RESULT_CHALLENGE || result == IAuthModule::AUTH_RESULT_OK) {
            return VERDICT_PASS;
        }
        return OSTRA_ASSERT(result == IAuthModule::AUTH_RESULT_DENIED) ? VERDICT_CHALLENGE : VERDICT_BREAK;
    }
    if (m_state == AUTH_PASSED && !m_saved_request.empty()) {
        return VERDICT_PASS;  // a request with a free URL has freed the connection meanwhile
    }
    OSTRA_ASSERT(m_state == AUTH_CHALLENGING || m_state == AUTH_VERIFYING);
    return VERDICT_NONE;  // an answer that nobody waits for
}

CAuthGate::verdict_t CAuthGate::judge_challenge(IAuthModule::auth_result_t result, const char* auth_info) {
    if (result == IAuthModule::AUTH_RESULT_OK) {
        return VERDICT_PASS;
    }
    if (result != IAuthModule::AUTH_RESULT_CHALLENGE || !OSTRA_ASSERT(auth_info != NULL) ||
        !set_text(m_challenge, auth_info, strlen(auth_info))) {
        return VERDICT_BREAK;
    }
    return VERDICT_CHALLENGE;
}

// The client's next request comes with an Authorization header.
void CAuthGate::challenge_saved_request() {
    std::string request;
    request.swap(m_saved_request);
    m_state = AUTH_IDLE;
    m_passes_once = false;
    if (!m_owner.SendChallenge(request.data(), static_cast<unsigned int>(request.size()), m_challenge.c_str())) {
        m_owner.BreakOff();
    }
}

// Authorised for the rest of the connection.
void CAuthGate::pass_saved_request() {
    m_state = m_passes_once ? AUTH_IDLE : AUTH_PASSED;
    m_passes_once = false;
    std::string request;
    request.swap(m_saved_request);
    if (!m_owner.PassRequest(m_saved_info, request.c_str(), static_cast<unsigned int>(request.size()))) {
        m_owner.BreakOff();
    }
}

}  // namespace Vidora
}  // namespace Kavio
