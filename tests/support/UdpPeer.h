#ifndef VIDORA_TESTS_SUPPORT_UDPPEER_H
#define VIDORA_TESTS_SUPPORT_UDPPEER_H

#include <poll.h>

#include <string>
#include <string_view>

#include "support/Loopback.h"

namespace Kavio::Support {

// CUdpPeer: a blocking UDP socket on the loopback address, for a test's end of a conversation.
class CUdpPeer : public CBoundSocket {
public:
    explicit CUdpPeer(int port = 0, const char* ip = "127.0.0.1") : CBoundSocket(SOCK_DGRAM, port, ip) {}

    // The next datagram; empty if none comes in `timeout_ms`. `from_port` (may be null) gets the sender's port.
    std::string Recv(int timeout_ms = 5000, int* from_port = nullptr) {
        pollfd event = {Fd(), POLLIN, 0};
        if (poll(&event, 1, timeout_ms) <= 0) {
            return std::string();
        }
        char buf[65536];
        sockaddr_in from = {};
        socklen_t length = sizeof(from);
        const ssize_t count = recvfrom(Fd(), buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (from_port != nullptr) {
            *from_port = ntohs(from.sin_port);
        }
        return count > 0 ? std::string(buf, static_cast<size_t>(count)) : std::string();
    }
    void Send(std::string_view bytes, int port) {
        const sockaddr_in to = LoopbackAddress(port);
        sendto(Fd(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_UDPPEER_H
