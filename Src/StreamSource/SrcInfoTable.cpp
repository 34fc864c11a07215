#include "StreamSource/SrcInfoTable.h"

#include <algorithm>

namespace Kavio {
namespace Vidora {

namespace {
const uint64_t US_PER_MS = 1000;
const uint64_t MAX_OFF_US = 60000000;
}  // namespace

void CSrcInfoTable::SetCount(int count) {
    CGuard guard(m_mutex);
    m_count = count;
}

void CSrcInfoTable::Begin(int index, uint16_t seq) {
    CGuard guard(m_mutex);
    m_info[index].seq = seq;
    m_info[index].octets = 0;
    m_info[index].packets = 0;
}

void CSrcInfoTable::SetSsrc(int index, unsigned int ssrc) {
    CGuard guard(m_mutex);
    m_ssrc[index] = ssrc;
}

void CSrcInfoTable::SetTimestamp(int index, uint32_t timestamp) {
    CGuard guard(m_mutex);
    m_info[index].timestamp = timestamp;
}

void CSrcInfoTable::SetPlace(int index, uint32_t timestamp, uint16_t seq) {
    CGuard guard(m_mutex);
    m_info[index].timestamp = timestamp;
    m_info[index].seq = seq;
    m_info[index].wall_us = 0;
    m_anchor = Anchor();
}

void CSrcInfoTable::AddFrame(int index, uint32_t timestamp, uint16_t seq, const Sent& sent) {
    CGuard guard(m_mutex);
    SrcInfo& info = m_info[index];
    const uint16_t rtp_packets = static_cast<uint16_t>(seq - info.seq);
    info.timestamp = timestamp;
    info.seq = seq;
    info.octets += sent.bytes;
    info.packets += sent.packets;
    info.rtp_packets += rtp_packets;
    info.payload_octets += sent.bytes - std::min(sent.bytes, rtp_packets * sent.packet_header);
    info.wall_us = sent.is_dated ? wall_time_locked(sent.pts_ms) : 0;
}

// By the source's own clock, whose steps the RTP time makes as well: so the reports never step (RFC 3550 6.4.1). A
// clock that has left the wall by far, as that of a source that stood still, is laid on anew.
uint64_t CSrcInfoTable::wall_time_locked(uint64_t pts_ms) {
    const uint64_t now = CTime::getWallMicroSecond();
    const uint64_t wall = m_anchor.wall_us + (pts_ms - m_anchor.pts_ms) * US_PER_MS;
    const uint64_t off = wall > now ? wall - now : now - wall;
    if (m_anchor.wall_us != 0 && off < MAX_OFF_US) {
        return wall;
    }
    m_anchor = {now, pts_ms};
    return now;
}

int CSrcInfoTable::Get(int index, SrcInfo& info) {
    CGuard guard(m_mutex);
    if (index < 0 || index >= m_count) {
        logError("%s:%d GetSrcInfo, channel_id out of, channel_id:%d m_channel_num:%d\n", __FILE__, __LINE__, index,
                 m_count);
        return -1;
    }
    info = m_info[index];
    return 0;
}

unsigned int CSrcInfoTable::GetSsrc(int index) {
    CGuard guard(m_mutex);
    return index < 0 || index >= MAX_TRACK ? 0 : m_ssrc[index];
}

}  // namespace Vidora
}  // namespace Kavio
