#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <string_view>

#include "Protocol/SdpParser.h"
#include "Tramel/StrParser.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

// A text with the number that stands for it.
struct name_row {
    const char* name;
    int value;
};

const name_row MEDIA_TYPES[] = {
    {"audio", SDP_MEDIA_AUDIO},     {"video", SDP_MEDIA_VIDEO},
    {"text", SDP_MEDIA_TEXT},       {"application", SDP_MEDIA_APPLICATION},
    {"message", SDP_MEDIA_MESSAGE},
};

const name_row DIRECTIONS[] = {
    {"sendonly", SDP_DIRECTION_SENDONLY},
    {"recvonly", SDP_DIRECTION_RECVONLY},
    {"sendrecv", SDP_DIRECTION_SENDRECV},
};

// Looked for in an rtpmap value, from the top. "MP4" finds "MP4V-ES".
const name_row ENCODINGS[] = {
    {"H264", SDP_ENCODING_H264}, {"h264", SDP_ENCODING_H264},  {"MP4", SDP_ENCODING_MPEG4},
    {"mp4", SDP_ENCODING_MPEG4}, {"JPEG", SDP_ENCODING_MPEG4}, {"jpeg", SDP_ENCODING_MPEG4},
    {"MP2T", SDP_ENCODING_MP2T}, {"mp2t", SDP_ENCODING_MP2T},
};

const char PACKET_KIND_NAME[] = "packetization-supported";
const char PACKET_KIND_PRIVATE[] = "KX";

template <size_t Count>
int value_of(const name_row (&rows)[Count], const char* name, int otherwise) {
    for (const name_row& row : rows) {
        if (std::strcmp(row.name, name) == 0) {
            return row.value;
        }
    }
    return otherwise;
}

int type_of(const sdp_media_t* media) {
    return media != nullptr ? value_of(MEDIA_TYPES, media->type, SDP_MEDIA_UNKNOWN)
                            : static_cast<int>(SDP_MEDIA_UNKNOWN);
}

const sdp_media_t* first_video(const sdp_list<sdp_media_t>& list) {
    for (const sdp_media_t& media : list) {
        if (type_of(&media) == SDP_MEDIA_VIDEO) {
            return &media;
        }
    }
    return nullptr;
}

const char* control_of(const sdp_media_t* media) {
    return media != nullptr && media->control[0] != '\0' ? media->control : nullptr;
}

// The value of the first attribute with a value whose name starts with `prefix`; null if there is none.
const char* find_value(const sdp_list<sdp_attribute_t>& attributes, const char* prefix) {
    for (const sdp_attribute_t& attribute : attributes) {
        if (attribute.value != nullptr && attribute.name.StartsWith(prefix)) {
            return attribute.value;
        }
    }
    return nullptr;
}

const char* find_rtpmap(const sdp_media_t* media) {
    return media != nullptr ? find_value(media->attributes, "rtpmap") : nullptr;
}

// "96 H264/90000": moves behind the clock rate and returns it; the parser's status shows a failure.
int read_rate(CStrParser& rtpmap) {
    rtpmap.ConsumeInt32();
    rtpmap.Expect(' ');
    rtpmap.ConsumeUntil('/');
    rtpmap.Expect('/');
    return rtpmap.ConsumeInt32();
}

int copy_first(const sdp_list<sdp_connection_t>& connections, sdp_connection_t* out) {
    const sdp_connection_t* first = connections.first();
    if (first == nullptr || out == nullptr) {
        return -1;
    }
    *out = *first;
    return out->network_type != nullptr && out->address_type != nullptr && out->address != nullptr ? 0 : -1;
}

}  // namespace

const sdp_media_t* CSdpParser::media_at(int index) const {
    if (m_session == nullptr || index < 0) {
        return nullptr;
    }
    for (const sdp_media_t& media : m_session->media) {
        if (index-- == 0) {
            return &media;
        }
    }
    return nullptr;
}

const sdp_media_t* CSdpParser::find_media(int track_id) const {
    return media_at(get_index(track_id));
}

