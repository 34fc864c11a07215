// The life of a conversation: what the application asks for, the beginning, the clock, the end.
#include "RtspClient/ClientConversation.h"

#include <cstring>
#include <new>

#include "Protocol/LogQuote.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MS_PER_SECOND = 1000;
const size_t MAX_WORK_BYTES = 256 * 1024;  // of what the application's calls carry

// Paths of servers that send no description.
client_start_t start_of(const std::string& url) {
    const bool plain = url.find("/qms/") != std::string::npos || url.find("/monitor/") != std::string::npos;
    return plain ? CLIENT_START_SETUP : CLIENT_START_OPTIONS;
}

// The URL without its user and password: a request would show them to all who see the traffic.
std::string without_credentials(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t host = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t at = url.substr(0, url.find('/', host)).rfind('@');
    return at == std::string::npos || at < host ? url : url.substr(0, host) + url.substr(at + 1);
}

}  // namespace

CClientConversation::CClientConversation(CClientHandler& handler, IClientLink& link, long owner_id)
    : m_handler(handler),
      m_link(link),
      m_owner_id(owner_id),
      m_work(handler, MSG_WORK, CLIENT_MAX_WORK, MAX_WORK_BYTES),
      m_audio(handler, MSG_WORK, CLIENT_MAX_WORK, CLIENT_MAX_BACK_BYTES),
      m_receive(handler, MSG_REPLIES, *this),
      m_auth(m_parser) {
    init_rtsp_states(m_machine, this);
}

CClientConversation::~CClientConversation() = default;

void CClientConversation::Cut() {
    m_receive.DropBuffer();
    m_slots.Close();
    m_work.Close();
    m_audio.Close();
}

int CClientConversation::Play(const client_play& play) {
    return m_work.Put([this, play] { this->play(play); });
}

int CClientConversation::Pause() {
    return m_work.Put([this] { pause(); });
}

int CClientConversation::SendExtMsg(const client_request& request, char* out, int out_length) {
    const int slot = m_slots.Reserve(out, out_length);
    if (slot == 0) {
        return -1;
    }
    const int result = GuardedCall([&] {
        const auto send = [this, request, slot] {
            if (send_application(request, slot) < 0) {
                m_slots.Drop(slot);
                report_request_failure(RTSP_CLIENT_CODE_CONNECTION);
            }
        };
        return m_work.Put(send, request.body.size());
    });
    if (result < 0) {
        m_slots.Drop(slot);
    }
    return result;
}

void CClientConversation::report_request_failure(long code) {
    if (!IsEnded()) {
        m_handler.Notify(m_owner_id, MSG_RTSP_PARAMETER_REPLY, code);
    }
}

int CClientConversation::SetExtKey(rtsp_method_t method, const std::string& key, const std::string& value) {
    return m_work.Put([this, method, key, value] { m_parser.set_ext_key(method, key.c_str(), value.c_str()); },
                      key.size() + value.size());
}

int CClientConversation::SetKeepAlive(rtsp_method_t method) {
    return m_work.Put([this, method] { m_keepalive.SetMethod(method); });
}

int CClientConversation::SetIdleTimeout(unsigned int ms) {
    return m_work.Put([this, ms] { m_keepalive.SetIdleLimit(ms / MS_PER_SECOND); });
}

