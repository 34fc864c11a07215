#ifndef VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
#define VIDORA_TESTS_SUPPORT_DESCRIPTORS_H

#include <netinet/in.h>
#include <filesystem>
#include <iterator>

#include "Tramel/SockDetail.h"

namespace Kavio::Support {

// Entries of the process's list of open descriptors: good for comparing with an earlier count.
inline int CountDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}

// The IPv4 UDP socket of this process that is bound to a port, or -1.
inline int UdpSocketAt(int port) {
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in at = {};
        socklen_t length = sizeof(at);
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&at), &length) == 0 && ntohs(at.sin_port) == port &&
            Tramel::GetOption(fd, SOL_SOCKET, SO_TYPE) == SOCK_DGRAM) {
            return fd;
        }
    }
    return -1;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_DESCRIPTORS_H
