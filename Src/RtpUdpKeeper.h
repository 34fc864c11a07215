#ifndef VIDORA_RTPUDPKEEPER_H
#define VIDORA_RTPUDPKEEPER_H

#include <memory>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

class CUdpSockPair;

// CRtpUdpKeeper: watches the RTCP sockets of one CRtpUdpSender for signs of life of the peer.
//
// Whatever the peer sends counts, from whichever of its ports; the bytes are dropped. What others send counts for
// nothing. One silent interval on any track ends the watch and posts MSG_KEEPALIVE_TIMEOUT; others can put that off by
// one more interval.
//
// THREADING  Start: the sender's owner, once. Everything else runs on the reactor. Ended with Close().
// OWNERSHIP  Shares the sockets with the sender, so that a callback that runs while the sender dies finds them open.
class CRtpUdpKeeper : public CNetHandler {
public:
    static const int MAX_PAIRS = 15;

    // `peer`: whose signs count; its port is of no interest.
    CRtpUdpKeeper(long notify_id, int timeout_s, const CSockAddrStorage& peer);

    // Adds a pair to be watched; before Start. At most MAX_PAIRS.
    void AddPair(const std::shared_ptr<CUdpSockPair>& pair);
    // Begins to watch the RTCP sockets, with that many seconds of silence allowed; with 0 seconds nothing is watched.
    void Start();

    int handle_input(int fd) override;
    int handle_input_timeout(int fd) override;
    int handle_close(CNetHandler* handler) override;

private:
    ~CRtpUdpKeeper() override = default;

    struct Watch {
        std::shared_ptr<CUdpSockPair> pair;
        uint64_t last_sign_ms = 0;
    };

    bool drain(CSockDgram& sock) const;
    int give_up();

    const long m_notify_id;
    const int m_timeout_s;
    const CSockAddrStorage m_peer;  // in the plain form
    Watch m_watches[MAX_PAIRS];
    int m_pair_count = 0;
    int m_timeout_count = 0;  // for the log only
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTPUDPKEEPER_H
