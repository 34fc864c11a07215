#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "Protocol/SdpParser.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int FIELD_SIZE = 256;       // room of a field, its final NUL included: longer ones are cut
const unsigned int LONG_FIELD_SIZE = 512;  // the same for the fields of attributes and media

}  // namespace

// The line letters with their readers. A letter without a row is passed over in silence; r= (RFC 4566 5.10) is one of
// them, since the library has no use for repeat times.
struct CSdpParser::line_row {
    char letter;
    line_reader_t read;
    const char* error;
};
const CSdpParser::line_row CSdpParser::LINES[] = {
    {'v', &CSdpParser::sdp_parse_version, "sdp_parse_version error\n"},
    {'o', &CSdpParser::sdp_parse_origin, "sdp_parse_origin error\n"},
    {'s', &CSdpParser::sdp_parse_name, "sdp_parse_name error\n"},
    {'i', &CSdpParser::sdp_parse_info, "sdp_parse_info error\n"},
    {'u', &CSdpParser::sdp_parse_uri, "sdp_parse_uri error\n"},
    {'e', &CSdpParser::sdp_parse_email, "sdp_parse_email error\n"},
    {'p', &CSdpParser::sdp_parse_phone, "sdp_parse_phone error\n"},
    {'c', &CSdpParser::sdp_parse_connection, "sdp_parse_connection error\n"},
    {'b', &CSdpParser::sdp_parse_bandwidth, "sdp_parse_bandwidth error\n"},
    {'t', &CSdpParser::sdp_parse_time, "sdp_parse_time error\n"},
    {'z', &CSdpParser::sdp_parse_zone, "sdp_parse_zone error\n"},
    {'k', &CSdpParser::sdp_parse_key, "sdp_parse_key error\n"},
    {'a', &CSdpParser::sdp_parse_attribute, "sdp_parse_attribute error\n"},
    {'m', &CSdpParser::sdp_parse_media, "sdp_parse_media error\n"},
};

int CSdpParser::Parse(const char* text, int length) {
    const std::unique_ptr<sdp_session_t> former(m_session);  // `text` may be one of its texts
    m_session = nullptr;
    const int cleared = Clear();
    if (text == nullptr) {
        return 0;
    }
    const size_t limit = length < 1 ? static_cast<size_t>(INT_MAX) : static_cast<size_t>(length);
    const size_t size = ::strnlen(text, limit);
    CStrParser parser;
    const int error = cleared == 0 ? parser.Attach(text, static_cast<unsigned int>(size)) : cleared;
    if (error < 0) {
        logWarn("%s:%d Parsing sdp Error:%d \n", __FILE__, __LINE__, error);
        Clear();
        return -1;
    }
    read_lines(parser);
    if (!m_stream.Set(text, std::min(size, size_t{SDP_STREAM_SIZE} - 1))) {
        Clear();
        return -1;
    }
    return 0;
}

void CSdpParser::read_lines(CStrParser& text) {
    while (text.GetStringLen() > 1) {
        // A reader gets its own line and no more, so that a bad line costs only that line.
        unsigned int length = text.GetCurLinelength();
        // A text that was cut between CR and LF leaves a CR, which is no part of the line, as none in front of it is. A
        // blank may be all that a session's name has (RFC 4566 5.3).
        const char* ends = m_tolerant && text.GetCurChar() != 's' ? "\r \t" : "\r";
        while (length > 0 && std::strchr(ends, text.GetString()[length - 1]) != nullptr) {
            --length;
        }
        CStrParser line(text.GetString(), length);
        read_line(line);
        if (text.ConsumeUntilNextLine() < 0) {
            break;
        }
    }
}

void CSdpParser::read_line(CStrParser& line) {
    line.ConsumeWhitespaceInLine();
    const char letter = line.GetCurChar();
    if (line.ConsumeLength(1, nullptr, 0) < 0 || line.Expect('=') != 0) {
        return;
    }
    for (const line_row& row : LINES) {
        if (row.letter == letter) {
            if ((this->*row.read)(line) < 0) {
                logWarn("%s", row.error);
            }
            return;
        }
    }
}

