#ifndef VIDORA_BENCH_SUPPORT_BARESERVER_H
#define VIDORA_BENCH_SUPPORT_BARESERVER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/RtspDialogue.h"

namespace Bench {

// What one session got from a server.
struct Recording {
    std::string replies[DIALOGUE_STEPS];
    std::vector<std::string> frames;  // merged: RTP packets behind their interleave headers
    bool good = false;
};

// Plays `frames` frames from a server on loopback, by itself and blocking.
Recording Record(uint16_t port, size_t frames);

// CBareServer: the floor, as a child process with one thread. It answers the four round trips of each connection with
// the texts of a recording, without a look at the requests (but for the port of UDP), and from then on sends the
// recorded frames, one each 40 ms: a loop of writev, or of sendmmsg with segmentation offload. Behind the last frame
// comes the first one again, with sequence numbers and times that go on.
class CBareServer {
public:
    CBareServer(const Recording& recording, bool udp);
    ~CBareServer();
    CBareServer(const CBareServer&) = delete;
    CBareServer& operator=(const CBareServer&) = delete;

    uint16_t Port() const { return m_port; }
    pid_t Pid() const { return m_child; }

private:
    uint16_t m_port = 0;
    pid_t m_child = -1;
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_BARESERVER_H
