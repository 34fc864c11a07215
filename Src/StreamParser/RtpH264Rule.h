#ifndef VIDORA_STREAMPARSER_RTPH264RULE_H
#define VIDORA_STREAMPARSER_RTPH264RULE_H

#include <cstdint>

#include "StreamParser/RtpFrameRule.h"
#include "Vidora/H264Parser.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

// CRtpH264Rule: H.264 (RFC 6184: single NAL units, STAP-A, FU-A) to a byte stream with start codes, each key frame with
// parameter sets.
class CRtpH264Rule final : public IRtpFrameRule {
public:
    static constexpr uint32_t MAX_AGGREGATED = 128;  // NAL units in one STAP-A packet; one more makes the frame fail

    using IRtpFrameRule::IRtpFrameRule;
    bool CanBegin(const RtpHeader& packet, bool joining) const override;
    bool OpensCleanly(const RtpHeader& packet) const override;
    int Make() override;
    void Clear() override { m_found = Found(); }

private:
    enum kind_t { KIND_NONE, KIND_KEY, KIND_P, KIND_B };

    // What the walk has found in the frame in work.
    struct Found {
        kind_t kind = KIND_NONE;
        RtpIov sps = {nullptr, 0};  // this frame's parameter sets, without start codes
        RtpIov pps = {nullptr, 0};
        RtpIov slice = {nullptr, 0};  // the bytes behind the header of the NAL unit that told the kind
    };

    bool opens_picture(int nal_type, const RtpIov& rest) const;
    bool find_sps(H264Sps& sps) const;
    bool know_sps();
    int place_node(RtpPacketNode& node);
    int place_stap_a(RtpPacketNode& node);
    void place_fu_a(RtpPacketNode& node);
    void set_kind(int nal_type, const RtpIov& rest, const RtpIov& payload);
    void search_parameter_sets();
    void search_inner_sets(const RtpPacketNode& node);
    void take_parameter_set(const unsigned char* nal, uint32_t len);
    void take_facts();

    Found m_found;
    // The sequence parameter set of the configuration after so many changes.
    H264Sps m_sps;
    bool m_has_sps = false;
    uint32_t m_sps_changes = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPH264RULE_H