sdp_media_t* CSdpParser::find_media(int track_id) {
    return const_cast<sdp_media_t*>(static_cast<const CSdpParser*>(this)->find_media(track_id));
}

int CSdpParser::get_media_count() const {
    return m_session != nullptr ? m_session->media.size() : 0;
}

int CSdpParser::get_track_id(int index) const {
    const sdp_media_t* media = media_at(index);
    return media != nullptr && media->track_id >= 1 ? media->track_id : -1;
}

int CSdpParser::get_index(int track_id) const {
    if (m_session == nullptr || track_id < 1) {
        return -1;
    }
    int index = 0;
    for (const sdp_media_t& media : m_session->media) {
        if (media.track_id == track_id) {
            return index;
        }
        ++index;
    }
    return -1;
}

const char* CSdpParser::get_control(int index) const {
    return control_of(media_at(index));
}

const char* CSdpParser::get_control_by_id(int track_id) const {
    return control_of(find_media(track_id));
}

int CSdpParser::get_track_by_control(const char* url) const {
    if (m_session == nullptr || url == nullptr || *url == '\0') {
        return -1;
    }
    for (const sdp_media_t& media : m_session->media) {
        if (std::strcmp(media.control, url) == 0) {
            return media.track_id;
        }
    }
    return -1;
}

int CSdpParser::get_media_type(int track_id) const {
    return type_of(find_media(track_id));
}

int CSdpParser::get_media_type_at(int index) const {
    return type_of(media_at(index));
}

int CSdpParser::get_direction(int index) const {
    const sdp_media_t* media = media_at(index);
    if (media == nullptr) {
        return SDP_DIRECTION_NONE;
    }
    for (const sdp_attribute_t& attribute : media->attributes) {
        const int direction = value_of(DIRECTIONS, attribute.name, -1);
        if (direction >= 0) {
            return direction;
        }
    }
    return SDP_DIRECTION_SENDRECV;
}

int CSdpParser::get_payload_type(int index) const {
    const sdp_media_t* media = media_at(index);
    return media != nullptr ? media->payload_type : -1;
}

char* CSdpParser::get_payload_name(int index) const {
    const char* rtpmap = find_rtpmap(media_at(index));
    if (rtpmap == nullptr) {
        return nullptr;
    }
    CStrParser parser(rtpmap);
    parser.ConsumeInt32();
    parser.ConsumeWhitespace();
    char name[128];
    return parser.ConsumeSentence("/ \r\n", name, sizeof(name)) > 0 ? ::strdup(name) : nullptr;
}

int CSdpParser::get_sample_rate(int index) const {
    const char* rtpmap = find_rtpmap(media_at(index));
    if (rtpmap == nullptr) {
        return -1;
    }
    CStrParser parser(rtpmap);
    const int rate = read_rate(parser);
    return parser.GetStatus() == 0 && rate > 0 ? rate : -1;
}

int CSdpParser::get_channel_count(int index) const {
    const sdp_media_t* media = media_at(index);
    if (media == nullptr) {
        return -1;
    }
    const char* rtpmap = find_rtpmap(media);
    if (rtpmap == nullptr) {
        return 1;
    }
    CStrParser parser(rtpmap);
    read_rate(parser);
    parser.Expect('/');
    const int count = parser.ConsumeInt32();
    return parser.GetStatus() == 0 && count > 0 ? count : 1;
}

int CSdpParser::get_media_port(int track_id) const {
    const sdp_media_t* media = find_media(track_id);
    return media != nullptr ? static_cast<int>(media->port) : -1;
}

const char* CSdpParser::get_media_attribute(int track_id, const char* name) const {
    const sdp_media_t* media = find_media(track_id);
    const sdp_attribute_t* attribute = media != nullptr ? SdpFindAttribute(media->attributes, name) : nullptr;
    return attribute != nullptr ? attribute->value.Get() : nullptr;
}

