// The H.264 rule of CRtp2Frame (RFC 6184): packets to a byte stream with start codes.

#include <algorithm>

#include "StreamParser/Rtp2Frame.h"
#include "StreamParser/StartCodeScan.h"
#include "Vidora/H264Parser.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned char START_CODE[] = {0, 0, 0, 1};
constexpr uint32_t START_CODE_LEN = 4;
constexpr int MAX_SINGLE_NAL = 23;
constexpr uint8_t FU_START = 0x80;
constexpr uint32_t FU_HEADER_LEN = 2;    // indicator and header
constexpr uint32_t SLICE_TYPE_LEN = 3;   // bytes behind the NAL header in which the slice type is looked for
constexpr uint32_t SLICE_HEAD_LEN = 64;  // more than a slice header needs up to field_pic_flag
constexpr int ERROR_SHORT = -1;
constexpr int ERROR_NAL_TYPE = -2;

bool has_start_code(CByteReader reader) {
    return reader.ReadU32() == 0x00000001 && reader.Ok();
}

// A start code that stands inside a payload: four bytes, or with 0x80 as its first byte, the way some senders damage
// it when they fragment a whole byte stream.
bool is_inner_code(const StartCodeScan& scan) {
    return scan.Before() == 0x00 || scan.Before() == 0x80;
}

}  // namespace

int CRtp2Frame::set_h264_config(const Piece& sps, const Piece& pps) {
    if (uint64_t{sps.len} + pps.len + 2 * START_CODE_LEN >= CONFIG_SIZE) {
        return -1;
    }
    CByteWriter config(m_config, CONFIG_SIZE);
    for (const Piece& set : {sps, pps}) {
        if (!has_start_code(CByteReader(set.data, set.len))) {
            config.WriteBytes(START_CODE, START_CODE_LEN);
        }
        config.WriteBytes(set.data, set.len);
    }
    m_config_len = static_cast<uint32_t>(config.Offset());
    return 0;
}

int CRtp2Frame::make_h264() {
    while (RtpPacketNode* node = next_node()) {
        const int ret = place_h264_node(*node);
        if (ret < 0) {
            return ret;
        }
    }
    m_key_frame = m_walk.kind == KIND_KEY;
    if (m_walk.kind == KIND_NONE) {
        return FRAME_MORE;  // parameter sets or side data so far; the picture is still to come
    }
    if (m_key_frame) {
        search_parameter_sets();
        const bool found = m_walk.sps.data != nullptr && m_walk.pps.data != nullptr;
        if (!found || set_h264_config(m_walk.sps, m_walk.pps) < 0) {
            set_config_prefix();
        }
    }
    take_h264_facts();
    return FRAME_COMPLETE;
}

// Settles what of a packet goes into the frame and what stands in front of it.
int CRtp2Frame::place_h264_node(RtpPacketNode& node) {
    CByteReader payload(node.raw, node.raw_len);
    if (payload.Remaining() < FU_HEADER_LEN) {
        return ERROR_SHORT;
    }
    const int type = h264_nal_type(payload.PeekU8());
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
        fixed.WriteBytes(START_CODE, START_CODE_LEN);
        node.fixed_len = START_CODE_LEN;
    }
    node.body = node.raw;
    node.body_len = node.raw_len;
    if (type == H264_NAL_SPS || type == H264_NAL_PPS) {
        take_parameter_set(node.raw, node.raw_len);
    }
    payload.Skip(1);
    set_h264_kind(type, {payload.Rest(), static_cast<uint32_t>(payload.Remaining())}, {node.raw, node.raw_len});
    return 0;
}

