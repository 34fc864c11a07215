#ifndef VIDORA_P2PUDPSENDER_H
#define VIDORA_P2PUDPSENDER_H

#include <atomic>
#include <cstdint>

#include "Tramel/PooledSink.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CP2PUdpSender: the sink that sends a stream's packets over the one socket of a NAT session, to the peer that the
// socket is connected to. It takes the packets of all tracks with their interleave headers (RFC 2326 10.12), and sends
// each as a datagram without its header. What a full socket has no room for is lost; nobody is waited for.
//
// THREADING  Put: the thread that writes for the buffer, not twice at once. SetChannel and ClearChannel: another
// thread, one at a time.
//            SetSock: before the first Put.
// OWNERSHIP  The socket is borrowed, and outlives the sender; other threads may send and receive on it meanwhile.
class CP2PUdpSender : public Tramel::CPooledSink {
public:
    // Sends the packets in the first `length` bytes of `packet`. The top byte of `tag` is the track; packets of one
    // that is off, or above 7, are dropped: 0. `length`, or -1 if the bytes aren't whole packets (those in front of the
    // fault are sent) or the socket failed.
    int Put(CMediaPacket* packet, int length, int flag, int tag) override;

    void SetSock(CSockDgram* sock) { m_sock = sock; }
    // Switches tracks, 0 to 7. All are on at first; the first SetChannel leaves only its own on. Negative: all on.
    void SetChannel(int channel);
    void ClearChannel(int channel);

private:
    void report_failure();

    CSockDgram* m_sock = nullptr;
    std::atomic<uint8_t> m_channels{0xff};  // bit n: track n may be sent
    // Of Put.
    bool m_failing = false;         // the last Put
    uint64_t m_last_report_ms = 0;  // of a failure
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_P2PUDPSENDER_H
