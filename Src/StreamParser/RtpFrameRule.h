#ifndef VIDORA_STREAMPARSER_RTPFRAMERULE_H
#define VIDORA_STREAMPARSER_RTPFRAMERULE_H

#include <memory>

#include "StreamParser/FrameResult.h"
#include "StreamParser/RtpFrameWork.h"
#include "StreamParser/RtpHeader.h"
#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {
namespace Vidora {

// IRtpFrameRule: what a codec makes of the packets of its frames. It belongs to one CRtp2Frame and works on that one's
// RtpFrameWork, which outlives it.
class IRtpFrameRule {
public:
    explicit IRtpFrameRule(RtpFrameWork& work) : m_work(work) {}
    virtual ~IRtpFrameRule() = default;

    // The rule for an enc_type_t. False if there is none for it, or memory is short.
    static bool HasRule(int enc_type);
    static std::unique_ptr<IRtpFrameRule> Create(int enc_type, RtpFrameWork& work);

    // True: a frame's packets are those of one RTP time stamp up to the marker. False: time stamps say nothing of
    // frames, and Make gets each packet by itself, once.
    virtual bool IsFramedByRtp() const { return true; }
    // Can a frame begin with this packet? `joining`: nothing is known of what came before it, so a packet that could
    // just as well lie inside a frame doesn't count.
    virtual bool CanBegin(const RtpHeader& packet, bool joining) const = 0;
    // Does a frame begin with this packet although packets were lost in front of it?
    virtual bool OpensCleanly(const RtpHeader& packet) const;
    // Turns the packets that came since the last call into a frame: a frame_result_t, where FRAME_MORE says that there
    // is no picture among them yet; or another negative number for a frame that is malformed, which is logged.
    virtual int Make() = 0;
    // Hands over a frame that Make completed if the rule has it in one piece of memory of its own; an empty frame
    // otherwise, with the frame in the work.
    virtual Flumen::CMediaFrame TakeFrame() { return Flumen::CMediaFrame(); }
    // The frame in work is dropped: forgets what Make has found in it.
    virtual void Clear() {}

protected:
    RtpFrameWork& m_work;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPFRAMERULE_H
