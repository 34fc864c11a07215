#include "Tramel/SockStream.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "Tramel/SockDetail.h"

namespace Kavio {
namespace Tramel {

namespace {

const unsigned int MAX_PEER_TIMEOUT_SEC = 3600;
const int PEER_PROBES = 3;  // in the second half of that time
const int MS_PER_SECOND = 1000;

}  // namespace

CSockStream::CSockStream() = default;

int CSockStream::Recv(char* buf, unsigned int len) {
    if (len == 0) {
        return 0;  // recv would return 0 as well, which means the end of the stream
    }
    for (;;) {
        const ssize_t count = ::recv(m_fd, buf, ClampLength(len), 0);
        if (count > 0) {
            return static_cast<int>(count);
        }
        if (count == 0) {
            return -1;
        }
        if (errno != EINTR) {
            return IsWouldBlock(errno) ? 0 : -1;
        }
    }
}

int CSockStream::Send(const char* buf, unsigned int len) {
    for (;;) {
        const ssize_t count = ::send(m_fd, buf, ClampLength(len), MSG_NOSIGNAL);
        if (count >= 0) {
            return static_cast<int>(count);
        }
        if (errno != EINTR) {
            return IsWouldBlock(errno) ? 0 : -1;
        }
    }
}

int CSockStream::Connect(const CSockAddr& remote, CSockAddr* local) {
    CSockAddrStorage to = ToStorage(&remote);
    to = to.ForFamily(to.GetRealType());
    if (!to.IsValid()) {
        errno = EINVAL;
        return -1;
    }
    const int fd = ::socket(to.Native()->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    take(fd);
    const CSockAddrStorage from = ToStorage(local).ForFamily(to.GetType());
    if (local != nullptr && ::bind(m_fd, from.Native(), static_cast<socklen_t>(from.GetAddrLen())) != 0) {
        return FailOpen(*this);
    }
    SetOption(m_fd, IPPROTO_TCP, TCP_NODELAY, 1);  // requests and media units are written whole
    if (::connect(m_fd, to.Native(), static_cast<socklen_t>(to.GetAddrLen())) != 0 && errno != EINPROGRESS &&
        errno != EINTR) {
        return FailOpen(*this);
    }
    return 0;
}

int CSockStream::GetConnectStatus() {
    int error = 0;
    socklen_t length = sizeof(error);
    if (m_fd < 0 || ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        return -1;
    }
    // Without an error the attempt has succeeded or is under way; a connected socket knows its peer.
    sockaddr_storage peer = {};
    length = sizeof(peer);
    if (::getpeername(m_fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0) {
        return 0;
    }
    // Connected and broken since then, the error having been taken by another call: writable, but without a peer.
    pollfd probe = {m_fd, POLLOUT, 0};
    return errno == ENOTCONN && ::poll(&probe, 1, 0) == 0 ? 1 : -1;
}

int CSockStream::SetSockSendBuf(unsigned int bytes) {
    return SetOption(m_fd, SOL_SOCKET, SO_SNDBUF, ClampInt(bytes));
}

int CSockStream::WatchPeer(unsigned int seconds, bool acknowledged) {
    const int timeout = static_cast<int>(std::clamp(seconds, 1U, MAX_PEER_TIMEOUT_SEC));
    const struct {
        int level;
        int name;
        int value;
    } options[] = {
        {IPPROTO_TCP, TCP_USER_TIMEOUT, acknowledged ? timeout * MS_PER_SECOND : 0},
        {IPPROTO_TCP, TCP_KEEPIDLE, std::max(timeout / 2, 1)},
        {IPPROTO_TCP, TCP_KEEPINTVL, std::max(timeout / (2 * PEER_PROBES), 1)},
        {IPPROTO_TCP, TCP_KEEPCNT, PEER_PROBES},
        {SOL_SOCKET, SO_KEEPALIVE, 1},
    };
    int result = 0;
    for (const auto& option : options) {
        result |= SetOption(m_fd, option.level, option.name, option.value);
    }
    return result;
}

}  // namespace Tramel
}  // namespace Kavio
