#include "RtspClient/ClientTracks.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Protocol/StaticPayload.h"
#include "Protocol/TextWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t MAX_TRACKS = RECEIVER_MAX_TRACKS;
const char ASSIST_NAME[] = "stream-assist-frame";

struct CFree {
    void operator()(char* text) const { std::free(text); }
};

bool has_payload_name(const CSdpParser& sdp, int index, const char* name) {
    const std::unique_ptr<char, CFree> found(sdp.get_payload_name(index));
    return found != nullptr && strcasecmp(found.get(), name) == 0;
}

const char* static_name(const CSdpParser& sdp, int index) {
    const static_payload_t* row = FindStaticPayload(sdp.get_payload_type(index));
    return row != nullptr ? row->name : "";
}

uint32_t clock_rate_of(const CSdpParser& sdp, int index) {
    const int rate = sdp.get_sample_rate(index);
    const static_payload_t* row = rate > 0 ? nullptr : FindStaticPayload(sdp.get_payload_type(index));
    return static_cast<uint32_t>(std::max(row != nullptr ? row->clock_rate : rate, 0));
}

}  // namespace

int CClientTracks::Build(const CSdpParser& sdp, rtp_protocol_t transport, packet_type_t& packet_type) {
    m_tracks.clear();
    if (transport == RTP_OVER_UDP) {
        packet_type = PACKET_TYPE_RTP;
    } else if (packet_type == PACKET_TYPE_NONE) {
        packet_type = sdp.get_packet_kind() == PACKET_TYPE_KX ? PACKET_TYPE_KX : PACKET_TYPE_RTP;
    }
    for (int i = 0; i < sdp.get_media_count(); ++i) {
        if (is_wanted(sdp, i) && add(sdp, i, transport, packet_type) < 0) {
            return -1;
        }
    }
    return m_tracks.empty() ? -1 : 0;
}

// A media without a control attribute can't be named, and an application media of another kind not used.
bool CClientTracks::is_wanted(const CSdpParser& sdp, int index) {
    if (sdp.get_track_id(index) <= 0) {
        return false;
    }
    switch (sdp.get_media_type_at(index)) {
        case SDP_MEDIA_AUDIO:
        case SDP_MEDIA_VIDEO:
            return true;
        case SDP_MEDIA_APPLICATION: {
            const std::unique_ptr<char, CFree> name(sdp.get_payload_name(index));
            return name == nullptr || strcasecmp(name.get(), ASSIST_NAME) == 0;
        }
        default:
            return false;
    }
}

int CClientTracks::add(const CSdpParser& sdp, int index, rtp_protocol_t transport, packet_type_t packet_type) {
    if (m_tracks.size() >= MAX_TRACKS) {
        return 0;
    }
    client_track track;
    const int place = static_cast<int>(m_tracks.size());
    track.media_index = index;
    track.track_id = sdp.get_track_id(index);
    track.back_channel = sdp.get_direction(index) == SDP_DIRECTION_SENDONLY;
    track.payload_type = sdp.get_payload_type(index);
    track.clock_rate = clock_rate_of(sdp, index);
    track.rtp_channel = 2 * place;
    track.rtcp_channel = 2 * place + 1;
    track.transport.packet_type = packet_type == PACKET_TYPE_KX ? PACKET_TYPE_KX : PACKET_TYPE_RTP;
    track.transport.transport = transport;
    track.transport.rtp_port = track.rtp_channel;
    track.transport.rtcp_port = track.rtcp_channel;
    const int port = sdp.get_media_port(track.track_id);
    track.transport.server_rtp_port = port;
    track.transport.server_rtcp_port = port + 1;
    const char* control = sdp.get_control(index);
    // "*" is the URL of the whole description (RFC 2326 C.1.1).
    const bool is_base = control == nullptr || std::strcmp(control, "*") == 0;
    CTextWriter(track.transport.url, sizeof(track.transport.url)).Add(is_base ? "" : control);
    take_connection(sdp, track);
    try {
        m_tracks.push_back(std::move(track));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

// The connection of the media goes before that of the session (RFC 4566 5.7); its group matters over UDP only.
void CClientTracks::take_connection(const CSdpParser& sdp, client_track& track) {
    sdp_connection_t connection;
    if (track.transport.transport != RTP_OVER_UDP ||
        (sdp.get_media_connection(track.track_id, &connection) < 0 && sdp.get_connection(&connection) < 0) ||
        connection.address.Get() == nullptr) {
        return;
    }
    std::string text(connection.address.Get());
    text.resize(std::min(text.size(), text.find('/')));
    sockaddr_storage native = {};
    CSockAddrStorage group;
    if (!Tramel::ParseIpText(text.c_str(), native)) {
        return;  // a name is never a group, and isn't worth a look-up
    }
    group.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native));
    if (!group.IsMulticast()) {
        return;
    }
    CTextWriter(track.multicast.addr, sizeof(track.multicast.addr)).Add(text.c_str());
    track.multicast.addr_type = group.GetRealType() == Tramel::SOCK_ADDR_IPV6 ? 6 : 4;
    track.multicast.ttl = connection.ttl;
    track.transport.multicast = true;
    track.transport.rtp_port = track.transport.server_rtp_port;
    track.transport.rtcp_port = track.transport.server_rtcp_port;
}

