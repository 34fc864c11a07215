// Messages: from a text to the machine, the replies that need no source, and how a conversation ends.

#include "SvrConversation.h"

#include <sys/random.h>

#include <cstring>

#include "Protocol/LogQuote.h"
#include "Protocol/RtcpParser.h"
#include "Protocol/RtspTables.h"
#include "StreamParser/RandomDraw.h"

namespace Kavio {
namespace Vidora {

namespace {

// RFC 2326 3.4 wants identifiers that nobody guesses.
uint64_t random_session_id() {
    uint64_t id = 0;
    if (::getrandom(&id, sizeof(id), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(id))) {
        id = uint64_t{random_draw32()} << 32 | random_draw32();  // the system has none to give yet
    }
    return id != 0 ? id : 1;
}

bool checks_onvif_urls(const CRtspSvrConfig& config) {
    OnvifUserGlobalConfig item = {};
    int length = sizeof(item);
    return config.GetConfig(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, &item, length) == 0 && item.enable != 0;
}

}  // namespace

CSvrConversation::CSvrConversation(ISvrLink& link) : m_link(link) {
    init_rtsp_states(m_machine, this);
}

CSvrConversation::~CSvrConversation() = default;

void CSvrConversation::SetConfig(const CRtspSvrConfig& config) {
    m_config = config;
    m_codec.SetConformance(config.GetConformance());
    m_reports.SetConformance(config.GetConformance());
    m_drain.SetConformance(config.GetConformance());
    if (config.GetConformance()) {
        m_codec.set_session_id(random_session_id());
    }
}

void CSvrConversation::OpenGate(rtsp_auth_t type) {
    const rtsp_auth_func_t make_module = m_config.GetAuthFunc();
    m_gate.Open(type != 0 && make_module != nullptr ? make_module(type) : nullptr, checks_onvif_urls(m_config),
                m_config.GetConformance());
}

void CSvrConversation::Welcome(const CSockAddrStorage& peer) {
    m_peer = peer;
    m_welcomed = true;
    m_frames.SetPeer(peer);
    report_address(EVENT_CLIENT_CONNECTED);
}

void CSvrConversation::Farewell() {
    if (m_welcomed) {
        report_address(EVENT_CLIENT_DISCONNECTED);
    }
}

int CSvrConversation::LookAtMessage(const char* text, int length, rtsp_msg_info& info) {
    const int size = m_codec.check_message(text, static_cast<unsigned int>(length), &info);
    return size == RTSP_INCOMPLETE ? 0 : size;
}

int CSvrConversation::TakeMessage(const char* text, int length) {
    const Ostra::CLogLimit::CScope log(m_log);
    rtsp_msg_info info;
    const int size = LookAtMessage(text, length, info);
    if (size == 0) {
        return 0;
    }
    if (size < 0) {
        logError("%s:%d ret:%d recv_buf:%s\n", __FILE__, __LINE__, size,
                 CLogQuote(Ostra::LOG_LEVEL_ERROR, text).Text());
        return -1;
    }
    CSockAddrStorage peer;
    if (m_gate.Guards()) {
        m_link.GetPeer(peer);
    }
    int passed = m_gate.Check(info, text, size, peer);
    if (passed < 0 && m_config.GetConformance()) {
        passed = take_refused(passed, text, size);
    }
    if (passed < 0) {
        logError("%s:%d recv_buf:%s, check_authority ret -1\n", __FILE__, __LINE__,
                 CLogQuote(Ostra::LOG_LEVEL_ERROR, text).Text());
        return -1;
    }
    if (passed > 0 && !m_machine.put_rx_event(info, text, static_cast<uint32_t>(size), 0)) {
        logError("%s:%d, putevent failed, recv_buf=%s.\n", __FILE__, __LINE__,
                 CLogQuote(Ostra::LOG_LEVEL_ERROR, text).Text());
        return -1;
    }
    return size;
}

bool CSvrConversation::PassRequest(const rtsp_msg_info& info, const char* text, unsigned int length) {
    return m_machine.put_rx_event(info, text, length, 0);
}

bool CSvrConversation::SendChallenge(const char* request, unsigned int length, const char* challenge) {
    CRtspRspParser codec;
    read_aside(codec, request, length);
    return m_machine.put_tx_event(REPLY_KIND_AUTH, codec.generate_auth_reply(challenge), 0, 0);
}

// Reads a request that isn't served, for its CSeq, by a codec of its own: m_codec may still hold one whose reply comes
// later.
int CSvrConversation::read_aside(CRtspRspParser& codec, const char* request, unsigned int length) const {
    codec.SetConformance(m_config.GetConformance());
    codec.set_session_id(m_codec.get_session_id());
    return codec.parse_request(request, length, nullptr);
}

// Reports of the client are taken in and have no effect: not even a BYE (RFC 3550 6.6) ends anything.
void CSvrConversation::TakeReport(const unsigned char* data, unsigned int length, int channel) {
    const int index = channel / 2;
    if (index >= m_tracks.Count() || !m_tracks.At(index).reports) {
        return;
    }
    CRtcpParser parser(m_tracks.At(index).ssrc);
    parser.ParseData(data, &length, true);
    int count = 0;
    const rtcp_pack* packets = parser.get_packets(&count);
    for (int i = 0; i < count; ++i) {
        if (packets[i].common.pt == CRtcpParser::RTCP_TYPE_BYE) {
            logTrace("%s:%d RTCP BYE on channel %d, this:%p\n", __FILE__, __LINE__, channel, static_cast<void*>(this));
        }
    }
}

void CSvrConversation::ReleaseMemory() {
    const CMessageMemory* memory = m_codec.memory();
    if (memory != nullptr && memory->received_length == 0 && m_machine.idle()) {
        m_codec.release_memory();
    }
}

// Every operation of the machine begins with this reading of its request. 0 or negative.
int CSvrConversation::parse_event(const StateEvent& event) {
    rtsp_msg_info info = event.info();
    return m_codec.parse_request(event.text(), event.length, &info);
}

int CSvrConversation::refuse_parse(const StateEvent& event) {
    logError("%s:%d, parse data failed., data=%s.\n", __FILE__, __LINE__,
             CLogQuote(Ostra::LOG_LEVEL_ERROR, event.text()).Text());
    return REFUSED_UNREAD;
}

// Failures of delivery come back as MSG_SOCK_EXCEPTION and not here: always 0.
int CSvrConversation::send_data(const char* text, int length) {
    m_link.SendText(text, length);
    return 0;
}

// Null sends nothing.
int CSvrConversation::send_text(const char* text) {
    return text == nullptr ? 0 : send_data(text, static_cast<int>(strlen(text)));
}

int CSvrConversation::send_error(int status) {
    return send_text(m_codec.generate_error_reply(status));
}

// As a reply event with a status above 299 leaves the machine in its state; sent at once it would enter the next one.
int CSvrConversation::refuse_here(const StateEvent& event) {
    const char* reply = m_codec.generate_error_reply(RTSP_STATUS_WRONG_STATE);
    return m_machine.put_tx_event(REPLY_KIND_REFUSAL, reply, RTSP_STATUS_WRONG_STATE, event.id) ? 1 : -1;
}

int CSvrConversation::on_options(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return REFUSED_UNREAD;
    }
    send_text(m_codec.generate_options_reply());
    return 0;
}

// Nothing in the library reads a parameter's body; the request counts as a sign of life.
int CSvrConversation::on_set_parameter(const StateEvent& event) {
    return parse_event(event) < 0 ? refuse_parse(event) : send_error(RTSP_STATUS_OK);
}

// Clients use it to keep a session alive.
int CSvrConversation::on_get_parameter(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (m_codec.get_body()[0] != '\0') {
        int length = 0;
        const char* type = m_codec.get_content_type(&length);
        logDebug("%s:%d type:%s len:%d  \n", __FILE__, __LINE__, type, length);
        logDebug("%s:%d Content: %s\n", __FILE__, __LINE__,
                 CLogQuote(Ostra::LOG_LEVEL_DEBUG, m_codec.get_body()).Text());
    }
    return send_error(RTSP_STATUS_OK);
}

// By the standards' way what the gate can't judge is answered and not the end. What it couldn't read is passed on,
// since the machine can't read it either; a request that comes while another one is judged has come too early.
int CSvrConversation::take_refused(int refusal, const char* text, int size) {
    if (refusal == CAuthGate::UNREAD) {
        return 1;
    }
    CRtspRspParser codec;
    const bool is_early = refusal == CAuthGate::BUSY;
    return is_early && read_aside(codec, text, static_cast<unsigned int>(size)) >= 0
               ? send_text(codec.generate_error_reply(RTSP_STATUS_UNAVAILABLE))
               : -1;
}

// A request that isn't served. By the standards' way it is answered and leaves everything as it was. Otherwise the
// client hears nothing, but of a source that can't be made, and the machine waits on; see CStateMachine. Either way a
// client that was told that it plays, and gets no media, must not wait for them.
int CSvrConversation::on_refused(const StateEvent& event, int refusal) {
    if (refusal == REFUSED_ANSWERED) {
        End(MSG_SRC_FAIL);
        return 0;
    }
    if (!m_config.GetConformance()) {
        if (refusal == REFUSED_SOURCE) {
            send_error(RTSP_STATUS_NOT_FOUND);
        }
        return -1;
    }
    if (refusal == REFUSED_BY_STATE) {
        parse_event(event);  // for its CSeq: nothing may have read it yet
    }
    return send_error(refusal == REFUSED_UNREAD ? m_codec.get_refusal() : RefusalStatus(refusal));
}

// The same for a request that its source fails to serve later: false if none waits, or the conversation has to end.
bool CSvrConversation::refuse_awaited(int refusal) {
    if (m_awaited == 0 || !m_config.GetConformance()) {
        return false;
    }
    const int status = RefusalStatus(refusal == REFUSED_BY_STATE ? m_awaited : refusal);
    if (m_awaited == REFUSED_CONTENT) {
        release(false);
    }
    m_awaited = 0;
    const int cseq = m_codec.get_range_cseq();
    const unsigned int round = m_play_round;  // see answer_own_play
    if (!m_machine.put_tx_event(REPLY_KIND_REFUSAL, m_codec.generate_error_reply(status), status, m_wait_id)) {
        return false;
    }
    const bool plays_on = m_streaming && round == m_play_round;
    return !plays_on || start_media(nullptr, cseq) >= 0;  // a seek that failed
}

int CSvrConversation::on_unknown(const StateEvent& event) {
    return m_config.GetConformance() && parse_event(event) < 0 ? REFUSED_UNREAD : 0;
}

int CSvrConversation::on_unsupported(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    const char* reply = m_codec.generate_error_reply(RTSP_STATUS_WRONG_STATE);
    if (reply == nullptr) {
        logError("%s:%d, get reply 455 failed.\n", __FILE__, __LINE__);
    }
    return send_text(reply);
}

void CSvrConversation::OnTimer(long timer_id) {
    const Ostra::CLogLimit::CScope log(m_log);
    if (m_sdp_wait.Is(timer_id)) {
        const int result = retry_describe();
        if (result < 0 && !refuse_awaited(result)) {
            End(MSG_SRC_READY);
        }
    } else if (m_drain.Is(timer_id)) {
        on_source_end();
    } else if (m_reports.Is(timer_id) && m_reports.OnTimer(m_route) < 0) {
        End(MSG_SRC_FAIL);
    }
    ReleaseMemory();
}

// The control connection was silent for the keep-alive time.
void CSvrConversation::OnControlSilence() {
    if (m_source.IsLive() && m_sdp_result == SDP_MULTICAST) {
        return;  // a multicast viewer may be silent
    }
    if (m_silence.ControlIsSilent()) {
        logWarn("Rtsp Server Session timeout, this:%p.!\n", static_cast<void*>(this));
        End(MSG_SESSION_BROKEN);
    }
}

void CSvrConversation::OnLinkError() {
    logWarn("%s:%d, handle_exception this:%p.\n", __FILE__, __LINE__, static_cast<void*>(this));
    m_source.Stop(m_packet_type);
    End(MSG_SESSION_BROKEN);
}

void CSvrConversation::OnMessage(long sender_id, unsigned int msg, long param) {
    const Ostra::CLogLimit::CScope log(m_log);
    const int own = take_own_message(msg, param);
    const int result = own < 0 ? own : is_stale(sender_id, msg) ? 0 : take_source_message(msg);
    if (own < 0 || (result < 0 && !refuse_awaited(result))) {
        End(msg);
    }
    ReleaseMemory();
}

// Of the conversation's own parts. Negative if it has to end for it.
int CSvrConversation::take_own_message(unsigned int msg, long param) {
    switch (msg) {
        case MSG_SESSION_AUTH:
            return m_gate.TakeAnswer(), 0;
        case MSG_SESSION_LOST:
            return report_losses(), 0;
        case MSG_SESSION_END:
            say_bye();
            return End(static_cast<unsigned int>(param)), 0;
        case MSG_SOCK_EXCEPTION:
            return End(MSG_SESSION_BROKEN), 0;
        case MSG_KEEPALIVE_TIMEOUT:
            return m_silence.PeerIsSilent() ? -1 : 0;
        default:
            return 0;
    }
}

// Of a source that was released for another one while the message was on its way. Its close is told behind that.
bool CSvrConversation::is_stale(long sender_id, unsigned int msg) const {
    return sender_id != m_source.SenderId() && msg != MSG_SOURCE_CLOSED;
}

// Of the source. Negative if the conversation has to end for it.
int CSvrConversation::take_source_message(unsigned int msg) {
    switch (msg) {
        case MSG_SOURCE_CLOSED:
            return m_machine.put_asyn_msg(MSG_SOURCE_CLOSED, m_wait_id), 0;
        // A host may send these by itself: they are answers only to what is asked.
        case MSG_SRC_READY:
            return m_awaited == REFUSED_CONTENT ? on_source_ready() : 0;
        case MSG_PLAY_READY:
            return m_awaited == REFUSED_RANGE ? reply_play() : 0;
        case MSG_SRC_PAUSED:
            return m_awaited == REFUSED_BY_STATE ? reply_pause() : 0;
        case MSG_SRC_END:
            // A source may report its end with every frame.
            return m_drain.Runs() || ends_former_play() ? 0 : on_source_end();
        case MSG_SRC_FAIL:
            return -1;
        case MSG_SDP_UPDATE:
            return on_sdp_update();
        default:
            return 0;
    }
}

int CSvrConversation::on_source_ready() {
    if (m_source.IsOpen()) {
        read_sdp();
    }
    return reply_describe();
}

// A recording that was paused, stopped or sought in the moment of its end tells that of what it played before, and the
// client may go on in it. Before the first PLAY its end is that of a source that can't play.
bool CSvrConversation::ends_former_play() const {
    return m_has_played && !m_source.IsStarted() && m_source.IsRecording();
}

int CSvrConversation::on_source_end() {
    if (m_drain.Waits(m_source)) {
        return 0;
    }
    const bool is_told = say_bye();
    if (is_told && m_source.IsLive()) {
        release(true);  // the channel has gone, and its name may be another's
    }
    if (!is_told || !m_drain.WaitsForLeave()) {
        End(MSG_SRC_END);
    }
    return 0;
}

// A change of the stream's format ends an RTP session, whose description would be false; private frames carry the
// change themselves. A DESCRIBE that waits for the description may have it now.
int CSvrConversation::on_sdp_update() {
    if (m_sdp_wait.Runs()) {
        return take_awaited_sdp();
    }
    // A source that becomes ready reports that as an update as well. It may overtake the DESCRIBE that has just been
    // answered with this very description. Later on not even an equal one says that the pictures are as before.
    const bool nothing_set_up = m_packet_type == PACKET_TYPE_NONE;
    if (m_packet_type != PACKET_TYPE_KX && m_described && !(nothing_set_up && has_same_sdp())) {
        End(MSG_SDP_UPDATE);
    }
    return 0;
}

// A source that has no description yet is asked again by the timer.
int CSvrConversation::take_awaited_sdp() {
    const bool has_sdp = !m_source.IsOpen() || read_sdp();
    return has_sdp ? reply_describe() : 0;
}

void CSvrConversation::report_address(event_type_t event) {
    const rtsp_event_func_t report = m_config.GetEventFunc();
    if (report == nullptr) {
        return;
    }
    char text[64];
    m_peer.GetIpStr(text, sizeof(text));
    report(event, text, static_cast<int>(strlen(text)));
}

// One event for each gap.
void CSvrConversation::report_losses() {
    const rtsp_event_func_t report = m_config.GetEventFunc();
    CSockAddrStorage client = m_peer;
    if (!m_welcomed) {
        m_link.GetPeer(client);
    }
    char peer[64];
    client.GetIpStr(peer, sizeof(peer));
    LostPacketEvent record = {peer, client.GetPort(), m_source.Channel(), m_source.Subtype(), m_link.HandlerId()};
    for (unsigned int count = m_frames.TakeLosses(); count > 0 && report != nullptr; --count) {
        report(EVENT_LOST_PACKET, &record, static_cast<int>(sizeof(record)));
    }
}

// Media that flow end here. Whether the client is told.
bool CSvrConversation::say_bye() {
    const bool is_told = m_streaming && m_reports.SayBye(m_route);
    m_streaming = false;
    for (CTrack& track : m_tracks) {
        track.playing = track.playing && !is_told;
    }
    return is_told;
}

// The end begins here, whatever its reason: the media stops, the source is released, the link closes. A source of the
// session's own is waited for: its last message, MSG_SOURCE_CLOSED, comes here again.
void CSvrConversation::on_asyn_msg(const StateEvent& event) {
    const bool source_is_closed = event.method == MSG_SOURCE_CLOSED;
    if (source_is_closed && !m_closed) {
        m_closed = true;
        m_link.CloseLink();
        return;
    }
    if (event.method != MSG_SESSION_BROKEN) {
        say_bye();
    }
    m_link.StopSending();
    m_wait_id = event.id;
    if (!release(true) && !m_closed) {
        m_closed = true;
        m_link.CloseLink();
    }
    if (m_closed) {
        Farewell();
    }
}

void CSvrConversation::Release() {
    m_gate.Release();
    release(false);
}

// What a DESCRIBE has brought, and all that came of it, goes. `hears_end`: see CSessionSource::Release.
bool CSvrConversation::release(bool hears_end) {
    m_sdp_wait.Stop();
    stop_media();
    const bool waits = m_source.Release(m_link.HandlerId(), hears_end);
    m_route = nullptr;
    for (std::unique_ptr<IMediaRoute>& route : m_routes) {
        route.reset();
    }
    m_tracks.Clear();
    m_silence.ForgetPeer();
    m_sdp_result = SDP_UNICAST;
    m_packet_type = PACKET_TYPE_NONE;
    m_awaited = 0;
    m_streaming = false;
    return waits;
}

}  // namespace Vidora
}  // namespace Kavio
