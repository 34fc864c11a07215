// DESCRIBE and SETUP: finding the source, describing it, and making the way for its media.

#include <cstdio>
#include <cstring>
#include <new>

#include "ChannelRoute.h"
#include "SvrSessionCore.h"
#include "Tramel/StrParser.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/RtspUrlParser.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {

const int STATUS_UNSUPPORTED_TRANSPORT = 461;
const int MAX_CONTENT_SIZE = 256;  // of the host's rewriting
// A channel that is still starting gets three seconds to have its SDP.
const int64_t SDP_WAIT_US = 300000;
const int SDP_MAX_TRIES = 10;

// Reads the number behind `word` in the channel's name. False if there is none.
bool read_number(CStrParser& name, const char* word, int* number, bool* found) {
    *found = name.LocateString(word) >= 0;
    if (!*found) {
        return false;
    }
    name.ConsumeLength(static_cast<unsigned int>(strlen(word)), nullptr, 0);
    *number = name.ConsumeInt16();
    return name.GetStatus() == 0;
}

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
    m_src_type = parser.GetSrcType();
    release_source();
    m_stream_proto = url_parser.GetLocalStreamProto();

    if (m_src_type == SRC_TYPE_TOKEN) {
        logInfo("%s:%d, create onvif playback file src.\n", __FILE__, __LINE__);
    }
    const bool own_source = m_src_type == SRC_TYPE_PROXY || m_src_type == SRC_TYPE_PROXY_LIVE ||
                            m_src_type == SRC_TYPE_PROXY_FILE || m_src_type == SRC_TYPE_TOKEN;
    if (!own_source && m_live_svr && m_live_svr->QueryLiveChannel(content) >= 0) {
        return open_live_channel(event, content);
    }
    return open_data_source(event, content);  // a content that is no live channel may be a data source
}

// The source answers with MSG_SRC_READY.
int CSvrSessionCore::open_data_source(const StateEvent& event, const char* content) {
    m_data_source = CDataSource::Create(content);
    if (m_data_source == nullptr) {
        send_error(404);
        return -1;
    }
    m_data_source->SetConfig(m_config);
    m_wait_id = event.id;
    if (m_data_source->Init(GetID(), 0) < 0) {
        send_error(404);
        return -1;  // the source stays until the session ends
    }
    return 1;
}

// Answers through the machine, at once if the channel has its SDP.
int CSvrSessionCore::open_live_channel(const StateEvent& event, const char* content) {
    m_is_live = true;
    m_live_channel = m_live_svr->GetLiveChannel(content, GetID());
    try {
        m_channel_name = content;
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (read_channel_name() < 0) {
        return -1;
    }
    m_wait_id = event.id;
    m_sdp_tries = 0;
    if (m_live_channel != nullptr && read_sdp() < 0 && wait_for_sdp() == 0) {
        return 1;
    }
    return reply_describe() < 0 ? -1 : 1;
}

// A live channel's name must hold both words; the numbers serve the event of lost packets.
int CSvrSessionCore::read_channel_name() {
    CStrParser name(m_channel_name.data(), static_cast<unsigned int>(m_channel_name.size()));
    bool found = false;
    if (!read_number(name, "channel=", &m_channel, &found)) {
        if (found) {
            logError("%s %d parser channel info failed!\n", __FILE__, __LINE__);
        } else {
            logError("%s %d m_channel_name is not cam/realmonitor?channel=1&subtype=...\n", __FILE__, __LINE__);
        }
        return -1;
    }
    if (!read_number(name, "subtype=", &m_subtype, &found)) {
        logError("%s %d parser streamtype info failed!\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

// Lets go of all that an earlier DESCRIBE brought.
void CSvrSessionCore::release_source() {
    stop_waiting_for_sdp();
    stop_draining();
    stop_media();
    release_assist();
    if (m_data_source != nullptr) {
        m_data_source->DelNotify(GetID());  // or its end would be taken for the session's
        m_data_source->Close();
        m_data_source = nullptr;
    }
    if (m_live_channel != nullptr) {
        m_live_channel->DelRef(GetID());
        m_live_channel = nullptr;
    }
    delete m_media_buffer;
    m_media_buffer = nullptr;
    m_route = nullptr;
    for (std::unique_ptr<IMediaRoute>& route : m_routes) {
        route.reset();
    }
    m_is_live = false;
    m_sdp_result = SDP_UNICAST;
    m_tracks.Clear();
    m_source_started = false;
    memset(m_last_frame, 0, sizeof(m_last_frame));  // another source counts anew: its first frame is no loss
    m_silence.ForgetPeer();
}

void CSvrSessionCore::release_assist() {
    if (m_assist_enabled && has_source()) {
        of_source([](auto& source) { return source.DisableStreamTrack(STREAM_TRACK_ASSIST); });
    }
    m_assist_enabled = false;
}

// Takes the source's SDP. Its result goes to m_sdp_result as well.
int CSvrSessionCore::read_sdp() {
    const bool assist = wants_assist();
    m_sdp_result = of_source([&](auto& source) { return assist ? source.GetSdp(m_sdp, 1) : source.GetSdp(m_sdp); });
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
    if (has_source() && read_sdp() < 0 && wait_for_sdp() == 0) {
        return 0;
    }
    return reply_describe();
}

// Answers DESCRIBE with the SDP that was read, or without one.
int CSvrSessionCore::reply_describe() {
    stop_waiting_for_sdp();
    if (!has_source()) {
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
    if (!has_source()) {
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
    const int channel = of_source([&](auto& source) { return source.GetTcpChannel(track_id); });
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
    transport.ssrc = of_source([&](auto& source) { return source.GetSSRC(track.track_id); });
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
