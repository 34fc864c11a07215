#include "RtspClient/TcpLink.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "StreamTcpReceiver.h"
#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"

namespace Kavio {
namespace Vidora {

namespace {

rtsp_client_failure_t failure_of(int error) {
    switch (error) {
        case ECONNREFUSED:
            return RTSP_CLIENT_FAILURE_REFUSED;
        case ETIMEDOUT:
            return RTSP_CLIENT_FAILURE_TIMEOUT;
        default:
            return RTSP_CLIENT_FAILURE_UNREACHABLE;
    }
}

// The error that a socket keeps, which the call takes away.
int pending_error(const CSockStream& sock) {
    int error = 0;
    socklen_t length = sizeof(error);
    ::getsockopt(sock.GetHandle(), SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

}  // namespace

CTcpLink::~CTcpLink() {
    CloseLink();
}

void CTcpLink::Connect(const CSockAddrStorage& addr) {
    try {
        m_sock = std::make_shared<CSockStream>();
    } catch (const std::bad_alloc&) {
        fail(RTSP_CLIENT_FAILURE_UNREACHABLE);
        return;
    }
    if (m_sock->Connect(addr, nullptr) < 0) {
        const int error = errno;
        logWarn("%s:%d rtsp connect error! %s\n", __FILE__, __LINE__, std::strerror(error));
        fail(failure_of(error));
        return;
    }
    watch_connect();
}

void CTcpLink::Adopt(std::shared_ptr<CSockStream> sock) {
    m_sock = std::move(sock);
    watch_connect();
}

void CTcpLink::watch_connect() {
    if (m_handler.RegisterSock(*m_sock, Tramel::SOCK_EVENT_WRITE | Tramel::SOCK_EVENT_EXCEPTION,
                               ClientTiming().connect_us) < 0) {
        fail(RTSP_CLIENT_FAILURE_UNREACHABLE);
    }
}

int CTcpLink::OnOutput(int fd) {
    if (m_sock == nullptr || fd != m_sock->GetHandle()) {
        return 0;
    }
    return m_sender != nullptr ? m_sender->handle_output(fd) : finish_connect();
}

int CTcpLink::finish_connect() {
    const int error = pending_error(*m_sock);
    const int status = error != 0 ? -1 : m_sock->GetConnectStatus();
    if (status > 0) {
        logDebug("connecting...!\n");
        return 0;
    }
    m_handler.RemoveSock(*m_sock);
    CStreamSender* sender = status == 0 ? CStreamSender::Create() : nullptr;
    if (sender == nullptr || sender->Attach(&m_handler, m_sock.get()) < 0 ||
        m_handler.RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, 0) < 0) {
        if (sender != nullptr) {
            sender->Close();
        }
        logWarn("%s:%d rtsp connect failed!\n", __FILE__, __LINE__);
        fail(failure_of(error));
        return -1;
    }
    m_sock->WatchPeer(ClientTiming().peer_seconds, true);
    m_sender = sender;
    m_sender->WaitException(m_handler.GetID());
    m_user.OnLinkUp();
    return 0;
}

int CTcpLink::OnException(int fd) {
    if (m_sock == nullptr || fd != m_sock->GetHandle()) {
        return 0;
    }
    logWarn("%s:%d rtsp connect exception!\n", __FILE__, __LINE__);
    fail(failure_of(pending_error(*m_sock)));
    return -1;
}

// The time-out would repeat; the first one ends the attempt.
int CTcpLink::OnConnectTimeout(int fd) {
    if (m_sock == nullptr || fd != m_sock->GetHandle() || m_sender != nullptr) {
        return 0;
    }
    logWarn("%s:%d rtsp connect timeout!\n", __FILE__, __LINE__);
    fail(RTSP_CLIENT_FAILURE_TIMEOUT);
    return -1;
}

int CTcpLink::OnInput(int fd) {
    if (m_sock == nullptr || fd != m_sock->GetHandle()) {
        return 0;
    }
    if (m_buffer == nullptr) {
        m_buffer.reset(new (std::nothrow) char[RTSP_MAX_MESSAGE + 1]);
    }
    const unsigned int room = static_cast<unsigned int>(RTSP_MAX_MESSAGE - m_received);
    const int count = m_buffer != nullptr ? m_sock->Recv(m_buffer.get() + m_received, room) : -1;
    if (count < 0) {
        logWarn("%s:%d return -1\n", __FILE__, __LINE__);
        fail(RTSP_CLIENT_FAILURE_LOST);
        return -1;
    }
    m_received += count;
    const int result = cut_messages();
    if (m_received <= 0) {
        m_buffer.reset();
    }
    return result;
}

int CTcpLink::cut_messages() {
    m_buffer.get()[m_received] = '\0';
    int place = 0;
    while (place < m_received) {
        const int size = m_user.TakeMessage(m_buffer.get() + place, static_cast<unsigned int>(m_received - place));
        if (size < 0) {
            m_received = 0;
            return -1;
        }
        if (size == 0) {
            break;
        }
        place += size;
    }
    m_received -= place;
    std::memmove(m_buffer.get(), m_buffer.get() + place, static_cast<size_t>(m_received));
    if (m_received == RTSP_MAX_MESSAGE) {
        m_user.OnLinkFlooded();
        return -1;
    }
    return 0;
}

int CTcpLink::Send(const char* bytes, unsigned int length) {
    return m_sender != nullptr ? m_sender->Put(bytes, length) : -1;
}

CSockAddrStorage CTcpLink::Peer() const {
    CSockAddrStorage addr;
    if (m_sock != nullptr) {
        m_sock->GetRemoteAddr(&addr);
    }
    return addr;
}

CSockAddrStorage CTcpLink::Local() const {
    CSockAddrStorage addr;
    if (m_sock != nullptr) {
        m_sock->GetLocalAddr(&addr);
    }
    return addr;
}

CStreamReceiver* CTcpLink::MakeReceiver(packet_type_t packet_type, long owner_id) {
    const int protocol = packet_type == PACKET_TYPE_KX ? RECEIVER_PROTOCOL_KX : RECEIVER_PROTOCOL_RTP;
    CStreamTcpReceiver* receiver = CStreamTcpReceiver::Create(m_sock, owner_id, protocol);
    if (receiver == nullptr) {
        return nullptr;
    }
    if (m_received > 0 && receiver->Feed(m_buffer.get(), m_received) < 0) {
        logWarn("%s:%d return -1\n", __FILE__, __LINE__);
        receiver->Close();  // without these bytes what follows would be read from its middle
        return nullptr;
    }
    m_handler.UnregisterSock(*m_sock, Tramel::SOCK_EVENT_READ);
    m_received = 0;
    return receiver;
}

void CTcpLink::StopReading() {
    if (m_sock != nullptr && m_sock->IsValid()) {
        m_handler.RemoveSock(*m_sock);
    }
}

void CTcpLink::CloseLink() {
    StopReading();
    if (m_sender != nullptr) {
        m_sender->Close();
        m_sender = nullptr;
    }
    m_sock.reset();
}

}  // namespace Vidora
}  // namespace Kavio
