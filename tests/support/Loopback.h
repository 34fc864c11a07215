#ifndef VIDORA_TESTS_SUPPORT_LOOPBACK_H
#define VIDORA_TESTS_SUPPORT_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace Kavio::Support {

inline sockaddr_in LoopbackAddress(int port) {
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    return addr;
}

// CBoundSocket: a socket of the system (SOCK_STREAM or SOCK_DGRAM) that is bound to a port of the loopback address.
class CBoundSocket {
public:
    // Port 0 takes any; `ip` is one of the loopback net.
    explicit CBoundSocket(int type, int port = 0, const char* ip = "127.0.0.1")
        : m_fd(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        sockaddr_in addr = LoopbackAddress(port);
        inet_pton(AF_INET, ip, &addr.sin_addr);
        socklen_t length = sizeof(addr);
        m_bound = bind(m_fd, reinterpret_cast<sockaddr*>(&addr), length) == 0;
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &length);
        m_port = ntohs(addr.sin_port);
    }
    ~CBoundSocket() { close(m_fd); }
    CBoundSocket(const CBoundSocket&) = delete;
    CBoundSocket& operator=(const CBoundSocket&) = delete;

    bool Bound() const { return m_bound; }
    int Fd() const { return m_fd; }
    int Port() const { return m_port; }

private:
    int m_fd;
    int m_port = 0;
    bool m_bound = false;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_LOOPBACK_H
