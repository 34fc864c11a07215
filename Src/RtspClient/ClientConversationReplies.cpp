// Requests and their replies.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "Protocol/LogQuote.h"
#include "RtspClient/ClientConversation.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

enum status_t {
    STATUS_PROVISIONAL = 100,
    STATUS_SUCCESS = 200,
    STATUS_MOVED_PERMANENTLY = 301,
    STATUS_MOVED_TEMPORARILY = 302,
    STATUS_UNAUTHORIZED = 401,
    STATUS_SESSION_NOT_FOUND = 454
};

const char TEARDOWN_BEGIN[] = "TEARDOWN ";
const size_t MAX_OWN_REPLY = 128;  // the answer to a request of the server's

bool is_redirect(int status) {
    return status == STATUS_MOVED_PERMANENTLY || status == STATUS_MOVED_TEMPORARILY;
}

}  // namespace

int CClientConversation::queue(rtsp_method_t method, const char* text, request_kind_t kind, const std::string& body) {
    if (text == nullptr || IsEnded()) {
        return -1;
    }
    pending_request request;
    request.cseq = m_parser.get_cseq();
    request.method = method;
    request.kind = kind;
    request.sent_ms = CTime::getCurrentMilliSecond();
    try {
        request.body = body;
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (std::strlen(text) >= RTSP_MAX_MESSAGE || !m_requests.Add(request)) {
        m_parser.forget_request(request.cseq);
        return -1;
    }
    return m_machine.put_tx_event(method, text, 0, 0) && !IsEnded() ? 0 : -1;
}

int CClientConversation::send_request(const char* text, int) {
    if (IsEnded()) {
        return -1;
    }
    if (transmit(text) < 0) {
        OnLinkFailed(RTSP_CLIENT_FAILURE_LOST);
        return -1;
    }
    return 0;
}

// The only way out. A TEARDOWN is signed by conformance only.
int CClientConversation::transmit(const char* text) {
    const bool takes_leave = std::strncmp(text, TEARDOWN_BEGIN, sizeof(TEARDOWN_BEGIN) - 1) == 0;
    std::string is_signed;
    if (m_auth.IsDigest() && (!takes_leave || m_settings.conformance)) {
        if (!m_auth.Sign(text, is_signed)) {
            return -1;
        }
        text = is_signed.c_str();
    }
    const unsigned int length = static_cast<unsigned int>(std::strlen(text));
    return takes_leave ? m_link.Send(text, length) : m_link.SendRequest(text, length);
}

int CClientConversation::send_keepalive() {
    const rtsp_method_t method = m_keepalive.Method();
    const char* text = method == RTSP_METHOD_OPTIONS ? m_parser.generate_options()
                                                     : m_parser.generate_parameter(method, nullptr, nullptr);
    if (text != nullptr) {
        // Into the log, as standard output is the host's.
        const CLogQuote quote(Ostra::LOG_LEVEL_DEBUG, text);
        logDebug("%s:%d,KeepLive Mothod=%s\n", __FILE__, __LINE__, quote.Text());
    }
    return queue(method, text, REQUEST_KEEPALIVE);
}

int CClientConversation::send_application(const client_request& request, int slot) {
    if (IsEnded() || !m_link.IsUp()) {
        return -1;
    }
    const char* body = request.has_body ? request.body.c_str() : nullptr;
    const char* text = m_parser.generate_parameter(request.method, body, nullptr);
    if (text == nullptr) {
        return -1;
    }
    m_slots.Bind(slot, m_parser.get_cseq());
    return queue(request.method, text, REQUEST_APPLICATION, request.body);
}

// One rule for what the server says, however it came.
int CClientConversation::TakeMessage(const char* text, unsigned int length) {
    if (IsEnded()) {
        return -1;
    }
    const int request_size = CRtspReqParser::request_size(text, length);
    if (request_size != 0) {
        answer_request(text, static_cast<unsigned int>(std::max(request_size, 0)));
        return std::max(request_size, 0);
    }
    rtsp_msg_info info;
    const int size = m_parser.check_message(text, length, &info);
    if (size == RTSP_INCOMPLETE) {
        return 0;
    }
    if (size < 0) {
        const CLogQuote quote(Ostra::LOG_LEVEL_ERROR, text, length);
        logError("%s:%d recv_buf:%s\n", __FILE__, __LINE__, quote.Text());
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        return -1;
    }
    take_reply(text, static_cast<unsigned int>(size), info);
    give_memory_back();
    return IsEnded() ? -1 : size;
}

// A request of the server's own (RFC 2326 10), which is passed over; by conformance with an answer: yes to a server
// that only looks whether we are there.
void CClientConversation::answer_request(const char* text, unsigned int length) {
    static const std::string_view LOOKS[] = {"OPTIONS ", "GET_PARAMETER "};
    if (length == 0) {
        return;  // it isn't there whole
    }
    logInfo("%s:%d request of the server passed over\n", __FILE__, __LINE__);
    CStrParser parser(text, length);
    if (!m_settings.conformance || parser.LocateStringCase("\nCSeq:") < 0 || parser.ConsumeUntilDigit() < 0) {
        return;
    }
    const unsigned int cseq = parser.ConsumeUint32();
    const std::string_view request = std::string_view(text, length).substr(std::strspn(text, "\r\n "));
    const bool is_look = std::any_of(std::begin(LOOKS), std::end(LOOKS), [request](std::string_view look) {
        return request.substr(0, look.size()) == look;
    });
    char reply[MAX_OWN_REPLY];
    const int size = std::snprintf(reply, sizeof(reply), "RTSP/1.0 %s\r\nCSeq: %u\r\n\r\n",
                                   is_look ? "200 OK" : "501 Not Implemented", cseq);
    m_link.Send(reply, static_cast<unsigned int>(size));
}

void CClientConversation::OnReceivedReply(const std::string& text) {
    TakeDatagram(text.c_str(), static_cast<unsigned int>(text.size()));
}

void CClientConversation::TakeDatagram(const char* text, unsigned int length) {
    if (IsEnded() || TakeMessage(text, length) == static_cast<int>(length) || IsEnded()) {
        return;
    }
    const CLogQuote quote(Ostra::LOG_LEVEL_ERROR, text, length);
    logError("%s:%d recv_buf:%s\n", __FILE__, __LINE__, quote.Text());
    Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_REPLY, RTSP_CLIENT_FAILURE_PROTOCOL);
}

