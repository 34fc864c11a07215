#ifndef VIDORA_UDPROUTE_H
#define VIDORA_UDPROUTE_H

#include "Level2Route.h"
#include "RtpUdpSender.h"
#include "SvrLink.h"

namespace Kavio {
namespace Vidora {

// CUdpRoute: media over a pair of UDP sockets a track, to the client or to a group that it has named.
class CUdpRoute : public CLevel2Route {
public:
    // A route to the client at `peer`, or to the group of its wish. Null if memory is short, or what it names is no
    // group.
    static std::unique_ptr<IMediaRoute> Create(const CSockAddrStorage& peer, const RouteWish& wish);

    int SetUp(const CTrack& track, int channel, transport_info& transport) override;
    const multicast_info* Group() const override { return m_to_group ? &m_group : nullptr; }
    void Switch(const CTrack& track, bool on) override;
    void Pause(const CTrack& track) override;
    silence_rule_t Watch(long handler_id, int timeout_s) override;
    int SendReport(const unsigned char* report, unsigned int length, int channel) override;

private:
    CUdpRoute() : CLevel2Route(m_sender) {}

    CRtpUdpSender m_sender;
    bool m_to_group = false;
    multicast_info m_group;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_UDPROUTE_H
