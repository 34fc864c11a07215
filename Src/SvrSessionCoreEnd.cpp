// Parameters, PAUSE and TEARDOWN, reports and time-outs, and the road by which a session ends.

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "FrameInfo.h"
#include "Protocol/RtcpParser.h"
#include "SvrSessionCore.h"
#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t REPORT_SIZE = 2044;
const char BYE_REASON[] = "End of Stream";
// How often it is looked whether the media of a source that has ended has arrived, and how often in vain: ten seconds.
const int64_t END_WAIT_US = 20000;
const int END_MAX_TRIES = 500;

std::atomic<bool> delay_log{false};

// The description behind its origin line; RFC 4566 5 puts v= first and o= second.
const char* behind_origin(const char* sdp) {
    const char* origin = strstr(sdp, "\no=");
    const char* end = origin == nullptr ? nullptr : strchr(origin + 1, '\n');
    return end == nullptr ? sdp : end;
}

void set_delay_log_command(int argc, char** argv) {
    CSvrSessionCore::SetDelayLog(argc > 1 ? atoi(argv[1]) : 1);
}

}  // namespace

CSvrSessionCore::~CSvrSessionCore() {
    m_gate.Release();
    if (m_sock != nullptr) {
        RemoveSock(*m_sock);
    }
    release_source();
    if (m_stream_sender != nullptr) {
        m_stream_sender->Close();
        m_stream_sender = nullptr;
    }
    delete m_sock;
    m_sock = nullptr;
    // A session without a data source has reported this already when it began to end.
    give_address_event(EVENT_CLIENT_DISCONNECTED);
    logInfo("%s %s this:%p\n", __FILE__, "Vidora::CSvrSessionCore::~CSvrSessionCore", static_cast<void*>(this));
    if (m_live_count != nullptr) {
        --*m_live_count;
    }
}

// Nothing in the library reads a parameter's body; the request counts as a sign of life.
int CSvrSessionCore::on_set_parameter(const StateEvent& event) {
    return parse_event(event) < 0 ? refuse_parse(event) : send_error(200);
}

// Clients use it to keep a session alive.
int CSvrSessionCore::on_get_parameter(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (m_rsp_parser.get_body()[0] != '\0') {
        int length = 0;
        const char* type = m_rsp_parser.get_content_type(&length);
        logDebug("%s:%d type:%s len:%d  \n", __FILE__, __LINE__, type, length);
        logDebug("%s:%d Content: %s\n", __FILE__, __LINE__, m_rsp_parser.get_body());
    }
    return send_error(200);
}

int CSvrSessionCore::on_pause(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (!m_source.IsOwn()) {
        return refuse_here(event);  // a channel that others share can't be paused
    }
    const int track_id = m_tracks.IdOfUrl(m_rsp_parser.get_url());
    for (CTrack& track : m_tracks) {
        track.playing = track.playing && track_id >= 0 && track.track_id != track_id;
    }
    ++m_play_round;
    m_wait_id = event.id;
    m_source.Pause();
    return 1;
}

int CSvrSessionCore::reply_pause() {
    m_streaming = false;
    return m_machine.put_tx_event(EVENT_KIND_PAUSE, m_rsp_parser.generate_reply(nullptr, 200, nullptr), 200, m_wait_id)
               ? 0
               : -1;
}

// As a reply event with a status above 299 leaves the machine in its state; sent at once it would enter the next one.
int CSvrSessionCore::refuse_here(const StateEvent& event) {
    return m_machine.put_tx_event(EVENT_KIND_REFUSAL, m_rsp_parser.generate_error_reply(455), 455, event.id) ? 1 : -1;
}

int CSvrSessionCore::on_unsupported(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    const char* reply = m_rsp_parser.generate_error_reply(455);
    if (reply == nullptr) {
        logError("%s:%d, get reply 455 failed.\n", __FILE__, __LINE__);
    }
    return send_text(reply);
}

