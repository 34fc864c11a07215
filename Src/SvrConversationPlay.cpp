// PLAY, PAUSE and TEARDOWN: the replies, and the start and the end of the media.

#include <cstdio>
#include <functional>
#include <tuple>

#include "ChannelRoute.h"
#include "Protocol/RtspTables.h"
#include "SvrConversation.h"
#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

namespace {

const double US_PER_SECOND = 1000000.0;
const double MAX_NPT_SECONDS = 1e12;  // beyond any recording; its microseconds fit 64 bits

// Seconds of a Range header as microseconds; below 0 is "not given".
uint64_t npt_to_us(double seconds) {
    if (!(seconds >= 0)) {
        return TIME_NOT_GIVEN;
    }
    return static_cast<uint64_t>((seconds < MAX_NPT_SECONDS ? seconds : MAX_NPT_SECONDS) * US_PER_SECOND);
}

double us_to_npt(uint64_t us) {
    return us == TIME_NOT_GIVEN ? NPT_NOT_GIVEN : static_cast<double>(us) / US_PER_SECOND;
}

// A source plays backwards from its later time to its earlier one.
template <typename Time, typename IsGiven, typename IsBefore>
void turn_round(Time& begin, Time& end, IsGiven given, IsBefore before) {
    if (given(begin) && !(given(end) && before(begin, end))) {
        std::swap(begin, end);
    }
}

bool is_given(const UtcTime& time) {
    return time.year != 0;
}

bool is_before(const UtcTime& a, const UtcTime& b) {
    return std::tie(a.year, a.month, a.day, a.hour, a.minute, a.second) <
           std::tie(b.year, b.month, b.day, b.hour, b.minute, b.second);
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
    if (names_no_track()) {
        return REFUSED_TRACK;
    }
    if (!m_tracks.AnySetUp()) {
        return refuse_here(event);  // every SETUP was refused
    }
    if (m_codec.get_play_fault() != 0) {
        return REFUSED_UNREAD;
    }
    return m_source.IsLive() ? reply_play() : play_own_source(event);
}

// The source answers with MSG_PLAY_READY, or MSG_SRC_FAIL.
int CSvrConversation::play_own_source(const StateEvent& event) {
    CDataSource* source = m_source.Own();
    if (source == nullptr) {
        return REFUSED_BY_STATE;
    }
    m_drain.Stop();  // it plays on
    m_wait_id = event.id;
    m_awaited = REFUSED_RANGE;
    bool is_scale = false;
    const float speed = m_codec.get_speed(&is_scale);
    if (m_codec.get_range_type() == RANGE_TYPE_CLOCK) {
        UtcTime begin;
        UtcTime end;
        m_codec.get_clock_range(&begin, &end);
        if (turns_round(speed)) {
            turn_round(begin, end, is_given, is_before);
        }
        source->Play(begin, end, speed, is_scale);
    } else {
        double begin = NPT_NOT_GIVEN;
        double end = NPT_NOT_GIVEN;
        m_codec.get_npt_range(&begin, &end);
        if (turns_round(speed)) {
            begin = begin == NPT_NOT_GIVEN && plays_from_edge() ? MAX_NPT_SECONDS : begin;
            turn_round(
                begin, end, [](double seconds) { return seconds >= 0; }, std::less<double>());
        }
        source->Play(npt_to_us(begin), npt_to_us(end), speed, is_scale);
    }
    return 1;
}

// An unknown track is no track at all by the standards' way, and means all of them otherwise.
bool CSvrConversation::names_no_track() const {
    return m_config.GetConformance() && m_tracks.NamesNone(m_codec.get_url());
}

// By the standards' way a range that is played backwards begins with its first time (RFC 2326 12.34).
bool CSvrConversation::turns_round(float speed) const {
    return m_config.GetConformance() && speed < 0.0F;
}

// A range without a beginning begins at the recording's edge, and so does the first PLAY without a range. Later on
// "no range" means where the recording was left.
bool CSvrConversation::plays_from_edge() const {
    return m_codec.has_open_start() || !m_has_played;
}

// PLAY while playing: nothing to change on a live channel, a seek on a source of the session's own.
int CSvrConversation::on_replay(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (names_no_track()) {
        return REFUSED_TRACK;
    }
    if (m_codec.get_play_fault() != 0) {
        return REFUSED_UNREAD;
    }
    if (!m_source.IsOpen()) {
        return REFUSED_BY_STATE;  // its channel was withdrawn
    }
    if (m_source.IsLive()) {
        return reply_live_replay();
    }
    for (CTrack& track : m_tracks) {
        track.playing = false;
    }
    return m_source.Stop(m_packet_type) < 0 ? REFUSED_FAILURE : play_own_source(event);
}

// By the standards' way it says where the stream is and how fast it runs, as the first reply did.
int CSvrConversation::reply_live_replay() {
    const char* reply =
        m_config.GetConformance() ? describe_play(nullptr) : m_codec.generate_error_reply(RTSP_STATUS_OK);
    if (reply == nullptr) {
        logError("%s:%d, get reply 200 failed.\n", __FILE__, __LINE__);
    }
    return send_text(reply);
}

// Answers PLAY and starts the media: in the request itself on a live channel, on MSG_PLAY_READY on a source of its own.
int CSvrConversation::reply_play() {
    if (!m_source.IsOpen()) {
        return warn_play(REFUSED_CONTENT);
    }
    const CTrack* single = nullptr;
    const int found = find_played(single);
    if (found < 0) {
        return found;
    }
    // A source of its own gives nothing before it is started, so that the way can be entered in front of the reply.
    const bool has_way = m_source.IsLive() || m_source.IsEntered() || enter_route() == 0;
    const char* reply = has_way ? describe_play(single) : nullptr;
    if (reply == nullptr) {
        return warn_play(REFUSED_FAILURE);
    }
    m_awaited = 0;
    m_reports.Restart();
    if (!m_source.IsLive()) {
        return answer_own_play(reply, single);
    }
    send_text(reply);
    return start_media(single, m_codec.get_range_cseq()) < 0 ? REFUSED_ANSWERED : 0;
}

// Takes the track that the PLAY names, null for all of them. 0, or a refusal.
int CSvrConversation::find_played(const CTrack*& single) {
    const int track_id = m_tracks.IdOfUrl(m_codec.get_url());
    single = track_id < 0 ? nullptr : m_tracks.Find(track_id);
    if (track_id < 0 || (single != nullptr && single->set_up)) {
        return 0;
    }
    logError("%s %d client process crushed!\n", __FILE__, __LINE__);
    return single == nullptr ? REFUSED_TRACK : REFUSED_BY_STATE;
}

int CSvrConversation::answer_own_play(const char* reply, const CTrack* single) {
    const int cseq = m_codec.get_range_cseq();
    // This can run the requests that waited behind PLAY. One that ends the play again has the last word.
    const unsigned int round = m_play_round;
    m_machine.put_tx_event(REPLY_KIND_PLAY, reply, RTSP_STATUS_OK, m_wait_id);
    if (round != m_play_round) {
        return 0;
    }
    return m_source.IsOwn() ? start_media(single, cseq) : warn_play(REFUSED_ANSWERED);
}

int CSvrConversation::warn_play(refusal_t refusal) {
    logWarn("%s:%d, this:%p.\n", "Vidora::CSvrSessionCore::reply_play", __LINE__, static_cast<void*>(this));
    return refusal;
}

// The reply to a PLAY of one track, or null for all; null if it can't be made.
const char* CSvrConversation::describe_play(const CTrack* single) {
    rtp_info_entry entries[CTrackTable::MAX_TRACKS];
    int count = 0;
    return build_rtp_info(single, entries, &count) < 0 ? nullptr : generate_play_reply(entries, count);
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
        const char* control = m_sdp->get_control_by_id(track.track_id);
        snprintf(entry.url, sizeof(entry.url), "%s", control == nullptr ? "" : control);
        entry.seq = m_source.IsLive() ? last_seq(info) : info.seq;
        entry.rtptime = info.timestamp;
    }
    return 0;
}

