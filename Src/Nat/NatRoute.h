#ifndef VIDORA_NATROUTE_H
#define VIDORA_NATROUTE_H

#include <memory>

#include "Level2Route.h"
#include "Nat/P2PUdpSender.h"
#include "SvrLink.h"

namespace Kavio {
namespace Vidora {

// CNatRoute: media on the one socket of a NAT session, between its texts. The client asks for interleaved channels, and
// gets their numbers; on the wire are the bare packets, which it distinguishes by their payload types. So there is no
// place for private frames, which have none. RTCP is sent with conformance alone, bare as well: its packet types are
// none of RTP's payload types (RFC 5761 4), and the SSRC names the track.
class CNatRoute : public CLevel2Route {
public:
    // A route to the peer that `sock` is connected to. Null if memory is short.
    static std::unique_ptr<IMediaRoute> Create(CSockDgram* sock, const RouteWish& wish);

    int SetUp(const CTrack& track, int channel, transport_info& transport) override;
    void Switch(const CTrack& track, bool on) override;
    void Pause(const CTrack& track) override;
    silence_rule_t Watch(long handler_id, int timeout_s) override;
    int SendReport(const unsigned char* report, unsigned int length, int channel) override;

private:
    CNatRoute(CSockDgram* sock, const RouteWish& wish);

    CSockDgram* const m_sock;
    const bool m_reports;
    CP2PUdpSender m_sender;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NATROUTE_H
