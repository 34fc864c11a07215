// The set-up of the tracks, and their media.
#include <cctype>
#include <cstring>
#include <new>
#include <string_view>

#include "Protocol/TextWriter.h"
#include "RtspClient/ClientConversation.h"
#include "RtspClient/ClientPorts.h"
#include "StreamUdpReceiver.h"
#include "Tramel/Interleave.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const char WHOLE_CONTROL[] = "a=control:*\r\n";

CSockAddrStorage address_of(const char* text) {
    CSockAddrStorage addr;
    sockaddr_storage native = {};
    if (text[0] != '\0' && Tramel::ParseIpText(text, native)) {
        addr.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native));
    }
    return addr;
}

// Whether `url` ends with `rest`, and that isn't the end of another word.
bool ends_with(std::string_view url, std::string_view rest) {
    if (rest.empty() || url.size() < rest.size() || url.substr(url.size() - rest.size()) != rest) {
        return false;
    }
    return url.size() == rest.size() ||
           std::isalnum(static_cast<unsigned char>(url[url.size() - rest.size() - 1])) == 0;
}

// Whether a URL of RTP-Info, whole or relative, names the track with this control.
bool names_track(std::string_view url, std::string_view control) {
    return ends_with(url, control) || ends_with(control, url);
}

}  // namespace

