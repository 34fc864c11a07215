#ifndef VIDORA_RTCPDIGEST_H
#define VIDORA_RTCPDIGEST_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Vidora {

// What a receiver uses of an RTCP compound (RFC 3550 6). It is read once, where the compound comes in, and handed on.
struct rtcp_digest_t {
    static constexpr int MAX_SOURCES = 31;  // what the count of a packet's header can say

    // The sender report that leads the compound (6.4.1): at `ntp`, 32.32 seconds since 1900, the time stamps of `ssrc`
    // were at `rtp`.
    bool has_report = false;
    uint32_t ssrc = 0;
    uint64_t ntp = 0;
    uint32_t rtp = 0;

    // The BYE (6.6), and the sources that it names, if any.
    bool has_bye = false;
    int bye_count = 0;
    uint32_t bye[MAX_SOURCES] = {};

    // Whether the BYE names that source.
    bool Ends(uint32_t source) const;
};

// False for what is neither a compound nor led by a sender report.
bool ReadRtcp(const unsigned char* data, size_t length, rtcp_digest_t& digest);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTCPDIGEST_H
