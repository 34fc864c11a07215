#include "Nat/NatRoute.h"

#include <new>

#include "Protocol/RtspTables.h"
#include "TrackTable.h"

namespace Kavio {
namespace Vidora {

std::unique_ptr<IMediaRoute> CNatRoute::Create(CSockDgram* sock, const RouteWish& wish) {
    std::unique_ptr<CNatRoute> route(new (std::nothrow) CNatRoute);
    if (route) {
        route->m_sender.SetSock(sock);
        route->m_sender.SetFrameProc(wish.on_datagrams);
    }
    return route;
}

int CNatRoute::SetUp(const CTrack& /*track*/, int channel, transport_info& transport) {
    if (transport.packet_type == PACKET_TYPE_KX || channel < 0 || channel > MAX_ROUTE_CHANNEL) {
        return RTSP_STATUS_UNSUPPORTED_TRANSPORT;
    }
    transport.server_rtp_port = channel;
    transport.server_rtcp_port = channel + 1;
    return 0;
}

void CNatRoute::Switch(const CTrack& track, bool on) {
    on ? m_sender.SetChannel(track.send_channel) : m_sender.ClearChannel(track.send_channel);
}

void CNatRoute::Pause(const CTrack& track) {
    m_sender.PauseChannel(track.send_channel);
}

// The session watches its one socket itself.
silence_rule_t CNatRoute::Watch(long /*handler_id*/, int /*timeout_s*/) {
    return SILENCE_OF_NONE;
}

int CNatRoute::SendReport(const unsigned char* /*report*/, unsigned int /*length*/, int /*channel*/) {
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
