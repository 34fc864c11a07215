#include "StreamParser/RtpTsRule.h"

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

// Feeds what is left of the packet, and stops where a frame ends: work.used then says where to go on.
int CRtpTsRule::Make() {
    const RtpPacketNode* packet = m_work.NextNode();
    if (packet == nullptr) {
        return FRAME_MORE;
    }
    CByteReader payload(packet->raw, packet->raw_len);
    if (!payload.Skip(m_work.used)) {
        return complete(FRAME_FAILED);  // another packet than the one that was left out, with its number
    }
    while (payload.Remaining() >= TS_PACK_LEN) {
        const bool last = m_work.marker && payload.Remaining() < 2 * TS_PACK_LEN;
        const bool idle = m_ts2frame.GetFrameSize() == 0;
        const int ret = m_ts2frame.PutPacket(payload.Rest(), TS_PACK_LEN, last);
        if (ret != FRAME_COMPLETE_NEXT) {
            payload.Skip(TS_PACK_LEN);
            m_work.frame_ms = idle ? m_work.packet_ms : m_work.frame_ms;
        }
        m_work.used = payload.Offset();
        if (ret != FRAME_MORE) {
            return complete(ret);
        }
    }
    m_work.Clear();  // its bytes have been copied
    return FRAME_MORE;
}

// The frame as one piece, which lies in the demultiplexer's buffer.
int CRtpTsRule::complete(int result) {
    m_work.Clear();
    RtpPacketNode* node = result > FRAME_MORE ? m_work.nodes.Append() : nullptr;
    if (node == nullptr) {
        return FRAME_FAILED;
    }
    node->body = m_ts2frame.GetData();
    node->body_len = m_ts2frame.GetFrameSize();
    m_work.frame_type = m_ts2frame.GetFrameType();
    m_work.width = m_ts2frame.GetWidth();
    m_work.height = m_ts2frame.GetHeight();
    m_work.stream_kind = m_ts2frame.GetKind();
    return result;
}

}  // namespace Vidora
}  // namespace Kavio
