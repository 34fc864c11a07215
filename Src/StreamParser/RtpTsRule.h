#ifndef VIDORA_STREAMPARSER_RTPTSRULE_H
#define VIDORA_STREAMPARSER_RTPTSRULE_H

#include "StreamParser/RtpFrameRule.h"
#include "StreamParser/Ts2Frame.h"

namespace Kavio {
namespace Vidora {

// CRtpTsRule: a transport stream (RFC 2250 2) as the frames of its first track.
//
// RTP time stamps are times of sending there, and a packet holds the end of one picture and the beginning of the next
// as they come, so that frames end where Ts2Frame finds their end, or with the marker of a sender that sets it on the
// last packet of each frame.
class CRtpTsRule final : public IRtpFrameRule {
public:
    using IRtpFrameRule::IRtpFrameRule;
    bool IsFramedByRtp() const override { return false; }
    bool CanBegin(const RtpHeader&, bool) const override { return true; }
    int Make() override;
    Flumen::CMediaFrame TakeFrame() override { return m_ts2frame.TakeFrame(); }
    void Clear() override { m_ts2frame.Clear(); }

private:
    int complete(int result);

    Ts2Frame m_ts2frame;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPTSRULE_H
