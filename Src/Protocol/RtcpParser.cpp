#include "Protocol/RtcpParser.h"

#include <cstring>
#include <new>

#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

//  0                   1                   2                   3
//  0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
// +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
// |V=2|P|  count  |      PT       |            length             |
// +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
const unsigned int VERSION_SHIFT = 6;
const unsigned int VERSION = 2;
const unsigned int PADDING_BIT = 0x20;
const unsigned int LOWEST_TYPE = 200;

}  // namespace

// All that there is to know about a packet type. Types without a row have no decoder and aren't sent.
const CRtcpParser::type_row CRtcpParser::TYPES[] = {
    {RTCP_TYPE_SR, &CRtcpParser::parse_sr_pack, &CRtcpParser::free_sr_pack, &CRtcpParser::prepare_sr,
     &CRtcpParser::write_sr},
    {RTCP_TYPE_RR, &CRtcpParser::parse_rr_pack, &CRtcpParser::free_rr_pack, &CRtcpParser::prepare_rr,
     &CRtcpParser::write_rr},
    {RTCP_TYPE_SDES, &CRtcpParser::parse_sdes_pack, &CRtcpParser::free_sdes_pack, &CRtcpParser::prepare_sdes,
     &CRtcpParser::write_sdes},
    {RTCP_TYPE_BYE, &CRtcpParser::parse_bye_pack, &CRtcpParser::free_bye_pack, &CRtcpParser::prepare_bye,
     &CRtcpParser::write_bye},
};

CRtcpParser::CRtcpParser(unsigned int ssrc)
    : m_ssrc(ssrc),
      m_free_funcs(),
      m_packets(),
      m_packet_count(0),
      m_report_info(),
      m_sender_info(),
      m_report_list(nullptr),
      m_sdes(nullptr),
      m_bye(nullptr) {}

CRtcpParser::~CRtcpParser() {
    reset();
}

rtcp_pack* CRtcpParser::get_packets(int* count) {
    if (count != nullptr) {
        *count = m_packet_count;
    }
    return m_packets;
}

const CRtcpParser::type_row* CRtcpParser::find_type(int pt) {
    for (const type_row& row : TYPES) {
        if (row.pt == pt) {
            return &row;
        }
    }
    return nullptr;
}

namespace {

// Padding is refused though RFC 3550 6.4.1 allows it on a last packet: our peers don't send it, and so more of what
// isn't RTCP at all is told at its first byte.
bool is_header_good(const rtcp_common& common) {
    return common.flags >> VERSION_SHIFT == VERSION && (common.flags & PADDING_BIT) == 0 && common.pt >= LOWEST_TYPE;
}

// RFC 3550 6.1: a compound begins with a report.
bool may_begin_compound(const rtcp_common& common) {
    return common.pt == CRtcpParser::RTCP_TYPE_SR || common.pt == CRtcpParser::RTCP_TYPE_RR;
}

// The reason of a BYE, as far as it is there. False without memory.
bool read_reason(CByteReader& reader, rtcp_bye& bye) {
    const uint8_t length = reader.PeekU8();
    if (length == 0 || length == RTCP_NO_REASON) {
        return true;
    }
    reader.Skip(1);
    const size_t kept = length < reader.Remaining() ? length : reader.Remaining();
    if (kept == 0) {
        return true;
    }
    bye.reason = new (std::nothrow) uint8_t[kept];
    if (bye.reason == nullptr) {
        return false;
    }
    reader.Read(bye.reason, kept);
    bye.reason_length = static_cast<uint8_t>(kept);
    return true;
}

}  // namespace