int CSdpParser::get_connection(sdp_connection_t* out) const {
    if (m_session == nullptr || copy_first(m_session->connections, out) < 0) {
        logError("%s %d get connect of session failed!\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

int CSdpParser::get_media_connection(int track_id, sdp_connection_t* out) const {
    const sdp_media_t* media = find_media(track_id);
    return media != nullptr ? copy_first(media->connections, out) : -1;
}

int CSdpParser::get_video_encoding() const {
    if (m_session == nullptr) {
        return SDP_ENCODING_UNKNOWN;
    }
    for (const sdp_media_t& media : m_session->media) {
        const char* rtpmap = type_of(&media) == SDP_MEDIA_VIDEO ? find_rtpmap(&media) : nullptr;
        if (rtpmap == nullptr) {
            continue;
        }
        for (const name_row& row : ENCODINGS) {
            if (std::strstr(rtpmap, row.name) != nullptr) {
                return row.value;
            }
        }
        break;
    }
    return SDP_ENCODING_UNKNOWN;
}

int CSdpParser::get_packet_kind() const {
    if (m_session == nullptr) {
        return PACKET_TYPE_RTP;
    }
    for (const sdp_attribute_t& attribute : m_session->attributes) {
        if (attribute.name.StartsWith(PACKET_KIND_NAME)) {
            return attribute.value.StartsWith(PACKET_KIND_PRIVATE) ? PACKET_TYPE_KX : PACKET_TYPE_NONE;
        }
    }
    return PACKET_TYPE_RTP;
}

namespace {

const double MICROSECONDS = 1000000;
const double MAX_MICROSECONDS = 9e18;  // what 64 bits hold, rounded down

// Takes a number as scanf does, but with a point in every locale: white space, a sign, digits, an exponent. RFC
// 2326 3.6 has no exponent, but "%g" writes one for a long recording.
bool scan_number(std::string_view& text, double& value) {
    const size_t start = text.find_first_not_of(" \t\r\n\v\f");
    text.remove_prefix(start != std::string_view::npos ? start : text.size());
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') {
        text.remove_prefix(1);  // from_chars takes no plus
    }
    const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), value);
    text.remove_prefix(static_cast<size_t>(result.ptr - text.data()));
    return result.ec == std::errc() && std::isfinite(value);
}

// "npt=<begin>-<end>" (RFC 2326 3.6) with both numbers; false for an open end or "now".
bool read_npt_range(std::string_view range, double& begin, double& end) {
    if (range.substr(0, 4) != "npt=") {
        return false;
    }
    range.remove_prefix(4);
    if (!scan_number(range, begin) || range.empty() || range[0] != '-') {
        return false;
    }
    range.remove_prefix(1);
    return scan_number(range, end);
}

}  // namespace

int64_t CSdpParser::get_duration() const {
    const char* range = m_session != nullptr ? find_value(m_session->attributes, "range") : nullptr;
    double begin = 0;
    double end = 0;
    if (range == nullptr || !read_npt_range(range, begin, end)) {
        return 0;
    }
    begin *= MICROSECONDS;
    end *= MICROSECONDS;
    // A range that ends before it begins has no length; with one that doesn't, neither cast nor difference overflows.
    if (std::fabs(begin) > MAX_MICROSECONDS || std::fabs(end) > MAX_MICROSECONDS || end < begin ||
        end - begin > MAX_MICROSECONDS) {
        return 0;
    }
    return static_cast<int64_t>(end) - static_cast<int64_t>(begin);
}

int CSdpParser::get_frame_rate(int* payload_type) const {
    const sdp_media_t* video = m_session != nullptr ? first_video(m_session->media) : nullptr;
    if (video == nullptr) {
        return -1;
    }
    if (payload_type != nullptr) {
        *payload_type = video->payload_type;
    }
    for (const sdp_attribute_t& attribute : video->attributes) {
        if (!attribute.name.Equals("framerate") || attribute.value == nullptr) {
            continue;
        }
        std::string_view text(attribute.value);
        double rate = 0;
        if (scan_number(text, rate)) {
            const double rounded = std::round(rate);
            return rounded >= 1 && rounded < INT_MAX ? static_cast<int>(rounded) : -1;
        }
    }
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
