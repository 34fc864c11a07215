#include "Protocol/TransportHeader.h"

#include <charconv>

#include "Protocol/HeaderText.h"
#include "Tramel/IpText.h"
#include "Tramel/StrParser.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

const int HEX = 16;
const int DECIMAL = 10;

struct protocol_row {
    std::string_view name;
    packet_type_t packet_type;
    rtp_protocol_t transport;
};

const protocol_row PROTOCOLS[] = {
    {"RTP/AVP", PACKET_TYPE_RTP, RTP_OVER_UDP},      {"RTP/AVP/UDP", PACKET_TYPE_RTP, RTP_OVER_UDP},
    {"RTP/AVP/TCP", PACKET_TYPE_RTP, RTP_OVER_RTSP}, {"KX/AVP", PACKET_TYPE_KX, RTP_OVER_UDP},
    {"KX/AVP/UDP", PACKET_TYPE_KX, RTP_OVER_UDP},    {"KX/AVP/TCP", PACKET_TYPE_KX, RTP_OVER_RTSP},
};

struct pair_row {
    std::string_view name;
    transport_pair transport_offer::*place;
};

const pair_row PAIRS[] = {
    {"interleaved", &transport_offer::interleaved},
    {"client_port", &transport_offer::client_port},
    {"server_port", &transport_offer::server_port},
    {"port", &transport_offer::port},
};

std::string_view unquoted(std::string_view text) {
    const bool is_quoted = text.size() > 1 && text.front() == '"' && text.back() == '"';
    return is_quoted ? text.substr(1, text.size() - 2) : text;
}

// The number that all of `text` is.
template <typename T>
bool read_number(std::string_view text, int base, T& number) {
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number, base);
    return result.ec == std::errc() && result.ptr == end;
}

// "4000-4001" or "4000". What is no port stays as if it weren't there.
transport_pair read_pair(std::string_view text) {
    transport_pair pair;
    uint16_t first = 0;
    uint16_t second = 0;
    const std::string_view begin = TakePart(text, '-');
    pair.has_second = !text.empty();
    if (read_number(begin, DECIMAL, first) && (!pair.has_second || read_number(TrimBlanks(text), DECIMAL, second))) {
        pair.is_given = true;
        pair.first = first;
        pair.second = pair.has_second ? second : static_cast<uint16_t>(first + 1);
    }
    return pair;
}

void read_parameter(std::string_view text, transport_offer& offer) {
    const std::string_view name = TakePart(text, '=');
    const std::string_view value = unquoted(TrimBlanks(text));
    for (const pair_row& row : PAIRS) {
        if (EqualsAnyCase(name, row.name)) {
            offer.*row.place = read_pair(value);
        }
    }
    if (EqualsAnyCase(name, "multicast")) {
        offer.multicast = true;
    } else if (EqualsAnyCase(name, "destination")) {
        offer.destination = value;
    } else if (EqualsAnyCase(name, "source")) {
        offer.source = value;
    } else if (EqualsAnyCase(name, "ttl")) {
        uint8_t ttl = 0;
        offer.ttl = read_number(value, DECIMAL, ttl) ? ttl : 0;
    } else if (EqualsAnyCase(name, "ssrc")) {
        offer.ssrc = read_number(value, HEX, offer.ssrc) ? offer.ssrc : 0;
    }
}

bool read_transport(std::string_view text, transport_offer& offer) {
    const std::string_view protocol = TakePart(text, ';');
    for (const protocol_row& row : PROTOCOLS) {
        if (!EqualsAnyCase(protocol, row.name)) {
            continue;
        }
        offer = transport_offer();
        offer.packet_type = row.packet_type;
        offer.transport = row.transport;
        while (!text.empty()) {
            read_parameter(TakePart(text, ';'), offer);
        }
        return true;
    }
    return false;
}

}  // namespace

bool NextTransport(std::string_view& value, transport_offer& offer) {
    while (!value.empty()) {
        if (read_transport(TakePart(value, ','), offer)) {
            return true;
        }
    }
    return false;
}

bool ReadGroup(std::string_view destination, multicast_info& group) {
    group = multicast_info();
    CStrParser text(destination.data(), static_cast<unsigned int>(destination.size()));
    sockaddr_storage native = {};
    if (text.ConsumeIpAddr(group.addr, sizeof group.addr, &group.addr_type) < 0 ||
        !Tramel::ParseIpText(group.addr, native)) {
        return false;
    }
    CSockAddrStorage addr;
    addr.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native));
    return addr.IsMulticast();
}

}  // namespace Vidora
}  // namespace Kavio