int CClientConversation::take_sdp() {
    try {
        m_sdp = std::make_shared<client_sdp>();
        m_sdp->text = m_parser.get_body();
        CSdpParser& sdp = m_sdp->parser;
        sdp.SetTolerant(m_settings.conformance);
        if (sdp.Parse(m_sdp->text.c_str(), 0) < 0) {
            return -1;
        }
        // A single media needs no control attribute: it is the whole.
        if (sdp.get_media_count() == 1 && sdp.get_track_id(0) <= 0) {
            if (!m_sdp->text.empty() && m_sdp->text.back() != '\n') {
                m_sdp->text += "\r\n";
            }
            m_sdp->text += WHOLE_CONTROL;
            sdp.Parse(m_sdp->text.c_str(), 0);
        }
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (m_tracks.Build(m_sdp->parser, m_settings.transport, m_settings.packet_type) < 0) {
        return -1;
    }
    return set_up_next();
}

// The SETUP of the first track that had none; without such a track the set-up is done.
int CClientConversation::set_up_next() {
    client_track* track = m_tracks.NextToSetUp();
    if (track == nullptr) {
        return finish_set_up();
    }
    m_cur_track = track;
    track->sent = true;
    const bool needs_ports = m_settings.transport == RTP_OVER_UDP && !track->transport.multicast;
    if (needs_ports && OpenClientPorts(*track, m_link.Peer()) < 0) {
        fail_track(RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        return 0;
    }
    if (m_settings.transport == RTP_OVER_UDP && (m_settings.options & RTSP_CLIENT_MULTICAST) != 0) {
        track->transport.multicast = true;
    }
    if (track->transport.url[0] == '\0' && track->media_index >= 0) {
        CTextWriter(track->transport.url, sizeof(track->transport.url)).Add(m_parser.get_base_url());
    }
    return send_setup(*track);
}

int CClientConversation::send_setup(client_track& track) {
    const bool has_group = track.transport.multicast && track.multicast.addr[0] != '\0';
    const multicast_info* group = has_group ? &track.multicast : nullptr;
    return queue(RTSP_METHOD_SETUP, m_parser.generate_setup(&track.transport, group, track.back_channel), REQUEST_MAIN);
}

// One track suffices: the others are tried all the same.
void CClientConversation::fail_track(long code, rtsp_client_failure_t failure) {
    if (m_track_failure == RTSP_CLIENT_FAILURE_NONE) {
        m_track_code = code;
        m_track_failure = failure;
    }
    if (m_cur_track != nullptr) {
        m_cur_track->rtp_sock = nullptr;
        m_cur_track->rtcp_sock = nullptr;
    }
    if (!IsEnded() && set_up_next() < 0) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
    }
}

int CClientConversation::finish_set_up() {
    m_cur_track = nullptr;
    if (m_tracks.AnsweredCount() == 0) {
        Fail(MSG_SRC_FAIL, m_track_code, m_track_failure);
        return 0;
    }
    m_state = CLIENT_READY;
    if (m_sdp != nullptr) {
        m_tracks.FillSdpInfo(m_sdp->info, &m_sdp->parser, m_settings.packet_type);
        m_view.PublishSdp(m_sdp);
    }
    publish_tracks();
    m_handler.Notify(m_owner_id, MSG_RTSP_SETUP_READY, 0);
    return 0;
}

// What the answer doesn't say is as it was asked for.
int CClientConversation::follow_transport(client_track& track) {
    const transport_info& reply = *m_parser.get_transport();
    const bool is_other = m_parser.has_transport() && reply.transport != track.transport.transport;
    if (is_other) {
        return -1;
    }
    const int result =
        m_settings.transport == RTP_OVER_UDP ? follow_udp(track, reply) : follow_interleaved(track, reply);
    track.transport.ssrc = reply.ssrc;
    logDebug("SSRC: %x %x\n", reply.ssrc, track.transport.ssrc);
    return result < 0 ? -1 : m_reports.Add(track.rtcp_channel, reply.ssrc);
}

int CClientConversation::follow_interleaved(client_track& track, const transport_info& reply) {
    if (reply.server_rtp_port != 0 || reply.server_rtcp_port != 0) {
        track.rtp_channel = reply.server_rtp_port;
        track.rtcp_channel = reply.server_rtcp_port;
    }
    const int last = static_cast<int>(CClientReports::MAX_CHANNEL);
    const bool is_usable = track.rtp_channel <= last && track.rtcp_channel <= last &&
                           track.rtp_channel != track.rtcp_channel && !m_tracks.HasChannels(track);
    return is_usable ? 0 : -1;
}

int CClientConversation::follow_udp(client_track& track, const transport_info& reply) {
    const CSockAddrStorage source = address_of(m_parser.get_source());
    const bool is_multicast = m_parser.has_transport() ? reply.multicast : track.transport.multicast;
    if (is_multicast) {
        return JoinGroup(track, reply, *m_parser.get_multicast(), source, m_link.Peer(), m_link.Local(),
                         m_settings.conformance);
    }
    // A group was asked for and a stream of our own is given: there are no sockets for it yet.
    if (track.rtp_sock == nullptr && OpenClientPorts(track, m_link.Peer()) < 0) {
        return -1;
    }
    track.transport.multicast = false;
    if (reply.server_rtp_port > 0) {
        track.transport.server_rtp_port = reply.server_rtp_port;
        track.transport.server_rtcp_port = reply.server_rtcp_port;
    }
    FollowUnicastReply(track, reply, source, m_link.Peer(), m_settings.conformance);
    return 0;
}

void CClientConversation::publish_tracks() {
    client_track_facts facts[CLIENT_MAX_TRACKS];
    int count = 0;
    int entries = 0;
    const rtp_info_entry* rtp_info = m_parser.get_rtp_info(&entries);
    for (const client_track& track : m_tracks.All()) {
        if (!CClientTracks::Delivers(track)) {
            continue;
        }
        client_track_facts& fact = facts[count++];
        fact.track_id = track.track_id;
        fact.media_index = track.media_index;
        fact.media_type = m_sdp != nullptr ? m_sdp->parser.get_media_type(track.track_id) : SDP_MEDIA_VIDEO;
        fact.rtp_channel = track.rtp_channel;
        fact.clock_rate = track.clock_rate;
        fact.ssrc = track.transport.ssrc;
        for (int i = 0; rtp_info != nullptr && i < entries; ++i) {
            if (names_track(rtp_info[i].url, track.transport.url) || m_tracks.All().size() == 1) {
                fact.has_rtp_info = true;
                fact.seq = static_cast<uint16_t>(rtp_info[i].seq);
                fact.rtptime = rtp_info[i].rtptime;
            }
        }
    }
    m_view.PublishTracks(facts, count);
}

void CClientConversation::publish_range() {
    client_play_range range;
    range.type = m_parser.get_range_type();
    m_parser.get_npt_range(&range.begin, &range.end);
    m_parser.get_clock_range(&range.clock_begin, &range.clock_end);
    m_view.PublishRange(range);
}

void CClientConversation::play(const client_play& play) {
    if (!IsEnded() && m_state != CLIENT_INIT && !defer({RTSP_METHOD_PLAY, play})) {
        play_now(play);
    }
}

void CClientConversation::play_now(const client_play& play) {
    m_play = play;
    if (!m_receive.Exists() && start_media() < 0) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        return;
    }
    m_tracks.ForgetByes();
    if (send_play() < 0) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        return;
    }
    send_reports();  // over UDP it opens the way for what comes back, too
}

