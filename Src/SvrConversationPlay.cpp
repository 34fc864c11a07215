// PLAY, PAUSE and TEARDOWN: the replies, and the start and the end of the media.

#include <cstdio>

#include "ChannelRoute.h"
#include "Protocol/RtspTables.h"
#include "SvrConversation.h"
#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t NOT_GIVEN = ~uint64_t{0};
const double US_PER_SECOND = 1000000.0;
const double MAX_NPT_SECONDS = 1e12;  // beyond any recording; its microseconds fit 64 bits

// Seconds of a Range header as microseconds; below 0 is "not given".
uint64_t npt_to_us(double seconds) {
    if (!(seconds >= 0)) {
        return NOT_GIVEN;
    }
    return static_cast<uint64_t>((seconds < MAX_NPT_SECONDS ? seconds : MAX_NPT_SECONDS) * US_PER_SECOND);
}

double us_to_npt(uint64_t us) {
    return us == NOT_GIVEN ? NPT_NOT_GIVEN : static_cast<double>(us) / US_PER_SECOND;
}

// The sequence number of the packet that has the time stamp of a channel that runs: the last one. Until there was one
// both are those of the first.
uint16_t last_seq(const SrcInfo& info) {
    return info.packets == 0 ? info.seq : static_cast<uint16_t>(info.seq - 1);
}

}  // namespace

int CSvrConversation::on_play(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (!m_tracks.AnySetUp()) {
        return refuse_here(event);  // every SETUP was refused
    }
    return m_source.IsLive() ? reply_play() : play_own_source(event);
}

// The source answers with MSG_PLAY_READY, or MSG_SRC_FAIL.
int CSvrConversation::play_own_source(const StateEvent& event) {
    CDataSource* source = m_source.Own();
    if (source == nullptr) {
        return -1;
    }
    m_wait_id = event.id;
    bool is_scale = false;
    const float speed = m_codec.get_speed(&is_scale);
    if (m_codec.get_range_type() == RANGE_TYPE_CLOCK) {
        UtcTime begin;
        UtcTime end;
        m_codec.get_clock_range(&begin, &end);
        source->Play(begin, end, speed, is_scale);
    } else {
        double begin = NPT_NOT_GIVEN;
        double end = NPT_NOT_GIVEN;
        m_codec.get_npt_range(&begin, &end);
        source->Play(npt_to_us(begin), npt_to_us(end), speed, is_scale);
    }
    return 1;
}

// PLAY while playing: nothing to change on a live channel, a seek on a source of the session's own.
int CSvrConversation::on_replay(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (m_source.IsLive()) {
        const char* reply = m_codec.generate_error_reply(RTSP_STATUS_OK);
        if (reply == nullptr) {
            logError("%s:%d, get reply 200 failed.\n", __FILE__, __LINE__);
        }
        return send_text(reply);
    }
    for (CTrack& track : m_tracks) {
        track.playing = false;
    }
    return m_source.Stop(m_packet_type) < 0 ? -1 : play_own_source(event);
}

// Answers PLAY and starts the media: in the request itself on a live channel, on MSG_PLAY_READY on a source of its own.
int CSvrConversation::reply_play() {
    if (!m_source.IsOpen()) {
        return warn_play();
    }
    const int track_id = m_tracks.IdOfUrl(m_codec.get_url());  // -1: all tracks
    const CTrack* single = track_id < 0 ? nullptr : m_tracks.Find(track_id);
    if (track_id >= 0 && (single == nullptr || !single->set_up)) {
        logError("%s %d client process crushed!\n", __FILE__, __LINE__);
        return -1;
    }
    rtp_info_entry entries[CTrackTable::MAX_TRACKS];
    int count = 0;
    const char* reply = build_rtp_info(single, entries, &count) < 0 ? nullptr : generate_play_reply(entries, count);
    if (reply == nullptr) {
        return warn_play();
    }
    m_reports.Restart();
    const int cseq = m_codec.get_range_cseq();
    if (m_source.IsLive()) {
        send_text(reply);
        return start_media(single, cseq);
    }
    // This can run the requests that waited behind PLAY. One that ends the play again has the last word.
    const unsigned int round = m_play_round;
    m_machine.put_tx_event(REPLY_KIND_PLAY, reply, RTSP_STATUS_OK, m_wait_id);
    if (!m_source.IsOwn()) {
        return warn_play();
    }
    return round != m_play_round ? 0 : start_media(single, cseq);
}

