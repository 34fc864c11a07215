#include "Nat/NatRoute.h"

#include <new>

#include "Protocol/RtspTables.h"
#include "TrackTable.h"
#include "Tramel/SockDgram.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

std::unique_ptr<IMediaRoute> CNatRoute::Create(CSockDgram* sock, const RouteWish& wish) {
    return std::unique_ptr<IMediaRoute>(new (std::nothrow) CNatRoute(sock, wish));
}

CNatRoute::CNatRoute(CSockDgram* sock, const RouteWish& wish)
    : CLevel2Route(m_sender), m_sock(sock), m_reports(wish.config.GetConformance()) {
    m_sender.SetSock(sock);
    m_sender.SetFrameProc(wish.on_datagrams);
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

// What becomes of a datagram is no failure.
int CNatRoute::SendReport(const unsigned char* report, unsigned int length, int /*channel*/) {
    if (m_reports) {
        m_sock->Send(reinterpret_cast<const char*>(report), length, nullptr);
    }
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
