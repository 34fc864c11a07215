#ifndef VIDORA_STREAMPARSER_RTPCUTRULES_H
#define VIDORA_STREAMPARSER_RTPCUTRULES_H

#include <cstdint>

#include "StreamParser/RtpFrameRule.h"

namespace Kavio {
namespace Vidora {

// CRtpCutRule: frames that are their packets' payloads without what precedes them.
class CRtpCutRule : public IRtpFrameRule {
public:
    int Make() override;

protected:
    // `first_len` bytes in front of the first payload of a frame, `other_len` in front of the others. Frames are of
    // the frame_type_t letter.
    CRtpCutRule(RtpFrameWork& work, int frame_type, uint32_t first_len, uint32_t other_len);

private:
    const int m_frame_type;
    const uint32_t m_first_len;
    const uint32_t m_other_len;
};

// Sound without a payload header: every packet can be the first.
class CRtpAudioRule final : public CRtpCutRule {
public:
    explicit CRtpAudioRule(RtpFrameWork& work);
    bool CanBegin(const RtpHeader&, bool) const override { return true; }
};

// MPEG audio (RFC 2250 3.5): 16 zero bits and the offset of the fragment in its frame.
class CRtpMpegAudioRule final : public CRtpCutRule {
public:
    explicit CRtpMpegAudioRule(RtpFrameWork& work);
    bool CanBegin(const RtpHeader& packet, bool joining) const override;
};

// Assist frames: eight bytes in front of the frame, the assist type and seven zero bytes.
class CRtpAssistRule final : public CRtpCutRule {
public:
    explicit CRtpAssistRule(RtpFrameWork& work);
    bool CanBegin(const RtpHeader& packet, bool joining) const override;
    int Make() override;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPCUTRULES_H
