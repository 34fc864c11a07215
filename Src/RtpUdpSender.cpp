#include "RtpUdpSender.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "RtpUdpKeeper.h"
#include "Tramel/DgramMessage.h"
#include "Tramel/Interleave.h"
#include "Tramel/IpText.h"
#include "Tramel/MediaTag.h"
#include "UdpSockPair.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t REPORT_INTERVAL_MS = 1000;
const int MAX_TTL = 255;

// A group of 224.0.0.x, which stays on the link whatever its TTL (RFC 5771 4).
bool is_link_local_group(const CSockAddrStorage& addr) {
    sockaddr_in native;
    return Tramel::ReadIPv4(addr.Native(), sizeof(native), native) && (ntohl(native.sin_addr.s_addr) >> 8) == 0xE00000;
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
        return std::make_shared<CUdpSockPair>(false);
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

int CRtpUdpSender::PutRest(CMediaPacket* packet, int offset, int length, int tag) {
    const Tramel::MediaTag media = Tramel::MediaTag::Unpack(tag);
    if (!m_tracks.Passes(media.track, media.IsKey())) {
        return 0;
    }
    const unsigned char* data = packet == nullptr ? nullptr : packet->GetData();
    if (data == nullptr || length - offset < static_cast<int>(Tramel::INTERLEAVE_HEADER_SIZE)) {
        return -1;
    }
    CGuard guard(m_mutex);
    const bool sent = send_locked(data + offset, static_cast<unsigned int>(length - offset));
    publish_locked();
    return sent ? length : -1;
}

bool CRtpUdpSender::send_locked(const unsigned char* data, unsigned int length) {
    const Outlet outlet = find_outlet_locked(data[Tramel::INTERLEAVE_CHANNEL_AT], false);
    if (outlet.slot == nullptr) {
        return false;
    }
    const bool aimed = aim_locked(*outlet.slot);
    if (!aimed || outlet.sock->SendMerged(data, length) < 0) {
        report_failure_locked(*outlet.slot, errno);
        outlet.slot->aimed = false;  // the next frame tries another route
        return false;
    }
    report_success_locked(*outlet.slot);
    return true;
}

void CRtpUdpSender::fill_locked(Tramel::CSinkEntry& entry) {
    const bool sends = !m_failing && !m_remote.IsMulticast();
    for (int i = 0; sends && i < m_next_slot && entry.outlet_count < Tramel::CSinkEntry::MAX_OUTLETS; ++i) {
        const Slot& slot = m_slots[static_cast<size_t>(i)];
        if (slot.pair && slot.aimed && slot.channel >= 0 && slot.channel <= UINT8_MAX) {
            const CSockDgram& sock = slot.pair->Rtp();
            entry.outlets[entry.outlet_count++] = {sock.GetHandle(), static_cast<uint16_t>(sock.MaxSegment()),
                                                   static_cast<uint8_t>(slot.channel)};
        }
    }
}

// Sets where the slot's pair sends, unless it knows.
bool CRtpUdpSender::aim_locked(Slot& slot) {
    unsigned int index = 0;
    CSockAddrStorage source;
    if (!slot.aimed && (!m_remote.IsMulticast() || m_interface.Find(m_remote.GetRealType(), index, source))) {
        slot.aimed = slot.pair->Aim(m_remote, slot.remote_port, index, source) == 0;
    }
    return slot.aimed;
}

// Once until a packet gets out, and once a second where some do.
void CRtpUdpSender::report_failure_locked(const Slot& slot, int error) {
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (m_failing || (m_last_report_ms != 0 && now - m_last_report_ms < REPORT_INTERVAL_MS)) {
        return;
    }
    m_failing = true;
    m_last_report_ms = now;
    logError("%s:%d udp send failed \n", __FILE__, __LINE__);
    if (!m_remote.IsMulticast()) {
        return;
    }
    char ip[64];
    const char* path = m_interface.Text()[0] == '\0' ? "the system's routes" : m_interface.Text();
    logError("%s:%d nothing can be sent to %s port %d by %s: %s\n", __FILE__, __LINE__,
             m_remote.GetIpStr(ip, sizeof(ip)), slot.remote_port, path, std::strerror(error));
}

void CRtpUdpSender::report_success_locked(const Slot& slot) {
    const bool is_news = m_failing && m_remote.IsMulticast();
    m_failing = false;
    if (is_news) {
        char ip[64];
        logWarn("%s:%d sending to %s port %d goes on\n", __FILE__, __LINE__, m_remote.GetIpStr(ip, sizeof(ip)),
                slot.remote_port);
    }
}

void CRtpUdpSender::SetConfig(const CRtspSvrConfig* config) {
    m_config = config;
}

void CRtpUdpSender::Init(int media_num) {
    if (!OSTRA_ASSERT(media_num < 16) || media_num < 0) {
        return;
    }
    CGuard guard(m_mutex);
    m_next_slot = 0;
    publish_locked();
    m_slots.reset(new (std::nothrow) Slot[static_cast<size_t>(media_num)]);
    m_slot_count = m_slots ? media_num : 0;
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
    m_interface.Set(ip);
    return 0;
}

int CRtpUdpSender::OpenPair(int* local_port, int remote_port, int channel) {
    CGuard guard(m_mutex);
    Slot* slot = free_slot_locked(channel);
    if (slot == nullptr || m_config == nullptr) {
        return -1;
    }
    // A track that is set up anew keeps its sockets, so that it isn't lost where there are no others.
    const bool is_open = slot->pair && slot->pair->Port() >= 0;
    const std::shared_ptr<CUdpSockPair> pair = is_open ? slot->pair : open_in_range_locked(local_port);
    if (!pair) {
        return -1;
    }
    *local_port = pair->Port();
    take_slot_locked(slot, pair, remote_port, channel);
    if (m_keeper != nullptr) {
        StartKeepAlive(m_keeper_notify_id, m_keeper_timeout_s);
    }
    return 0;
}

// Null if there is none, with a log line unless memory is short.
std::shared_ptr<CUdpSockPair> CRtpUdpSender::open_in_range_locked(int* local_port) {
    std::shared_ptr<CUdpSockPair> pair = make_sock_pair();
    if (!pair) {
        return nullptr;
    }
    RtpPortRange range;
    m_config->GetRtpPort(range);
    if (pair->OpenInRange(range.min_local_port, range.max_local_port, m_remote.GetRealType(), local_port) < 0) {
        logError("%s:%d min_local_port:%d max_local_port:%d  error\n", __FILE__, __LINE__, range.min_local_port,
                 range.max_local_port);
        return nullptr;
    }
    mark(*pair);
    return pair;
}

int CRtpUdpSender::OpenPairAt(int local_port, int remote_port, int channel) {
    CGuard guard(m_mutex);
    Slot* slot = free_slot_locked(channel);
    const std::shared_ptr<CUdpSockPair> pair = make_sock_pair();
    if (slot == nullptr || !pair) {
        return -1;
    }
    close_pair_locked(*slot);
    pair->OpenAt(local_port, m_remote.GetRealType());
    take_slot_locked(slot, pair, remote_port, channel);
    return 0;
}

// The slot that has the channel, whose track is set up anew; or else the next one that was never used.
CRtpUdpSender::Slot* CRtpUdpSender::free_slot_locked(int channel) {
    for (int i = 0; i < m_next_slot; ++i) {
        Slot& slot = m_slots[static_cast<size_t>(i)];
        if (slot.channel == channel) {
            return &slot;
        }
    }
    return m_next_slot < m_slot_count ? &m_slots[static_cast<size_t>(m_next_slot)] : nullptr;
}

void CRtpUdpSender::close_pair_locked(Slot& slot) {
    slot.aimed = false;
    publish_locked();  // the group doesn't send by it any more
    slot.pair.reset();
}

void CRtpUdpSender::take_slot_locked(Slot* slot, const std::shared_ptr<CUdpSockPair>& pair, int remote_port,
                                     int channel) {
    close_pair_locked(*slot);
    slot->pair = pair;
    slot->channel = channel;
    slot->remote_port = remote_port;
    set_ttl_locked(*slot);
    slot->aimed = false;
    aim_locked(*slot);  // or else with the first packet
    if (slot == m_slots.get() + m_next_slot) {
        ++m_next_slot;
    }
    publish_locked();
}

uint8_t CRtpUdpSender::GetTtl(const CSockAddrStorage& group) {
    CGuard guard(m_mutex);
    return static_cast<uint8_t>(is_link_local_group(group) ? 1 : std::min(m_ttl, MAX_TTL));
}

// Link-local groups keep the system's TTL.
void CRtpUdpSender::set_ttl_locked(const Slot& slot) {
    if (!m_remote.IsMulticast() || is_link_local_group(m_remote)) {
        return;
    }
    CSockDgram* socks[] = {&slot.pair->Rtp(), &slot.pair->Rtcp()};
    const int ttl = std::min(m_ttl, MAX_TTL);
    for (int i = 0; i < 2; ++i) {
        if (socks[i]->SetMulticastTTL(static_cast<unsigned char>(ttl)) < 0) {
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

CRtpUdpSender::Outlet CRtpUdpSender::find_outlet_locked(int channel, bool rtcp_first) {
    Outlet other;
    for (int i = 0; i < m_slot_count; ++i) {
        Slot& slot = m_slots[static_cast<size_t>(i)];
        if (!slot.pair) {
            continue;
        }
        const bool rtp = slot.channel == channel;
        if (!rtp && slot.channel + 1 != channel) {
            continue;
        }
        const Outlet outlet = {&slot, rtp ? &slot.pair->Rtp() : &slot.pair->Rtcp()};
        if (rtp != rtcp_first) {
            return outlet;
        }
        if (other.slot == nullptr) {
            other = outlet;
        }
    }
    return other;
}

int CRtpUdpSender::SendRaw(const char* buf, int len, int channel) {
    if (buf == nullptr || len < 0) {
        return -1;
    }
    CGuard guard(m_mutex);
    const Outlet outlet = find_outlet_locked(channel, true);
    if (outlet.slot == nullptr || !aim_locked(*outlet.slot)) {
        return -1;
    }
    const int sent = outlet.sock->Send(buf, static_cast<unsigned int>(len), nullptr);
    return sent < 0 && Tramel::IsFullSocket(errno) ? len : sent;  // what finds no room is lost, as media
}

int CRtpUdpSender::StartKeepAlive(long notify_id, int timeout_s) {
    CGuard guard(m_mutex);
    if (m_keeper != nullptr) {
        m_keeper->Close();
    }
    m_keeper_notify_id = notify_id;
    m_keeper_timeout_s = timeout_s;
    m_keeper = new (std::nothrow) CRtpUdpKeeper(notify_id, timeout_s, m_remote);
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

// The switches are kept apart from each other; Put reads them without the lock.
void CRtpUdpSender::EnableTrack(int track) {
    CGuard guard(m_mutex);
    switch_locked([track](CTrackSwitch& tracks) { tracks.On(track); });
}

void CRtpUdpSender::PauseTrack(int track) {
    CGuard guard(m_mutex);
    switch_locked([track](CTrackSwitch& tracks) { tracks.Pause(track); });
}

void CRtpUdpSender::DisableTrack(int channel) {
    CGuard guard(m_mutex);
    switch_locked([channel](CTrackSwitch& tracks) { tracks.Off(channel); });
}

}  // namespace Vidora
}  // namespace Kavio
