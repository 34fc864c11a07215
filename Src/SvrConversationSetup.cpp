// DESCRIBE and SETUP: finding the source, describing it, and making the way for its media.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ChannelRoute.h"
#include "Protocol/LogQuote.h"
#include "Protocol/RtspTables.h"
#include "SvrConversation.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_CONTENT_SIZE = 256;  // of the host's rewriting

// The description behind its origin line; RFC 4566 5 puts v= first and o= second.
const char* behind_origin(const char* sdp) {
    const char* origin = strstr(sdp, "\no=");
    const char* end = origin == nullptr ? nullptr : strchr(origin + 1, '\n');
    return end == nullptr ? sdp : end;
}

src_type_t source_type(const char* content) {
    CRtspUrlParser parser;
    unsigned int length = static_cast<unsigned int>(strlen(content));
    parser.ParseContent(content, length);
    return parser.GetSrcType();
}

// Types that no live channel serves.
bool is_own_type(src_type_t type) {
    return type == SRC_TYPE_PROXY || type == SRC_TYPE_PROXY_LIVE || type == SRC_TYPE_PROXY_FILE ||
           type == SRC_TYPE_TOKEN;
}

}  // namespace

int CSvrConversation::on_describe(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    const char* url = m_codec.get_url();
    CRtspUrlParser url_parser;  // three kilobytes that nothing needs later
    if (!url_parser.ParseUrl(url, static_cast<unsigned int>(strlen(url)))) {
        logError("%s:%d, parse url failed., url=%s.\n", __FILE__, __LINE__,
                 CLogQuote(Ostra::LOG_LEVEL_ERROR, url).Text());
        return REFUSED_UNREAD;
    }
    const char* content = url_parser.GetContent();
    char rewritten[MAX_CONTENT_SIZE] = {};
    const rtsp_url_func_t rewrite = m_config.GetUrlFunc();
    if (rewrite != nullptr && rewrite(content == nullptr ? "" : content, rewritten, MAX_CONTENT_SIZE) != nullptr) {
        rewritten[MAX_CONTENT_SIZE - 1] = '\0';
        content = rewritten;
    }
    release(false);  // what an earlier DESCRIBE brought
    m_has_played = false;
    m_wait_id = event.id;
    m_awaited = REFUSED_CONTENT;
    const int result = open_source(content == nullptr ? "" : content, url_parser.GetLocalStreamProto());
    m_awaited = result < 0 ? 0 : m_awaited;
    return result;
}

int CSvrConversation::open_source(const char* content, int proto) {
    const src_type_t type = source_type(content);
    if (type == SRC_TYPE_TOKEN) {
        logInfo("%s:%d, create onvif playback file src.\n", __FILE__, __LINE__);
    }
    if (!is_own_type(type) && m_source.HasChannel(content)) {
        return m_source.OpenLive(content, proto, m_link.HandlerId()) < 0 ? REFUSED_CONTENT : describe_live();
    }
    // A content that is no live channel may be a source of its own, which answers with MSG_SRC_READY.
    if (m_source.OpenOwn(content, proto, m_config, m_link.HandlerId()) < 0) {
        return REFUSED_SOURCE;
    }
    return 1;
}

// Answers through the machine, at once if the channel has its description.
int CSvrConversation::describe_live() {
    m_sdp_wait.Begin();
    if (m_source.IsOpen() && !read_sdp() && m_sdp_wait.Again()) {
        return 1;
    }
    const int result = reply_describe();
    return result < 0 ? result : 1;
}

// Takes the source's description. False if there is none.
bool CSvrConversation::read_sdp() {
    m_sdp_result = m_source.GetSdp(m_sdp);
    return m_sdp_result >= 0;
}

// The next try of a DESCRIBE that waits.
int CSvrConversation::retry_describe() {
    if (m_source.IsOpen() && !read_sdp() && m_sdp_wait.Again()) {
        return 0;
    }
    return reply_describe();
}

// Answers DESCRIBE with the description that was read, or without one.
int CSvrConversation::reply_describe() {
    m_sdp_wait.Stop();
    if (!m_source.IsOpen()) {
        logError("%s:%d, invalid parameter.\n", __FILE__, __LINE__);
        return REFUSED_CONTENT;
    }
    if (m_sdp_result < 0) {
        m_machine.put_tx_event(REPLY_KIND_DESCRIBE, m_codec.generate_error_reply(RTSP_STATUS_NOT_FOUND),
                               RTSP_STATUS_NOT_FOUND, m_wait_id);
    } else {
        m_tracks.Build();
        const char* sdp = m_sdp->get_stream();
        const char* head = m_codec.generate_describe_reply(static_cast<int>(strlen(sdp)));
        if (head == nullptr) {
            return REFUSED_FAILURE;
        }
        char reply[RTSP_MAX_MESSAGE + SDP_STREAM_SIZE];
        snprintf(reply, sizeof(reply), "%s%s", head, sdp);
        m_machine.put_tx_event(REPLY_KIND_DESCRIBE, reply, RTSP_STATUS_OK, m_wait_id);
    }
    m_awaited = 0;
    m_described = true;
    return 0;
}

