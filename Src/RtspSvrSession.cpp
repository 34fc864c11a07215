#include "RtspSvrSession.h"

#include <algorithm>
#include <atomic>
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

bool checks_onvif_urls(const CRtspSvrConfig& config) {
    OnvifUserGlobalConfig item = {};
    int length = sizeof(item);
    return config.GetConfig(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, &item, length) == 0 && item.enable != 0;
}

}  // namespace

CRtspSvrSession::CRtspSvrSession() {
    ++session_count;
}

unsigned int CRtspSvrSession::GetCount() {
    return session_count;
}

void CRtspSvrSession::Start(CSockStream* sock, const char* buf, int len) {
    m_sock = sock;
    const int count = OSTRA_ASSERT(len <= m_requests.Room()) && len > 0 ? len : 0;
    memcpy(m_requests.Free(), buf, static_cast<size_t>(count));
    Notify(GetID(), MSG_SESSION_INIT, count);
}

int CRtspSvrSession::Init(int count) {
    const CRtspSvrConfig& config = m_conversation.Config();
    const int timeout = config.GetKeepAliveTimeout();
    m_conversation.OpenGate(config.GetRtspAuthType(), checks_onvif_urls(config));
    m_sock->SetSockSendBuf(SEND_BUFFER_SIZE);
    watch_peer(*m_sock, timeout);
    open_sender();
    CSockAddrStorage peer;
    GetPeer(peer);
    m_conversation.Welcome(peer);
    if (take_requests(count) < 0) {
        return -1;
    }
    // Only now: the first request is taken in before any further byte is read.
    if (RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, timeout > 0 ? timeout * US_PER_SECOND : 0) < 0) {
        m_conversation.End(MSG_SESSION_BROKEN);
        return -1;
    }
    return 0;
}

int CRtspSvrSession::handle_input(int fd) {
    if (m_sock == nullptr || fd != m_sock->GetHandle()) {
        return 0;
    }
    // A message that fills the buffer and still isn't whole can't be completed: no room counts as a broken connection.
    const int room = m_requests.Room();
    const int count = room > 0 ? m_sock->Recv(m_requests.Free(), static_cast<unsigned int>(room)) : -1;
    if (count < 0) {
        RemoveSock(*m_sock);
        m_conversation.End(MSG_SESSION_BROKEN);
        return -1;
    }
    return take_requests(count);
}

int CRtspSvrSession::handle_close(CNetHandler* handler) {
    CSvrSessionCore::handle_close(handler);
    --session_count;  // the session has gone
    return 0;
}

void CRtspSvrSession::close_session() {
    CNetHandler::Close();
}

}  // namespace Vidora
}  // namespace Kavio
