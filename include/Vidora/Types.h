#ifndef VIDORA_TYPES_H
#define VIDORA_TYPES_H

// Types that several of the exported classes share.

#include <cstdint>

namespace Kavio {
namespace Vidora {

// RTSP methods (RFC 2326 10) in the order of their tables.
enum rtsp_method_t {
    RTSP_METHOD_OPTIONS = 0,
    RTSP_METHOD_DESCRIBE = 1,
    RTSP_METHOD_SETUP = 2,
    RTSP_METHOD_PLAY = 3,
    RTSP_METHOD_PAUSE = 4,
    RTSP_METHOD_TEARDOWN = 5,
    RTSP_METHOD_SET_PARAMETER = 6,
    RTSP_METHOD_GET_PARAMETER = 7,
    RTSP_METHOD_UNKNOWN = 8  // also the number of known methods
};

// How media reaches the client.
enum rtp_protocol_t {
    RTP_OVER_RTSP = 0,  // interleaved on the control connection (RFC 2326 10.12)
    RTP_OVER_UDP = 1
};

// Form of the media packets.
enum packet_type_t {
    PACKET_TYPE_RTP = 0,
    PACKET_TYPE_KX = 1,   // private frames
    PACKET_TYPE_TS = 2,   // MPEG transport stream in RTP
    PACKET_TYPE_NONE = 3  // a session that hasn't chosen yet; also the number of kinds
};

// How a channel sends to multicast destinations.
enum transf_type_t {
    TRANSF_TYPE_RTP = 0,
    TRANSF_TYPE_TS = 1,
    TRANSF_TYPE_NONE = 2  // a channel before Init; no operation takes it
};

// Kind of source that a content string names.
enum src_type_t {
    SRC_TYPE_PROXY = 0,
    SRC_TYPE_LIVE = 1,
    SRC_TYPE_FILE = 2,
    SRC_TYPE_PROXY_LIVE = 3,
    SRC_TYPE_PROXY_FILE = 4,
    SRC_TYPE_TOKEN = 5,
    SRC_TYPE_NONE = 6
};

// 0: no authentication. Every other value goes unchanged to the host's factory of authentication modules.
typedef int rtsp_auth_t;

// Stream protocol that a content asks for; see CRtspUrlParser::GetLocalStreamProto.
enum stream_proto_t {
    STREAM_PROTO_NONE = 0,
    STREAM_PROTO_KAVIO = 1,  // with the assist track
    STREAM_PROTO_ONVIF = 2
};

// What GetSdp of a source or channel reports of its description.
enum sdp_result_t {
    SDP_FAILED = -1,  // there is none
    SDP_UNICAST = 0,
    SDP_MULTICAST = 1  // of multicast destinations, and of nothing else
};

// Track kinds of CDataSource::EnableStreamTrack.
enum stream_track_t { STREAM_TRACK_ASSIST = 1 };

// Codec of a frame between the converters.
enum enc_type_t {
    ENC_TYPE_NONE = 0,
    ENC_TYPE_H264 = 1,
    ENC_TYPE_MPEG4 = 2,
    ENC_TYPE_JPEG = 3,
    ENC_TYPE_MPEG2TS = 4,
    ENC_TYPE_MPEG_AUDIO = 5,
    ENC_TYPE_AUDIO = 6,
    ENC_TYPE_ASSIST = 7,
    ENC_TYPE_ONVIF_METADATA = 8,
    ENC_TYPE_MP3 = 9
};

// Letters of the frame types, as Flumen::CMediaFrame::getType returns them.
enum frame_type_t {
    FRAME_TYPE_I = 'I',      // video key frame
    FRAME_TYPE_P = 'P',      // predicted video frame
    FRAME_TYPE_B = 'B',      // bidirectional video frame
    FRAME_TYPE_JPEG = 'J',   // JPEG picture, a key frame of its own
    FRAME_TYPE_AUDIO = 'A',  // audio frame
    FRAME_TYPE_ASSIST = 'W'  // side data that travels with the video
};

// A calendar time in UTC; a year of 0 means "not given".
struct UtcTime {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
};

// A relative time of RFC 2326 3.5.
struct SmpteTime {
    int hour = 0;
    int minute = 0;
    int second = 0;
};

// The running state of one RTP track.
struct SrcInfo {
    int32_t track_id = 0;    // SDP track number
    uint32_t timestamp = 0;  // the last RTP time stamp
    uint16_t seq = 0;        // the RTP sequence number of the packet that comes next
    uint32_t octets = 0;     // bytes so far, with the headers of RTP and of interleaving
    uint32_t packets = 0;    // packets so far, counted for each frame as its bytes / 1440, rounded up
    // What RFC 3550 6.4.1 wants of a sender report; 0 where the source doesn't know it.
    uint64_t wall_us = 0;         // the wall time of `timestamp`, microseconds since 1970
    uint32_t rtp_packets = 0;     // packets so far, as they are
    uint32_t payload_octets = 0;  // bytes so far without any header
};

// Messages between the handlers of the library and the host's sources (CNetHandler::Notify). The third argument is 0
// unless the receiver says otherwise.
enum vidora_message_t {
    MSG_SRC_FAIL = 0x1000,           // the source failed
    MSG_SRC_READY = 0x1002,          // the SDP is ready: DESCRIBE can be answered
    MSG_PLAY_READY = 0x1004,         // PLAY can be answered
    MSG_SRC_PAUSED = 0x1008,         // PAUSE can be answered
    MSG_SRC_END = 0x1010,            // the stream ended, or the channel closed
    MSG_STREAM_INFO = 0x1015,        // the format is known or has changed
    MSG_STREAM_FAIL = 0x1016,        // the source could not start
    MSG_SDP_UPDATE = 0x1018,         // the SDP changed
    MSG_KEEPALIVE_TIMEOUT = 0x1019,  // the peer of a UDP session gave no sign of life
    MSG_SESSION_BROKEN = 0x1ffe,     // state machine only: the connection broke
    MSG_MACHINE_DESTROY = 0x1fff     // state machine only: the owner has gone
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TYPES_H