namespace {

// Takes `length` bytes, of which at most `size` - 1 are kept. False for less than `at_least` bytes or without memory.
bool take(CStrParser& line, int length, unsigned int size, CSdpText& out, int at_least = 0) {
    const char* text = line.GetString();
    const unsigned int taken = static_cast<unsigned int>(length);
    if (length < at_least || line.ConsumeLength(taken, nullptr, 0) < 0) {
        return false;
    }
    return out.Set(text, taken < size ? taken : size - 1);
}

// Bytes in front of the next white space.
int word_length(const CStrParser& line) {
    CStrParser ahead = line;
    char none[1];
    ahead.ConsumeWord(none, sizeof(none));
    return ahead.GetCurOffset() - line.GetCurOffset();
}

bool take_word(CStrParser& line, unsigned int size, CSdpText& out, int at_least = 0) {
    return take(line, word_length(line), size, out, at_least);
}

bool take_rest(CStrParser& line, unsigned int size, CSdpText& out, int at_least = 0) {
    return take(line, line.GetStringLen(), size, out, at_least);
}

// Bytes in front of the next `delim`; negative if there is none.
int distance_to(const CStrParser& line, const char* delim) {
    CStrParser ahead = line;
    return ahead.LocateString(delim) - line.GetCurOffset();
}

// Steps over `c` if it is next.
bool step_over(CStrParser& line, char c) {
    return line.GetCurChar() == c && line.Expect(c) == 0;
}

// "224.2.1.1/127/3": address, ttl and count. The ttl is kept in eight bits, whatever the line says.
bool read_address(CStrParser& line, sdp_connection_t& connection) {
    const int address_length = distance_to(line, "/");
    if (address_length < 0) {
        return take_word(line, FIELD_SIZE, connection.address);
    }
    if (!take(line, address_length, FIELD_SIZE, connection.address) || line.Expect('/') != 0) {
        return false;
    }
    connection.ttl = static_cast<uint8_t>(line.ConsumeUint16());
    connection.address_count = step_over(line, '/') ? line.ConsumeInt32() : 0;
    return true;
}

// For a line that may come once: a further one is passed over, and isn't wrong.
int read_once(CStrParser& line, CSdpText& field, int at_least) {
    return field != nullptr || take_rest(line, FIELD_SIZE, field, at_least) ? 0 : -1;
}

int read_into_list(CStrParser& line, sdp_list<CSdpText>& list) {
    CSdpText text;
    return take_rest(line, FIELD_SIZE, text) && list.append(std::move(text)) != nullptr ? 0 : -1;
}

template <typename T>
int append(sdp_list<T>& list, T&& record) {
    return list.append(std::move(record)) != nullptr ? 0 : -1;
}

}  // namespace

int CSdpParser::sdp_parse_version(CStrParser& line) {
    const int version = line.ConsumeInt32();
    if (line.GetStatus() != 0) {
        return -1;
    }
    m_session->version = version;
    return 0;
}

int CSdpParser::sdp_parse_origin(CStrParser& line) {
    sdp_origin_t origin;
    if (m_session->origin.username != nullptr) {
        return 0;
    }
    if (!take(line, distance_to(line, " "), FIELD_SIZE, origin.username, 1) || !step_over(line, ' ')) {
        return -1;
    }
    origin.session_id = line.ConsumeUint64();
    line.Expect(' ');
    origin.session_version = line.ConsumeUint64();
    for (CSdpText* text : {&origin.network_type, &origin.address_type, &origin.address}) {
        if (line.Expect(' ') != 0 || !take_word(line, FIELD_SIZE, *text)) {
            return -1;
        }
    }
    if (line.GetStatus() != 0) {
        return -1;
    }
    m_session->origin = std::move(origin);
    return 0;
}

int CSdpParser::sdp_parse_name(CStrParser& line) {
    return read_once(line, m_session->name, 1);
}

// There is no media-level form: behind an m= line it is the session's as well.
int CSdpParser::sdp_parse_info(CStrParser& line) {
    return read_once(line, m_session->info, 0);
}

int CSdpParser::sdp_parse_uri(CStrParser& line) {
    return read_once(line, m_session->uri, 0);
}

int CSdpParser::sdp_parse_email(CStrParser& line) {
    return read_into_list(line, m_session->emails);
}

int CSdpParser::sdp_parse_phone(CStrParser& line) {
    return read_into_list(line, m_session->phones);
}

// "IN IP4" and an address.
int CSdpParser::sdp_parse_connection(CStrParser& line) {
    sdp_connection_t connection;
    if (!take_word(line, FIELD_SIZE, connection.network_type) || line.Expect(' ') != 0 ||
        !take_word(line, FIELD_SIZE, connection.address_type) || line.Expect(' ') != 0 ||
        !read_address(line, connection) || line.GetStatus() != 0) {
        return -1;
    }
    sdp_media_t* media = m_session->media.last();
    if (media == nullptr) {
        m_session->connections.clear();  // the session's last one holds
    }
    return append(media != nullptr ? media->connections : m_session->connections, std::move(connection));
}

