#include "SenderReports.h"

#include "Protocol/RtcpParser.h"

namespace Kavio {
namespace Vidora {

namespace {
const int64_t PERIOD_US = 5000000;  // RFC 3550 6.2
const int64_t EARLY_PERIOD_US = 20000;
const int MAX_EARLY_TICKS = 250;
const size_t MAX_REPORT_SIZE = 2044;
const char BYE_REASON[] = "End of Stream";
}  // namespace

void CSenderReports::Restart() {
    m_timer.Stop();
    for (CTrack& track : m_tracks) {
        track.reported = false;
    }
    m_early_ticks = m_conformance ? MAX_EARLY_TICKS : 0;
    if (!m_forbidden && m_link.SendsReports()) {
        m_timer.Start(m_conformance ? EARLY_PERIOD_US : PERIOD_US);
    }
}

int CSenderReports::OnTimer(IMediaRoute* route) {
    if (m_early_ticks == 0) {
        return Send(route, -1, false);
    }
    bool all_reported = true;
    for (CTrack& track : m_tracks) {
        if (track.playing && !track.reported && has_media(track)) {
            track.reported = true;
            if (Send(route, track.track_id, false) < 0) {
                return -1;
            }
        }
        all_reported = all_reported && (track.reported || !track.playing || !track.set_up);
    }
    if (--m_early_ticks == 0 || all_reported) {
        m_early_ticks = 0;
        m_timer.Stop();
        m_timer.Start(PERIOD_US);
    }
    return 0;
}

// Whether a track has sent something since its time line began.
bool CSenderReports::has_media(const CTrack& track) {
    SrcInfo info;
    return m_source.IsOpen() && m_source.GetSrcInfo(info, track.track_id) >= 0 && info.wall_us != 0;
}

bool CSenderReports::SayBye(IMediaRoute* route) {
    return m_conformance && !m_forbidden && m_link.SendsReports() && Send(route, -1, true) >= 0;
}

int CSenderReports::Send(IMediaRoute* route, int track_filter, bool with_bye) {
    if (!m_source.IsOpen()) {
        return -1;
    }
    for (CTrack& track : m_tracks) {
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

int CSenderReports::send_one(IMediaRoute& route, CTrack& track, bool with_bye) {
    SrcInfo info;
    if (m_source.GetSrcInfo(info, track.track_id) >= 0) {
        track.last_report = info;
    } else if (with_bye && m_conformance) {
        info = track.last_report;  // a live channel that was withdrawn
    } else {
        return -1;
    }
    const uint32_t source = m_source.GetSSRC(track.track_id);
    track.ssrc = source != 0 ? source : track.ssrc;  // a relayed server may tell it with its first packet only
    const int channel = 2 * track.send_channel + 1;
    CRtcpParser rtcp(track.ssrc);
    if (m_conformance) {
        rtcp.set_sender_info(info.rtp_packets, info.payload_octets, info.timestamp);
        rtcp.set_sender_time(info.wall_us != 0 ? info.wall_us : CTime::getWallMicroSecond());
    } else {
        rtcp.set_sender_info(info.packets, info.octets, info.timestamp);
    }
    if (with_bye) {
        rtcp.set_bye(nullptr, 0, BYE_REASON, sizeof(BYE_REASON) - 1);
    }
    unsigned char report[MAX_REPORT_SIZE];
    unsigned int length = sizeof(report);
    if (rtcp.get_sr_compound(report, &length) == nullptr) {
        return -1;
    }
    // A network that is away for a while takes a report as it takes the media, and neither ends the session.
    const int sent = route.SendReport(report, length, channel);
    return m_conformance && !with_bye ? 0 : sent;
}

}  // namespace Vidora
}  // namespace Kavio