// The machine goes to Init after either form; the connection stays.
int CSvrSessionCore::on_teardown(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    const int track_id = m_tracks.IdOfUrl(m_rsp_parser.get_url());
    ++m_play_round;
    if (track_id >= 0) {
        CTrack* track = m_tracks.Find(track_id);
        return track == nullptr ? send_error(200) : teardown_track(*track);
    }
    send_rtcp_report(-1, true);
    m_tracks.Clear();
    m_streaming = false;
    send_error(200);
    stop_media();
    stop_source();
    return 0;
}

int CSvrSessionCore::teardown_track(CTrack& track) {
    if (!track.sends) {
        return send_error(200);
    }
    send_rtcp_report(track.track_id, true);
    if (m_route != nullptr && track.send_channel >= 0) {
        m_route->Switch(track, false);
    }
    track.playing = false;
    track.set_up = false;
    send_error(200);
    stop_source();  // for all tracks: there is no stop of one
    return 0;
}

// Ends the reports and takes the sinks off their buffer.
void CSvrSessionCore::stop_media() {
    if (m_rtcp_timer != 0) {
        DestroyTimer(m_rtcp_timer);
        m_rtcp_timer = 0;
    }
    m_silence.Reset();
    m_source.Leave();
}

// Sender reports of the tracks that play, or of one; with a BYE behind them (RFC 3550 6.6). 0 or -1.
int CSvrSessionCore::send_rtcp_report(int track_filter, bool with_bye) {
    if (!m_source.IsOpen()) {
        return -1;
    }
    for (const CTrack& track : m_tracks) {
        if (!track.playing || (track_filter != -1 && track.track_id != track_filter)) {
            continue;
        }
        if (!track.reports) {
            return 0;
        }
        if (send_track_report(track, with_bye) < 0) {
            return -1;
        }
    }
    return 0;
}

int CSvrSessionCore::send_track_report(const CTrack& track, bool with_bye) {
    SrcInfo info;
    if (m_source.GetSrcInfo(info, track.track_id) < 0) {
        return -1;
    }
    const int channel = m_source.GetTcpChannel(track.track_id) + 1;
    CRtcpParser rtcp(track.ssrc);
    const int sender_info[3] = {static_cast<int>(info.packets), static_cast<int>(info.octets),
                                static_cast<int>(info.timestamp)};
    rtcp.set_sender_info(sender_info);
    if (with_bye) {
        rtcp.set_bye(nullptr, 0, BYE_REASON, sizeof(BYE_REASON) - 1);
    }
    unsigned char report[REPORT_SIZE];
    unsigned int length = sizeof(report);
    if (rtcp.get_sr_compound(report, &length) == nullptr) {
        return -1;
    }
    return m_route == nullptr ? 0 : m_route->SendReport(report, length, channel);
}

int64_t CSvrSessionCore::handle_timeout(long timer_id) {
    if (timer_id == m_sdp_timer && timer_id != 0) {
        if (retry_describe() < 0) {
            put_asyn_msg(MSG_SRC_READY);
        }
    } else if (timer_id == m_end_timer && timer_id != 0) {
        on_source_end();
    } else if (timer_id == m_rtcp_timer && timer_id != 0 && send_rtcp_report(-1, false) < 0) {
        put_asyn_msg(MSG_SRC_FAIL);
    }
    return 0;
}

void CSvrSessionCore::SetDelayLog(int on) {
    delay_log = on != 0;
}

void CSvrSessionCore::RegisterConsole() {
    static std::once_flag once;
    std::call_once(once, [] {
        Ostra::R3Register(reinterpret_cast<void*>(&set_delay_log_command), "rtspdelay",
                          "rtspdelay 0|1: print the delay of each frame of each RTSP session");
    });
}