int CClientConversation::send_play() {
    const UtcTime* clock[2] = {m_play.has_begin ? &m_play.clock[0] : nullptr,
                               m_play.has_end ? &m_play.clock[1] : nullptr};
    const SmpteTime* smpte[2] = {m_play.has_begin ? &m_play.smpte[0] : nullptr,
                                 m_play.has_end ? &m_play.smpte[1] : nullptr};
    const char* text = nullptr;
    switch (m_play.form) {
        case client_play::CLOCK:
            text = m_parser.generate_play_clock(clock[0], clock[1], m_play.speed, m_play.scale);
            break;
        case client_play::SMPTE:
            text = m_parser.generate_play_smpte(smpte[0], smpte[1], m_play.speed, m_play.scale);
            break;
        default:
            text = m_parser.generate_play(m_play.begin, m_play.end, m_play.speed, m_play.scale);
    }
    return queue(RTSP_METHOD_PLAY, text, REQUEST_MAIN);
}

// Nothing is sent for a stream that is about to be held: servers refuse a second PAUSE, and the answer to the first one
// is both calls'.
void CClientConversation::pause() {
    const rtsp_method_t last = m_wishes.empty() ? m_requests.LastOfPlay() : m_wishes.back().method;
    if (!IsEnded() && m_state != CLIENT_INIT && last != RTSP_METHOD_PAUSE && !defer({RTSP_METHOD_PAUSE, {}})) {
        pause_now();
    }
}

// A stream that doesn't run is as it was asked for.
void CClientConversation::pause_now() {
    const rtsp_method_t last = m_requests.LastOfPlay();
    if (m_state != CLIENT_PLAYING && last != RTSP_METHOD_PLAY) {
        m_handler.Notify(m_owner_id, MSG_RTSP_PAUSE_READY, 0);
    } else if (last != RTSP_METHOD_PAUSE && queue(RTSP_METHOD_PAUSE, m_parser.generate_pause(), REQUEST_MAIN) < 0) {
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
    }
}

// An application may ask faster than the server answers: with each frame. A server need not keep more than a few
// requests; what comes behind them waits here, and of what is too much the last call counts. False for one that may be
// sent.
bool CClientConversation::defer(const play_wish& wish) {
    if (m_wishes.empty() && m_requests.CountOfPlay() < CLIENT_MAX_PLAYS) {
        return false;
    }
    if (m_wishes.size() == CLIENT_MAX_WISHES) {
        m_wishes.pop_back();
    }
    try {
        m_wishes.push_back(wish);
    } catch (const std::bad_alloc&) {
        return true;  // as if the server had refused it
    }
    return true;
}

void CClientConversation::play_deferred() {
    while (!m_wishes.empty() && !IsEnded() && m_requests.CountOfPlay() < CLIENT_MAX_PLAYS) {
        const play_wish wish = m_wishes.front();
        m_wishes.erase(m_wishes.begin());
        if (wish.method == RTSP_METHOD_PLAY) {
            play_now(wish.play);
        } else {
            pause_now();
        }
    }
}

int CClientConversation::start_media() {
    receiver_tracks_t tracks;
    const CSdpParser* sdp = m_sdp != nullptr ? &m_sdp->parser : nullptr;
    if (m_tracks.Describe(sdp, m_settings.packet_type, tracks) < 0) {
        return -1;
    }
    if ((m_settings.options & RTSP_CLIENT_BACK_CHANNEL) != 0 && open_back_channel() < 0) {
        logError("%s %d init_sender failed!\n", __FILE__, __LINE__);
        return -1;
    }
    CStreamReceiver* receiver = make_receiver();
    if (receiver == nullptr) {
        logError("%s:%d return -1\n", __FILE__, __LINE__);
        return -1;
    }
    return m_receive.Begin(receiver, tracks, m_settings.packet_type, m_url.c_str());
}

CStreamReceiver* CClientConversation::make_receiver() {
    if (m_settings.transport == RTP_OVER_RTSP) {
        return m_link.MakeReceiver(m_settings.packet_type, m_handler.GetID());
    }
    udp_receiver_socks_t socks;
    for (const client_track& track : m_tracks.All()) {
        if (CClientTracks::Delivers(track)) {
            socks.tracks[socks.count++] = {track.rtp_sock, track.rtcp_sock, track.source, track.other_source};
        }
    }
    return CStreamUdpReceiver::Create(socks, m_handler.GetID());
}