const char* CSvrConversation::generate_play_reply(const rtp_info_entry* entries, int count) {
    const bool is_turned = m_source.IsOwn() && turns_round(m_codec.get_speed(nullptr));
    if (m_source.IsLive()) {
        m_codec.keep_own_rate();
    }
    if (m_codec.get_range_type() == RANGE_TYPE_CLOCK) {
        UtcTime begin;
        UtcTime end;
        m_source.GetPlayRange(begin, end);
        if (is_turned) {
            std::swap(begin, end);
        }
        return m_codec.generate_play_reply_clock(entries, count, &begin, &end);
    }
    uint64_t begin = TIME_NOT_GIVEN;
    uint64_t end = TIME_NOT_GIVEN;
    m_source.GetPlayRange(begin, end);
    if (is_turned) {
        std::swap(begin, end);
    }
    return m_codec.generate_play_reply(entries, count, us_to_npt(begin), us_to_npt(end));
}

// `single`: the one track that the PLAY named, or null for all.
int CSvrConversation::start_media(const CTrack* single, int cseq) {
    const auto is_named = [single](const CTrack& track) { return single == nullptr || single == &track; };
    for (const CTrack& track : m_tracks) {
        if (track.set_up && !track.playing && is_named(track)) {
            let_pass(track);
        }
    }
    if (open_media(cseq) < 0) {
        return -1;
    }
    for (CTrack& track : m_tracks) {
        track.playing = track.playing || (track.sends && is_named(track));
    }
    m_streaming = true;
    m_has_played = true;
    return 0;
}