// Runs on the source's thread, under its locks, for each frame that goes to this session; the host hears of a loss on
// the session's strand.
void CSvrSessionCore::on_frame_info(CMediaPacket* packet, int length, int /*unused*/) {
    if (packet == nullptr || length < 1) {
        return;
    }
    const CFrameInfo& info = *static_cast<const CFrameInfo*>(packet);
    if (info.m_track >= static_cast<unsigned int>(CTrackTable::MAX_TRACKS)) {
        return;
    }
    unsigned int& last = m_last_frame[info.m_track];
    if (last == 0) {
        last = info.m_frame_index;
        return;
    }
    const bool lost = info.m_frame_index - last != 1;
    if (lost) {
        logError("%s %d The Event:Lost Packet Happened! Statis: last[%d] -> new[%d], frame type=%c. \n", __FILE__,
                 __LINE__, static_cast<int>(last), static_cast<int>(info.m_frame_index), info.m_frame_type);
    }
    if (delay_log.load(std::memory_order_relaxed)) {
        char peer[32];
        m_peer_addr.GetIpStr(peer, sizeof(peer));
        R3Printf("[Vidora]  Client[%s:%d] frame index[%d], frame type=%c,  delay %llu ms, this %p\n", peer,
                 m_peer_addr.GetPort(), static_cast<int>(info.m_frame_index), info.m_frame_type,
                 static_cast<unsigned long long>(CTime::getCurrentMilliSecond() - info.m_time_ms),
                 static_cast<void*>(this));
    }
    last = info.m_frame_index;
    if (lost && m_event_func != nullptr && m_lost_count.fetch_add(1) == 0) {
        Notify(GetID(), MSG_SESSION_LOST, 0);
    }
}

// One event for each jump.
void CSvrSessionCore::give_lost_events() {
    char peer[64];
    m_peer_addr.GetIpStr(peer, sizeof(peer));
    LostPacketEvent record = {peer, m_peer_addr.GetPort(), m_source.Channel(), m_source.Subtype(), GetID()};
    for (unsigned int count = m_lost_count.exchange(0); count > 0 && m_event_func != nullptr; --count) {
        m_event_func(EVENT_LOST_PACKET, &record, static_cast<int>(sizeof(record)));
    }
}

// The control connection was silent for the keep-alive time.
int CSvrSessionCore::handle_input_timeout(int fd) {
    if (m_source.IsLive() && m_sdp_result == SDP_MULTICAST) {
        return 0;  // a multicast viewer may be silent
    }
    if (!m_silence.ControlIsSilent()) {
        return 0;
    }
    if (m_sock != nullptr && fd == m_sock->GetHandle()) {
        logWarn("Rtsp Server Session timeout, this:%p.!\n", static_cast<void*>(this));
    } else {
        logWarn("Unknown error in Rtsp Server Session, this:%p!\n", static_cast<void*>(this));
    }
    put_asyn_msg(MSG_SESSION_BROKEN);
    return 0;
}

int CSvrSessionCore::handle_exception(int /*fd*/) {
    logWarn("%s:%d, handle_exception this:%p.\n", __FILE__, __LINE__, static_cast<void*>(this));
    stop_source();
    put_asyn_msg(MSG_SESSION_BROKEN);
    return 0;
}

int CSvrSessionCore::handle_message(long /*sender_id*/, unsigned int msg, long param) {
    int result = 0;
    switch (msg) {
        case MSG_SESSION_INIT:
            Init();
            break;
        case MSG_SESSION_AUTH:
            m_gate.TakeAnswer();
            break;
        case MSG_SESSION_LOST:
            give_lost_events();
            break;
        case MSG_SESSION_END:
            put_asyn_msg(static_cast<unsigned int>(param));
            break;
        case MSG_SOURCE_CLOSED:
            m_machine.put_asyn_msg(MSG_SOURCE_CLOSED, m_wait_id);
            break;
        case MSG_SOCK_EXCEPTION:
            put_asyn_msg(MSG_SESSION_BROKEN);
            break;
        case MSG_SRC_READY:
            if (m_source.IsOpen()) {
                read_sdp();
            }
            result = reply_describe();
            break;
        case MSG_PLAY_READY:
            result = reply_play();
            break;
        case MSG_SRC_PAUSED:
            result = reply_pause();
            break;
        case MSG_SRC_END:
            if (m_end_timer == 0) {  // a source may tell its end with every frame
                on_source_end();
            }
            break;
        case MSG_SRC_FAIL:
            put_asyn_msg(msg);
            break;
        case MSG_SDP_UPDATE:
            result = on_sdp_update();
            break;
        case MSG_KEEPALIVE_TIMEOUT:
            if (m_silence.PeerIsSilent()) {
                put_asyn_msg(MSG_KEEPALIVE_TIMEOUT);
            }
            break;
        default:
            break;
    }
    if (result < 0) {
        put_asyn_msg(msg);
    }
    return 0;
}

