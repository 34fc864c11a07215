#include "Protocol/SdpParser.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const char CONTROL[] = "control";

bool fill_connection(sdp_connection_t& connection, const char* address, uint8_t ttl, int address_count,
                     const char* network_type, const char* address_type) {
    connection.ttl = ttl;
    connection.address_count = address_count;
    return connection.network_type.Set(network_type != nullptr ? network_type : "IN") &&
           connection.address_type.Set(address_type != nullptr ? address_type : "IP4") &&
           connection.address.Set(address);
}

int add_connection(sdp_list<sdp_connection_t>& list, const char* address, uint8_t ttl, int address_count,
                   const char* network_type, const char* address_type) {
    sdp_connection_t connection;
    const bool filled = fill_connection(connection, address, ttl, address_count, network_type, address_type);
    return filled && list.append(std::move(connection)) != nullptr ? 0 : -1;
}

int set_once(CSdpText& field, const char* text) {
    return field == nullptr && field.Set(text) ? 0 : -1;
}

int set_key_once(sdp_key_t& key, const char* method, const char* value) {
    CSdpText text;
    if (key.method != nullptr || (value != nullptr && !text.Set(value)) || !key.method.Set(method)) {
        return -1;
    }
    key.value = std::move(text);
    return 0;
}

int remove_attribute(sdp_list<sdp_attribute_t>& list, const char* name) {
    return list.remove_first([name](const sdp_attribute_t& attribute) { return attribute.name.Equals(name); }) ? 0 : -1;
}

}  // namespace