int CSdpParser::sdp_parse_bandwidth(CStrParser& line) {
    sdp_bandwidth_t bandwidth;
    if (!take(line, distance_to(line, ":"), FIELD_SIZE, bandwidth.modifier, 1) || line.Expect(':') != 0) {
        return -1;
    }
    bandwidth.value = line.ConsumeUint64();
    if (line.GetStatus() != 0) {
        return -1;
    }
    sdp_media_t* media = m_session->media.last();
    return append(media != nullptr ? media->bandwidths : m_session->bandwidths, std::move(bandwidth));
}

int CSdpParser::sdp_parse_time(CStrParser& line) {
    sdp_time_t time;
    time.start = line.ConsumeUint64();
    line.Expect(' ');
    time.stop = line.ConsumeUint64();
    return line.GetStatus() == 0 ? append(m_session->times, std::move(time)) : -1;
}

int CSdpParser::sdp_parse_zone(CStrParser& line) {
    if (!m_session->zones.empty()) {
        return -1;
    }
    sdp_list<sdp_zone_t> zones;
    do {
        sdp_zone_t zone;
        zone.time = line.ConsumeUint64();
        if (line.Expect(' ') != 0 || line.GetStatus() != 0 || !take_word(line, FIELD_SIZE, zone.offset) ||
            append(zones, std::move(zone)) < 0) {
            return -1;
        }
    } while (step_over(line, ' '));
    m_session->zones = std::move(zones);
    return 0;
}

int CSdpParser::sdp_parse_key(CStrParser& line) {
    sdp_media_t* media = m_session->media.last();
    sdp_key_t& place = media != nullptr ? media->key : m_session->key;
    if (place.method != nullptr) {
        return -1;
    }
    sdp_key_t key;
    const int method_length = distance_to(line, ":");
    if (method_length < 0 || method_length > word_length(line)) {
        if (!take_word(line, FIELD_SIZE, key.method)) {
            return -1;
        }
    } else if (!take(line, method_length, FIELD_SIZE, key.method) || line.Expect(':') != 0 ||
               !take_word(line, FIELD_SIZE, key.value)) {
        return -1;
    }
    place = std::move(key);
    return 0;
}

int CSdpParser::sdp_parse_attribute(CStrParser& line) {
    sdp_attribute_t attribute;
    const int name_length = distance_to(line, ":");
    if (name_length < 0) {
        if (!take_rest(line, LONG_FIELD_SIZE, attribute.name, 1)) {
            return -1;
        }
    } else if (!take(line, name_length, LONG_FIELD_SIZE, attribute.name, 1) || line.Expect(':') != 0 ||
               (m_tolerant && line.ConsumeWhitespaceInLine() < 0) ||
               !take_rest(line, LONG_FIELD_SIZE, attribute.value, 1)) {
        return -1;
    }
    sdp_media_t* media = m_session->media.last();
    if (media == nullptr) {
        return append(m_session->attributes, std::move(attribute));
    }
    if (attribute.value != nullptr && attribute.name.Equals("control")) {
        SdpSetControl(*media, attribute.value);
        media->track_id = m_session->media.size();  // its place, from 1
    }
    return append(media->attributes, std::move(attribute));
}

// Steps over what separates two words. False if there is nothing of the kind.
bool CSdpParser::next_word(CStrParser& line) const {
    return step_over(line, ' ') && (!m_tolerant || line.ConsumeWhitespaceInLine() >= 0);
}

// "video 5000/2 RTP/AVP 96 97". A format follows every blank: a line that ends in a blank is bad as a whole, and
// the lines that follow it belong to the media before.
int CSdpParser::sdp_parse_media(CStrParser& line) {
    sdp_media_t media;
    if (!take_word(line, LONG_FIELD_SIZE, media.type, 1) || !next_word(line)) {
        return -1;
    }
    media.port = line.ConsumeUint32();
    const int port_count = step_over(line, '/') ? line.ConsumeInt32() : 1;
    media.port_count = port_count < 1 ? 1 : port_count;
    if (!next_word(line) || !take_word(line, LONG_FIELD_SIZE, media.protocol, 1) || !next_word(line)) {
        return -1;
    }
    do {
        CSdpText format;
        if (!take_word(line, LONG_FIELD_SIZE, format, 1) || !SdpAddFormat(media, format)) {
            return -1;
        }
    } while (next_word(line));
    return line.GetStatus() == 0 ? append(m_session->media, std::move(media)) : -1;
}

}  // namespace Vidora
}  // namespace Kavio
