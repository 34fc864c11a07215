#ifndef VIDORA_BENCH_SUPPORT_PLAYERS_H
#define VIDORA_BENCH_SUPPORT_PLAYERS_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace Bench {

// CPlayers: a child process with many RTSP clients that play one URL and discard what arrives, so that neither their
// memory nor their processor time is the server's. Make it before any thread is started.
class CPlayers {
public:
    // Forks the child, which waits.
    CPlayers();
    ~CPlayers();
    CPlayers(const CPlayers&) = delete;
    CPlayers& operator=(const CPlayers&) = delete;

    // Lets `count` clients play `content` on the loopback address at `port`, interleaved or over UDP; returns when all
    // have their reply to PLAY. False if one was refused.
    bool Play(int port, const std::string& content, unsigned int count, bool udp);
    // Media bytes that have arrived so far.
    uint64_t Bytes() const { return m_shared->bytes; }
    // Ends the clients' connections.
    void Stop();

private:
    struct Command {
        int port;
        unsigned int count;
        int udp;
        char content[256];
    };
    struct Shared {
        std::atomic<uint64_t> bytes{0};
        std::atomic<int> playing{0};  // 1 when all play, -1 when one was refused
    };

    [[noreturn]] void run(int pipe_fd);

    pid_t m_child = -1;
    int m_pipe = -1;
    Shared* m_shared = nullptr;
};

// Anonymous memory of this process that is resident, in bytes.
uint64_t ResidentBytes();

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_PLAYERS_H
