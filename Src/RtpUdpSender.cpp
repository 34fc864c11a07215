#include "RtpUdpSender.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <new>

#include "RtpUdpKeeper.h"
#include "UdpSockPair.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

namespace {

const int INTERLEAVE_HEADER_SIZE = 4;
const uint64_t REPORT_INTERVAL_MS = 1000;
const unsigned TRACK_COUNT = 8;

// Multicast groups that may be routed. 224.0.0.x stays on the link whatever its TTL, and keeps the default.
const uint32_t FIRST_ROUTED_GROUP = 0xE0000100;  // 224.0.1.0
const uint32_t LAST_ROUTED_GROUP = 0xEFFFFFFF;

// The address as a number in host order; 0 unless it is IPv4.
uint32_t ipv4_number(const CSockAddrStorage& addr) {
    if (addr.GetRealType() != Tramel::SOCK_ADDR_IPV4) {
        return 0;
    }
    char text[64];
    const CSockAddrIPv4 plain(addr.GetIpStr(text, sizeof(text)), 0);
    sockaddr_in native = {};
    if (plain.GetAddr(reinterpret_cast<sockaddr*>(&native)) < 0) {
        return 0;
    }
    return ntohl(native.sin_addr.s_addr);
}

void mark_sock(const CSockDgram& sock, int dscp, int family) {
    // RFC 2474 3: the code point is the upper six bits of the octet.
    const int tos = dscp << 2;
    if (family == Tramel::SOCK_ADDR_IPV6) {
        setsockopt(sock.GetHandle(), IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof(tos));
    } else {
        setsockopt(sock.GetHandle(), IPPROTO_IP, IP_TOS, &tos, sizeof(tos));
    }
}

// Null if memory is short.
std::shared_ptr<CUdpSockPair> make_sock_pair() {
    try {
        return std::make_shared<CUdpSockPair>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

CRtpUdpSender::CRtpUdpSender() = default;

CRtpUdpSender::~CRtpUdpSender() {
    if (m_keeper != nullptr) {
        m_keeper->Close();
    }
}

int CRtpUdpSender::Put(CMediaPacket* packet, int length, int /*flag*/, int tag) {
    const unsigned track = static_cast<unsigned>(tag) >> 24;
    if (track >= TRACK_COUNT || ((m_track_mask.load(std::memory_order_relaxed) >> track) & 1U) == 0) {
        return 0;
    }
    const unsigned char* data = packet == nullptr ? nullptr : packet->GetData();
    if (data == nullptr || length < INTERLEAVE_HEADER_SIZE) {
        return -1;
    }
    CGuard guard(m_mutex);
    CSockDgram* sock = find_sock_locked(data[1], false);
    if (sock == nullptr) {
        return -1;
    }
    if (sock->SendMerged(data, static_cast<unsigned int>(length)) < 0) {
        if (report_due_locked()) {
            logError("%s:%d udp send failed \n", __FILE__, __LINE__);
        }
        return -1;
    }
    return length;
}

// A peer that has gone refuses every packet: one line a second is enough.
bool CRtpUdpSender::report_due_locked() {
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (m_last_report_ms != 0 && now - m_last_report_ms < REPORT_INTERVAL_MS) {
        return false;
    }
    m_last_report_ms = now;
    return true;
}

void CRtpUdpSender::SetConfig(const CRtspSvrConfig* config) {
    m_config = config;
}

void CRtpUdpSender::Init(int media_num) {
    if (!OSTRA_ASSERT(media_num < 16) || media_num < 0) {
        return;
    }
    CGuard guard(m_mutex);
    m_slots.reset(new (std::nothrow) Slot[static_cast<size_t>(media_num)]);
    m_slot_count = m_slots ? media_num : 0;
    m_next_slot = 0;
}

int CRtpUdpSender::SetRemote(CSockAddrStorage addr) {
    CGuard guard(m_mutex);
    m_remote = addr;
    return 0;
}

int CRtpUdpSender::SetTtl(int ttl) {
    if (ttl > 0) {
        CGuard guard(m_mutex);
        m_ttl = ttl;
    }
    return 0;
}

int CRtpUdpSender::SetMulticastIF(const char* ip) {
    if (ip == nullptr) {
        return -1;
    }
    CGuard guard(m_mutex);
    snprintf(m_multicast_if, sizeof(m_multicast_if), "%s", ip);
    m_has_multicast_if = true;
    return 0;
}

int CRtpUdpSender::OpenPair(int* local_port, int remote_port, int channel) {
    CGuard guard(m_mutex);
    Slot* slot = free_slot_locked(channel);
    const std::shared_ptr<CUdpSockPair> pair = make_sock_pair();
    if (slot == nullptr || !pair || m_config == nullptr) {
        return -1;
    }
    RtpPortRange range;
    m_config->GetRtpPort(range);
    slot->pair.reset();  // its ports are free for the search
    if (pair->OpenInRange(range.min_local_port, range.max_local_port, m_remote.GetRealType(), local_port) < 0) {
        logError("%s:%d min_local_port:%d max_local_port:%d  error\n", __FILE__, __LINE__, range.min_local_port,
                 range.max_local_port);
        return -1;
    }
    mark(*pair);
    take_slot_locked(slot, pair, remote_port, channel);
    set_ttl_locked(*slot);
    if (m_has_multicast_if) {
        pair->Rtp().SetMulticastIF(m_multicast_if);
        pair->Rtcp().SetMulticastIF(m_multicast_if);
    }
    if (m_keeper != nullptr) {
        StartKeepAlive(m_keeper_notify_id, m_keeper_timeout_s);
    }
    return 0;
}

int CRtpUdpSender::OpenPairAt(int local_port, int remote_port, int channel) {
    CGuard guard(m_mutex);
    Slot* slot = free_slot_locked(channel);
    const std::shared_ptr<CUdpSockPair> pair = make_sock_pair();
    if (slot == nullptr || !pair) {
        return -1;
    }
    slot->pair.reset();
    pair->OpenAt(local_port, m_remote.GetRealType());
    take_slot_locked(slot, pair, remote_port, channel);
    set_ttl_locked(*slot);
    return 0;
}

// The next slot that was never used, or else the one that has the channel.
CRtpUdpSender::Slot* CRtpUdpSender::free_slot_locked(int channel) {
    if (m_next_slot < m_slot_count) {
        return &m_slots[static_cast<size_t>(m_next_slot)];
    }
    for (int i = 0; i < m_slot_count; ++i) {
        Slot& slot = m_slots[static_cast<size_t>(i)];
        if (slot.channel == channel) {
            return &slot;
        }
    }
    return nullptr;
}

void CRtpUdpSender::take_slot_locked(Slot* slot, const std::shared_ptr<CUdpSockPair>& pair, int remote_port,
                                     int channel) {
    set_remote_locked(*pair, remote_port);
    slot->pair = pair;
    slot->channel = channel;
    if (m_next_slot < m_slot_count) {
        ++m_next_slot;
    }
}

void CRtpUdpSender::set_remote_locked(CUdpSockPair& pair, int remote_port) {
    CSockAddrStorage remote(m_remote);
    remote.SetPort(static_cast<unsigned short>(remote_port));
    pair.Rtp().SetRemote(&remote);
    remote.SetPort(static_cast<unsigned short>(remote_port + 1));
    pair.Rtcp().SetRemote(&remote);
}

void CRtpUdpSender::set_ttl_locked(const Slot& slot) {
    CSockDgram* socks[] = {&slot.pair->Rtp(), &slot.pair->Rtcp()};
    const uint32_t group = ipv4_number(m_remote);
    const int ttl = m_ttl < 255 ? m_ttl : 255;
    for (int i = 0; i < 2; ++i) {
        socks[i]->SetMulticastTTL(static_cast<unsigned char>(ttl));
        if (group >= FIRST_ROUTED_GROUP && group <= LAST_ROUTED_GROUP &&
            setsockopt(socks[i]->GetHandle(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl)) < 0) {
            logError("%s %d channel: %d set TTL Failed!\n", __FILE__, __LINE__, slot.channel + i);
        }
    }
}

void CRtpUdpSender::mark(CUdpSockPair& pair) const {
    const int dscp = m_config->GetDSCP();
    if (dscp > 0) {
        mark_sock(pair.Rtp(), dscp, pair.Family());
        mark_sock(pair.Rtcp(), dscp, pair.Family());
    }
}

CSockDgram* CRtpUdpSender::find_sock_locked(int channel, bool rtcp_first) {
    CSockDgram* other = nullptr;
    for (int i = 0; i < m_slot_count; ++i) {
        Slot& slot = m_slots[static_cast<size_t>(i)];
        if (!slot.pair) {
            continue;
        }
        const bool rtp = slot.channel == channel;
        if (!rtp && slot.channel + 1 != channel) {
            continue;
        }
        CSockDgram* sock = rtp ? &slot.pair->Rtp() : &slot.pair->Rtcp();
        if (rtp != rtcp_first) {
            return sock;
        }
        if (other == nullptr) {
            other = sock;
        }
    }
    return other;
}

int CRtpUdpSender::SendRaw(const char* buf, int len, int channel) {
    if (buf == nullptr || len < 0) {
        return -1;
    }
    CGuard guard(m_mutex);
    CSockDgram* sock = find_sock_locked(channel, true);
    return sock == nullptr ? -1 : sock->Send(buf, static_cast<unsigned int>(len), nullptr);
}

int CRtpUdpSender::StartKeepAlive(long notify_id, int timeout_s) {
    CGuard guard(m_mutex);
    if (m_keeper != nullptr) {
        m_keeper->Close();
    }
    m_keeper_notify_id = notify_id;
    m_keeper_timeout_s = timeout_s;
    m_keeper = new (std::nothrow) CRtpUdpKeeper(notify_id, timeout_s);
    if (m_keeper == nullptr) {
        return -1;
    }
    for (int i = 0; i < m_slot_count; ++i) {
        const Slot& slot = m_slots[static_cast<size_t>(i)];
        if (slot.pair) {
            m_keeper->AddPair(slot.pair);
        }
    }
    m_keeper->Start();
    return 0;
}

void CRtpUdpSender::EnableTrack(int track) {
    CGuard guard(m_mutex);  // against other switches; Put reads the mask without it
    if (track < 0) {
        m_track_mask = 0xff;
        return;
    }
    if (static_cast<unsigned>(track) >= TRACK_COUNT) {
        return;
    }
    const unsigned bit = 1U << track;
    const unsigned mask = m_track_mask;
    m_track_mask = static_cast<uint8_t>((mask == 0xff ? 0 : mask) | bit);
}

void CRtpUdpSender::DisableTrack(int channel) {
    if (!OSTRA_ASSERT(channel <= 7 && channel >= 0)) {
        return;
    }
    CGuard guard(m_mutex);
    m_track_mask = static_cast<uint8_t>(m_track_mask & ~(1U << channel));
}

}  // namespace Vidora
}  // namespace Kavio
