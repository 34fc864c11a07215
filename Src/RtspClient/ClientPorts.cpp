#include "RtspClient/ClientPorts.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <new>
#include <string>

#include "StreamParser/RandomDraw.h"
#include "Tramel/IpText.h"
#include "UdpSockPair.h"

namespace Kavio {
namespace Vidora {

namespace {

const int FIRST_PORT = 20000;
const int END_PORT = 40000;
const int FIRST_USER_PORT = 1024;  // those below belong to the system's services

std::shared_ptr<CUdpSockPair> make_pair() {
    try {
        return std::make_shared<CUdpSockPair>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<CSockDgram> make_sock() {
    try {
        return std::make_shared<CSockDgram>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<CSockDgram> open_sock(const CSockAddrStorage& at) {
    const std::shared_ptr<CSockDgram> sock = make_sock();
    return sock != nullptr && sock->Open(&at) == 0 ? sock : nullptr;
}

// Moves a socket to the port that the server sends to. One that can't be moved stays where it is.
void move_port(std::shared_ptr<CSockDgram>& sock, int& port, int wanted, const CSockAddrStorage& peer,
               const char* name) {
    if (wanted == 0 || wanted == port) {
        return;
    }
    logInfo("%s:%d %s client_port changed from %d to %d\n", __FILE__, __LINE__, name, port, wanted);
    const char* any = peer.GetRealType() == Tramel::SOCK_ADDR_IPV6 ? "::" : "0.0.0.0";
    std::shared_ptr<CSockDgram> moved;
    if (wanted >= FIRST_USER_PORT) {
        moved = open_sock(CSockAddrStorage(any, static_cast<unsigned short>(wanted)));
    }
    if (moved == nullptr) {
        logError("%s:%d open udp port: %d failed\n", __FILE__, __LINE__, wanted);
        return;
    }
    sock = moved;
    port = wanted;
}

// What SetMulticastIF takes for the interface with this address: for IPv6 its name.
std::string interface_of(const CSockAddrStorage& local) {
    char text[64] = "";
    local.GetIpStr(text, sizeof(text));
    if (local.GetRealType() != Tramel::SOCK_ADDR_IPV6) {
        return text;
    }
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        return "";
    }
    std::string name;
    for (const ifaddrs* entry = list; entry != nullptr && name.empty(); entry = entry->ifa_next) {
        CSockAddrStorage addr;
        char other[64] = "";
        if (entry->ifa_addr != nullptr && addr.SetSockAddr(entry->ifa_addr, sizeof(sockaddr_in6)) == 0 &&
            std::string(addr.GetIpStr(other, sizeof(other))) == text) {
            name = entry->ifa_name;
        }
    }
    ::freeifaddrs(list);
    return name;
}

// Whether the connection stays on this host.
bool is_own(const CSockAddrStorage& local, const CSockAddrStorage& peer, const std::string& interface_name) {
    CSockAddrStorage other(peer);
    other.SetPort(local.GetPort());
    return other == local || interface_name.rfind("127.", 0) == 0 || interface_name == "lo";
}

// On that interface alone: another network may have a group of the same address. A server on this host (`own`) sends
// where its routes point, so that the group is joined there as well.
std::shared_ptr<CSockDgram> join(const CSockAddrStorage& group, int port, const std::string& interface_name, bool own) {
    CSockAddrStorage at(group);
    at.SetPort(static_cast<unsigned short>(port));
    const std::shared_ptr<CSockDgram> sock = make_sock();
    if (sock == nullptr) {
        return nullptr;
    }
    if (own && sock->Open(&at) == 0) {
        sock->SetMulticastIF(interface_name.c_str());
        return sock;
    }
    const bool is_joined = !interface_name.empty() && sock->OpenGroup(at, interface_name.c_str()) == 0;
    return is_joined || sock->Open(&at) == 0 ? sock : nullptr;
}

}  // namespace

int OpenClientPorts(client_track& track, const CSockAddrStorage& peer) {
    const std::shared_ptr<CUdpSockPair> pair = make_pair();
    const int start = FIRST_PORT + random_draw() % (END_PORT - FIRST_PORT);
    int port = 0;
    if (pair == nullptr || (pair->OpenInRange(start, END_PORT, peer.GetRealType(), &port) < 0 &&
                            pair->OpenInRange(FIRST_PORT, start, peer.GetRealType(), &port) < 0)) {
        logError("%s:%d error alloc port\n", __FILE__, __LINE__);
        return -1;
    }
    // Both share the pair, which holds its ports for this process.
    track.rtp_sock = std::shared_ptr<CSockDgram>(pair, &pair->Rtp());
    track.rtcp_sock = std::shared_ptr<CSockDgram>(pair, &pair->Rtcp());
    track.transport.rtp_port = port;
    track.transport.rtcp_port = port + 1;
    return 0;
}

void FollowUnicastReply(client_track& track, const transport_info& reply, const CSockAddrStorage& source,
                        const CSockAddrStorage& peer, bool reports) {
    move_port(track.rtp_sock, track.transport.rtp_port, reply.rtp_port, peer, "rtp");
    move_port(track.rtcp_sock, track.transport.rtcp_port, reply.rtcp_port, peer, "rtcp");
    track.source = peer;
    track.other_source = source;
    track.report_to = reports && source.IsValid() ? source : peer;
    track.report_to.SetPort(static_cast<unsigned short>(reply.server_rtcp_port));
    if (reply.server_rtcp_port == 0) {
        track.report_to = CSockAddrStorage();
    }
}

int JoinGroup(client_track& track, const transport_info& reply, const multicast_info& group,
              const CSockAddrStorage& source, const CSockAddrStorage& peer, const CSockAddrStorage& local,
              bool reports) {
    sockaddr_storage native = {};
    CSockAddrStorage addr;
    const char* text = group.addr[0] != '\0' ? group.addr : track.multicast.addr;
    if (Tramel::ParseIpText(text, native)) {
        addr.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native));
    }
    const int rtp_port = reply.server_rtp_port > 0 ? reply.server_rtp_port : track.transport.server_rtp_port;
    const int rtcp_port = reply.server_rtcp_port > 0 ? reply.server_rtcp_port : rtp_port + 1;
    track.rtp_sock = nullptr;
    track.rtcp_sock = nullptr;
    if (!addr.IsMulticast() || rtp_port <= 0 || rtcp_port > Tramel::MAX_PORT) {
        logError("%s:%d open multicast failed\n", __FILE__, __LINE__);
        return -1;
    }
    const std::string interface_name = interface_of(local);
    const bool own = is_own(local, peer, interface_name);
    track.rtp_sock = join(addr, rtp_port, interface_name, own);
    track.rtcp_sock = join(addr, rtcp_port, interface_name, own);
    if (track.rtp_sock == nullptr || track.rtcp_sock == nullptr) {
        logError("%s:%d open multicast failed\n", __FILE__, __LINE__);
        return -1;
    }
    track.source = source;
    track.transport.multicast = true;
    track.transport.server_rtp_port = rtp_port;
    track.transport.server_rtcp_port = rtcp_port;
    if (reports) {
        track.report_to = addr;
        track.report_to.SetPort(static_cast<unsigned short>(rtcp_port));
    }
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
