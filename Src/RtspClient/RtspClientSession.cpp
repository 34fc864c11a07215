#include "Vidora/RtspClientSession.h"

#include <strings.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "Protocol/LogQuote.h"
#include "Protocol/RtspTables.h"
#include "RtspClient/ClientSessionState.h"
#include "RtspClient/ClientWallTime.h"
#include "RtspClient/RtspClient.h"
#include "Vidora/SdpInfo.h"

namespace Kavio {
namespace Vidora {

namespace {

const int FAST_REDIRECTS = 8;  // in a row; further ones wait
const long CODE_MOVED_PERMANENTLY = long{RTSP_CLIENT_CODE_STATUS} + RTSP_STATUS_MOVED_PERMANENTLY;
const long CODE_MOVED_TEMPORARILY = long{RTSP_CLIENT_CODE_STATUS} + RTSP_STATUS_MOVED_TEMPORARILY;
const int MAX_KEPT_VIEWS = 8;  // of descriptions that the host has asked for
const size_t MAX_KEY_SIZE = 256;
const size_t MAX_VALUE_SIZE = 1024;
const size_t MAX_HEAD_SIZE = 1024;  // what a request has besides its URL, the host's headers and its body

bool is_redirect(long param) {
    return param == CODE_MOVED_PERMANENTLY || param == CODE_MOVED_TEMPORARILY;
}

bool is_method(int method) {
    return method >= 0 && method < RTSP_METHOD_COUNT;
}

bool is_header_text(const char* text, size_t limit) {
    return std::strlen(text) <= limit && std::strpbrk(text, "\r\n") == nullptr;
}

// Null is an end that isn't given.
template <typename Time>
void set_range(const Time* begin, const Time* end, client_play& wish, Time (&range)[2]) {
    wish.has_begin = begin != nullptr;
    wish.has_end = end != nullptr;
    range[0] = begin != nullptr ? *begin : Time();
    range[1] = end != nullptr ? *end : Time();
}

// Header names are the same in any case.
void erase_authorization(CRtspParser::ext_keys_t& keys) {
    for (auto row = keys.begin(); row != keys.end();) {
        row = strcasecmp(row->first.c_str(), "Authorization") == 0 ? keys.erase(row) : std::next(row);
    }
}

}  // namespace

// All under m_mutex, but for the buffer, which is constant.
struct CRtspClientSession::Internal : client_session_state {
    CRtspClient* m_client = nullptr;  // null once closed, and between two engines; its strand frees it
    int m_engines = 0;                // that were made and haven't ended
    client_host m_origin;             // whose are the user and password
    int m_redirects = 0;              // in a row
    long m_redirect_timer = 0;
    long m_redirect_code = 0;  // of the redirect that is being followed; 0: none is
    std::string m_redirect_url;
    RtspClientStatistics m_former;  // of engines that were replaced
    std::shared_ptr<client_sdp> m_views[MAX_KEPT_VIEWS];
    int m_next_view = 0;
};

CRtspClientSession::CRtspClientSession() : m_internal(new (std::nothrow) Internal) {}

CRtspClientSession::~CRtspClientSession() {
    delete m_internal;
}

CRtspClientSession* CRtspClientSession::Create() {
    CRtspClientSession* session = new (std::nothrow) CRtspClientSession;
    if (session == nullptr) {
        return nullptr;
    }
    if (session->m_internal == nullptr || session->GetID() == 0 || session->make_engine() < 0) {
        delete session;
        return nullptr;
    }
    return session;
}

int CRtspClientSession::make_engine() {
    CRtspClient* client = CRtspClient::Create(GetID());
    if (client == nullptr) {
        return -1;
    }
    client->Conversation().SetBuffer(&m_internal->m_buffer);
    m_internal->m_client = client;
    ++m_internal->m_engines;
    return 0;
}

int CRtspClientSession::Start(const char* url, long notify_id, rtp_protocol_t transport) {
    CGuard guard(m_internal->m_mutex);
    return start(url, notify_id, transport, -1);
}

int CRtspClientSession::Start(const char* url, long notify_id, int sock) {
    if (sock < 0) {
        return -1;
    }
    CGuard guard(m_internal->m_mutex);
    return start(url, notify_id, RTP_OVER_RTSP, sock);
}

// What the URL of a start that fails names isn't kept for another server's.
int CRtspClientSession::start(const char* url, long notify_id, rtp_protocol_t transport, int sock) {
    Internal& self = *m_internal;
    const bool is_valid = url != nullptr && (transport == RTP_OVER_RTSP || transport == RTP_OVER_UDP);
    const int result = !is_valid || self.m_client == nullptr || self.m_started ? -1 : GuardedCall([&] {
        const std::string text(url);
        client_settings settings(self.m_settings);
        client_host origin;
        settings.transport = transport;
        if (!ReadClientUrl(text, settings, origin) ||
            (sock < 0 ? self.m_client->Start(text, settings) : self.m_client->Start(text, settings, sock)) < 0) {
            return -1;
        }
        self.m_settings = std::move(settings);
        self.m_origin = std::move(origin);
        self.m_notify_id = notify_id;
        self.m_started = true;
        return 0;
    });
    if (result < 0) {
        const CLogQuote quote(Ostra::LOG_LEVEL_WARN, url);
        logWarn("%s:%d CRtspClientSession Start failed %s \n", __FILE__, __LINE__, quote.Text());
    }
    return result;
}

int CRtspClientSession::SetOptions(int options) {
    CGuard guard(m_internal->m_mutex);
    m_internal->m_settings.options |= options;
    return 0;
}

void CRtspClientSession::Close() {
    CGuard guard(m_internal->m_mutex);
    Internal& self = *m_internal;
    if (!self.BeginEnd(*this)) {
        return;
    }
    if (self.m_redirect_timer != 0) {
        DestroyTimer(self.m_redirect_timer);
    }
    CRtspClient* client = self.m_client;
    self.m_client = nullptr;
    if (client != nullptr) {
        client->Close();
    } else if (self.m_engines == 0) {
        CNetHandler::Close();
    }
}

CMediaBuffer* CRtspClientSession::GetMediaBuffer() {
    return &m_internal->m_buffer;
}

int CRtspClientSession::play(const client_play& play) {
    CGuard guard(m_internal->m_mutex);
    if (m_internal->m_client == nullptr || !m_internal->m_ready) {
        return -1;
    }
    return GuardedCall([&] { return m_internal->m_client->Conversation().Play(play); });
}

int CRtspClientSession::Play(float begin, float end, float speed, bool scale) {
    return play(client_play::Npt(begin, end, speed, scale));
}

int CRtspClientSession::Play(UtcTime* begin, UtcTime* end, float speed, bool scale) {
    client_play wish;
    wish.form = client_play::CLOCK;
    set_range(begin, end, wish, wish.clock);
    wish.speed = speed;
    wish.scale = scale;
    return play(wish);
}

int CRtspClientSession::Play(SmpteTime* begin, SmpteTime* end, float speed, bool scale) {
    client_play wish;
    wish.form = client_play::SMPTE;
    set_range(begin, end, wish, wish.smpte);
    wish.speed = speed;
    wish.scale = scale;
    return play(wish);
}

void CRtspClientSession::Pause() {
    CGuard guard(m_internal->m_mutex);
    if (m_internal->m_client != nullptr && m_internal->m_ready) {
        GuardedCall([&] { return m_internal->m_client->Conversation().Pause(); });
    }
}

CSdpInfo* CRtspClientSession::GetSdpInfo() {
    CGuard guard(m_internal->m_mutex);
    Internal& self = *m_internal;
    const std::shared_ptr<client_sdp> sdp =
        self.m_client != nullptr && self.m_ready ? self.m_client->Conversation().View().Sdp() : nullptr;
    if (sdp == nullptr) {
        return nullptr;
    }
    for (const std::shared_ptr<client_sdp>& kept : self.m_views) {
        if (kept == sdp) {
            return &sdp->info;
        }
    }
    self.m_views[self.m_next_view] = sdp;
    self.m_next_view = (self.m_next_view + 1) % MAX_KEPT_VIEWS;
    return &sdp->info;
}

int CRtspClientSession::SetCmdExtKey(rtsp_method_t method, const char* key, const char* value) {
    const char* text = value != nullptr ? value : "";
    if (!is_method(method) || key == nullptr || key[0] == '\0' || !is_header_text(key, MAX_KEY_SIZE) ||
        !is_header_text(text, MAX_VALUE_SIZE)) {
        return -1;
    }
    CGuard guard(m_internal->m_mutex);
    Internal& self = *m_internal;
    if (self.m_closed) {
        return -1;
    }
    return GuardedCall([&] {
        self.m_settings.ext_keys[method][key] = text;
        return self.m_started && self.m_client != nullptr ? self.m_client->Conversation().SetExtKey(method, key, text)
                                                          : 0;
    });
}

int CRtspClientSession::SendExtMsg(rtsp_method_t method, const char* body, char* out, int out_length) {
    const size_t body_size = body != nullptr ? std::strlen(body) : 0;
    if (!is_method(method) || out_length < 0 || body_size > RTSP_MAX_MESSAGE - RTSP_MAX_TEXT - MAX_HEAD_SIZE) {
        logError("%s:%d return -1\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(m_internal->m_mutex);
    Internal& self = *m_internal;
    if (self.m_client == nullptr || !self.m_started) {
        return -1;
    }
    return GuardedCall([&] {
        client_request request;
        request.method = method;
        request.has_body = body != nullptr;
        request.body = body != nullptr ? body : "";
        return self.m_client->Conversation().SendExtMsg(request, out, out_length);
    });
}

int CRtspClientSession::SetAuthInfo(const char* user, const char* password) {
    CGuard guard(m_internal->m_mutex);
    return GuardedCall([&] { return m_internal->m_settings.SetUser(user, password); });
}

int CRtspClientSession::SetKeepAlive(rtsp_method_t method) {
    CGuard guard(m_internal->m_mutex);
    m_internal->m_settings.keepalive = method;
    if (m_internal->m_client != nullptr && m_internal->m_started) {
        GuardedCall([&] { return m_internal->m_client->Conversation().SetKeepAlive(method); });
    }
    return 0;
}

void CRtspClientSession::SetPacketType(packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    const bool is_known = packet_type == PACKET_TYPE_RTP || packet_type == PACKET_TYPE_KX;
    m_internal->m_settings.packet_type = is_known ? packet_type : PACKET_TYPE_NONE;
}

int CRtspClientSession::SetStreamIdleTimeout(unsigned int ms) {
    CGuard guard(m_internal->m_mutex);
    m_internal->m_settings.idle_ms = ms;
    if (m_internal->m_client != nullptr && m_internal->m_started) {
        GuardedCall([&] { return m_internal->m_client->Conversation().SetIdleTimeout(ms); });
    }
    return 0;
}

void CRtspClientSession::SetConformance(bool on) {
    CGuard guard(m_internal->m_mutex);
    m_internal->m_settings.conformance = on;
}

void CRtspClientSession::Put(unsigned char* data, int length) {
    CGuard guard(m_internal->m_mutex);
    if (data != nullptr && length > 0 && m_internal->m_client != nullptr && m_internal->m_ready) {
        m_internal->m_client->Conversation().PutBackChannel(data, length);
    }
}

int CRtspClientSession::GetWallTime(char kind, uint32_t rtp_timestamp, int64_t& utc_us) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->m_client != nullptr
               ? ClientWallTime(m_internal->m_client->Conversation(), kind, rtp_timestamp, utc_us)
               : -1;
}

void CRtspClientSession::GetStatistics(RtspClientStatistics& statistics) {
    CGuard guard(m_internal->m_mutex);
    statistics = m_internal->m_former;
    if (m_internal->m_client != nullptr) {
        m_internal->m_client->Conversation().Receive().GetTotals(statistics);
    }
}

rtsp_client_failure_t CRtspClientSession::GetFailure() {
    CGuard guard(m_internal->m_mutex);
    return m_internal->m_failure;
}

int CRtspClientSession::handle_message(long sender_id, unsigned int msg, long param) {
    CGuard guard(m_internal->m_mutex);
    const CRtspClient* client = m_internal->m_client;
    if (msg == MSG_SOURCE_CLOSED) {
        take_end_of_engine();
    } else if (client == nullptr || client->GetID() != sender_id) {
        return 0;  // of an engine that was replaced
    } else if (msg == MSG_SRC_FAIL && is_redirect(param)) {
        redirect(param);
    } else if (EndsClient(msg)) {
        finish(param);
    } else {
        report_progress(msg, param);
    }
    return 0;
}

void CRtspClientSession::take_end_of_engine() {
    Internal& self = *m_internal;
    if (--self.m_engines > 0) {
        return;
    }
    if (self.m_closed) {
        CNetHandler::Close();
    } else if (self.m_redirect_code != 0) {
        start_redirected();
    }
}

void CRtspClientSession::report_progress(unsigned int msg, long param) {
    Internal& self = *m_internal;
    if (msg == MSG_RTSP_SETUP_READY) {
        self.m_ready = true;
    } else if (msg == MSG_RTSP_PLAY_READY) {
        self.m_redirects = 0;
    }
    if (self.m_notify_id != 0) {
        Notify(self.m_notify_id, msg, param);
    }
}

// The one last notification.
void CRtspClientSession::finish(long param) {
    Internal& self = *m_internal;
    self.m_ready = false;
    self.m_failure =
        self.m_client != nullptr ? self.m_client->Conversation().View().Failure() : RTSP_CLIENT_FAILURE_NONE;
    if (self.m_notify_id != 0) {
        Notify(self.m_notify_id, MSG_RTSP_TEARDOWN, param);
        self.m_notify_id = 0;
    }
}

// The first redirects in a row are followed at once, further ones one by one: a ring of servers is no reason to keep a
// processor busy.
void CRtspClientSession::redirect(long param) {
    Internal& self = *m_internal;
    self.m_ready = false;
    self.m_redirect_code = param;
    self.m_redirect_url = self.m_client->Conversation().View().Redirect();
    if (++self.m_redirects > FAST_REDIRECTS) {
        self.m_redirect_timer = SetTimer(ClientTiming().redirect_us);
        if (self.m_redirect_timer != 0) {
            return;
        }
    }
    follow_redirect();
}

int64_t CRtspClientSession::handle_timeout(long timer_id) {
    CGuard guard(m_internal->m_mutex);
    DestroyTimer(timer_id);
    if (timer_id == m_internal->m_redirect_timer && m_internal->m_client != nullptr) {
        m_internal->m_redirect_timer = 0;
        follow_redirect();
    }
    return -1;
}

// A new engine takes the place of the one that was sent away, when that has gone: what that one puts may still be in a
// sink, which only one thread may be in.
void CRtspClientSession::follow_redirect() {
    Internal& self = *m_internal;
    CRtspClient* former = self.m_client;
    former->Conversation().Receive().GetTotals(self.m_former);
    self.m_client = nullptr;
    former->Close();
}

void CRtspClientSession::start_redirected() {
    Internal& self = *m_internal;
    const long code = std::exchange(self.m_redirect_code, 0);
    const int result = GuardedCall([&] {
        client_settings settings(self.m_settings);
        client_host host;
        // The user, the password and what the host has set in their place are for the first server only.
        if (!host.Reads(self.m_redirect_url) || !(host == self.m_origin)) {
            settings.has_auth = false;
            settings.user.clear();
            settings.password.clear();
            for (CRtspParser::ext_keys_t& keys : settings.ext_keys) {
                erase_authorization(keys);
            }
        }
        if (make_engine() < 0) {
            return -1;
        }
        return self.m_client->Start(self.m_redirect_url, settings);
    });
    if (result < 0) {
        const CLogQuote quote(Ostra::LOG_LEVEL_WARN, self.m_redirect_url.c_str());
        logWarn("%s:%d redirect failed %s \n", __FILE__, __LINE__, quote.Text());
        finish(code);
        self.m_failure = RTSP_CLIENT_FAILURE_PROTOCOL;
    }
}

int CRtspClientSession::handle_close(CNetHandler*) {
    {
        CGuard guard(m_internal->m_mutex);  // no call is inside any more
    }
    delete this;
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