void CClientConversation::take_reply(const char* text, unsigned int length, const rtsp_msg_info& info) {
    pending_request request;
    if (info.method == RTSP_METHOD_UNKNOWN || !m_requests.Take(info.cseq, request)) {
        logWarn("%s:%d reply without request, CSeq: %d status: %d\n", __FILE__, __LINE__, info.cseq, info.status);
        return;
    }
    if (info.status >= STATUS_PROVISIONAL && info.status < STATUS_SUCCESS) {
        m_parser.expect_reply(request.cseq, request.method);
        m_requests.Add(request);
        return;
    }
    m_link.OnAnswered(request.cseq);
    if (info.status == STATUS_UNAUTHORIZED) {
        take_challenge(request, text, length, info);
    } else if (is_redirect(info.status) && request.kind == REQUEST_MAIN) {
        take_redirect(text, length, info);
    } else if (info.status > STATUS_SUCCESS) {
        take_refusal(request, info.status);
    } else {
        take_success(request, text, length, info);
    }
    if (request.IsOfPlay()) {
        play_deferred();
    }
}

// While it plays, seconds pass before the next request.
void CClientConversation::give_memory_back() {
    const bool plays = m_state == CLIENT_PLAYING || m_state == CLIENT_PAUSED;
    if (plays) {
        m_parser.forget_reply();
    }
}