// Whether the source's description is what DESCRIBE gave, but for the origin line, which has the time of its making.
bool CSvrConversation::has_same_sdp() {
    std::shared_ptr<const CSdpParser> now;
    if (!m_source.IsOpen() || m_source.GetSdp(now) < 0) {
        return false;
    }
    return strcmp(behind_origin(now->get_stream()), behind_origin(m_sdp->get_stream())) == 0;
}

int CSvrConversation::on_setup(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (!m_source.IsOpen()) {
        logError("%s:%d, reply setup, invalid param.\n", __FILE__, __LINE__);
        return REFUSED_BY_STATE;
    }
    take_packet_type();
    const int track_id = m_tracks.IdOfUrl(m_codec.get_url());
    if (track_id < 0) {
        logError("%s %d url: %s get track id failed!\n", __FILE__, __LINE__,
                 CLogQuote(Ostra::LOG_LEVEL_ERROR, m_codec.get_url()).Text());
        return m_tracks.NamesNone(m_codec.get_url()) ? REFUSED_TRACK : REFUSED_AGGREGATE;
    }
    CTrack* track = m_tracks.Find(track_id);
    if (track == nullptr) {
        logError("%s %d client process crushed!\n", __FILE__, __LINE__);
        return REFUSED_TRACK;
    }
    int result = track->sends ? setup_track(*track) : static_cast<int>(RTSP_STATUS_UNAVAILABLE);
    while (result == RTSP_STATUS_UNSUPPORTED_TRANSPORT && m_codec.next_offer({event.text(), event.length})) {
        take_packet_type();
        result = setup_track(*track);
    }
    return result > 0 ? send_error(result) : result;
}

void CSvrConversation::take_packet_type() {
    m_packet_type = m_codec.get_transport()->packet_type;
    if (m_packet_type == PACKET_TYPE_KX) {
        m_reports.Forbid();
    }
}

// By the transport that the client offers. A refusal is its status: it leaves the way of the tracks that are set up
// already as it was, and makes clients fall back to another one.
int CSvrConversation::setup_track(CTrack& track) {
    transport_info transport = *m_codec.get_transport();
    transport.timeout = m_config.GetKeepAliveTimeout();
    track.set_up = true;
    IMediaRoute* route = find_route(transport);
    const int channel = m_source.GetTcpChannel(track.track_id);
    const bool has_way = route != nullptr && !parts_from_others(track, *route);
    const int result = has_way ? route->SetUp(track, channel, transport) : RTSP_STATUS_UNSUPPORTED_TRANSPORT;
    if (result != 0) {
        return result < 0 ? static_cast<int>(REFUSED_TRANSPORT) : result;
    }
    if (m_route != route) {
        change_route(route);
    }
    transport.ssrc = m_source.GetSSRC(track.track_id);
    track.send_channel = channel / 2;
    m_route->Switch(track, true);
    if (!track.reports) {
        track.reports = true;
        track.ssrc = transport.ssrc;
    }
    const char* reply = m_codec.generate_setup_reply(&transport, m_route->Group());
    if (reply == nullptr) {
        logError("%s:%d, get %s setup reply failed.\n", __FILE__, __LINE__,
                 m_sdp_result == SDP_MULTICAST ? "MULTICAST" : "unicast");
        return REFUSED_FAILURE;
    }
    return send_text(reply);
}

// Nothing flows; PLAY enters the new way. Of the others nothing is left: no ports, and nobody who watches them.
void CSvrConversation::change_route(IMediaRoute* to) {
    m_source.Leave();
    m_route = to;
    for (std::unique_ptr<IMediaRoute>& route : m_routes) {
        if (route.get() != to) {
            route.reset();
        }
    }
    m_silence.ForgetPeer();
}

// Whether the tracks that are set up go another way: all media of a session leave by one route. One that is set up
// again may change over while none plays, and the others follow it.
bool CSvrConversation::parts_from_others(const CTrack& track, const IMediaRoute& route) {
    if (m_route == nullptr || m_route == &route) {
        return false;
    }
    const bool is_new = track.send_channel < 0;
    return std::any_of(m_tracks.begin(), m_tracks.end(), [is_new](const CTrack& other) {
        return other.set_up && other.send_channel >= 0 && (is_new || other.playing);
    });
}

// A way for what the client wants; null if there is none.
IMediaRoute* CSvrConversation::find_route(const transport_info& transport) {
    const bool over_udp = transport.transport == RTP_OVER_UDP;
    if (transport.multicast ? !over_udp : m_sdp_result == SDP_MULTICAST) {
        return nullptr;
    }
    const bool by_channel = m_sdp_result == SDP_MULTICAST;
    std::unique_ptr<IMediaRoute>& route = m_routes[by_channel ? ROUTE_CHANNEL
                                                   : over_udp ? ROUTE_UDP
                                                              : ROUTE_INTERLEAVED];
    if (!route && by_channel) {
        route = CChannelRoute::Create(m_sdp);
    } else if (!route) {
        typedef TFunction3<void, CMediaPacket*, int, int> proc_t;
        route =
            m_link.MakeRoute({transport, *m_codec.get_multicast(), m_config, m_tracks.Count(),
                              proc_t(&m_frames, &CFrameWatch::OnFrame), proc_t(&m_frames, &CFrameWatch::OnDatagrams)});
    }
    return route.get();
}

}  // namespace Vidora
}  // namespace Kavio
