#include "RtcpDigest.h"

#include <algorithm>

#include "Protocol/RtcpParser.h"

namespace Kavio {
namespace Vidora {

namespace {

void take_report(const rtcp_sr& report, rtcp_digest_t& digest) {
    digest.has_report = true;
    digest.ssrc = report.ssrc;
    digest.ntp = uint64_t{report.ntp_sec} << 32 | report.ntp_frac;
    digest.rtp = report.rtp_ts;
}

void take_bye(rtcp_pack& pack, rtcp_digest_t& digest) {
    digest.has_bye = true;
    if (pack.parse(&pack) == 0) {
        digest.bye_count = std::min(RtcpCount(pack), rtcp_digest_t::MAX_SOURCES);
        std::copy_n(pack.bye.ssrcs, digest.bye_count, digest.bye);
    }
}

}  // namespace

bool rtcp_digest_t::Ends(uint32_t source) const {
    return std::find(bye, bye + bye_count, source) != bye + bye_count;
}

bool ReadRtcp(const unsigned char* data, size_t length, rtcp_digest_t& digest) {
    digest = rtcp_digest_t();
    CRtcpParser parser(0);
    const unsigned int size = static_cast<unsigned int>(length);
    if (!parser.ParseData(data, &size, true)) {
        return false;
    }
    int count = 0;
    rtcp_pack* packs = parser.get_packets(&count);
    rtcp_pack& first = packs[0];
    if (first.common.pt == CRtcpParser::RTCP_TYPE_SR && first.parse(&first) == 0) {
        take_report(first.sr, digest);
    }
    rtcp_pack& last = packs[count - 1];  // nothing is read behind a BYE
    if (last.common.pt == CRtcpParser::RTCP_TYPE_BYE) {
        take_bye(last, digest);
    }
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