void CClientConversation::take_refusal(const pending_request& request, int status) {
    const long code = status_code(status);
    const rtsp_client_failure_t failure =
        status == STATUS_UNAUTHORIZED ? RTSP_CLIENT_FAILURE_UNAUTHORISED : RTSP_CLIENT_FAILURE_STATUS;
    switch (request.kind) {
        case REQUEST_KEEPALIVE:
            m_keepalive.Refuse();
            if (status == STATUS_SESSION_NOT_FOUND) {
                Fail(MSG_SRC_FAIL, code, failure);
            }
            break;
        case REQUEST_APPLICATION:
            m_slots.DropCSeq(request.cseq);
            report_request_failure(code);
            break;
        default:
            if (request.method == RTSP_METHOD_SETUP && status != STATUS_UNAUTHORIZED) {
                fail_track(code, failure);
            } else {
                Fail(MSG_SRC_FAIL, code, failure);
            }
    }
}

void CClientConversation::take_challenge(const pending_request& request, const char* text, unsigned int length,
                                         rtsp_msg_info info) {
    if (m_parser.parse_message(text, length, &info) != RTSP_CHALLENGE) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        return;
    }
    const bool taken = m_auth.TakeChallenge(request.method, request.cseq, m_url.c_str());
    if (!taken || !repeat(request)) {
        take_refusal(request, STATUS_UNAUTHORIZED);
    }
}

// Sends the request anew. Older servers know OPTIONS and DESCRIBE only to be repeated.
bool CClientConversation::repeat(const pending_request& request) {
    if (request.kind == REQUEST_KEEPALIVE && request.method != RTSP_METHOD_OPTIONS) {
        m_keepalive.Refuse();
        return send_keepalive() == 0;
    }
    if (!m_settings.conformance && request.method != RTSP_METHOD_OPTIONS && request.method != RTSP_METHOD_DESCRIBE) {
        return false;
    }
    return request.kind == REQUEST_APPLICATION ? repeat_parameter(request) : repeat_own(request);
}

// What the host asked for keeps the place where its reply goes.
bool CClientConversation::repeat_parameter(const pending_request& request) {
    const char* body = request.body.empty() ? nullptr : request.body.c_str();
    const char* message = m_parser.generate_parameter(request.method, body, nullptr);
    if (message == nullptr) {
        return false;
    }
    const int cseq = m_parser.get_cseq();
    m_slots.Move(request.cseq, cseq);
    if (queue(request.method, message, request.kind, request.body) < 0) {
        m_slots.DropCSeq(cseq);
        return false;
    }
    return true;
}

bool CClientConversation::repeat_own(const pending_request& request) {
    switch (request.method) {
        case RTSP_METHOD_OPTIONS:
            return queue(request.method, m_parser.generate_options(), request.kind) == 0;
        case RTSP_METHOD_DESCRIBE:
            return queue(request.method, m_parser.generate_describe(), request.kind) == 0;
        case RTSP_METHOD_SETUP:
            return m_cur_track != nullptr && send_setup(*m_cur_track) == 0;
        case RTSP_METHOD_PLAY:
            return send_play() == 0;
        case RTSP_METHOD_PAUSE:
            return queue(request.method, m_parser.generate_pause(), request.kind) == 0;
        default:
            return false;
    }
}

void CClientConversation::take_redirect(const char* text, unsigned int length, rtsp_msg_info info) {
    const int status = info.status;
    if (m_parser.parse_message(text, length, &info) < 0) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        return;
    }
    m_view.PublishRedirect(m_parser.get_redirect_url());
    Fail(MSG_SRC_FAIL, status_code(status), RTSP_CLIENT_FAILURE_STATUS);
}

void CClientConversation::take_success(const pending_request& request, const char* text, unsigned int length,
                                       const rtsp_msg_info& info) {
    m_auth.Succeeded();
    m_reply_result = -1;
    if (request.kind != REQUEST_APPLICATION || can_take(request.method)) {
        m_machine.put_rx_event(info, text, length, 0);
    }
    m_slots.DropCSeq(request.cseq);
    if (m_reply_result >= 0 || IsEnded()) {
        return;
    }
    if (request.kind == REQUEST_MAIN) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
    } else if (request.kind == REQUEST_APPLICATION) {
        report_request_failure(RTSP_CLIENT_CODE_PROTOCOL);
    }
}

