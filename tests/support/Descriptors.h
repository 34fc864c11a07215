#ifndef VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
#define VIDORA_TESTS_SUPPORT_DESCRIPTORS_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <iterator>
#include <string>

namespace Kavio::Support {

// Entries of the process's list of open descriptors: good for comparing with an earlier count.
inline int CountDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}

// The IPv4 UDP socket of this process that is bound to a port, or -1.
inline int UdpSocketAt(int port) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_in at = {};
        socklen_t length = sizeof(at);
        int type = 0;
        socklen_t size = sizeof(type);
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_DGRAM &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&at), &length) == 0 && ntohs(at.sin_port) == port) {
            return fd;
        }
    }
    return -1;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
