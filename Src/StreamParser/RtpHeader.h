#ifndef VIDORA_STREAMPARSER_RTPHEADER_H
#define VIDORA_STREAMPARSER_RTPHEADER_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Vidora {

constexpr int RTP_HEADER_LEN = 12;
constexpr uint8_t RTP_PAYLOAD_TYPE_MASK = 0x7F;  // of the second byte

// The header of a received RTP packet (RFC 3550 5.1).
struct RtpHeader {
    bool marker = false;
    uint8_t payload_type = 0;
    uint16_t sequence = 0;
    uint32_t timestamp = 0;
    uint32_t ssrc = 0;
    // The payload without CSRC list, extension and padding; null if these reach the end of the packet.
    const unsigned char* payload = nullptr;
    uint32_t payload_len = 0;
    // The packet is whole and brings no payload (RFC 6263 4.3: to keep the way through a NAT open).
    bool is_empty = false;
};

// Reads the header of the packet in `data`; the payload stays where it is. False, with `header` as it was, if there
// aren't 12 bytes. The version isn't looked at: devices are about that leave it 0.
bool rtp_parse_header(const unsigned char* data, size_t len, RtpHeader& header);

// The payload type of what may be an RTP packet, by its first two bytes; -1 if these aren't there or show another
// version than 2.
int rtp_peek_payload_type(const unsigned char* data, size_t len);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPHEADER_H