// 0, or -1 if the route can't be entered, or the session's own source doesn't start.
int CSvrConversation::open_media(int cseq) {
    if (!m_source.IsEntered() && enter_route() < 0) {
        return -1;
    }
    return m_source.IsOwn() && m_source.Start(m_packet_type, cseq) < 0 ? -1 : 0;
}

// A track may have been paused: to its sink what passed meanwhile is no loss.
void CSvrConversation::let_pass(const CTrack& track) {
    if (m_route != nullptr) {
        m_route->Switch(track, true);
    }
}

// Stores the route of the last SETUP where the source puts its media.
int CSvrConversation::enter_route() {
    if (m_route == nullptr) {  // every SETUP was refused
        m_routes[ROUTE_CHANNEL] = CChannelRoute::Create(m_sdp);
        m_route = m_routes[ROUTE_CHANNEL].get();
    }
    if (m_route == nullptr) {
        return -1;
    }
    if (m_source.Enter(*m_route, m_packet_type) < 0) {
        // Nothing is attached, and the session ends.
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
    if (names_no_track()) {
        return REFUSED_TRACK;
    }
    if (!m_source.IsOwn()) {
        // A channel that others share can't be paused; its session can rest.
        return m_config.GetConformance() ? pause_live() : refuse_here(event);
    }
    const int track_id = m_tracks.IdOfUrl(m_codec.get_url());  // -1: all tracks
    for (CTrack& track : m_tracks) {
        track.playing = track.playing && track_id >= 0 && track.track_id != track_id;
    }
    ++m_play_round;
    m_drain.Stop();  // the client is there and may go on elsewhere in the recording
    m_wait_id = event.id;
    m_awaited = REFUSED_BY_STATE;
    m_source.Pause();
    return 1;
}

// The channel runs on without this session, which enters it anew with the next PLAY, and so begins with a key frame.
int CSvrConversation::pause_live() {
    const int track_id = m_tracks.IdOfUrl(m_codec.get_url());  // -1: all tracks
    bool any_plays = false;
    for (CTrack& track : m_tracks) {
        const bool pauses = track.playing && (track_id < 0 || track.track_id == track_id);
        if (pauses && m_route != nullptr && track.send_channel >= 0) {
            m_route->Pause(track);
        }
        track.playing = track.playing && !pauses;
        any_plays = any_plays || track.playing;
    }
    if (!any_plays) {
        stop_media();
        m_streaming = false;
    }
    return send_error(RTSP_STATUS_OK);
}

// The source has paused.
int CSvrConversation::reply_pause() {
    m_streaming = false;
    m_awaited = 0;
    const char* reply = m_codec.generate_reply(nullptr, RTSP_STATUS_OK, nullptr);
    return m_machine.put_tx_event(REPLY_KIND_PAUSE, reply, RTSP_STATUS_OK, m_wait_id) ? 0 : -1;
}

// The machine goes to Init after either form; the connection stays.
int CSvrConversation::on_teardown(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (names_no_track()) {
        return REFUSED_TRACK;
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
    m_drain.Stop();  // the client may set it up again
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
    m_drain.Stop();
    m_reports.Stop();
    m_silence.Reset();
    m_source.Leave();
}

}  // namespace Vidora
}  // namespace Kavio
