#include "Tramel/SockAcceptor.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "Tramel/SockDetail.h"
#include "Tramel/SockStream.h"
#include "Vidora/Ostra/Thread.h"

namespace Kavio {
namespace Tramel {

namespace {

constexpr int ACCEPT_FLAGS = SOCK_CLOEXEC | SOCK_NONBLOCK;

// How long a thread rests when it could not even refuse a connection.
constexpr int REFUSAL_PAUSE_MS = 10;

bool is_shortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

int open_spare() {
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

CSockAcceptor::CSockAcceptor() = default;

CSockAcceptor::~CSockAcceptor() {
    if (m_spare_fd >= 0) {
        ::close(m_spare_fd);
    }
}

int CSockAcceptor::Open(const CSockAddr& local) {
    const CSockAddrStorage at = ToStorage(&local);
    if (!at.IsValid()) {
        errno = EINVAL;
        return -1;
    }
    const int fd = ::socket(at.Native()->sa_family, SOCK_STREAM | ACCEPT_FLAGS, 0);
    if (fd < 0) {
        return -1;
    }
    take(fd);
    SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    if (at.GetType() == SOCK_ADDR_IPV6) {
        SetOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0);  // the wildcard listens on both families
    }
    if (::bind(fd, at.Native(), static_cast<socklen_t>(at.GetAddrLen())) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        return FailOpen(*this);
    }
    if (m_spare_fd < 0) {
        m_spare_fd = open_spare();
    }
    return 0;
}

int CSockAcceptor::Accept(CSockStream& out, CSockAddr* peer) {
    sockaddr_storage native = {};
    socklen_t length = sizeof(native);
    const int fd = take_one(native, length);
    if (fd < 0 && is_shortage(errno)) {
        refuse_one();
    }
    if (fd < 0) {
        return -1;
    }
    if (m_spare_fd < 0) {
        m_spare_fd = open_spare();  // lost while descriptors were short
    }
    out.take(fd);
    SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);  // replies and media units are written whole
    if (peer != nullptr) {
        peer->SetSockAddr(reinterpret_cast<const sockaddr*>(&native), length);
    }
    return 0;
}

// A descriptor, or -1 with errno set.
int CSockAcceptor::take_one(sockaddr_storage& native, socklen_t& length) {
    int fd = -1;
    do {
        length = sizeof(native);
        fd = ::accept4(m_fd, reinterpret_cast<sockaddr*>(&native), &length, ACCEPT_FLAGS);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
    return fd;
}

// With no descriptor left a waiting connection would stay readable for ever. The spare one makes room to take it and
// hang up.
void CSockAcceptor::refuse_one() {
    const int error = errno;
    int fd = -1;
    if (m_spare_fd >= 0) {
        ::close(m_spare_fd);
        fd = ::accept4(m_fd, nullptr, nullptr, ACCEPT_FLAGS);
    }
    if (fd >= 0) {
        ::close(fd);
    } else {
        // Another thread was quicker to take the number, or memory is short: the next attempt follows soon enough.
        Ostra::CThread::sleep(REFUSAL_PAUSE_MS);
    }
    m_spare_fd = open_spare();
    errno = error;
}

}  // namespace Tramel
}  // namespace Kavio
