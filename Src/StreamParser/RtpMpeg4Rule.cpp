#include "StreamParser/RtpMpeg4Rule.h"

#include "StreamParser/StartCodeScan.h"
#include "Vidora/Mpeg4Parser.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/StartCode.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// A frame begins with a start code; what goes on inside one has none in front, but for rare markers.
bool CRtpMpeg4Rule::CanBegin(const RtpHeader& packet, bool joining) const {
    return !joining || CByteReader(packet.payload, packet.payload_len).ReadU24() == START_CODE3;
}

int CRtpMpeg4Rule::Make() {
    while (RtpPacketNode* node = m_work.NextNode()) {
        if (m_work.done == 1) {
            find_config(*node);
        }
        if (m_found.vop_type < 0) {
            find_picture(*node);
        }
        node->body = node->raw;
        node->body_len = node->raw_len;
    }
    const bool key = m_found.vop_type == 0;
    m_work.frame_type = key ? FRAME_TYPE_I : FRAME_TYPE_P;
    if (m_found.vop_type < 0) {
        return FRAME_MORE;
    }
    if (key && !m_found.own_config) {
        m_work.SetConfigPrefix();
    }
    if (m_found.new_config || m_work.width == 0) {
        Mpeg4Vol vol;
        if (mpeg4_parse_vol(m_work.config.bytes, m_work.config.len, vol)) {
            m_work.width = static_cast<uint16_t>(vol.width);
            m_work.height = static_cast<uint16_t>(vol.height);
        }
        m_work.progressive = 1;
    }
    return FRAME_COMPLETE;
}

// A configuration is what lies between the start of a visual object sequence and the first picture.
void CRtpMpeg4Rule::find_config(const RtpPacketNode& node) {
    StartCodeScan scan(node.raw, node.raw_len);
    if (!scan.NextOf(MPEG4_VOS, MPEG4_VOS)) {
        return;
    }
    m_found.own_config = true;
    const size_t begin = scan.Offset();
    const size_t end = scan.NextOf(MPEG4_VOP, MPEG4_VOP) ? scan.Offset() : node.raw_len;
    CByteReader config(node.raw, node.raw_len);
    config.Skip(begin);
    m_found.new_config = m_work.config.Set(config.Rest(), end - begin);
}

// vop_coding_type: the two bits behind the picture's start code, 0 for an I picture (ISO 14496-2 6.2.5).
void CRtpMpeg4Rule::find_picture(const RtpPacketNode& node) {
    StartCodeScan scan(node.raw, node.raw_len);
    CByteReader payload(node.raw, node.raw_len);
    if (scan.NextOf(MPEG4_VOP, MPEG4_VOP) && payload.Skip(scan.Offset() + 4) && payload.Remaining() > 0) {
        m_found.vop_type = payload.ReadU8() >> 6;
    }
}

}  // namespace Vidora
}  // namespace Kavio
