#include "RtspSvrSession.h"

#include <cstring>

#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"

namespace Kavio {
namespace Vidora {

namespace {

const int64_t US_PER_SECOND = 1000000;
const int NO_MEMORY = -1;  // in the place of a count of bytes

}  // namespace

void CRtspSvrSession::Start(CSockStream* sock, const char* buf, int len) {
    m_sock = sock;
    const int count = OSTRA_ASSERT(len <= CRequestBuffer::SIZE) && len > 0 ? len : 0;
    const bool has_room = count <= m_requests.Room();
    if (has_room && count > 0) {
        memcpy(m_requests.Free(), buf, static_cast<size_t>(count));
    }
    Notify(GetID(), MSG_SESSION_INIT, has_room ? count : NO_MEMORY);
}

int CRtspSvrSession::Init(int count) {
    const CRtspSvrConfig& config = m_conversation.Config();
    const int timeout = config.GetKeepAliveTimeout();
    open_connection(config.GetRtspAuthType());
    CSockAddrStorage peer;
    GetPeer(peer);
    m_conversation.Welcome(peer);
    if (count == NO_MEMORY) {
        m_conversation.End(MSG_SESSION_BROKEN);  // its client would wait for a reply
        return -1;
    }
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

}  // namespace Vidora
}  // namespace Kavio
