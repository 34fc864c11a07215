#ifndef VIDORA_BENCH_SUPPORT_DRAIN_H
#define VIDORA_BENCH_SUPPORT_DRAIN_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <vector>

namespace Bench {

// CDrain: a child process that takes and discards what arrives on many loopback sockets, so that its processor time
// isn't the sending process's. TCP bytes are discarded without a copy (MSG_TRUNC). Make it before any thread is
// started.
class CDrain {
public:
    // Starts the child with a TCP listener and `udp_count` bound UDP sockets. Ends the program on failure.
    explicit CDrain(unsigned int udp_count);
    ~CDrain();
    CDrain(const CDrain&) = delete;
    CDrain& operator=(const CDrain&) = delete;

    // A connected non-blocking TCP socket to the child, with `send_buffer` bytes asked for; the caller owns it.
    int Connect(int send_buffer) const;
    // The ports of the UDP sockets, on 127.0.0.1.
    const std::vector<uint16_t>& UdpPorts() const { return m_udp_ports; }
    // Bytes that have arrived so far, TCP and UDP.
    uint64_t Bytes() const { return m_shared->bytes; }
    // Processor time of the child in microseconds.
    uint64_t TimeUs() const { return m_shared->cpu_us; }
    // Waits until no more has arrived for a while.
    void Settle() const;

private:
    struct CShared {  // in memory of both processes
        std::atomic<uint64_t> bytes{0};
        std::atomic<uint64_t> cpu_us{0};
    };
    void run(int listener, const std::vector<int>& udp) const;

    pid_t m_child = -1;
    uint16_t m_tcp_port = 0;
    std::vector<uint16_t> m_udp_ports;
    CShared* m_shared = nullptr;
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_DRAIN_H
