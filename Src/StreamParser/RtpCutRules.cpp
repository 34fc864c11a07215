#include "StreamParser/RtpCutRules.h"

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint32_t MPEG_AUDIO_HEADER_LEN = 4;
constexpr uint32_t ASSIST_HEADER_LEN = 8;

}  // namespace

CRtpCutRule::CRtpCutRule(RtpFrameWork& work, int frame_type, uint32_t first_len, uint32_t other_len)
    : IRtpFrameRule(work), m_frame_type(frame_type), m_first_len(first_len), m_other_len(other_len) {}

int CRtpCutRule::Make() {
    m_work.frame_type = m_frame_type;
    while (RtpPacketNode* node = m_work.NextNode()) {
        CByteReader payload(node->raw, node->raw_len);
        if (!payload.Skip(m_work.done == 1 ? m_first_len : m_other_len)) {
            return FRAME_FAILED;
        }
        node->body = payload.Rest();
        node->body_len = static_cast<uint32_t>(payload.Remaining());
    }
    return FRAME_COMPLETE;
}

CRtpAudioRule::CRtpAudioRule(RtpFrameWork& work) : CRtpCutRule(work, FRAME_TYPE_AUDIO, 0, 0) {}

CRtpMpegAudioRule::CRtpMpegAudioRule(RtpFrameWork& work)
    : CRtpCutRule(work, FRAME_TYPE_AUDIO, MPEG_AUDIO_HEADER_LEN, MPEG_AUDIO_HEADER_LEN) {}

bool CRtpMpegAudioRule::CanBegin(const RtpHeader& packet, bool) const {
    CByteReader payload(packet.payload, packet.payload_len);
    payload.Skip(2);
    return payload.ReadU16() == 0;
}

CRtpAssistRule::CRtpAssistRule(RtpFrameWork& work) : CRtpCutRule(work, FRAME_TYPE_ASSIST, ASSIST_HEADER_LEN, 0) {}

bool CRtpAssistRule::CanBegin(const RtpHeader& packet, bool joining) const {
    CByteReader payload(packet.payload, packet.payload_len);
    payload.Skip(1);
    return !joining || (payload.ReadU24() == 0 && payload.ReadU32() == 0);
}

int CRtpAssistRule::Make() {
    if (m_work.done == 0 && m_work.nodes.Count() > 0) {
        const RtpPacketNode* head = m_work.nodes.begin();
        m_work.assist_type = CByteReader(head->raw, head->raw_len).PeekU8();
    }
    return CRtpCutRule::Make();
}

}  // namespace Vidora
}  // namespace Kavio
