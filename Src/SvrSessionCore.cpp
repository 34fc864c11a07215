#include "SvrSessionCore.h"

#include <algorithm>

#include "InterleavedRoute.h"
#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"
#include "UdpRoute.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int SEND_BUFFER_SIZE = 204800;
const unsigned int MAX_PEER_TIMEOUT_SEC = 60;
const unsigned int MIN_PEER_TIMEOUT_SEC = 10;  // a few retransmissions on a bad line

}  // namespace

CSvrSessionCore::CSvrSessionCore() : CSvrHandler(m_conversation), m_conversation(*this) {}

CSvrSessionCore::~CSvrSessionCore() {
    if (m_sock != nullptr) {
        RemoveSock(*m_sock);
    }
    if (m_stream_sender != nullptr) {
        m_stream_sender->Close();
    }
    delete m_sock;
    // A session without a source of its own has reported this already when it began to end.
    m_conversation.Farewell();
    logInfo("%s %s this:%p\n", __FILE__, "Vidora::CSvrSessionCore::~CSvrSessionCore", static_cast<void*>(this));
}

void CSvrSessionCore::open_sender() {
    m_stream_sender = CStreamSender::Create();
    if (m_stream_sender != nullptr) {
        m_stream_sender->WaitException(GetID());
        m_stream_sender->Attach(this, m_sock);
    }
}

void CSvrSessionCore::open_connection(rtsp_auth_t auth_type) {
    m_conversation.OpenGate(auth_type);
    m_sock->SetSockSendBuf(SEND_BUFFER_SIZE);
    watch_peer(*m_sock);
    open_sender();
}

// Notices a peer whose machine or link has gone: a player that is silent by right, in a pause or while it watches, has
// no other end then. One that lives and doesn't read is cut only if there is a keep-alive time.
void CSvrSessionCore::watch_peer(CSockStream& sock) const {
    const int keep_alive_sec = m_conversation.Config().GetKeepAliveTimeout();
    const unsigned int timeout = keep_alive_sec > 0 ? static_cast<unsigned int>(keep_alive_sec) : MAX_PEER_TIMEOUT_SEC;
    sock.WatchPeer(std::clamp(timeout, MIN_PEER_TIMEOUT_SEC, MAX_PEER_TIMEOUT_SEC), keep_alive_sec > 0);
}

int CSvrSessionCore::take_requests(int count) {
    if (m_requests.Take(count) < 0) {
        m_conversation.End(MSG_SRC_FAIL);
        return -1;
    }
    return 0;
}

void CSvrSessionCore::SendText(const char* text, int length) {
    if (m_stream_sender != nullptr) {
        m_stream_sender->Put(text, static_cast<unsigned int>(length));
    }
}

void CSvrSessionCore::StopSending() {
    if (m_stream_sender != nullptr) {
        m_stream_sender->Detach();
        m_stream_sender->Clear();
    }
}

void CSvrSessionCore::GetPeer(CSockAddrStorage& peer) {
    m_sock->GetRemoteAddr(&peer);
}

std::unique_ptr<IMediaRoute> CSvrSessionCore::MakeRoute(const RouteWish& wish) {
    if (wish.transport.transport != RTP_OVER_UDP) {
        return CInterleavedRoute::Create(m_sock, GetID(), wish);
    }
    CSockAddrStorage peer;
    GetPeer(peer);
    return CUdpRoute::Create(peer, wish);
}

int CSvrSessionCore::handle_output(int fd) {
    return m_stream_sender == nullptr ? 0 : m_stream_sender->handle_output(fd);
}

int CSvrSessionCore::handle_input_timeout(int /*fd*/) {
    m_conversation.OnControlSilence();
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