bool CRtcpParser::ParseData(const unsigned char* buffer, const unsigned int* length, bool compound) {
    reset_table();
    CByteReader reader(buffer, length != nullptr ? *length : 0);
    while (reader.Remaining() > 0) {
        if (m_packet_count >= MAX_PACKETS) {
            logWarn("%s:%d:%s compound packet is beyond max number:%d! \n", __FILE__, __LINE__, __func__, MAX_PACKETS);
            return true;
        }
        const size_t left = reader.Remaining();
        rtcp_common common;
        common.flags = reader.ReadU8();
        common.pt = reader.ReadU8();
        common.length = reader.ReadU16();
        if (!reader.Ok() || !is_header_good(common)) {
            logInfo("%s:%d:%s invalid rtcp packet, checkout rtcp header failed! \n", __FILE__, __LINE__, __func__);
            break;
        }
        if (compound && m_packet_count == 0 && !may_begin_compound(common)) {
            logWarn("%s:%d:%s invalid compound rule!\n", __FILE__, __LINE__, __func__);
            break;
        }
        const size_t payload_size = size_t{common.length} * RTCP_WORD_LEN;
        const uint8_t* payload = reader.ReadBytes(payload_size);
        if (payload == nullptr) {
            logWarn("%s:%d:%s rtcp packet length error, expect:%lu, actual:%lu!\n", __FILE__, __LINE__, __func__,
                    static_cast<unsigned long>(RTCP_HEADER_SIZE + payload_size), static_cast<unsigned long>(left));
            break;
        }
        record(common, payload);
        if (compound && common.pt == RTCP_TYPE_BYE) {
            break;  // RFC 3550 6.1: it is the last packet
        }
    }
    return m_packet_count > 0;
}

void CRtcpParser::record(const rtcp_common& common, const uint8_t* payload) {
    const type_row* row = find_type(common.pt);
    rtcp_pack& pack = m_packets[m_packet_count];
    pack = rtcp_pack();
    pack.common = common;
    pack.data = payload;
    pack.parse = row != nullptr ? row->parse : nullptr;
    m_free_funcs[m_packet_count] = row != nullptr ? row->free : nullptr;
    ++m_packet_count;
}

void CRtcpParser::reset_table() {
    for (int i = 0; i < m_packet_count; ++i) {
        if (m_free_funcs[i] != nullptr) {
            m_free_funcs[i](&m_packets[i]);
        }
        m_free_funcs[i] = nullptr;
        m_packets[i] = rtcp_pack();
    }
    m_packet_count = 0;
}

namespace {

// A decoder begins with the payload that its packet still holds, and takes it away, so that it can't be decoded twice.
CByteReader take_payload(rtcp_pack* pack) {
    CByteReader reader(pack->data, pack->common.length * size_t{4});
    pack->data = nullptr;
    return reader;
}

// Reads the blocks that the count announces. -1 when the packet ends before, with those that it holds in the list.
int read_reports(CByteReader& reader, int count, rtcp_report** list) {
    for (int i = 0; i < count; ++i) {
        rtcp_report block = {};
        block.ssrc = reader.ReadU32();
        block.fraction = reader.ReadU8();
        block.lost = reader.ReadU24() & RTCP_LOST_MASK;
        block.highest_seq = reader.ReadU32();
        block.jitter = reader.ReadU32();
        block.last_sr = reader.ReadU32();
        block.delay_last_sr = reader.ReadU32();
        if (!reader.Ok()) {
            return -1;
        }
        rtcp_report* added = new (std::nothrow) rtcp_report(block);
        if (added == nullptr) {
            return -1;
        }
        *list = added;
        list = &added->next;
    }
    return 0;
}

}  // namespace

int CRtcpParser::parse_sr_pack(rtcp_pack* pack) {
    logDebug("%s:%d:%s \n", __FILE__, __LINE__, __func__);
    if (pack == nullptr || pack->data == nullptr || !OSTRA_ASSERT(pack->common.pt == RTCP_TYPE_SR)) {
        return -1;
    }
    CByteReader reader = take_payload(pack);
    pack->sr.ssrc = reader.ReadU32();
    pack->sr.ntp_sec = reader.ReadU32();
    pack->sr.ntp_frac = reader.ReadU32();
    pack->sr.rtp_ts = reader.ReadU32();
    pack->sr.packet_count = reader.ReadU32();
    pack->sr.octet_count = reader.ReadU32();
    return reader.Ok() ? read_reports(reader, RtcpCount(*pack), &pack->sr.reports) : -1;
}

