// The authentication gate: each message passes, or begins a dialogue with the host's module.

#include <cstring>
#include <memory>
#include <new>

#include "SvrSessionCore.h"
#include "Tramel/SockStream.h"
#include "Tramel/StrParser.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const int AUTH_KIND = 2000;  // the last argument of the module's operations
const int ONVIF_STREAM_PROTO = 2;
const char ANY_OPTIONS[] = "OPTIONS *";

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
    return length > 0 && parser.ParseUrl(url, length) && parser.GetLocalStreamProto() == ONVIF_STREAM_PROTO;
}

}  // namespace

// 1: the message passes. 0: the gate has taken it. -1: the session has to end.
int CSvrSessionCore::check_authority(const char* buffer, int length) {
    if (m_auth_module == nullptr || (m_auth_state & AUTH_PASSED) != 0 ||
        strncmp(buffer, ANY_OPTIONS, sizeof(ANY_OPTIONS) - 1) == 0) {
        return 1;
    }
    std::unique_ptr<CRtspRspParser> parser(new (std::nothrow) CRtspRspParser);
    if (!parser || parser->parse_request(buffer, static_cast<unsigned int>(length), nullptr) != 0) {
        return -1;
    }
    const bool onvif = is_onvif_url(parser->get_url());
    if (onvif && !m_onvif_user_global) {
        m_auth_state |= AUTH_PASSED;
        return 1;
    }
    if ((m_auth_state & AUTH_RUNNING) != 0) {
        // A client mustn't send a second request before the first has been judged.
        logError("%s:%d auth check processing, new request arrive, state error, refused\n", __FILE__, __LINE__);
        return -1;
    }
    if (m_challenge.empty() && !holds_text(buffer, length, "Authorization:")) {
        return ask_challenge(buffer, length, parser->get_url());
    }
    return parser->get_auth()[0] == '\0' ? repeat_challenge(buffer, length)
                                         : check_response(buffer, length, parser->get_auth(), onvif);
}

// The first contact.
int CSvrSessionCore::ask_challenge(const char* buffer, int length, const char* url) {
    if (save_request(buffer, length) < 0) {
        return -1;
    }
    CSockAddrStorage peer;
    m_sock->GetRemoteAddr(&peer);
    m_ip_type = peer.GetRealType();
    char peer_ip[128];
    peer.GetIpStr(peer_ip, sizeof(peer_ip));  // an IPv4-mapped address without its prefix
    m_auth_state |= AUTH_RUNNING | AUTH_CHALLENGING;
    m_auth_caller = std::this_thread::get_id();
    m_auth_module->GetChallenge(url, IAuthModule::result_proc_t(this, &CSvrSessionCore::on_challenge_result), peer_ip,
                                AUTH_KIND);
    m_auth_caller = std::thread::id();
    return 0;
}

int CSvrSessionCore::check_response(const char* buffer, int length, const char* response, bool onvif) {
    std::string value;
    if (save_request(buffer, length) < 0 || !set_text(value, response, strlen(response))) {
        return -1;
    }
    if (onvif) {
        // Tells the module which table of users to look into.
        try {
            value += ".OnvifInterDomain";
        } catch (const std::bad_alloc&) {
            return -1;
        }
    }
    m_auth_state |= AUTH_RUNNING | AUTH_VERIFYING;
    m_auth_caller = std::this_thread::get_id();
    m_auth_module->ProcessChallenge(value.c_str(),
                                    IAuthModule::result_proc_t(this, &CSvrSessionCore::on_challenge_result), AUTH_KIND);
    m_auth_caller = std::thread::id();
    return 0;
}

