#ifndef VIDORA_NAT_NATHELLO_H
#define VIDORA_NAT_NATHELLO_H

#include <cstdint>
#include <string_view>

namespace Kavio {
namespace Vidora {

// The datagrams by which the two ends of a NAT session find each other: the client says hello until the server answers,
// and goes on so that the way through the NATs stays open. What follows the text in a datagram is not looked at.
constexpr std::string_view NAT_CLIENT_HELLO = "RTSP Client/2.0 NAT";
constexpr std::string_view NAT_SERVER_HELLO = "RTSP Server/2.0 NAT";
// The first byte of both, and of a reply ("RTSP/1.0 ...").
constexpr char NAT_TEXT_MARK = 'R';

// RTCP is known by its packet type among RTP, in the octet that holds RTP's marker and payload type (RFC 5761 4).
inline bool IsNatRtcp(uint8_t type) {
    return type >= 192 && type <= 223;
}

// Whether a datagram is that hello.
inline bool IsNatHello(std::string_view datagram, std::string_view hello) {
    return datagram.substr(0, hello.size()) == hello;
}

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NAT_NATHELLO_H