int CClientConversation::open_back_channel() {
    if (m_settings.transport != RTP_OVER_UDP) {
        logError("%s %d Back Channel  over TCP is not support!\n", __FILE__, __LINE__);
        return -1;
    }
    client_track* track = m_tracks.BackChannel();
    return track == nullptr || m_back_channel.IsOpen() ? 0 : m_back_channel.Open(*track, m_link.Peer());
}

int CClientConversation::send_reports() {
    if (!m_link.SendsReports()) {
        return 0;
    }
    for (const client_track& track : m_tracks.All()) {
        if (!CClientTracks::Delivers(track)) {
            continue;
        }
        if (!m_reports.Has(track.rtcp_channel) || !m_receive.Exists()) {
            return 0;
        }
        if (send_report(track) < 0) {
            return -1;
        }
    }
    return 0;
}

int CClientConversation::send_report(const client_track& track) {
    unsigned char packet[Tramel::INTERLEAVE_HEADER_SIZE + CClientReports::MAX_REPORT_SIZE];
    unsigned int length = CClientReports::MAX_REPORT_SIZE;
    reception_stats_t stats;
    if (!m_receive.TakeStats(track.rtp_channel, stats) ||
        m_reports.Write(track.rtcp_channel, stats, packet + Tramel::INTERLEAVE_HEADER_SIZE, &length) == nullptr) {
        return -1;
    }
    const char* report = reinterpret_cast<const char*>(packet);
    if (m_settings.transport == RTP_OVER_RTSP) {
        Ostra::CByteWriter header(packet, Tramel::INTERLEAVE_HEADER_SIZE);
        header.WriteU8(Tramel::INTERLEAVE_MARK);
        header.WriteU8(static_cast<uint8_t>(track.rtcp_channel));
        header.WriteU16(static_cast<uint16_t>(length));
        return m_link.Send(report, Tramel::INTERLEAVE_HEADER_SIZE + length);
    }
    if (!track.report_to.IsValid() || track.rtcp_sock == nullptr) {
        return 0;
    }
    return track.rtcp_sock->Send(report + Tramel::INTERLEAVE_HEADER_SIZE, length, &track.report_to) < 0 ? -1 : 0;
}

void CClientConversation::OnReceivedBye(const rtcp_digest_t& digest, int channel) {
    client_track* track = IsEnded() ? nullptr : m_tracks.ByRtcpChannel(channel);
    if (track == nullptr) {
        return;
    }
    reception_stats_t stats;
    const bool has_media = m_receive.GetStats(track->rtp_channel, stats) && stats.have_seq != 0;
    const bool over_udp = m_settings.transport == RTP_OVER_UDP;
    // Of a track that was silent it is the source that SETUP announced.
    const uint32_t announced = m_settings.conformance ? track->transport.ssrc : 0;
    const uint32_t source = has_media ? stats.ssrc : announced;
    if (over_udp && source == 0) {
        return;
    }
    // A datagram is easily forged: it must know the source that it ends.
    const bool must_know = over_udp || (m_settings.conformance && has_media);
    if (!must_know || digest.Ends(source)) {
        take_bye(*track, stats.ssrc);
    }
}

void CClientConversation::take_bye(client_track& track, uint32_t ssrc) {
    track.said_bye = true;
    track.bye_ssrc = ssrc;
    if (!m_settings.conformance) {
        logWarn("%s %d this:%p recv RTCP BYE Packet,Stop StateMachine!\n", __FILE__, __LINE__,
                static_cast<void*>(this));
        Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_NONE);
        return;
    }
    end_by_byes();
}

// The answer to a PLAY says first whether the stream goes on elsewhere.
void CClientConversation::end_by_byes() {
    bool any_ended = false;
    for (const client_track& track : m_tracks.All()) {
        const bool delivers = CClientTracks::Delivers(track);
        if (delivers && !has_ended(track)) {
            return;
        }
        any_ended = any_ended || delivers;
    }
    if (any_ended && !m_requests.Waits(RTSP_METHOD_PLAY)) {
        Fail(MSG_SRC_END, RTSP_CLIENT_CODE_ENDED, RTSP_CLIENT_FAILURE_NONE);
    }
}

// A sender that goes on with another source (RFC 3550 8.2) hasn't ended.
bool CClientConversation::has_ended(const client_track& track) {
    reception_stats_t stats;
    return track.said_bye && m_receive.GetStats(track.rtp_channel, stats) && stats.ssrc == track.bye_ssrc;
}

}  // namespace Vidora
}  // namespace Kavio
