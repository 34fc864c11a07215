#ifndef VIDORA_PROTOCOL_TRANSPORTHEADER_H
#define VIDORA_PROTOCOL_TRANSPORTHEADER_H

#include <cstdint>
#include <string_view>

#include "Protocol/RtspInfo.h"

namespace Kavio {
namespace Vidora {

// Two ports or interleaved channels, of 16 bits. `second` is the next number where only one is given.
struct transport_pair {
    bool is_given = false;
    bool has_second = false;  // as written
    int first = 0;
    int second = 0;
};

// One transport of a Transport header as RFC 2326 12.39 writes it. Texts lie in the header.
struct transport_offer {
    packet_type_t packet_type = PACKET_TYPE_RTP;
    rtp_protocol_t transport = RTP_OVER_UDP;
    bool multicast = false;  // by its word
    transport_pair interleaved;
    transport_pair client_port;
    transport_pair server_port;
    transport_pair port;
    std::string_view destination;
    std::string_view source;
    int ttl = 0;
    uint32_t ssrc = 0;
};

// Takes the next transport that is known off the header's value: of the profile AVP, RTP or private frames, over TCP
// or UDP. False if there is none left. Any thread.
bool NextTransport(std::string_view& value, transport_offer& offer);
// Reads a destination into `group`. False if it is no numeric address of a group.
bool ReadGroup(std::string_view destination, multicast_info& group);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_TRANSPORTHEADER_H
