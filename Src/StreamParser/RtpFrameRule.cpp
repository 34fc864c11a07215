#include "StreamParser/RtpFrameRule.h"

#include <new>

#include "StreamParser/RtpCutRules.h"
#include "StreamParser/RtpH264Rule.h"
#include "StreamParser/RtpJpegRule.h"
#include "StreamParser/RtpMpeg4Rule.h"
#include "StreamParser/RtpTsRule.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

template <typename Rule>
IRtpFrameRule* make(RtpFrameWork& work) {
    return new (std::nothrow) Rule(work);
}

struct RuleRow {
    int enc_type;
    IRtpFrameRule* (*make)(RtpFrameWork& work);
};

constexpr RuleRow RULES[] = {
    {ENC_TYPE_H264, make<CRtpH264Rule>},
    {ENC_TYPE_MPEG4, make<CRtpMpeg4Rule>},
    {ENC_TYPE_JPEG, make<CRtpJpegRule>},
    {ENC_TYPE_MPEG2TS, make<CRtpTsRule>},
    {ENC_TYPE_MPEG_AUDIO, make<CRtpMpegAudioRule>},
    {ENC_TYPE_AUDIO, make<CRtpAudioRule>},
    {ENC_TYPE_ASSIST, make<CRtpAssistRule>},
};

const RuleRow* find_rule(int enc_type) {
    for (const RuleRow& row : RULES) {
        if (row.enc_type == enc_type) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace

bool IRtpFrameRule::HasRule(int enc_type) {
    return find_rule(enc_type) != nullptr;
}

std::unique_ptr<IRtpFrameRule> IRtpFrameRule::Create(int enc_type, RtpFrameWork& work) {
    const RuleRow* row = find_rule(enc_type);
    return std::unique_ptr<IRtpFrameRule>(row == nullptr ? nullptr : row->make(work));
}

bool IRtpFrameRule::OpensCleanly(const RtpHeader&) const {
    return false;
}

}  // namespace Vidora
}  // namespace Kavio