int CClientConversation::PutBackChannel(const unsigned char* data, int length) {
    try {
        const std::string audio(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
        return m_audio.Put([this, audio] { m_back_channel.Put(audio); }, audio.size());
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int CClientConversation::Begin(const std::string& url, const client_settings& settings) {
    if (IsEnded()) {
        return -1;
    }
    m_settings = settings;
    m_url = without_credentials(url);
    m_start_mode = start_of(url);
    m_parser.set_url((settings.options & RTSP_CLIENT_KEEP_CREDENTIALS) != 0 ? url.c_str() : m_url.c_str());
    m_parser.set_ext_keys(settings.ext_keys);
    m_parser.set_back_channel((settings.options & RTSP_CLIENT_BACK_CHANNEL) != 0);
    if (settings.has_auth) {
        m_auth.SetUser(settings.user.c_str(), settings.password.c_str());
    }
    m_keepalive.SetMethod(settings.keepalive);
    m_keepalive.SetIdleLimit(settings.idle_ms / MS_PER_SECOND);
    m_reports.SetConformance(settings.conformance);
    m_parser.SetConformance(settings.conformance);
    m_auth.SetConformance(settings.conformance);
    m_timer = m_handler.SetTimer(ClientTiming().tick_us);
    return m_timer != 0 ? 0 : -1;
}

void CClientConversation::OnMessage(long sender_id, unsigned int msg) {
    switch (msg) {
        case MSG_WORK:
            m_work.Run();
            m_audio.Run();
            break;
        case MSG_REPLIES:
            m_receive.RunWork();
            break;
        case MSG_SOURCE_CLOSED:
            m_receive.OnClosed(sender_id);
            break;
        case MSG_SOCK_EXCEPTION:
            logWarn("%s %d this: %p recv MSG_SOCK_EXCEPTION\n", __FILE__, __LINE__, static_cast<void*>(this));
            OnLinkFailed(RTSP_CLIENT_FAILURE_LOST);
            break;
        default:
            break;
    }
}

void CClientConversation::OnLinkUp() {
    if (!IsEnded() && begin_conversation() < 0) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
    }
}

int CClientConversation::begin_conversation() {
    if (m_start_mode == CLIENT_START_OPTIONS) {
        return queue(RTSP_METHOD_OPTIONS, m_parser.generate_options(), REQUEST_MAIN);
    }
    if (m_start_mode == CLIENT_START_DESCRIBE) {
        return queue(RTSP_METHOD_DESCRIBE, m_parser.generate_describe(), REQUEST_MAIN);
    }
    if (m_settings.packet_type == PACKET_TYPE_NONE || m_settings.transport == RTP_OVER_UDP) {
        m_settings.packet_type = PACKET_TYPE_RTP;
    }
    return m_tracks.BuildSingle(m_settings.transport, m_settings.packet_type) < 0 ? -1 : set_up_next();
}

void CClientConversation::OnLinkFlooded() {
    Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
}

void CClientConversation::OnReplyFlood() {
    OnLinkFlooded();
}

// A connection that never stood is a failed start; one that broke is told as such.
void CClientConversation::OnLinkFailed(rtsp_client_failure_t failure) {
    const unsigned int msg = failure == RTSP_CLIENT_FAILURE_LOST ? static_cast<unsigned int>(MSG_SOCK_EXCEPTION)
                                                                 : static_cast<unsigned int>(MSG_SRC_FAIL);
    Fail(msg, RTSP_CLIENT_CODE_CONNECTION, failure);
}

void CClientConversation::Fail(unsigned int msg, long code, rtsp_client_failure_t failure) {
    if (IsEnded()) {
        return;
    }
    m_view.PublishFailure(failure);
    leave(true);
    m_slots.Close();
    m_handler.Notify(m_owner_id, msg, code);
}

// The conversation is over: nothing comes in any more, and nothing of what waits goes out.
void CClientConversation::leave(bool teardown) {
    if (IsEnded()) {
        return;
    }
    if (teardown && m_link.IsUp()) {
        send_teardown();
    }
    m_state = CLIENT_STOPPING;
    m_receive.Stop();
    m_link.StopReading();
    m_handler.DestroyTimer(m_timer);
    m_timer = 0;
}

// Past the machine, which may be waiting for something else.
void CClientConversation::send_teardown() {
    const char* text = m_parser.generate_teardown(nullptr, 0);
    if (text != nullptr) {
        m_parser.forget_request(m_parser.get_cseq());
        transmit(text);
    }
}

void CClientConversation::End() {
    Cut();
    leave(true);
    m_receive.End();
    m_link.CloseLink();
}

int CClientConversation::OnTimer(long timer_id) {
    if (timer_id != m_timer || IsEnded()) {
        return -1;
    }
    m_keepalive.Tick();
    if (check_requests() && check_reports() && check_idle()) {
        return 0;
    }
    logError("%s:%d handle_timeout failed\n", __FILE__, __LINE__);
    return -1;
}

bool CClientConversation::check_requests() {
    const uint64_t now = CTime::getCurrentMilliSecond();
    pending_request request;
    while (m_requests.TakeOlder(now, ClientTiming().reply_ms, request)) {
        m_parser.forget_request(request.cseq);
        m_slots.DropCSeq(request.cseq);
        m_link.OnAnswered(request.cseq);
        // A server that stops answering while it plays isn't punished for that alone.
        if (m_state != CLIENT_PLAYING) {
            logError("%s:%d rtsp keepalive failed, timeout:%d seconds \n", __FILE__, __LINE__,
                     static_cast<int>(ClientTiming().reply_ms) / MS_PER_SECOND);
            Fail(MSG_SRC_END, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_NO_REPLY);
            return false;
        }
    }
    play_deferred();
    end_by_byes();
    const bool due = !IsEnded() && m_state != CLIENT_INIT && m_keepalive.IsDue();
    if (due && send_keepalive() < 0) {
        logError("%s:%d send rtsp_keepalive fail\n", __FILE__, __LINE__);
    }
    return !IsEnded();
}

bool CClientConversation::check_reports() {
    const bool plays = m_state == CLIENT_PLAYING || m_state == CLIENT_PAUSED;
    if (!plays || !m_keepalive.IsReportDue() || send_reports() == 0) {
        return true;
    }
    if (m_settings.transport == RTP_OVER_UDP) {
        if (!m_settings.conformance) {  // otherwise the next one is tried: a route that is away may come back
            logError("%s:%d RTP_OVER_UDP send rtcp_report  failed, disabled\n", __FILE__, __LINE__);
            m_keepalive.StopReports();
        }
        return true;
    }
    logError("%s:%d RTP_OVER_RTSP send rtcp_report  failed, error\n", __FILE__, __LINE__);
    Fail(MSG_SRC_END, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_LOST);
    return false;
}

bool CClientConversation::check_idle() {
    if (m_receive.TakeLife()) {
        m_keepalive.Lives();
    }
    if (m_state != CLIENT_PLAYING || !m_keepalive.IsIdle()) {
        return true;
    }
    logError("%s:%d stream not arrive, error. m_stream_idle_time_sec:%d\n", __FILE__, __LINE__,
             static_cast<int>(m_keepalive.IdleLimit()));
    Fail(MSG_SRC_END, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_IDLE);
    return false;
}

}  // namespace Vidora
}  // namespace Kavio
