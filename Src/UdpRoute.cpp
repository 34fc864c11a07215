#include "UdpRoute.h"

#include <new>

#include "Protocol/RtspTables.h"
#include "TrackTable.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_RTP_PORT = 65534;  // as RTCP has the next one

// The address of a numeric text; invalid for any other, so that no name of a peer's choice is ever resolved.
CSockAddrStorage numeric_address(const char* text) {
    CSockAddrStorage addr;
    sockaddr_storage native;
    const CSockAddrIPv4 v4(text, 0);
    const CSockAddrIPv6 v6(text, 0);
    const CSockAddr& parsed = v4.IsValid() ? static_cast<const CSockAddr&>(v4) : v6;
    if (text[0] != '\0' && parsed.GetAddr(reinterpret_cast<sockaddr*>(&native)) == 0) {
        addr.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), static_cast<unsigned int>(parsed.GetAddrLen()));
    }
    return addr;
}

// An IPv4-mapped address as the plain one, which an IPv4 socket can send to.
CSockAddrStorage canonical_address(const CSockAddrStorage& addr) {
    char text[128];
    return addr.GetRealType() == Tramel::SOCK_ADDR_IPV4 ? numeric_address(addr.GetIpStr(text, sizeof(text))) : addr;
}

}  // namespace

std::unique_ptr<IMediaRoute> CUdpRoute::Create(const CSockAddrStorage& peer, const RouteWish& wish) {
    const bool to_group = wish.transport.multicast;
    const CSockAddrStorage remote = to_group ? numeric_address(wish.group.addr) : canonical_address(peer);
    // Only a group: an address of the client's choice would let it aim the stream at somebody else. RFC 2326 16.
    if (to_group && !remote.IsMulticast()) {
        return nullptr;
    }
    std::unique_ptr<CUdpRoute> route(new (std::nothrow) CUdpRoute);
    if (!route) {
        return nullptr;
    }
    CRtpUdpSender& sender = route->m_sender;
    sender.SetConfig(&wish.config);
    sender.Init(wish.track_count);
    if (to_group) {
        route->m_to_group = true;
        route->m_group = wish.group;
        sender.SetTtl(wish.group.ttl);
    }
    sender.SetRemote(remote);
    for (int i = 0; i < CTrackTable::MAX_TRACKS; ++i) {
        sender.DisableTrack(i);
    }
    return route;
}

int CUdpRoute::SetUp(const CTrack& /*track*/, int channel, transport_info& transport) {
    int port = 0;
    if (transport.multicast != m_to_group) {
        return RTSP_STATUS_UNSUPPORTED_TRANSPORT;  // all tracks go to one place
    }
    if (transport.rtp_port < 1 || transport.rtp_port > MAX_RTP_PORT || channel < 0 || channel > MAX_ROUTE_CHANNEL ||
        m_sender.OpenPair(&port, transport.rtp_port, channel) < 0) {
        return RTSP_STATUS_UNSUPPORTED_TRANSPORT;
    }
    transport.server_rtp_port = port;
    transport.server_rtcp_port = port + 1;
    return 0;
}

void CUdpRoute::Switch(const CTrack& track, bool on) {
    on ? m_sender.EnableTrack(track.send_channel) : m_sender.DisableTrack(track.send_channel);
}

void CUdpRoute::Pause(const CTrack& track) {
    m_sender.PauseTrack(track.send_channel);
}

// The control connection of a UDP client may be silent as long as its reports come.
silence_rule_t CUdpRoute::Watch(long handler_id, int timeout_s) {
    if (timeout_s <= 0) {
        return SILENCE_OF_CONTROL;
    }
    m_sender.StartKeepAlive(handler_id, timeout_s);
    return SILENCE_OF_BOTH;
}

int CUdpRoute::SendReport(const unsigned char* report, unsigned int length, int channel) {
    const int sent = m_sender.SendRaw(reinterpret_cast<const char*>(report), static_cast<int>(length), channel);
    if (sent < 0) {
        logError("%s %d channel: %d udp media send falied !\n", __FILE__, __LINE__, channel);
    }
    return sent < 0 ? -1 : 0;
}

}  // namespace Vidora
}  // namespace Kavio