std::shared_ptr<CSdpParser> CSdpParser::Make() {
    try {
        return std::make_shared<CSdpParser>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<const CSdpParser> CSdpParser::None() {
    alignas(CSdpParser) static unsigned char room[sizeof(CSdpParser)];
    static const CSdpParser* const none = new (room) CSdpParser;
    return std::shared_ptr<const CSdpParser>(std::shared_ptr<const CSdpParser>(), none);  // counts nothing
}

CSdpParser::CSdpParser() : m_session(new (std::nothrow) sdp_session_t) {}

CSdpParser::CSdpParser(const CSdpParser& other) : CSdpParser() {
    *this = other;
}

// The text is what is copied, not the tree: an SDP that was built is copied as its last GetStream wrote it.
CSdpParser& CSdpParser::operator=(const CSdpParser& other) {
    if (this != &other) {
        m_tolerant = other.m_tolerant;
        Parse(other.get_stream(), 0);
    }
    return *this;
}

CSdpParser::~CSdpParser() {
    delete m_session;
}

int CSdpParser::Clear() {
    delete m_session;
    m_session = new (std::nothrow) sdp_session_t;
    return m_session != nullptr ? 0 : -1;
}

int CSdpParser::set_origin(const char* username, uint64_t session_id, uint64_t session_version,
                           const char* network_type, const char* address_type, const char* address) {
    sdp_origin_t origin;
    origin.session_id = session_id;
    origin.session_version = session_version;
    if (m_session == nullptr || !origin.username.Set(username) || !origin.network_type.Set(network_type) ||
        !origin.address_type.Set(address_type) || !origin.address.Set(address)) {
        return -1;
    }
    m_session->origin = std::move(origin);
    return 0;
}

int CSdpParser::set_name(const char* text) {
    return m_session != nullptr ? set_once(m_session->name, text) : -1;
}

int CSdpParser::set_info(const char* text) {
    return m_session != nullptr ? set_once(m_session->info, text) : -1;
}

int CSdpParser::set_uri(const char* text) {
    return m_session != nullptr && m_session->uri.Set(text) ? 0 : -1;
}

int CSdpParser::add_email(const char* text) {
    return m_session != nullptr && SdpAddText(m_session->emails, text) ? 0 : -1;
}

int CSdpParser::add_phone(const char* text) {
    return m_session != nullptr && SdpAddText(m_session->phones, text) ? 0 : -1;
}

int CSdpParser::add_session_connection(const char* address, uint8_t ttl, int address_count, const char* network_type,
                                       const char* address_type) {
    if (m_session == nullptr) {
        return -1;
    }
    return add_connection(m_session->connections, address, ttl, address_count, network_type, address_type);
}

int CSdpParser::clear_session_connections() {
    if (m_session != nullptr) {
        m_session->connections.clear();
    }
    return 0;
}

int CSdpParser::add_session_bandwidth(const char* modifier, uint64_t value) {
    sdp_bandwidth_t bandwidth;
    bandwidth.value = value;
    const bool filled = m_session != nullptr && bandwidth.modifier.Set(modifier);
    return filled && m_session->bandwidths.append(std::move(bandwidth)) != nullptr ? 0 : -1;
}

int CSdpParser::add_session_time(uint64_t start, uint64_t stop) {
    sdp_time_t time;
    time.start = start;
    time.stop = stop;
    return m_session != nullptr && m_session->times.append(std::move(time)) != nullptr ? 0 : -1;
}

int CSdpParser::add_zone(uint64_t time, const char* offset) {
    sdp_zone_t zone;
    zone.time = time;
    const bool filled = m_session != nullptr && zone.offset.Set(offset);
    return filled && m_session->zones.append(std::move(zone)) != nullptr ? 0 : -1;
}

int CSdpParser::set_session_key(const char* method, const char* value) {
    return m_session != nullptr ? set_key_once(m_session->key, method, value) : -1;
}

int CSdpParser::set_session_attribute(const char* name, const char* value) {
    const bool usable = m_session != nullptr && name != nullptr;
    return usable && SdpSetAttribute(m_session->attributes, name, value) ? 0 : -1;
}

int CSdpParser::remove_session_attribute(const char* name) {
    return m_session != nullptr ? remove_attribute(m_session->attributes, name) : -1;
}

namespace {

const int64_t MICROSECONDS = 1000000;

// "%f" of a count of microseconds in seconds, whatever the locale and exact for every count.
void print_seconds(char* out, size_t size, int64_t us) {
    const uint64_t magnitude = us < 0 ? uint64_t{0} - static_cast<uint64_t>(us) : static_cast<uint64_t>(us);
    std::snprintf(out, size, "%s%llu.%06llu", us < 0 ? "-" : "",
                  static_cast<unsigned long long>(magnitude / MICROSECONDS),
                  static_cast<unsigned long long>(magnitude % MICROSECONDS));
}

}  // namespace

int CSdpParser::set_range(int64_t begin_us, int64_t end_us) {
    char begin[32];
    char end[32];
    char range[80];
    print_seconds(begin, sizeof(begin), begin_us);
    print_seconds(end, sizeof(end), end_us);
    std::snprintf(range, sizeof(range), "npt=%s-%s", begin, end);
    return set_session_attribute("range", range);
}

int CSdpParser::add_media(const char* type, unsigned int port, int port_count, const char* protocol,
                          const char* formats) {
    sdp_media_t media;
    media.port = port;
    media.port_count = port_count;
    if (m_session == nullptr || formats == nullptr || port_count <= 0 || !media.type.Set(type) ||
        !media.protocol.Set(protocol)) {
        return -1;
    }
    CStrParser parser(formats);
    for (parser.ConsumeWhitespace(); parser.GetStringLen() > 0; parser.ConsumeWhitespace()) {
        char format[512];
        parser.ConsumeWord(format, sizeof(format));
        if (!SdpAddFormat(media, format)) {
            return -1;
        }
    }
    // RFC 4566 5.14: an m= line has at least one format.
    if (media.formats.empty() || m_session->media.append(std::move(media)) == nullptr) {
        return -1;
    }
    if (number_tracks() < 0) {
        const sdp_media_t* added = m_session->media.last();
        m_session->media.remove_first([added](const sdp_media_t& other) { return &other == added; });
        return -1;
    }
    return m_session->media.size();
}

// "trackID=0" belongs to track_id 1: clients of this system know the tracks by these texts.
int CSdpParser::number_tracks() {
    int number = 0;
    for (sdp_media_t& media : m_session->media) {
        const sdp_attribute_t* control = SdpFindAttribute(media.attributes, CONTROL);
        if (control == nullptr || control->value == nullptr) {
            char text[32];
            std::snprintf(text, sizeof(text), "trackID=%d", number);
            if (!SdpSetAttribute(media.attributes, CONTROL, text)) {
                return -1;
            }
            SdpSetControl(media, text);
        }
        media.track_id = ++number;
    }
    return 0;
}

int CSdpParser::remove_media(int track_id) {
    const sdp_media_t* media = find_media(track_id);
    if (media == nullptr) {
        return -1;
    }
    m_session->media.remove_first([media](const sdp_media_t& other) { return &other == media; });
    return 0;
}

int CSdpParser::add_media_connection(int track_id, const char* address, uint8_t ttl, int address_count,
                                     const char* network_type, const char* address_type) {
    sdp_media_t* media = find_media(track_id);
    if (media == nullptr) {
        return -1;
    }
    return add_connection(media->connections, address, ttl, address_count, network_type, address_type);
}

int CSdpParser::clear_media_connections(int track_id) {
    sdp_media_t* media = find_media(track_id);
    if (media == nullptr) {
        return -1;
    }
    media->connections.clear();
    return 0;
}

int CSdpParser::set_media_attribute(int track_id, const char* name, const char* value) {
    sdp_media_t* media = find_media(track_id);
    const bool is_control = name != nullptr && std::strcmp(name, CONTROL) == 0;
    if (media == nullptr || name == nullptr || !SdpSetAttribute(media->attributes, name, value)) {
        return -1;
    }
    if (is_control) {
        // From its new place: `value` may be the text that it had before, or the control text itself.
        SdpSetControl(*media, SdpFindAttribute(media->attributes, CONTROL)->value);
    }
    return 0;
}

int CSdpParser::remove_media_attribute(int track_id, const char* name) {
    sdp_media_t* media = find_media(track_id);
    return media != nullptr ? remove_attribute(media->attributes, name) : -1;
}

// The result is -1 in every case, as callers have always seen it: it says nothing.
int CSdpParser::set_media_port(int track_id, uint16_t port) {
    sdp_media_t* media = find_media(track_id);
    if (media != nullptr) {
        media->port = port;
    }
    return -1;
}

int CSdpParser::set_media_format(int track_id, const char* format) {
    sdp_media_t* media = find_media(track_id);
    if (media == nullptr) {
        return -1;
    }
    media->formats.clear();
    return SdpAddFormat(*media, format) ? 0 : -1;
}

int CSdpParser::set_media_key(int track_id, const char* method, const char* value) {
    sdp_media_t* media = find_media(track_id);
    return media != nullptr ? set_key_once(media->key, method, value) : -1;
}

}  // namespace Vidora
}  // namespace Kavio
