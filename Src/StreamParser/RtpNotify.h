#ifndef VIDORA_STREAMPARSER_RTPNOTIFY_H
#define VIDORA_STREAMPARSER_RTPNOTIFY_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// IRtpNotify: hears what CRtp2Frame finds in the packets of its track. Called on the thread that feeds the packets,
// from within PutPacket; it must not feed packets itself.
class IRtpNotify {
public:
    virtual ~IRtpNotify() = default;
    // The synchronisation source (RFC 3550 5.1) is another one from this packet on. Also for the first packet, from 0.
    virtual void OnSsrcChanged(uint32_t old_ssrc, uint32_t new_ssrc) = 0;
    // `now` doesn't follow `last`: packets were lost, doubled or swapped.
    virtual void OnSequenceDisorder(uint16_t last, uint16_t now) = 0;
    // Reserved: nothing calls it; it keeps its place among the virtual operations.
    virtual void OnReserved() = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPNOTIFY_H
