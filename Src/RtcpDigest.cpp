#include "RtcpDigest.h"

#include <algorithm>

#include "Protocol/RtcpParser.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

//  |V=2|P|    RC   |   PT=SR=200   |             length            |
//  |                         SSRC of sender                        |
//  |                        NTP, seconds                           |
//  |                        NTP, fraction                          |
//  |                         RTP time stamp                        |
//  |                  packets, then octets                         |
// Its blocks aren't looked at: there are senders that announce more of them than they send.
void take_report(const unsigned char* data, size_t length, rtcp_digest_t& digest) {
    Ostra::CByteReader reader(data, length);
    reader.Skip(1);
    const uint8_t type = reader.ReadU8();
    reader.Skip(2);
    const uint32_t ssrc = reader.ReadU32();
    const uint64_t ntp = reader.ReadU64();
    const uint32_t rtp = reader.ReadU32();
    reader.Skip(2 * sizeof(uint32_t));
    if (reader.Ok() && type == CRtcpParser::RTCP_TYPE_SR) {
        digest.has_report = true;
        digest.ssrc = ssrc;
        digest.ntp = ntp;
        digest.rtp = rtp;
    }
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
    take_report(data, length, digest);
    CRtcpParser parser(0);
    const unsigned int size = static_cast<unsigned int>(length);
    if (!parser.ParseData(data, &size, true)) {
        return digest.has_report;
    }
    int count = 0;
    rtcp_pack* packs = parser.get_packets(&count);
    rtcp_pack& last = packs[count - 1];  // nothing is read behind a BYE
    if (last.common.pt == CRtcpParser::RTCP_TYPE_BYE) {
        take_bye(last, digest);
    }
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
