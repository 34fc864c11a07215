// The MPEG-4 rule of CRtp2Frame (RFC 6416): payloads are the stream itself.

#include "StreamParser/Rtp2Frame.h"
#include "StreamParser/StartCodeScan.h"
#include "Vidora/Mpeg4Parser.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

int CRtp2Frame::make_mpeg4() {
    while (RtpPacketNode* node = next_node()) {
        if (m_walk.count == 1) {
            find_mpeg4_config(*node);
        }
        if (m_walk.vop_type < 0) {
            find_mpeg4_picture(*node);
        }
        node->body = node->raw;
        node->body_len = node->raw_len;
    }
    m_key_frame = m_walk.vop_type == 0;
    if (m_walk.vop_type < 0) {
        return FRAME_MORE;
    }
    if (m_key_frame && !m_walk.own_config) {
        set_config_prefix();
    }
    if (m_walk.new_config || m_width == 0) {
        Mpeg4Vol vol;
        if (mpeg4_parse_vol(m_config, m_config_len, vol)) {
            m_width = static_cast<uint16_t>(vol.width);
            m_height = static_cast<uint16_t>(vol.height);
        }
        m_progressive = 1;
    }
    return FRAME_COMPLETE;
}

// A configuration is what lies between the start of a visual object sequence and the first picture.
void CRtp2Frame::find_mpeg4_config(const RtpPacketNode& node) {
    StartCodeScan scan(node.raw, node.raw_len);
    if (!scan.NextOf(MPEG4_VOS, MPEG4_VOS)) {
        return;
    }
    m_walk.own_config = true;
    const size_t begin = scan.Offset();
    const size_t end = scan.NextOf(MPEG4_VOP, MPEG4_VOP) ? scan.Offset() : node.raw_len;
    if (end - begin < CONFIG_SIZE) {
        CByteReader config(node.raw, node.raw_len);
        config.Skip(begin);
        CByteWriter writer(m_config, CONFIG_SIZE);
        writer.WriteBytes(config.ReadBytes(end - begin), end - begin);
        m_config_len = static_cast<uint32_t>(writer.Offset());
        m_walk.new_config = true;
    }
}

// vop_coding_type: the two bits behind the picture's start code, 0 for an I picture (ISO 14496-2 6.2.5).
void CRtp2Frame::find_mpeg4_picture(const RtpPacketNode& node) {
    StartCodeScan scan(node.raw, node.raw_len);
    CByteReader payload(node.raw, node.raw_len);
    if (scan.NextOf(MPEG4_VOP, MPEG4_VOP) && payload.Skip(scan.Offset() + 4) && payload.Remaining() > 0) {
        m_walk.vop_type = payload.ReadU8() >> 6;
    }
}

}  // namespace Vidora
}  // namespace Kavio
