#include "StreamParser/RtpH264Rule.h"

#include <algorithm>

#include "Ostra/MemoryTrail.h"
#include "StreamParser/StartCodeScan.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/StartCode.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr int MAX_SINGLE_NAL = 23;
constexpr uint32_t FU_HEADER_LEN = 2;    // indicator and header
constexpr uint32_t SLICE_TYPE_LEN = 3;   // bytes behind the NAL header in which the slice type is looked for
constexpr uint32_t SLICE_HEAD_LEN = 64;  // more than a slice header needs up to field_pic_flag
constexpr uint8_t FIRST_MB_0 = 0x80;     // first_mb_in_slice 0 as Exp-Golomb code, at the front of a slice
constexpr int ERROR_SHORT = -1;
constexpr int ERROR_NAL_TYPE = -2;

struct FirstNal {
    int type;
    RtpIov rest;  // the bytes behind its header, as far as they are in the packet
};

bool has_start_code(CByteReader reader) {
    return reader.ReadU32() == START_CODE3 && reader.Ok();
}

// A start code inside a payload: four bytes, or with 0x80 as its first byte, the way some senders damage
// it when they fragment a whole byte stream.
bool is_inner_code(const StartCodeScan& scan) {
    return scan.Before() == 0x00 || scan.Before() == 0x80;
}

// Is there nothing to such a NAL unit but its header (ISO 14496-10 7.3.2.5 and 7.3.2.6)?
bool is_header_only(int nal_type) {
    return nal_type == H264_NAL_END_OF_SEQUENCE || nal_type == H264_NAL_END_OF_STREAM;
}

// The first NAL unit that a packet brings or begins; a type of 0 without one, and of -1 for the middle of a unit.
FirstNal first_nal(const RtpHeader& packet) {
    CByteReader payload(packet.payload, packet.payload_len);
    const uint8_t head = payload.ReadU8();
    int type = h264_nal_type(head);
    if (type == H264_NAL_STAP_A) {
        uint16_t len = payload.ReadU16();
        while (payload.Ok() && len == 0) {
            len = payload.ReadU16();
        }
        CByteReader unit = payload.SubReader(len);
        type = payload.Ok() ? h264_nal_type(unit.ReadU8()) : -1;
        return {type, {unit.Rest(), static_cast<uint32_t>(unit.Remaining())}};
    }
    if (type == H264_NAL_FU_A) {
        const uint8_t header = payload.ReadU8();
        type = (header & H264_FU_START) != 0 ? h264_nal_type(header) : -1;
    }
    return {type, {payload.Rest(), static_cast<uint32_t>(payload.Remaining())}};
}

}  // namespace

bool CRtpH264Rule::CanBegin(const RtpHeader& packet, bool joining) const {
    const FirstNal first = first_nal(packet);
    const bool is_slice = first.type == H264_NAL_SLICE || first.type == H264_NAL_IDR;
    return first.type >= 0 && (!joining || !is_slice || opens_picture(first.type, first.rest));
}

// Only a slice or a sequence parameter set of its own does. An FU-A never counts, not even with its start bit set, so a
// loss in front of one always marks the frame.
bool CRtpH264Rule::OpensCleanly(const RtpHeader& packet) const {
    const int type = h264_nal_type(CByteReader(packet.payload, packet.payload_len).PeekU8());
    if (type != H264_NAL_SLICE && type != H264_NAL_IDR) {
        return type == H264_NAL_SPS;
    }
    return opens_picture(type, first_nal(packet).rest);
}

// Is the slice the first one of its picture? Slices come in order but in profiles that nobody streams. The second field
// of a frame begins anew; only an IDR slice of a field is surely one of the first (ISO 14496-10 7.4.1.2.4).
bool CRtpH264Rule::opens_picture(int nal_type, const RtpIov& rest) const {
    if ((CByteReader(rest.data, rest.len).PeekU8() & FIRST_MB_0) == 0) {
        return false;
    }
    H264Sps sps;
    H264Slice slice;
    const bool is_field = nal_type == H264_NAL_SLICE && find_sps(sps) && !sps.frame_mbs_only &&
                          h264_parse_field_pic(rest.data, std::min(rest.len, SLICE_HEAD_LEN), sps, slice) &&
                          slice.field_pic;
    return !is_field;
}

// The sequence parameter set in force. False if there is none that can be read.
bool CRtpH264Rule::find_sps(H264Sps& sps) const {
    CByteReader config(m_work.config.bytes, m_work.config.len);
    StartCodeScan scan(m_work.config.bytes, m_work.config.len);
    bool found = false;
    while (!found && scan.Next()) {
        found = h264_nal_type(scan.Value()) == H264_NAL_SPS;
    }
    return found && config.Skip(scan.Offset() + 3) && h264_parse_sps(config.Rest(), config.Remaining(), sps);
}

