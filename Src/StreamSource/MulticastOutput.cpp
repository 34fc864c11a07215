#include "StreamSource/MulticastOutput.h"

#include <algorithm>
#include <new>

#include "Protocol/SdpParser.h"
#include "RtpUdpSender.h"
#include "Tramel/IpText.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {

const int SENDER_MEDIA_NUM = 8;
const uint8_t CONNECTION_TTL = 4;  // what clients of this system know, whatever is sent with
const int PORTS_PER_TRACK = 2;

}  // namespace

CMulticastOutput::Destination::Destination() = default;
CMulticastOutput::Destination::~Destination() = default;

int CMulticastOutput::Add(const CSockAddrStorage& group, const char* local_ip, int media_count,
                          const CRtspSvrConfig& config, CMediaBuffer& buffer) {
    std::list<Destination> entry;
    try {
        entry.emplace_back();
        entry.back().local_ip = local_ip == nullptr ? "" : local_ip;
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return -1;
    }
    Destination& destination = entry.back();
    destination.group = group;
    destination.sender.reset(new (std::nothrow) CRtpUdpSender);
    if (!destination.sender) {
        return -1;
    }
    destination.sender->SetConfig(&config);
    destination.described_ttl = config.GetConformance() ? destination.sender->GetTtl(group) : CONNECTION_TTL;
    destination.sender->Init(SENDER_MEDIA_NUM);
    destination.sender->SetRemote(destination.group);
    destination.sender->SetMulticastIF(destination.local_ip.c_str());
    if (!open_ports(destination, media_count) || !CMediaBufferRef(&buffer).Add(destination.sender.get())) {
        return -1;
    }
    m_destinations.splice(m_destinations.end(), entry);
    return 0;
}

// One pair of ports for the first track, and one for each medium behind it: one more than there are tracks, which is
// left out where it can't be had.
bool CMulticastOutput::open_ports(Destination& destination, int media_count) {
    CRtpUdpSender& sender = *destination.sender;
    const int base_port = destination.group.GetPort();
    const int tracks = std::max(media_count, 1);
    if (base_port + PORTS_PER_TRACK * tracks - 1 > Tramel::MAX_PORT) {
        logError("%s:%d base port %d has no room for the ports of %d tracks\n", __FILE__, __LINE__, base_port, tracks);
        return false;
    }
    for (int& pairs = destination.pairs; pairs <= media_count; ++pairs) {
        int local_port = 0;
        const int remote_port = base_port + PORTS_PER_TRACK * pairs;
        if (remote_port >= Tramel::MAX_PORT || sender.OpenPair(&local_port, remote_port, PORTS_PER_TRACK * pairs) < 0) {
            return pairs >= tracks;
        }
    }
    return true;
}

void CMulticastOutput::Follow(int media_count) {
    for (Destination& destination : m_destinations) {
        if (destination.pairs < media_count && !open_ports(destination, media_count)) {
            logError("%s:%d base port %d: only %d of %d tracks can be sent\n", __FILE__, __LINE__,
                     destination.group.GetPort(), destination.pairs, media_count);
        }
    }
}

bool CMulticastOutput::Remove(const CSockAddrStorage& group, const char* local_ip, CMediaBuffer& buffer) {
    const char* interface_ip = local_ip == nullptr ? "" : local_ip;
    for (auto it = m_destinations.begin(); it != m_destinations.end(); ++it) {
        if (it->group == group && it->local_ip == interface_ip) {
            remove(it, buffer);
            return true;
        }
    }
    return false;
}

bool CMulticastOutput::RemoveFirst(CMediaBuffer& buffer) {
    if (m_destinations.empty()) {
        return false;
    }
    remove(m_destinations.begin(), buffer);
    return true;
}

void CMulticastOutput::remove(std::list<Destination>::iterator it, CMediaBuffer& buffer) {
    buffer.DelLevel2Buffer(it->sender.get());
    m_destinations.erase(it);
}

int CMulticastOutput::DescribeIn(CSdpParser& sdp) const {
    sdp.clear_session_connections();
    int base_port = 0;
    for (const Destination& destination : m_destinations) {
        char ip[64];
        destination.group.GetIpStr(ip, sizeof(ip));
        const int type = destination.group.GetRealType();
        if (type == Tramel::SOCK_ADDR_IPV4 || type == Tramel::SOCK_ADDR_IPV6) {
            sdp.add_session_connection(ip, destination.described_ttl, 1, "IN",
                                       type == Tramel::SOCK_ADDR_IPV4 ? "IP4" : "IP6");
        }
        if (base_port == 0) {
            base_port = destination.group.GetPort();
        }
    }
    return base_port;
}

}  // namespace Vidora
}  // namespace Kavio
