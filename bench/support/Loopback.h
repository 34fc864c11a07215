#ifndef VIDORA_BENCH_SUPPORT_LOOPBACK_H
#define VIDORA_BENCH_SUPPORT_LOOPBACK_H

#include <netinet/in.h>

#include <cstdint>

namespace Bench {

// 127.0.0.1 with this port.
inline sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_LOOPBACK_H