int CClientTracks::BuildSingle(rtp_protocol_t transport, packet_type_t packet_type) {
    m_tracks.clear();
    client_track track;
    track.transport.packet_type = packet_type == PACKET_TYPE_KX ? PACKET_TYPE_KX : PACKET_TYPE_RTP;
    track.transport.transport = transport;
    track.transport.rtp_port = 0;
    track.transport.rtcp_port = 1;
    try {
        m_tracks.push_back(std::move(track));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

client_track* CClientTracks::NextToSetUp() {
    for (client_track& track : m_tracks) {
        if (!track.sent) {
            return &track;
        }
    }
    return nullptr;
}

int CClientTracks::AnsweredCount() const {
    return static_cast<int>(
        std::count_if(m_tracks.begin(), m_tracks.end(), [](const client_track& track) { return track.answered; }));
}

client_track* CClientTracks::ByRtcpChannel(int channel) {
    for (client_track& track : m_tracks) {
        if (track.answered && track.rtcp_channel == channel) {
            return &track;
        }
    }
    return nullptr;
}

client_track* CClientTracks::BackChannel() {
    for (client_track& track : m_tracks) {
        if (track.back_channel && track.answered) {
            return &track;
        }
    }
    return nullptr;
}

void CClientTracks::ForgetByes() {
    for (client_track& track : m_tracks) {
        track.said_bye = false;
    }
}

bool CClientTracks::HasChannels(const client_track& track) const {
    return std::any_of(m_tracks.begin(), m_tracks.end(), [&track](const client_track& other) {
        return &other != &track && other.answered &&
               (other.rtp_channel == track.rtp_channel || other.rtp_channel == track.rtcp_channel ||
                other.rtcp_channel == track.rtp_channel || other.rtcp_channel == track.rtcp_channel);
    });
}

int CClientTracks::Describe(const CSdpParser* sdp, packet_type_t packet_type, receiver_tracks_t& out) const {
    out.count = 0;
    for (const client_track& track : m_tracks) {
        if (!Delivers(track)) {
            continue;
        }
        const int encoding = sdp != nullptr ? encode_type(*sdp, track, packet_type) : static_cast<int>(ENC_TYPE_NONE);
        if (encoding < 0) {
            return -1;
        }
        receiver_track_t& record = out.tracks[out.count++];
        record.tag = static_cast<uint32_t>(out.count);
        record.rtp_channel = static_cast<uint8_t>(track.rtp_channel);
        record.rtcp_channel = static_cast<uint8_t>(track.rtcp_channel);
        record.enc_type = static_cast<uint8_t>(encoding);
        record.payload_type = static_cast<int16_t>(track.payload_type);
        record.clock_rate = track.clock_rate;
        record.ssrc = track.transport.ssrc;
    }
    return out.count > 0 ? 0 : -1;
}

// The enc_type_t of a track, or -1 for one that can't be received.
int CClientTracks::encode_type(const CSdpParser& sdp, const client_track& track, packet_type_t packet_type) {
    switch (sdp.get_media_type(track.track_id)) {
        case SDP_MEDIA_AUDIO:
            return ENC_TYPE_AUDIO;
        case SDP_MEDIA_APPLICATION:
            logDebug("media type application...\n");
            return ENC_TYPE_ASSIST;
        case SDP_MEDIA_VIDEO:
            break;
        default:
            logError("%s:%d, unspport media type (%d)\n", __FILE__, __LINE__, sdp.get_media_type(track.track_id));
            return -1;
    }
    if (has_payload_name(sdp, track.media_index, "H264")) {
        return ENC_TYPE_H264;
    }
    const bool is_known = std::strcmp(static_name(sdp, track.media_index), "JPEG") == 0 ||
                          sdp.get_video_encoding() != SDP_ENCODING_UNKNOWN || packet_type == PACKET_TYPE_KX;
    if (!is_known) {
        logError("%s:%d, unspport media type (%d)\n", __FILE__, __LINE__, SDP_MEDIA_VIDEO);
        return -1;
    }
    return ENC_TYPE_NONE;
}

int CClientTracks::FillSdpInfo(CSdpInfo& info, CSdpParser* sdp, packet_type_t packet_type) const {
    sdp_info_track rows[SDP_INFO_MAX_TRACKS];
    int count = 0;
    for (const client_track& track : m_tracks) {
        rows[count++] = {track.track_id, track.rtp_channel, track.back_channel || !track.answered};
    }
    return CSdpInfoAccess::Fill(info, sdp, rows, count, packet_type);
}

}  // namespace Vidora
}  // namespace Kavio
