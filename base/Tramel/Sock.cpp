#include "Vidora/Tramel/Sock.h"

#include <fcntl.h>
#include <unistd.h>

#include "Tramel/Reactor.h"

namespace Kavio {
namespace Tramel {

CSock::~CSock() {
    Close();
}

int CSock::Attach(int fd) {
    const int status = ::fcntl(fd, F_GETFL);
    const int flags = ::fcntl(fd, F_GETFD);
    if (status < 0 || flags < 0 || ::fcntl(fd, F_SETFL, status | O_NONBLOCK) != 0 ||
        ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != 0) {
        return -1;
    }
    take(fd);
    return 0;
}

void CSock::take(int fd) {
    if (fd != m_fd) {
        Close();
    }
    m_fd = fd;
}

int CSock::Detach() {
    if (m_fd >= 0) {
        OnRelease();
    }
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

int CSock::Close() {
    const int fd = Detach();
    if (fd < 0) {
        return -1;
    }
    // The number may be given out again at once: nobody may still be watching it then.
    CReactor::Instance().Forget(fd);
    ::close(fd);
    return 0;
}

int CSock::GetRemoteAddr(CSockAddr* addr) const {
    return get_addr(&::getpeername, addr);
}

int CSock::GetLocalAddr(CSockAddr* addr) const {
    return get_addr(&::getsockname, addr);
}

int CSock::get_addr(int (*query)(int, sockaddr*, socklen_t*), CSockAddr* addr) const {
    sockaddr_storage native = {};
    socklen_t length = sizeof(native);
    if (addr == nullptr || query(m_fd, reinterpret_cast<sockaddr*>(&native), &length) != 0) {
        return -1;
    }
    return addr->SetSockAddr(reinterpret_cast<const sockaddr*>(&native), length);
}

}  // namespace Tramel
}  // namespace Kavio