int CRtcpParser::parse_rr_pack(rtcp_pack* pack) {
    logDebug("%s:%d:%s \n", __FILE__, __LINE__, __func__);
    if (pack == nullptr || pack->data == nullptr || !OSTRA_ASSERT(pack->common.pt == RTCP_TYPE_RR)) {
        return -1;
    }
    CByteReader reader = take_payload(pack);
    pack->rr.ssrc = reader.ReadU32();
    return reader.Ok() ? read_reports(reader, RtcpCount(*pack), &pack->rr.reports) : -1;
}

void CRtcpParser::free_sr_pack(rtcp_pack* pack) {
    RtcpFreeReports(pack->sr.reports);
}

void CRtcpParser::free_rr_pack(rtcp_pack* pack) {
    RtcpFreeReports(pack->rr.reports);
}

namespace {

// Items up to the zero byte that closes a chunk, or the packet's end. -1 for an item that is cut short, or no memory.
int read_items(CByteReader& reader, rtcp_sdes_item** list) {
    while (reader.Remaining() > 0) {
        const uint8_t type = reader.ReadU8();
        if (type == 0) {
            return 0;
        }
        const uint8_t length = reader.ReadU8();
        const uint8_t* text = reader.ReadBytes(length);
        rtcp_sdes_item* item = text != nullptr ? RtcpMakeItem(type, length, text) : nullptr;
        if (item == nullptr) {
            return -1;
        }
        *list = item;
        list = &item->next;
    }
    return 0;
}

}  // namespace

// RFC 3550 6.5: each chunk begins on a 32-bit boundary. What runs past the packet's end is left out.
int CRtcpParser::parse_sdes_pack(rtcp_pack* pack) {
    logDebug("%s:%d:%s \n", __FILE__, __LINE__, __func__);
    if (pack == nullptr || pack->data == nullptr || !OSTRA_ASSERT(pack->common.pt == RTCP_TYPE_SDES)) {
        return -1;
    }
    CByteReader reader = take_payload(pack);
    rtcp_sdes_chunk* chunk = &pack->sdes;
    for (int i = 0; i < RtcpCount(*pack) && reader.Remaining() >= sizeof(uint32_t); ++i) {
        if (i > 0) {
            chunk->next = new (std::nothrow) rtcp_sdes_chunk();
            if (chunk->next == nullptr) {
                return -1;
            }
            chunk = chunk->next;
        }
        chunk->ssrc = reader.ReadU32();
        if (read_items(reader, &chunk->items) < 0) {
            break;
        }
        reader.Seek((reader.Offset() + RTCP_WORD_LEN - 1) / RTCP_WORD_LEN * RTCP_WORD_LEN);
    }
    return 0;
}

void CRtcpParser::free_sdes_pack(rtcp_pack* pack) {
    RtcpFreeChunks(pack->sdes);
}

// RFC 3550 6.6: as many SSRCs as the count says, then perhaps a reason.
int CRtcpParser::parse_bye_pack(rtcp_pack* pack) {
    logDebug("%s:%d:%s \n", __FILE__, __LINE__, __func__);
    if (pack == nullptr || pack->data == nullptr || !OSTRA_ASSERT(pack->common.pt == RTCP_TYPE_BYE)) {
        return -1;
    }
    CByteReader reader = take_payload(pack);
    const int count = RtcpCount(*pack);
    if (count > 0) {
        pack->bye.ssrcs = new (std::nothrow) uint32_t[static_cast<size_t>(count)]();
        if (pack->bye.ssrcs == nullptr) {
            return -1;
        }
    }
    for (int i = 0; i < count && reader.Remaining() > 0; ++i) {
        pack->bye.ssrcs[i] = reader.ReadU32();
    }
    return read_reason(reader, pack->bye) ? 0 : -1;
}

void CRtcpParser::free_bye_pack(rtcp_pack* pack) {
    delete[] pack->bye.ssrcs;
    delete[] pack->bye.reason;
}

}  // namespace Vidora
}  // namespace Kavio
