#ifndef VIDORA_TESTS_SUPPORT_UDPPEER_H
#define VIDORA_TESTS_SUPPORT_UDPPEER_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace Kavio {
namespace Support {

// CUdpPeer: a blocking UDP socket on the loopback address, for a test's end of a conversation.
class CUdpPeer {
public:
    // Port 0 takes any.
    explicit CUdpPeer(int port = 0) : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in addr = address(port);
        m_bound = bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
        socklen_t length = sizeof(addr);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &length);
        m_port = ntohs(addr.sin_port);
    }
    ~CUdpPeer() { close(m_fd); }
    CUdpPeer(const CUdpPeer&) = delete;
    CUdpPeer& operator=(const CUdpPeer&) = delete;

    bool Bound() const { return m_bound; }
    int Port() const { return m_port; }

    // The next datagram; empty if none comes in `timeout_ms`. `from_port` (may be null) gets the sender's port.
    std::string Recv(int timeout_ms = 5000, int* from_port = nullptr) {
        pollfd event = {m_fd, POLLIN, 0};
        if (poll(&event, 1, timeout_ms) <= 0) {
            return std::string();
        }
        char buf[65536];
        sockaddr_in from = {};
        socklen_t length = sizeof(from);
        const ssize_t count = recvfrom(m_fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (from_port != nullptr) {
            *from_port = ntohs(from.sin_port);
        }
        return count > 0 ? std::string(buf, static_cast<size_t>(count)) : std::string();
    }
    bool Send(const std::string& bytes, int port) {
        const sockaddr_in to = address(port);
        return sendto(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) ==
               static_cast<ssize_t>(bytes.size());
    }

private:
    static sockaddr_in address(int port) {
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        return addr;
    }

    int m_fd;
    int m_port = 0;
    bool m_bound = false;
};

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_UDPPEER_H
