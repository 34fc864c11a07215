#ifndef VIDORA_BENCH_SUPPORT_BLOCKINGPEER_H
#define VIDORA_BENCH_SUPPORT_BLOCKINGPEER_H

#include <cstdint>
#include <string>

#include "support/RtspDialogue.h"

namespace Bench {

// CBlockingPeer: one connection of a client on loopback, a blocking stream of replies and interleaved packets. After
// ten seconds without anything it has failed for good.
class CBlockingPeer {
public:
    explicit CBlockingPeer(uint16_t port);
    ~CBlockingPeer();
    CBlockingPeer(const CBlockingPeer&) = delete;
    CBlockingPeer& operator=(const CBlockingPeer&) = delete;

    bool Ask(const std::string& request, std::string& reply);
    // All round trips of a session; `replies`, if not null, takes the DIALOGUE_STEPS replies.
    bool Play(CRtspDialogue dialogue, std::string* replies = nullptr);
    // The packets up to the one with the marker bit (RFC 6184 5.1), reports left out.
    bool Frame(std::string& frame);

private:
    size_t packet_size() const;
    void more();

    int m_fd;
    bool m_good = false;
    std::string m_bytes;
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_BLOCKINGPEER_H
