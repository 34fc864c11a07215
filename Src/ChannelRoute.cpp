#include "ChannelRoute.h"

#include <cstdio>
#include <new>

#include "Protocol/SdpParser.h"
#include "TrackTable.h"
#include "Vidora/LiveChannel.h"

namespace Kavio {
namespace Vidora {

std::unique_ptr<IMediaRoute> CChannelRoute::Create(const std::shared_ptr<const CSdpParser>& sdp) {
    return std::unique_ptr<IMediaRoute>(new (std::nothrow) CChannelRoute(sdp));
}

CChannelRoute::CChannelRoute(const std::shared_ptr<const CSdpParser>& sdp) : m_sdp(sdp) {}

// A client may name the ports of the description, and no others.
int CChannelRoute::SetUp(const CTrack& track, int /*channel*/, transport_info& transport) {
    const int media_port = m_sdp->get_media_port(track.track_id);
    if (transport.rtp_port != 0 && transport.rtp_port != media_port) {
        logError("%s:%d, setup.cli_rtp_channel=%d, sdp_rtp_channel=%d.\n", __FILE__, __LINE__, transport.rtp_port,
                 media_port);
        return -1;
    }
    if (transport.rtp_port == 0) {
        transport.rtp_port = media_port;
        transport.rtcp_port = media_port + 1;
    }
    sdp_connection_t connection;
    if (m_sdp->get_connection(&connection) == 0) {
        const char* address = connection.address.Get();
        snprintf(m_group.addr, sizeof(m_group.addr), "%s", address == nullptr ? "" : address);
        m_group.ttl = connection.ttl;
    }
    return 0;
}

// PLAY is answered also where the source can't start.
int CChannelRoute::EnterLive(CLiveChannel& channel, packet_type_t type) {
    logInfo("%s:%d, start streaming now. m_packet_type=%d. this=%p. \n", __FILE__, __LINE__, type,
            static_cast<void*>(this));
    channel.StartStreaming(type);
    return 0;
}

void CChannelRoute::LeaveLive(CLiveChannel& channel, packet_type_t type) {
    channel.StopStreaming(type);
}

silence_rule_t CChannelRoute::Watch(long /*handler_id*/, int /*timeout_s*/) {
    return SILENCE_OF_NONE;
}

// Receivers of a group that many share get no reports of one session.
int CChannelRoute::SendReport(const unsigned char* /*report*/, unsigned int /*length*/, int /*channel*/) {
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