// A recording is given out faster than the client takes it: its last pictures may still wait when its end is told. The
// connection is kept for them, as long as the client takes some.
void CSvrSessionCore::on_source_end() {
    if (has_media_to_send() && m_end_tries < END_MAX_TRIES) {
        ++m_end_tries;
        if (m_end_timer == 0) {
            m_end_timer = SetTimer(END_WAIT_US);
        }
        if (m_end_timer != 0) {
            return;
        }
    }
    put_asyn_msg(MSG_SRC_END);
}

bool CSvrSessionCore::has_media_to_send() {
    uint64_t unsent = 0;
    const bool waits = m_source.HasMediaToSend(unsent);
    if (waits && unsent != m_end_unsent) {
        m_end_unsent = unsent;
        m_end_tries = 0;
    }
    return waits;
}

void CSvrSessionCore::stop_draining() {
    if (m_end_timer != 0) {
        DestroyTimer(m_end_timer);
        m_end_timer = 0;
    }
    m_end_tries = 0;
    m_end_unsent = 0;
}

// A change of the stream's format ends an RTP session, whose SDP would be false; private frames carry the change
// themselves. A DESCRIBE that waits for the SDP may have it now.
int CSvrSessionCore::on_sdp_update() {
    if (m_sdp_timer != 0) {
        return m_source.IsOpen() && read_sdp() < 0 ? 0 : reply_describe();  // the tries are the timer's
    }
    // A source that becomes ready reports that as an update as well. It may overtake the DESCRIBE that has just been
    // answered with this very SDP.
    const bool nothing_set_up = m_packet_type == PACKET_TYPE_NONE;
    if (m_packet_type != PACKET_TYPE_KX && m_described && !(nothing_set_up && has_same_sdp())) {
        put_asyn_msg(MSG_SDP_UPDATE);
    }
    return 0;
}

// Whether the source's SDP is what DESCRIBE gave, but for the origin line, which has the time of its making.
bool CSvrSessionCore::has_same_sdp() {
    CSdpParser now;
    if (!m_source.IsOpen() || m_source.GetSdp(now) < 0) {
        return false;
    }
    now.GetStream();
    return strcmp(behind_origin(now.get_stream()), behind_origin(m_sdp.get_stream())) == 0;
}

// The end begins here, whatever its reason: the media stops, the source is let go, the session closes. A data source is
// waited for: its last message, MSG_SOURCE_CLOSED, comes here again.
void CSvrSessionCore::on_asyn_msg(const StateEvent& event) {
    if (event.method == MSG_SOURCE_CLOSED && !m_closed) {
        m_closed = true;
        CloseLink();
        return;
    }
    stop_waiting_for_sdp();
    stop_draining();
    stop_media();
    StopSending();
    m_wait_id = event.id;
    const bool waits = m_source.Release(GetID(), true);
    if (!waits && !m_closed) {
        m_closed = true;
        CloseLink();
    }
    if (m_closed) {
        give_address_event(EVENT_CLIENT_DISCONNECTED);
    }
}

}  // namespace Vidora
}  // namespace Kavio
