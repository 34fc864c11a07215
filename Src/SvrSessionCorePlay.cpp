// PLAY: the reply, and the start of the media.

#include <cstdio>
#include <cstring>
#include <new>

#include "ChannelRoute.h"
#include "SvrSessionCore.h"
#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t NOT_GIVEN = ~uint64_t{0};
const double US_PER_SECOND = 1000000.0;
const double MAX_NPT_SECONDS = 1e12;  // beyond any recording; its microseconds fit 64 bits
const int64_t REPORT_PERIOD_US = 5000000;

// Seconds of a Range header as microseconds; below 0 is "not given".
uint64_t npt_to_us(double seconds) {
    if (!(seconds >= 0)) {
        return NOT_GIVEN;
    }
    return static_cast<uint64_t>((seconds < MAX_NPT_SECONDS ? seconds : MAX_NPT_SECONDS) * US_PER_SECOND);
}

double us_to_npt(uint64_t us) {
    return us == NOT_GIVEN ? -1.0 : static_cast<double>(us) / US_PER_SECOND;
}

}  // namespace

int CSvrSessionCore::on_play(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (!m_tracks.AnySetUp()) {
        return refuse_here(event);  // every SETUP was refused
    }
    return m_source.IsLive() ? reply_play() : play_data_source(event);
}

// The source answers with MSG_PLAY_READY, or MSG_SRC_FAIL.
int CSvrSessionCore::play_data_source(const StateEvent& event) {
    CDataSource* own = m_source.Own();
    if (own == nullptr) {
        return -1;
    }
    m_wait_id = event.id;
    bool is_scale = false;
    const float speed = m_rsp_parser.get_speed(&is_scale);
    if (m_rsp_parser.get_range_type() == 1) {
        UtcTime begin;
        UtcTime end;
        m_rsp_parser.get_clock_range(&begin, &end);
        own->Play(begin, end, speed, is_scale);
    } else {
        double begin = -1.0;
        double end = -1.0;
        m_rsp_parser.get_npt_range(&begin, &end);
        own->Play(npt_to_us(begin), npt_to_us(end), speed, is_scale);
    }
    return 1;
}

// PLAY while playing: nothing to change on a live channel, a seek on a data source.
int CSvrSessionCore::on_replay(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (m_source.IsLive()) {
        const char* reply = m_rsp_parser.generate_error_reply(200);
        if (reply == nullptr) {
            logError("%s:%d, get reply 200 failed.\n", __FILE__, __LINE__);
        }
        return send_text(reply);
    }
    for (CTrack& track : m_tracks) {
        track.playing = false;
    }
    return stop_source() < 0 ? -1 : play_data_source(event);
}

// Answers PLAY and starts the media: in the request itself on a live channel, on MSG_PLAY_READY on a data source.
int CSvrSessionCore::reply_play() {
    if (!m_source.IsOpen()) {
        return warn_play();
    }
    const int track_id = m_tracks.IdOfUrl(m_rsp_parser.get_url());  // -1: all tracks
    CTrack* single = track_id < 0 ? nullptr : m_tracks.Find(track_id);
    if (track_id >= 0 && (single == nullptr || !single->set_up)) {
        logError("%s %d client process crushed!\n", __FILE__, __LINE__);
        return -1;
    }
    rtp_info_entry entries[CTrackTable::MAX_TRACKS];
    int count = 0;
    if (build_rtp_info(single, entries, &count) < 0) {
        return warn_play();
    }
    const char* reply = generate_play_reply(entries, count);
    if (reply == nullptr) {
        return warn_play();
    }
    restart_report_timer();
    const int cseq = m_rsp_parser.get_range_cseq();
    if (m_source.IsLive()) {
        send_text(reply);
    } else {
        // This can run the requests that waited behind PLAY. One that ends the play again has the last word.
        const unsigned int round = m_play_round;
        m_machine.put_tx_event(EVENT_KIND_PLAY, reply, 200, m_wait_id);
        if (!m_source.IsOwn()) {
            return warn_play();
        }
        if (round != m_play_round) {
            return 0;
        }
    }
    return start_media(single, cseq);
}

int CSvrSessionCore::warn_play() {
    logWarn("%s:%d, this:%p.\n", "Vidora::CSvrSessionCore::reply_play", __LINE__, static_cast<void*>(this));
    return -1;
}

// One entry for each track that was set up, or for the one, with where its stream is now (RFC 2326 12.33).
int CSvrSessionCore::build_rtp_info(const CTrack* single, rtp_info_entry* table, int* count) {
    for (const CTrack& track : m_tracks) {
        if (!track.set_up || (single != nullptr && single != &track)) {
            continue;
        }
        SrcInfo info;
        if (m_source.GetSrcInfo(info, track.track_id) < 0) {
            logError("%s:%d, get src info failed., track_id_it=%d.\n", __FILE__, __LINE__, track.track_id);
            return -1;
        }
        rtp_info_entry& entry = table[(*count)++];
        const char* control = m_sdp.get_control_by_id(track.track_id);
        snprintf(entry.url, sizeof(entry.url), "%s", control == nullptr ? "" : control);
        entry.seq = info.seq;
        entry.rtptime = info.timestamp;
    }
    return 0;
}

const char* CSvrSessionCore::generate_play_reply(const rtp_info_entry* entries, int count) {
    if (m_rsp_parser.get_range_type() == 1) {
        UtcTime begin;
        UtcTime end;
        m_source.GetPlayRange(begin, end);
        return m_rsp_parser.generate_play_reply_clock(entries, count, &begin, &end);
    }
    uint64_t begin = NOT_GIVEN;
    uint64_t end = NOT_GIVEN;
    m_source.GetPlayRange(begin, end);
    return m_rsp_parser.generate_play_reply(entries, count, us_to_npt(begin), us_to_npt(end));
}

// A sender report every five seconds (RFC 3550 6.2).
void CSvrSessionCore::restart_report_timer() {
    if (m_rtcp_timer != 0) {
        DestroyTimer(m_rtcp_timer);
        m_rtcp_timer = 0;
    }
    if (m_wants_reports && SendsReports()) {
        m_rtcp_timer = SetTimer(REPORT_PERIOD_US);
    }
}

// `single`: the one track that the PLAY named, or null for all.
int CSvrSessionCore::start_media(const CTrack* single, int cseq) {
    if (!m_source.IsEntered() && enter_route() < 0) {
        return -1;
    }
    if (m_source.IsOwn() && m_source.Start(m_packet_type, cseq) < 0) {
        return -1;
    }
    for (CTrack& track : m_tracks) {
        track.playing = track.playing || (track.sends && (single == nullptr || single == &track));
    }
    m_streaming = true;
    return 0;
}

// Attaches the sink of the last SETUP to what the source fills.
int CSvrSessionCore::enter_route() {
    if (m_route == nullptr) {  // every SETUP was refused
        m_routes[ROUTE_CHANNEL] = CChannelRoute::Create(m_sdp);
        m_route = m_routes[ROUTE_CHANNEL].get();
    }
    if (m_route == nullptr) {
        return -1;
    }
    if (m_source.Enter(*m_route, m_packet_type) < 0) {
        // Nothing is attached, and the keep-alive ends the session.
        logError("%s:%d, EnterLiveChannel failed, this:%p.\n", __FILE__, __LINE__, static_cast<void*>(this));
        return -1;
    }
    m_silence.Set(m_route->Watch(GetID(), m_config.GetKeepAliveTimeout()));
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
