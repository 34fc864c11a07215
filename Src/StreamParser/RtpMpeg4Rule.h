#ifndef VIDORA_STREAMPARSER_RTPMPEG4RULE_H
#define VIDORA_STREAMPARSER_RTPMPEG4RULE_H

#include "StreamParser/RtpFrameRule.h"

namespace Kavio {
namespace Vidora {

// CRtpMpeg4Rule: MPEG-4 video (RFC 3016, now 6416). Payloads are the stream itself; key frames get a configuration.
class CRtpMpeg4Rule final : public IRtpFrameRule {
public:
    using IRtpFrameRule::IRtpFrameRule;
    bool CanBegin(const RtpHeader& packet, bool joining) const override;
    int Make() override;
    void Clear() override { m_found = Found(); }

private:
    // What the walk has found in the frame in work.
    struct Found {
        bool own_config = false;  // the frame brings a configuration
        bool new_config = false;  // it was taken
        int vop_type = -1;        // vop_coding_type, -1 until a picture was found
    };

    void find_config(const RtpPacketNode& node);
    void find_picture(const RtpPacketNode& node);

    Found m_found;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPMPEG4RULE_H