int CSvrConversation::warn_play() {
    logWarn("%s:%d, this:%p.\n", "Vidora::CSvrSessionCore::reply_play", __LINE__, static_cast<void*>(this));
    return -1;
}

// One entry for each track that was set up, or for the one, with where its stream is now (RFC 2326 12.33).
int CSvrConversation::build_rtp_info(const CTrack* single, rtp_info_entry* table, int* count) {
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
        entry.seq = m_source.IsLive() ? last_seq(info) : info.seq;
        entry.rtptime = info.timestamp;
    }
    return 0;
}

const char* CSvrConversation::generate_play_reply(const rtp_info_entry* entries, int count) {
    if (m_codec.get_range_type() == RANGE_TYPE_CLOCK) {
        UtcTime begin;
        UtcTime end;
        m_source.GetPlayRange(begin, end);
        return m_codec.generate_play_reply_clock(entries, count, &begin, &end);
    }
    uint64_t begin = NOT_GIVEN;
    uint64_t end = NOT_GIVEN;
    m_source.GetPlayRange(begin, end);
    return m_codec.generate_play_reply(entries, count, us_to_npt(begin), us_to_npt(end));
}

// `single`: the one track that the PLAY named, or null for all.
int CSvrConversation::start_media(const CTrack* single, int cseq) {
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

// Lets the route of the last SETUP stand where the source puts its media.
int CSvrConversation::enter_route() {
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
    m_silence.Set(m_route->Watch(m_link.HandlerId(), m_config.GetKeepAliveTimeout()));
    return 0;
}

int CSvrConversation::on_pause(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (!m_source.IsOwn()) {
        return refuse_here(event);  // a channel that others share can't be paused
    }
    const int track_id = m_tracks.IdOfUrl(m_codec.get_url());  // -1: all tracks
    for (CTrack& track : m_tracks) {
        track.playing = track.playing && track_id >= 0 && track.track_id != track_id;
    }
    ++m_play_round;
    m_wait_id = event.id;
    m_source.Pause();
    return 1;
}

// The source has paused.
int CSvrConversation::reply_pause() {
    m_streaming = false;
    const char* reply = m_codec.generate_reply(nullptr, RTSP_STATUS_OK, nullptr);
    return m_machine.put_tx_event(REPLY_KIND_PAUSE, reply, RTSP_STATUS_OK, m_wait_id) ? 0 : -1;
}

// The machine goes to Init after either form; the connection stays.
int CSvrConversation::on_teardown(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    const int track_id = m_tracks.IdOfUrl(m_codec.get_url());
    ++m_play_round;
    if (track_id >= 0) {
        CTrack* track = m_tracks.Find(track_id);
        return track == nullptr ? send_error(RTSP_STATUS_OK) : teardown_track(*track);
    }
    m_reports.Send(m_route, -1, true);
    m_tracks.Clear();
    m_streaming = false;
    send_error(RTSP_STATUS_OK);
    stop_media();
    m_source.Stop(m_packet_type);
    return 0;
}

int CSvrConversation::teardown_track(CTrack& track) {
    if (!track.sends) {
        return send_error(RTSP_STATUS_OK);
    }
    m_reports.Send(m_route, track.track_id, true);
    if (m_route != nullptr && track.send_channel >= 0) {
        m_route->Switch(track, false);
    }
    track.playing = false;
    track.set_up = false;
    send_error(RTSP_STATUS_OK);
    m_source.Stop(m_packet_type);  // for all tracks: there is no stop of one
    return 0;
}

// The reports end, and the sink leaves its buffer.
void CSvrConversation::stop_media() {
    m_reports.Stop();
    m_silence.Reset();
    m_source.Leave();
}

}  // namespace Vidora
}  // namespace Kavio