// Keeps it in m_sps, which most key frames only repeat.
bool CRtpH264Rule::know_sps() {
    if (m_sps_changes != m_work.config.changes) {
        m_sps_changes = m_work.config.changes;
        m_has_sps = find_sps(m_sps);
    }
    return m_has_sps;
}

int CRtpH264Rule::Make() {
    Ostra::CMemoryTrail::Note(*this);
    while (RtpPacketNode* node = m_work.NextNode()) {
        const int ret = place_node(*node);
        if (ret < 0) {
            return ret;
        }
    }
    const bool key = m_found.kind == KIND_KEY;
    m_work.frame_type = key ? FRAME_TYPE_I : FRAME_TYPE_P;
    if (m_found.kind == KIND_NONE) {
        return FRAME_MORE;  // parameter sets or side data so far; the picture is still to come
    }
    if (key) {
        search_parameter_sets();
        const bool found = m_found.sps.data != nullptr && m_found.pps.data != nullptr;
        if (!found || !m_work.config.SetH264(m_found.sps, m_found.pps)) {
            m_work.SetConfigPrefix();
        }
    }
    take_facts();
    return FRAME_COMPLETE;
}

// Settles what of a packet goes into the frame and what precedes it.
int CRtpH264Rule::place_node(RtpPacketNode& node) {
    CByteReader payload(node.raw, node.raw_len);
    const int type = h264_nal_type(payload.PeekU8());
    if (payload.Remaining() < FU_HEADER_LEN && !is_header_only(type)) {
        return ERROR_SHORT;
    }
    if (type == H264_NAL_STAP_A) {
        return place_stap_a(node);
    }
    if (type == H264_NAL_FU_A) {
        place_fu_a(node);
        return 0;
    }
    if (type > MAX_SINGLE_NAL) {
        return ERROR_NAL_TYPE;
    }
    if (type != 0 || !has_start_code(payload)) {
        CByteWriter fixed(node.fixed, RtpPacketNode::FIXED_SIZE);
        fixed.WriteBytes(START_CODE4, START_CODE4_LEN);
        node.fixed_len = START_CODE4_LEN;
    }
    node.body = node.raw;
    node.body_len = node.raw_len;
    if (type == H264_NAL_SPS || type == H264_NAL_PPS) {
        take_parameter_set(node.raw, node.raw_len);
    }
    payload.Skip(1);
    set_kind(type, {payload.Rest(), static_cast<uint32_t>(payload.Remaining())}, {node.raw, node.raw_len});
    return 0;
}

// RFC 6184 5.7.1: a byte, then NAL units, each behind its 16-bit length. One that overruns the packet ends the walk.
int CRtpH264Rule::place_stap_a(RtpPacketNode& node) {
    CByteReader payload(node.raw, node.raw_len);
    payload.Skip(1);
    int type = 0;
    RtpIov rest = {nullptr, 0};
    uint32_t count = 0;
    while (payload.Remaining() > 0) {
        const uint16_t len = payload.ReadU16();
        const unsigned char* nal = payload.ReadBytes(len);
        if (!payload.Ok()) {
            break;
        }
        if (len == 0) {
            continue;
        }
        if (++count > MAX_AGGREGATED || !node.AddIov(START_CODE4, START_CODE4_LEN) || !node.AddIov(nal, len)) {
            return ERROR_SHORT;
        }
        CByteReader unit(nal, len);
        const int unit_type = h264_nal_type(unit.ReadU8());
        const bool is_slice = unit_type == H264_NAL_IDR || unit_type == H264_NAL_SLICE;
        if (count == 1 || (is_slice && type != H264_NAL_IDR && type != H264_NAL_SLICE)) {
            type = unit_type;
            rest = {unit.Rest(), static_cast<uint32_t>(unit.Remaining())};
        }
    }
    set_kind(type, rest, {node.raw, node.raw_len});
    return 0;
}

// RFC 6184 5.8: the indicator with F and NRI, a header with start bit, end bit and type, then a piece of the NAL unit.
void CRtpH264Rule::place_fu_a(RtpPacketNode& node) {
    CByteReader payload(node.raw, node.raw_len);
    const uint8_t indicator = payload.ReadU8();
    const uint8_t header = payload.ReadU8();
    const int type = h264_nal_type(header);
    const RtpIov rest = {payload.Rest(), static_cast<uint32_t>(payload.Remaining())};
    if ((header & H264_FU_START) != 0) {
        CByteWriter fixed(node.fixed, RtpPacketNode::FIXED_SIZE);
        fixed.WriteBytes(START_CODE4, START_CODE4_LEN);
        CByteReader inside = payload;
        if (header == H264_FU_START && node.raw_len > 5 && inside.ReadU24() == START_CODE3) {
            payload.Skip(3);  // a sender that fragments the byte stream itself: the fragment brings its start code
        } else {
            fixed.WriteU8(static_cast<uint8_t>((indicator & 0xE0) | type));
        }
        node.fixed_len = static_cast<uint32_t>(fixed.Offset());
    }
    node.body = payload.Rest();
    node.body_len = static_cast<uint32_t>(payload.Remaining());
    set_kind(type, rest, {node.raw, node.raw_len});
}

