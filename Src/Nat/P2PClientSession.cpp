#include "Vidora/P2PClientSession.h"

#include <memory>
#include <new>
#include <string>

#include "Nat/P2PClient.h"
#include "Protocol/LogQuote.h"
#include "RtspClient/ClientSessionState.h"
#include "RtspClient/ClientWallTime.h"
#include "Vidora/SdpInfo.h"

namespace Kavio {
namespace Vidora {

// All under m_mutex, but for the buffer, which is constant.
struct CP2PClientSession::Internal : client_session_state {
    CP2PClient* m_client = nullptr;  // until it has gone
    long m_client_id = 0;
    std::shared_ptr<client_sdp> m_sdp;  // what the host looks at

    // The conversation, unless it is over or Close was called.
    CClientConversation* Conversation() { return m_closed ? nullptr : &m_client->Conversation(); }
};

CP2PClientSession::CP2PClientSession() : m_internal(new (std::nothrow) Internal) {}

CP2PClientSession::~CP2PClientSession() {
    delete m_internal;
}

CP2PClientSession* CP2PClientSession::Create() {
    CP2PClientSession* session = new (std::nothrow) CP2PClientSession;
    const bool is_whole = session != nullptr && session->m_internal != nullptr && session->GetID() != 0;
    CP2PClient* client = is_whole ? CP2PClient::Create(session->GetID()) : nullptr;
    if (client == nullptr) {
        delete session;
        return nullptr;
    }
    client->Conversation().SetBuffer(&session->m_internal->m_buffer);
    session->m_internal->m_client = client;
    session->m_internal->m_client_id = client->GetID();
    return session;
}

int CP2PClientSession::Start(const char* url, long handler_id, int sock_handle) {
    CGuard guard(m_internal->m_mutex);
    Internal& self = *m_internal;
    const bool may_start = url != nullptr && !self.m_started && !self.m_closed;
    const int result =
        may_start ? GuardedCall([&] { return self.m_client->Start(url, self.m_settings, sock_handle); }) : -1;
    if (result < 0) {
        const CLogQuote quote(Ostra::LOG_LEVEL_WARN, url);
        logWarn("%s:%d CRtspClientSession Start failed %s \n", __FILE__, __LINE__, quote.Text());
        return -1;
    }
    self.m_started = true;
    self.m_notify_id = handler_id;
    return 0;
}

void CP2PClientSession::Close() {
    CGuard guard(m_internal->m_mutex);
    Internal& self = *m_internal;
    if (self.BeginEnd(*this)) {
        self.m_client->Close();
    }
}

CMediaBuffer* CP2PClientSession::GetMediaBuffer() {
    return &m_internal->m_buffer;
}

int CP2PClientSession::Play(float begin, float end, float speed, bool scale) {
    CGuard guard(m_internal->m_mutex);
    CClientConversation* conversation = m_internal->Conversation();
    return conversation != nullptr && m_internal->m_ready
               ? conversation->Play(client_play::Npt(begin, end, speed, scale))
               : -1;
}

void CP2PClientSession::Pause() {
    CGuard guard(m_internal->m_mutex);
    CClientConversation* conversation = m_internal->Conversation();
    if (conversation != nullptr && m_internal->m_ready) {
        conversation->Pause();
    }
}

CSdpInfo* CP2PClientSession::GetSdpInfo() {
    CGuard guard(m_internal->m_mutex);
    CClientConversation* conversation = m_internal->Conversation();
    if (conversation == nullptr || !m_internal->m_ready) {
        return nullptr;
    }
    m_internal->m_sdp = conversation->View().Sdp();
    return m_internal->m_sdp != nullptr ? &m_internal->m_sdp->info : nullptr;
}

int CP2PClientSession::SetAuthInfo(const char* user, const char* password) {
    CGuard guard(m_internal->m_mutex);
    return GuardedCall([&] { return m_internal->m_settings.SetUser(user, password); });
}

int CP2PClientSession::SetStreamIdleTimeout(unsigned int ms) {
    CGuard guard(m_internal->m_mutex);
    CClientConversation* conversation = m_internal->Conversation();
    m_internal->m_settings.idle_ms = ms;
    if (conversation != nullptr && m_internal->m_started) {
        conversation->SetIdleTimeout(ms);
    }
    return 0;
}

void CP2PClientSession::GetStatistics(RtspClientStatistics& statistics) {
    statistics = RtspClientStatistics();
    CGuard guard(m_internal->m_mutex);
    CClientConversation* conversation = m_internal->Conversation();
    if (conversation != nullptr) {
        conversation->Receive().GetTotals(statistics);
    }
}

rtsp_client_failure_t CP2PClientSession::GetFailure() {
    CGuard guard(m_internal->m_mutex);
    return m_internal->m_failure;
}

void CP2PClientSession::SetConformance(bool on) {
    CGuard guard(m_internal->m_mutex);
    m_internal->m_settings.conformance = on;
}

int CP2PClientSession::GetWallTime(char kind, uint32_t rtp_timestamp, int64_t& utc_us) {
    CGuard guard(m_internal->m_mutex);
    CClientConversation* conversation = m_internal->Conversation();
    return conversation != nullptr ? ClientWallTime(*conversation, kind, rtp_timestamp, utc_us) : -1;
}

// Only the engine is listened to: it must have gone before the session does.
int CP2PClientSession::handle_message(long sender_id, unsigned int msg, long param) {
    CGuard guard(m_internal->m_mutex);
    Internal& self = *m_internal;
    if (sender_id != self.m_client_id) {
        return 0;
    }
    if (msg == MSG_SOURCE_CLOSED) {
        self.m_client = nullptr;
        CNetHandler::Close();
    } else if (!self.m_closed) {
        pass_on(msg, param);
    }
    return 0;
}

// What ends the session is told as one message, the last.
void CP2PClientSession::pass_on(unsigned int msg, long param) {
    Internal& self = *m_internal;
    const bool is_end = EndsClient(msg);
    if (is_end) {
        self.m_failure = self.m_client->Conversation().View().Failure();
    }
    self.m_ready = !is_end && (self.m_ready || msg == MSG_RTSP_SETUP_READY);
    if (self.m_notify_id != 0) {
        Notify(self.m_notify_id, is_end ? static_cast<unsigned int>(MSG_RTSP_TEARDOWN) : msg, param);
        self.m_notify_id = is_end ? 0 : self.m_notify_id;
    }
}

int CP2PClientSession::handle_close(CNetHandler*) {
    {
        CGuard guard(m_internal->m_mutex);  // no call is inside any more
    }
    delete this;
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
