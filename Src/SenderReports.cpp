#include "SenderReports.h"

#include "Protocol/RtcpParser.h"

namespace Kavio {
namespace Vidora {

namespace {
const int64_t PERIOD_US = 5000000;  // RFC 3550 6.2
const size_t MAX_REPORT_SIZE = 2044;
const char BYE_REASON[] = "End of Stream";
}  // namespace

void CSenderReports::Restart() {
    m_timer.Stop();
    if (!m_forbidden && m_link.SendsReports()) {
        m_timer.Start(PERIOD_US);
    }
}

int CSenderReports::Send(IMediaRoute* route, int track_filter, bool with_bye) {
    if (!m_source.IsOpen()) {
        return -1;
    }
    for (const CTrack& track : m_tracks) {
        if (!track.playing || (track_filter != -1 && track.track_id != track_filter)) {
            continue;
        }
        if (!track.reports || route == nullptr) {
            return 0;
        }
        if (send_one(*route, track, with_bye) < 0) {
            return -1;
        }
    }
    return 0;
}

int CSenderReports::send_one(IMediaRoute& route, const CTrack& track, bool with_bye) {
    SrcInfo info;
    if (m_source.GetSrcInfo(info, track.track_id) < 0) {
        return -1;
    }
    const int channel = m_source.GetTcpChannel(track.track_id) + 1;
    CRtcpParser rtcp(track.ssrc);
    rtcp.set_sender_info(info.packets, info.octets, info.timestamp);
    if (with_bye) {
        rtcp.set_bye(nullptr, 0, BYE_REASON, sizeof(BYE_REASON) - 1);
    }
    unsigned char report[MAX_REPORT_SIZE];
    unsigned int length = sizeof(report);
    return rtcp.get_sr_compound(report, &length) == nullptr ? -1 : route.SendReport(report, length, channel);
}

}  // namespace Vidora
}  // namespace Kavio
