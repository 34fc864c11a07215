// DESCRIBE and SETUP: finding the source, describing it, and making the way for its media.

#include <cstdio>
#include <cstring>
#include <new>

#include "ChannelRoute.h"
#include "SvrSessionCore.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const int STATUS_UNSUPPORTED_TRANSPORT = 461;
const int MAX_CONTENT_SIZE = 256;  // of the host's rewriting
// A channel that is still starting gets three seconds to have its SDP.
const int64_t SDP_WAIT_US = 300000;
const int SDP_MAX_TRIES = 10;

}  // namespace

int CSvrSessionCore::on_describe(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    const char* url = m_rsp_parser.get_url();
    CRtspUrlParser url_parser;  // three kilobytes that nothing needs later
    if (!url_parser.ParseUrl(url, static_cast<unsigned int>(strlen(url)))) {
        logError("%s:%d, parse url failed., url=%s.\n", __FILE__, __LINE__, url);
        return -1;
    }
    const char* content = url_parser.GetContent();
    char rewritten[MAX_CONTENT_SIZE] = {};
    const rtsp_url_func_t url_func = m_config.GetUrlFunc();
    if (url_func != nullptr && url_func(content == nullptr ? "" : content, rewritten, MAX_CONTENT_SIZE) != nullptr) {
        rewritten[MAX_CONTENT_SIZE - 1] = '\0';
        content = rewritten;
    }
    if (content == nullptr) {
        content = "";
    }
    CRtspUrlParser parser;
    unsigned int length = static_cast<unsigned int>(strlen(content));
    parser.ParseContent(content, length);
    const src_type_t type = parser.GetSrcType();
    const int proto = url_parser.GetLocalStreamProto();
    release_source();
    if (type == SRC_TYPE_TOKEN) {
        logInfo("%s:%d, create onvif playback file src.\n", __FILE__, __LINE__);
    }
    const bool own_source =
        type == SRC_TYPE_PROXY || type == SRC_TYPE_PROXY_LIVE || type == SRC_TYPE_PROXY_FILE || type == SRC_TYPE_TOKEN;
    if (!own_source && m_source.HasChannel(content)) {
        return open_live_channel(event, content, proto);
    }
    return open_data_source(event, content, proto);  // a content that is no live channel may be a data source
}

// The source answers with MSG_SRC_READY.
int CSvrSessionCore::open_data_source(const StateEvent& event, const char* content, int proto) {
    m_wait_id = event.id;
    if (m_source.OpenOwn(content, proto, m_config, GetID()) < 0) {
        send_error(404);
        return -1;
    }
    return 1;
}

// Answers through the machine, at once if the channel has its SDP.
int CSvrSessionCore::open_live_channel(const StateEvent& event, const char* content, int proto) {
    if (m_source.OpenLive(content, proto, GetID()) < 0) {
        return -1;
    }
    m_wait_id = event.id;
    m_sdp_tries = 0;
    if (m_source.IsOpen() && read_sdp() < 0 && wait_for_sdp() == 0) {
        return 1;
    }
    return reply_describe() < 0 ? -1 : 1;
}

// Lets go of all that an earlier DESCRIBE brought.
void CSvrSessionCore::release_source() {
    stop_waiting_for_sdp();
    stop_draining();
    stop_media();
    m_source.Release(GetID(), false);
    m_route = nullptr;
    for (std::unique_ptr<IMediaRoute>& route : m_routes) {
        route.reset();
    }
    m_sdp_result = SDP_UNICAST;
    m_tracks.Clear();
    memset(m_last_frame, 0, sizeof(m_last_frame));  // another source counts anew: its first frame is no loss
    m_silence.ForgetPeer();
}

int CSvrSessionCore::read_sdp() {
    m_sdp_result = m_source.GetSdp(m_sdp);
    return m_sdp_result;
}

// Tries again by a timer, so that no thread of the pool is held. 0, or -1 if the tries are used up.
int CSvrSessionCore::wait_for_sdp() {
    if (m_sdp_tries >= SDP_MAX_TRIES) {
        return -1;
    }
    ++m_sdp_tries;
    if (m_sdp_timer == 0) {
        m_sdp_timer = SetTimer(SDP_WAIT_US);
    }
    return m_sdp_timer == 0 ? -1 : 0;
}

void CSvrSessionCore::stop_waiting_for_sdp() {
    if (m_sdp_timer != 0) {
        DestroyTimer(m_sdp_timer);
        m_sdp_timer = 0;
    }
}