// A request without credentials after a challenge.
int CSvrSessionCore::repeat_challenge(const char* buffer, int length) {
    m_rsp_parser.parse_request(buffer, static_cast<unsigned int>(length), nullptr);  // for its CSeq
    if (!m_machine.put_tx_event(8, m_rsp_parser.generate_auth_reply(m_challenge.c_str()), 0, 0)) {
        logError("%s:%d, put event failed.\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

int CSvrSessionCore::save_request(const char* buffer, int length) {
    return set_text(m_saved_request, buffer, static_cast<size_t>(length)) ? 0 : -1;
}

// The module's answer, on any thread. Inside the module's operation it is served at once, so that a second request of
// the same read finds the first one judged; otherwise it waits for the session's strand.
void CSvrSessionCore::on_challenge_result(IAuthModule::auth_result_t result, const char* auth_info) {
    if (m_auth_caller.load() == std::this_thread::get_id()) {
        take_auth_result(result, auth_info);
        return;
    }
    {
        CGuard guard(m_auth_mutex);
        m_auth_answered = true;
        m_auth_answer = result;
        m_auth_has_text = auth_info != nullptr && set_text(m_auth_text, auth_info, strlen(auth_info));
    }
    Notify(GetID(), MSG_SESSION_AUTH, 0);
}

void CSvrSessionCore::take_waiting_auth_result() {
    std::string text;
    m_auth_mutex.enter();
    const bool answered = m_auth_answered;
    const IAuthModule::auth_result_t result = m_auth_answer;
    const bool has_text = m_auth_has_text;
    m_auth_answered = false;
    text.swap(m_auth_text);
    m_auth_mutex.leave();
    if (answered) {
        take_auth_result(result, has_text ? text.c_str() : nullptr);
    }
}

void CSvrSessionCore::take_auth_result(IAuthModule::auth_result_t result, const char* auth_info) {
    switch (auth_status(result, auth_info)) {
        case 200:
            pass_saved_request();
            break;
        case 401:
            send_saved_challenge();
            break;
        case 500:
            logWarn("%s:%d challenge_result abnormal, kill this session,m_auth_state:%d\n", __FILE__, __LINE__,
                    m_auth_state);
            m_auth_state = 0;
            put_asyn_msg(MSG_SRC_FAIL);
            break;
        default:
            break;  // an answer that nobody waits for
    }
}

// What the answer means by the question that runs; 0 if none does.
int CSvrSessionCore::auth_status(IAuthModule::auth_result_t result, const char* auth_info) {
    if ((m_auth_state & AUTH_CHALLENGING) != 0) {
        if (result == IAuthModule::AUTH_RESULT_OK) {
            return 200;
        }
        if (result != IAuthModule::AUTH_RESULT_CHALLENGE || !OSTRA_ASSERT(auth_info != NULL) ||
            !set_text(m_challenge, auth_info, strlen(auth_info))) {
            return 500;
        }
        return 401;
    }
    if ((m_auth_state & AUTH_VERIFYING) != 0) {
        // The module's 0 passes here, while it challenges above.
        if (result == IAuthModule::AUTH_RESULT_CHALLENGE || result == IAuthModule::AUTH_RESULT_OK) {
            return 200;
        }
        return OSTRA_ASSERT(result == IAuthModule::AUTH_RESULT_DENIED) ? 401 : 500;
    }
    OSTRA_ASSERT((m_auth_state & (AUTH_CHALLENGING | AUTH_VERIFYING)) != 0);
    return 0;
}

// The client's next request comes with an Authorization header.
void CSvrSessionCore::send_saved_challenge() {
    m_rsp_parser.parse_request(m_saved_request.data(), static_cast<unsigned int>(m_saved_request.size()), nullptr);
    m_saved_request.clear();
    m_auth_state = 0;
    if (!m_machine.put_tx_event(8, m_rsp_parser.generate_auth_reply(m_challenge.c_str()), 0, 0)) {
        put_asyn_msg(MSG_SRC_FAIL);
    }
}

// Authorised for the rest of the session.
void CSvrSessionCore::pass_saved_request() {
    m_auth_state = AUTH_PASSED;
    rtsp_msg_info info;
    const unsigned int length = static_cast<unsigned int>(m_saved_request.size());
    if (m_rsp_parser.check_message(m_saved_request.c_str(), length, &info) < 0 ||
        !m_machine.put_rx_event(info, m_saved_request.c_str(), length, 0)) {
        put_asyn_msg(MSG_SRC_FAIL);
    }
}

}  // namespace Vidora
}  // namespace Kavio
