#include "RtspClient/ClientWallTime.h"

#include "Ostra/NtpTime.h"
#include "RtspClient/ClientConversation.h"

namespace Kavio {
namespace Vidora {

namespace {

const int64_t SECONDS_TO_1970 = static_cast<int64_t>(Ostra::NTP_TO_UNIX_SECONDS);
const int64_t US_PER_SECOND = 1000000;

}  // namespace

int ClientWallTime(CClientConversation& conversation, char kind, uint32_t rtp_timestamp, int64_t& utc_us) {
    client_track_facts track;
    reception_stats_t stats;
    const int media_type = kind == 'V' ? SDP_MEDIA_VIDEO : kind == 'A' ? SDP_MEDIA_AUDIO : SDP_MEDIA_UNKNOWN;
    if (media_type == SDP_MEDIA_UNKNOWN || !conversation.View().TrackByType(media_type, track) ||
        track.clock_rate == 0 || !conversation.Receive().GetStats(track.rtp_channel, stats) || stats.sr_ntp == 0) {
        return -1;
    }
    // 32.32 seconds, and the signed distance of two 32-bit time stamps.
    const int64_t seconds = static_cast<int64_t>(stats.sr_ntp >> 32) - SECONDS_TO_1970;
    const int64_t fraction_us = static_cast<int64_t>(((stats.sr_ntp & 0xffffffff) * US_PER_SECOND) >> 32);
    const int64_t ticks = static_cast<int32_t>(rtp_timestamp - stats.sr_rtp);
    utc_us = seconds * US_PER_SECOND + fraction_us + ticks * US_PER_SECOND / track.clock_rate;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