// RFC 6184 5.7.1: a byte, then NAL units, each behind its 16-bit length. One that overruns the packet ends the walk.
int CRtp2Frame::place_stap_a(RtpPacketNode& node) {
    CByteReader payload(node.raw, node.raw_len);
    payload.Skip(1);
    int type = 0;
    Piece rest = {nullptr, 0};
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
        if (++count > MAX_AGGREGATED || !node.AddIov(START_CODE, START_CODE_LEN) || !node.AddIov(nal, len)) {
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
    set_h264_kind(type, rest, {node.raw, node.raw_len});
    return 0;
}

// RFC 6184 5.8: the indicator with F and NRI, a header with start bit, end bit and type, then a piece of the NAL unit.
void CRtp2Frame::place_fu_a(RtpPacketNode& node) {
    CByteReader payload(node.raw, node.raw_len);
    const uint8_t indicator = payload.ReadU8();
    const uint8_t header = payload.ReadU8();
    const int type = h264_nal_type(header);
    const Piece rest = {payload.Rest(), static_cast<uint32_t>(payload.Remaining())};
    if ((header & FU_START) != 0) {
        CByteWriter fixed(node.fixed, RtpPacketNode::FIXED_SIZE);
        fixed.WriteBytes(START_CODE, START_CODE_LEN);
        CByteReader inside = payload;
        if (header == FU_START && node.raw_len > 5 && inside.ReadU24() == 0x000001) {
            payload.Skip(3);  // a sender that fragments the byte stream itself: the fragment brings its start code
        } else {
            fixed.WriteU8(static_cast<uint8_t>((indicator & 0xE0) | type));
        }
        node.fixed_len = static_cast<uint32_t>(fixed.Offset());
    }
    node.body = payload.Rest();
    node.body_len = static_cast<uint32_t>(payload.Remaining());
    set_h264_kind(type, rest, {node.raw, node.raw_len});
}

// While the frame's kind isn't known: looks for it in a NAL unit of type `nal_type` with the bytes `rest` behind its
// header, or else at the start codes inside the payload.
void CRtp2Frame::set_h264_kind(int nal_type, const Piece& rest, const Piece& payload) {
    if (m_walk.kind != KIND_NONE) {
        return;
    }
    m_walk.slice = rest;
    StartCodeScan scan(payload.data, payload.len);
    while (nal_type != H264_NAL_IDR && nal_type != H264_NAL_SLICE) {
        if (!scan.Next()) {
            return;
        }
        nal_type = h264_nal_type(scan.Value());
        CByteReader inner(payload.data, payload.len);
        inner.Skip(scan.Offset() + 4);
        m_walk.slice = {inner.Rest(), static_cast<uint32_t>(inner.Remaining())};
    }
    if (nal_type == H264_NAL_IDR) {
        m_walk.kind = KIND_KEY;
        return;
    }
    // ISO 14496-10 table 7-6; an I slice makes a key frame of it, as far as a decoder can join there.
    static const uint8_t KINDS[] = {KIND_P, KIND_B, KIND_KEY, KIND_P, KIND_KEY,
                                    KIND_P, KIND_B, KIND_KEY, KIND_P, KIND_KEY};
    H264Slice slice;
    if (h264_parse_slice_type(m_walk.slice.data, std::min(m_walk.slice.len, SLICE_TYPE_LEN), slice) &&
        slice.slice_type < sizeof(KINDS)) {
        m_walk.kind = KINDS[slice.slice_type];
    }
}

// Looks for the parameter sets that didn't come as packets of their own.
void CRtp2Frame::search_parameter_sets() {
    const RtpPacketNode* node = m_nodes.Head();
    for (uint32_t i = 0; i < m_nodes.Count(); ++i, node = node->next) {
        if (m_walk.sps.data != nullptr && m_walk.pps.data != nullptr) {
            return;
        }
        if (node->iov_count == 0) {
            search_inner_sets(*node);
        }
        for (uint32_t piece = 1; piece < node->iov_count; piece += 2) {
            take_parameter_set(node->iov[piece].data, node->iov[piece].len);
        }
    }
}

void CRtp2Frame::search_inner_sets(const RtpPacketNode& node) {
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
void CRtp2Frame::take_parameter_set(const unsigned char* nal, uint32_t len) {
    const int type = h264_nal_type(CByteReader(nal, len).PeekU8());
    Piece& set = type == H264_NAL_SPS ? m_walk.sps : m_walk.pps;
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
void CRtp2Frame::take_h264_facts() {
    if (m_walk.sps.data == nullptr && (m_config_len < 1 || m_width != 0)) {
        return;
    }
    CByteReader config(m_config, m_config_len);
    StartCodeScan scan(m_config, m_config_len);
    bool found = false;
    while (!found && scan.Next()) {
        found = h264_nal_type(scan.Value()) == H264_NAL_SPS;
    }
    H264Sps sps;
    if (!found || !config.Skip(scan.Offset() + 3) || !h264_parse_sps(config.Rest(), config.Remaining(), sps)) {
        return;
    }
    m_width = static_cast<uint16_t>(sps.width);
    m_height = static_cast<uint16_t>(sps.height);  // of both fields if the pictures are fields
    m_progressive = sps.frame_mbs_only ? 1 : 0;
    H264Slice slice;
    if (m_key_frame && !sps.frame_mbs_only &&
        h264_parse_field_pic(m_walk.slice.data, std::min(m_walk.slice.len, SLICE_HEAD_LEN), sps, slice)) {
        m_progressive = slice.field_pic ? 0 : 1;
    }
}

}  // namespace Vidora
}  // namespace Kavio