// Whether the reply to a request that the application sent by itself fits the state: the machine would wait on behind
// one that is refused.
bool CClientConversation::can_take(rtsp_method_t method) const {
    switch (method) {
        case RTSP_METHOD_DESCRIBE:
        case RTSP_METHOD_SETUP:
            return false;
        case RTSP_METHOD_PLAY:
            return m_receive.Exists();
        case RTSP_METHOD_PAUSE:
            return m_state == CLIENT_PLAYING;
        default:
            return true;
    }
}

int CClientConversation::parse(const StateEvent& event) {
    rtsp_msg_info info = event.info();
    return m_parser.parse_message(event.text(), event.length, &info);
}

int CClientConversation::on_options_reply(const StateEvent& event) {
    if (parse(event) == 0) {
        if (std::strstr(m_parser.get_public(), "GET_PARAMETER") != nullptr) {
            m_keepalive.Offer(RTSP_METHOD_GET_PARAMETER);
        }
        const bool describes =
            m_sdp == nullptr && m_start_mode != CLIENT_START_SETUP && !m_requests.Waits(RTSP_METHOD_DESCRIBE);
        m_reply_result = describes ? queue(RTSP_METHOD_DESCRIBE, m_parser.generate_describe(), REQUEST_MAIN) : 0;
    }
    return 0;
}

int CClientConversation::on_describe_reply(const StateEvent& event) {
    m_reply_result = parse(event) == 0 && m_sdp == nullptr ? take_sdp() : -1;
    return m_reply_result;
}

int CClientConversation::on_setup_reply(const StateEvent& event) {
    if (m_cur_track == nullptr || !m_cur_track->sent || m_cur_track->answered) {
        return -1;
    }
    m_reply_result = 0;
    if (parse(event) < 0 || follow_transport(*m_cur_track) < 0) {
        fail_track(RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        return 0;
    }
    m_cur_track->answered = true;
    m_keepalive.SetServerTimeout(m_parser.get_transport()->timeout);
    m_reply_result = set_up_next();
    return m_reply_result;
}

int CClientConversation::on_play_reply(const StateEvent& event) {
    if (parse(event) < 0 || !m_receive.Exists()) {
        return -1;
    }
    m_reply_result = 0;
    m_state = CLIENT_PLAYING;
    m_keepalive.Lives();  // the silence of a pause isn't the stream's
    if (m_settings.transport == RTP_OVER_RTSP && m_link.KeepsOrder()) {
        m_tracks.ForgetByes();  // what came in front of the answer ended what was played before
    }
    publish_range();
    publish_tracks();
    m_handler.Notify(m_owner_id, MSG_RTSP_PLAY_READY, 0);
    if (m_keepalive.IsOn() && send_keepalive() < 0) {
        logError("%s:%d send rtsp_keepalive fail\n", __FILE__, __LINE__);
    }
    end_by_byes();
    return 0;
}

int CClientConversation::on_pause_reply(const StateEvent&) {
    m_reply_result = 0;
    m_state = CLIENT_PAUSED;
    m_handler.Notify(m_owner_id, MSG_RTSP_PAUSE_READY, 0);
    return 0;
}

// Only an application that sends it by itself gets here.
int CClientConversation::on_teardown_reply(const StateEvent&) {
    m_reply_result = 0;
    leave(false);
    m_slots.Close();
    m_handler.Notify(m_owner_id, MSG_SRC_END, RTSP_CLIENT_CODE_ENDED);
    return 0;
}

int CClientConversation::on_set_parameter_reply(const StateEvent& event) {
    if (take_parameter(event) > 0) {
        m_handler.Notify(m_owner_id, MSG_RTSP_PARAMETER_REPLY, 0);
    }
    return 0;
}

// Hosts know a GET_PARAMETER as one that isn't told of.
int CClientConversation::on_get_parameter_reply(const StateEvent& event) {
    take_parameter(event);
    return 0;
}

// The length of the reply's body, or -1.
int CClientConversation::take_parameter(const StateEvent& event) {
    if (parse(event) < 0) {
        return -1;
    }
    m_reply_result = 0;
    const char* body = m_parser.get_body();
    const int length = static_cast<int>(std::strlen(body));
    if (length > 0) {
        m_slots.Write(event.cseq, body, length);
    }
    return length;
}

}  // namespace Vidora
}  // namespace Kavio
