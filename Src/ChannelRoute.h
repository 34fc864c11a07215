#ifndef VIDORA_CHANNELROUTE_H
#define VIDORA_CHANNELROUTE_H

#include "MediaRoute.h"

namespace Kavio {
namespace Vidora {

class CSdpParser;

// CChannelRoute: media that the channel's own multicast sockets send. The session has no sink: it only shows the client
// where, and is counted among those that keep the channel going. It is also the route of a client whose every SETUP was
// refused and who plays all the same: its PLAY is answered, and nothing flows to it.
class CChannelRoute : public IMediaRoute {
public:
    // `sdp` describes the channel.
    static std::unique_ptr<IMediaRoute> Create(const std::shared_ptr<const CSdpParser>& sdp);

    int SetUp(const CTrack& track, int channel, transport_info& transport) override;
    const multicast_info* Group() const override { return &m_group; }
    void Switch(const CTrack& /*track*/, bool /*on*/) override {}
    int EnterLive(CLiveChannel& channel, packet_type_t type) override;
    void LeaveLive(CLiveChannel& channel, packet_type_t type) override;
    int EnterBuffer(CMediaBuffer& /*buffer*/) override { return 0; }
    void LeaveBuffer(CMediaBuffer& /*buffer*/) override {}
    silence_rule_t Watch(long handler_id, int timeout_s) override;
    int SendReport(const unsigned char* report, unsigned int length, int channel) override;

private:
    explicit CChannelRoute(const std::shared_ptr<const CSdpParser>& sdp);

    const std::shared_ptr<const CSdpParser> m_sdp;
    multicast_info m_group;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_CHANNELROUTE_H
