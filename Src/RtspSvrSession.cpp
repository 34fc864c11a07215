#include "RtspSvrSession.h"

#include <algorithm>
#include <cstring>

#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int SEND_BUFFER_SIZE = 204800;
const int64_t US_PER_SECOND = 1000000;
const unsigned int MAX_PEER_TIMEOUT_SEC = 60;
const unsigned int MIN_PEER_TIMEOUT_SEC = 10;  // a few retransmissions on a bad line

std::atomic<unsigned int> session_count{0};

// Notices a peer whose machine or link has gone: a player that is silent by right, in a pause or while it watches, has
// no other end then. One that lives and doesn't read is cut only if there is a keep-alive time.
void watch_peer(CSockStream& sock, int keep_alive_sec) {
    const unsigned int timeout = keep_alive_sec > 0 ? static_cast<unsigned int>(keep_alive_sec) : MAX_PEER_TIMEOUT_SEC;
    sock.WatchPeer(std::clamp(timeout, MIN_PEER_TIMEOUT_SEC, MAX_PEER_TIMEOUT_SEC), keep_alive_sec > 0);
}

}  // namespace

CRtspSvrSession::CRtspSvrSession() {
    m_live_count = &session_count;
    ++session_count;
}

CRtspSvrSession::~CRtspSvrSession() = default;

unsigned int CRtspSvrSession::GetCount() {
    return session_count;
}

int CRtspSvrSession::Enter(const std::shared_ptr<CSessionRoll>& roll) {
    m_entry = CSessionEntry::Create(roll, GetID(), MSG_SESSION_END, MSG_SESSION_BROKEN);
    return m_entry != nullptr ? 0 : -1;
}

void CRtspSvrSession::Start(CSockStream* sock, const char* buf, int len) {
    m_sock = sock;
    if (OSTRA_ASSERT(len <= RTSP_BUF_LEN) && len > 0) {
        memcpy(m_recv_buffer, buf, static_cast<size_t>(len));
        m_recv_len = len;
    }
    Notify(GetID(), MSG_SESSION_INIT, 0);
}

int CRtspSvrSession::Init() {
    const rtsp_auth_t auth_type = m_config.GetRtspAuthType();
    const rtsp_auth_func_t auth_func = m_config.GetAuthFunc();
    bool checks_onvif = false;
    OnvifUserGlobalConfig onvif = {};
    int length = sizeof(onvif);
    if (m_config.GetConfig(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, &onvif, length) == 0) {
        checks_onvif = onvif.enable != 0;
    }
    m_gate.Open(auth_type != 0 && auth_func != nullptr ? auth_func(auth_type) : nullptr, checks_onvif);
    m_sock->SetSockSendBuf(SEND_BUFFER_SIZE);
    watch_peer(*m_sock, m_config.GetKeepAliveTimeout());
    m_stream_sender = CStreamSender::Create();
    if (m_stream_sender != nullptr) {
        m_stream_sender->WaitException(GetID());
        m_stream_sender->Attach(this, m_sock);
    }
    m_sock->GetRemoteAddr(&m_peer_addr);
    give_address_event(EVENT_CLIENT_CONNECTED);
    if (parse_request() < 0) {
        put_asyn_msg(MSG_SRC_FAIL);
        return -1;
    }
    // Only now: the first request is taken in before any further byte is read.
    const int timeout = m_config.GetKeepAliveTimeout();
    if (RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, timeout > 0 ? timeout * US_PER_SECOND : 0) < 0) {
        put_asyn_msg(MSG_SESSION_BROKEN);
        return -1;
    }
    return 0;
}

int CRtspSvrSession::handle_input(int fd) {
    if (m_sock == nullptr || fd != m_sock->GetHandle()) {
        return 0;
    }
    // A message that fills the buffer and still isn't whole can't be completed: no room counts as a broken connection.
    const int room = RTSP_BUF_LEN - m_recv_len;
    const int count = room > 0 ? m_sock->Recv(m_recv_buffer + m_recv_len, static_cast<unsigned int>(room)) : -1;
    if (count < 0) {
        RemoveSock(*m_sock);
        put_asyn_msg(MSG_SESSION_BROKEN);
        return -1;
    }
    m_recv_len += count;
    if (parse_request() < 0) {
        put_asyn_msg(MSG_SRC_FAIL);
        return -1;
    }
    return 0;
}

int CRtspSvrSession::handle_close(CNetHandler* /*handler*/) {
    const std::unique_ptr<CSessionEntry> entry = std::move(m_entry);  // leaves when nothing of the session is left
    delete this;
    return 0;
}

void CRtspSvrSession::close_session() {
    CNetHandler::Close();
}

}  // namespace Vidora
}  // namespace Kavio