// While the frame's kind isn't known: looks for it in a NAL unit of type `nal_type` with the bytes `rest` behind its
// header, or else at the start codes inside the payload.
void CRtpH264Rule::set_kind(int nal_type, const RtpIov& rest, const RtpIov& payload) {
    if (m_found.kind != KIND_NONE) {
        return;
    }
    m_found.slice = rest;
    StartCodeScan scan(payload.data, payload.len);
    while (nal_type != H264_NAL_IDR && nal_type != H264_NAL_SLICE) {
        if (!scan.Next()) {
            return;
        }
        nal_type = h264_nal_type(scan.Value());
        CByteReader inner(payload.data, payload.len);
        inner.Skip(scan.Offset() + 4);
        m_found.slice = {inner.Rest(), static_cast<uint32_t>(inner.Remaining())};
    }
    if (nal_type == H264_NAL_IDR) {
        m_found.kind = KIND_KEY;
        return;
    }
    // ISO 14496-10 table 7-6; an I slice makes a key frame of it, as far as a decoder can join there.
    static const kind_t KINDS[] = {KIND_P, KIND_B, KIND_KEY, KIND_P, KIND_KEY,
                                   KIND_P, KIND_B, KIND_KEY, KIND_P, KIND_KEY};
    H264Slice slice;
    if (h264_parse_slice_type(m_found.slice.data, std::min(m_found.slice.len, SLICE_TYPE_LEN), slice) &&
        slice.slice_type < sizeof(KINDS) / sizeof(KINDS[0])) {
        m_found.kind = KINDS[slice.slice_type];
    }
}

// Looks for the parameter sets that didn't come as packets of their own.
void CRtpH264Rule::search_parameter_sets() {
    for (const RtpPacketNode& node : m_work.nodes) {
        if (m_found.sps.data != nullptr && m_found.pps.data != nullptr) {
            return;
        }
        if (node.iov_count == 0) {
            search_inner_sets(node);
        }
        for (uint32_t piece = 1; piece < node.iov_count; piece += 2) {
            take_parameter_set(node.iov[piece].data, node.iov[piece].len);
        }
    }
}

void CRtpH264Rule::search_inner_sets(const RtpPacketNode& node) {
    StartCodeScan scan(node.raw, node.raw_len);
    while (scan.Next()) {
        if (is_inner_code(scan)) {
            CByteReader inner(node.raw, node.raw_len);
            inner.Skip(scan.Offset() + 3);
            take_parameter_set(inner.Rest(), static_cast<uint32_t>(inner.Remaining()));
        }
    }
}

// Remembers the first sequence and the first picture parameter set of the frame. The unit ends at `len`, or in front of
// a start code, which can't be part of it.
void CRtpH264Rule::take_parameter_set(const unsigned char* nal, uint32_t len) {
    const int type = h264_nal_type(CByteReader(nal, len).PeekU8());
    RtpIov& set = type == H264_NAL_SPS ? m_found.sps : m_found.pps;
    if ((type != H264_NAL_SPS && type != H264_NAL_PPS) || set.data != nullptr) {
        return;
    }
    StartCodeScan scan(nal, len);
    if (scan.Next()) {
        len = static_cast<uint32_t>(is_inner_code(scan) ? scan.Offset() - 1 : scan.Offset());
    }
    set = {nal, len};
}

// Takes the picture size and the kind of scan from the parameter set in force: when the frame brings one, and while the
// size isn't known.
void CRtpH264Rule::take_facts() {
    if ((m_found.sps.data == nullptr && m_work.width != 0) || !know_sps()) {
        return;
    }
    m_work.width = static_cast<uint16_t>(m_sps.width);
    m_work.height = static_cast<uint16_t>(m_sps.height);  // of both fields if the pictures are fields
    m_work.progressive = m_sps.frame_mbs_only ? 1 : 0;
    H264Slice slice;
    if (m_found.kind == KIND_KEY && !m_sps.frame_mbs_only &&
        h264_parse_field_pic(m_found.slice.data, std::min(m_found.slice.len, SLICE_HEAD_LEN), m_sps, slice)) {
        m_work.progressive = slice.field_pic ? 0 : 1;
    }
}

}  // namespace Vidora
}  // namespace Kavio
