#ifndef VIDORA_PROTOCOL_RTSPINFO_H
#define VIDORA_PROTOCOL_RTSPINFO_H

// Records that the RTSP codecs and their users exchange.
//
// A record that holds long texts is emptied by the first byte of each. Nothing reads behind a text's NUL.

#include <cstdint>

#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

enum rtsp_limit_t {
    RTSP_MAX_MESSAGE = 4096,  // headers and body together
    RTSP_MAX_TEXT = 1024,     // characters of a URL, a session line, a header value
    RTSP_METHOD_COUNT = 8
};

// Form of a Range header (RFC 2326 3.6, 3.7).
enum range_type_t { RANGE_TYPE_NPT = 0, RANGE_TYPE_CLOCK = 1 };

// The header by which a PLAY asked for its rate (RFC 2326 12.34, 12.35).
enum rate_header_t { RATE_HEADER_NONE, RATE_HEADER_SPEED, RATE_HEADER_SCALE };

const double NPT_NOT_GIVEN = -1.0;  // an end of a range in seconds that isn't there

// A Transport header (RFC 2326 12.39), for reading and for generating.
struct transport_info {
    char url[1024];             // control URL of the track
    uint32_t ssrc;              // 0 if none
    packet_type_t packet_type;  // PACKET_TYPE_RTP, or PACKET_TYPE_KX for private frames
    rtp_protocol_t transport;
    bool multicast;
    int rtp_port;          // the client's RTP port, or the first interleaved channel
    int rtcp_port;         // the client's RTCP port, or the second interleaved channel
    int server_rtp_port;   // the server's RTP port; in a reply also the first channel that it granted
    int server_rtcp_port;  // the server's RTCP port; in a reply also the second channel that it granted
    int timeout;           // seconds that a SETUP reply announces; below 1 means 60

    transport_info() { reset(); }
    void reset() {
        url[0] = '\0';
        ssrc = 0;
        packet_type = PACKET_TYPE_RTP;
        transport = RTP_OVER_RTSP;
        multicast = false;
        rtp_port = 0;
        rtcp_port = 0;
        server_rtp_port = 0;
        server_rtcp_port = 0;
        timeout = 0;
    }
};

// A multicast destination.
struct multicast_info {
    char addr[128];     // dotted text
    int addr_type = 0;  // 4, 6 or 1 for a host name, as CStrParser::ConsumeIpAddr returns it
    int ttl = 0;

    multicast_info() { addr[0] = '\0'; }
};

// One track of an RTP-Info header (RFC 2326 12.33). Trivial, so that a table of them can lie in untouched zero pages:
// write `rtp_info_entry entry = {};` for a single one.
struct rtp_info_entry {
    char url[1024];
    uint32_t rtptime;
    uint32_t seq;  // 16 bits
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPINFO_H