// The next try of a DESCRIBE that waits.
int CSvrSessionCore::retry_describe() {
    if (m_source.IsOpen() && read_sdp() < 0 && wait_for_sdp() == 0) {
        return 0;
    }
    return reply_describe();
}

// Answers DESCRIBE with the SDP that was read, or without one.
int CSvrSessionCore::reply_describe() {
    stop_waiting_for_sdp();
    if (!m_source.IsOpen()) {
        logError("%s:%d, invalid parameter.\n", __FILE__, __LINE__);
        return -1;
    }
    if (m_sdp_result < 0) {
        m_machine.put_tx_event(EVENT_KIND_DESCRIBE, m_rsp_parser.generate_error_reply(404), 404, m_wait_id);
    } else {
        m_tracks.Build();
        m_sdp.GetStream();
        const char* sdp = m_sdp.get_stream();
        char reply[RTSP_MAX_MESSAGE + SDP_STREAM_SIZE];
        snprintf(reply, sizeof(reply), "%s%s", m_rsp_parser.generate_describe_reply(static_cast<int>(strlen(sdp))),
                 sdp);
        m_machine.put_tx_event(EVENT_KIND_DESCRIBE, reply, 200, m_wait_id);
    }
    m_described = true;
    return 0;
}

int CSvrSessionCore::on_setup(const StateEvent& event) {
    if (parse_event(event) < 0) {
        return refuse_parse(event);
    }
    if (!m_source.IsOpen()) {
        logError("%s:%d, reply setup, invalid param.\n", __FILE__, __LINE__);
        return -1;
    }
    transport_info transport = *m_rsp_parser.get_transport();
    transport.timeout = m_config.GetKeepAliveTimeout();
    m_packet_type = static_cast<packet_type_t>(transport.packet_kx);
    m_wants_reports = m_wants_reports && m_packet_type != PACKET_TYPE_KX;
    const char* url = m_rsp_parser.get_url();
    const int track_id = m_tracks.IdOfUrl(url);
    if (track_id < 0) {
        logError("%s %d url: %s get track id failed!\n", __FILE__, __LINE__, url);
        return -1;
    }
    CTrack* track = m_tracks.Find(track_id);
    if (track == nullptr) {
        logError("%s %d client process crushed!\n", __FILE__, __LINE__);
        return -1;
    }
    if (!track->sends) {
        return send_error(503);
    }
    track->set_up = true;
    IMediaRoute* route = find_route(transport);
    const int channel = m_source.GetTcpChannel(track_id);
    const int result = route == nullptr ? STATUS_UNSUPPORTED_TRANSPORT : route->SetUp(*track, channel, transport);
    if (result != 0) {
        return result < 0 ? -1 : send_error(result);
    }
    m_route = route;
    return finish_setup(*track, transport, channel);
}

// A way for what the client wants; null if there is none, upon which clients fall back to the control connection. It
// leaves the way of the tracks that are set up already as it was.
IMediaRoute* CSvrSessionCore::find_route(const transport_info& transport) {
    const bool over_udp = transport.transport == RTP_OVER_UDP;
    if (m_sdp_result == SDP_MULTICAST) {
        if (transport.multicast != 0 && !m_routes[ROUTE_CHANNEL]) {
            m_routes[ROUTE_CHANNEL] = CChannelRoute::Create(m_sdp);
        }
        return transport.multicast != 0 ? m_routes[ROUTE_CHANNEL].get() : nullptr;
    }
    std::unique_ptr<IMediaRoute>& route = m_routes[over_udp ? ROUTE_UDP : ROUTE_INTERLEAVED];
    if (!route) {
        route = MakeRoute({transport, *m_rsp_parser.get_multicast(), m_config, m_tracks.Count(),
                           TFunction3<void, CMediaPacket*, int, int>(this, &CSvrSessionCore::on_frame_info)});
    }
    return route.get();
}

int CSvrSessionCore::finish_setup(CTrack& track, transport_info& transport, int channel) {
    transport.ssrc = m_source.GetSSRC(track.track_id);
    track.send_channel = channel / 2;
    m_route->Switch(track, true);
    if (!track.reports) {
        track.reports = true;
        track.ssrc = transport.ssrc;
    }
    const char* reply = m_rsp_parser.generate_setup_reply(&transport, m_route->Group());
    if (reply == nullptr) {
        logError("%s:%d, get %s setup reply failed.\n", __FILE__, __LINE__,
                 m_sdp_result == SDP_MULTICAST ? "MULTICAST" : "unicast");
        return -1;
    }
    return send_text(reply);
}

}  // namespace Vidora
}  // namespace Kavio
