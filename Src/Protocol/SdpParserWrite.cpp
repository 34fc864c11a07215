#include <cstring>

#include "Ostra/NtpTime.h"
#include "Protocol/SdpParser.h"
#include "Protocol/TextWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const int STREAM_LIMIT = 2038;  // a longer text is reported, with some room to spare

// Writes lines into the store of a description. A line that doesn't fit is taken back whole, and all that follow it:
// half a line would say something else, and a later one could go to the wrong media.
class CSdpLines {
public:
    CSdpLines(char* buffer, size_t size) : m_text(buffer, size), m_room(size - 1) {}

    // Begins the line of `letter`; more text is appended to the result.
    CTextWriter& Begin(char letter) {
        m_line_start = m_text.Length();
        return m_text.Add(std::string_view(&letter, 1), "=");
    }
    void End() {
        m_text.Add("\r\n");
        if (m_text.Needed() > m_room) {
            m_text.CutBack(m_line_start);
        }
    }

    // A line of one text, if it is there.
    void Line(char letter, const char* text) {
        if (text != nullptr) {
            Begin(letter).Add(text);
            End();
        }
    }
    void Lines(char letter, const sdp_list<CSdpText>& texts) {
        for (const CSdpText& text : texts) {
            Line(letter, text);
        }
    }

    size_t Needed() const { return m_text.Needed(); }

private:
    CTextWriter m_text;
    size_t m_room;
    size_t m_line_start = 0;
};

void write_origin(CSdpLines& lines, const sdp_origin_t& origin) {
    CTextWriter& text = lines.Begin('o').Add(origin.username);
    text.Add(" ").Add(origin.session_id).Add(" ").Add(origin.session_version);
    text.Add(" ").Add(origin.network_type).Add(" ").Add(origin.address_type).Add(" ").Add(origin.address);
    lines.End();
}

// RFC 4566 5.7: "/ttl" and "/ttl/count" behind an IPv4 group, "/count" behind an IPv6 group. A count of 0, as a line
// without one is read, drops the ttl too: peers have always been given the plain address then.
void write_connection(CSdpLines& lines, const sdp_connection_t& connection) {
    CTextWriter& text = lines.Begin('c').Add(connection.network_type).Add(" ").Add(connection.address_type);
    text.Add(" ").Add(connection.address);
    if (connection.address_type.Equals("IP4") && connection.address_count > 0) {
        text.Add("/").Add(unsigned{connection.ttl});
        if (connection.address_count > 1) {
            text.Add("/").Add(connection.address_count);
        }
    } else if (connection.address_type.Equals("IP6") && connection.address_count > 1) {
        text.Add("/").Add(connection.address_count);
    }
    lines.End();
}

void write_connections(CSdpLines& lines, const sdp_list<sdp_connection_t>& connections) {
    for (const sdp_connection_t& connection : connections) {
        write_connection(lines, connection);
    }
}

void write_bandwidths(CSdpLines& lines, const sdp_list<sdp_bandwidth_t>& bandwidths) {
    for (const sdp_bandwidth_t& bandwidth : bandwidths) {
        lines.Begin('b').Add(bandwidth.modifier).Add(":").Add(bandwidth.value);
        lines.End();
    }
}

void write_times(CSdpLines& lines, const sdp_list<sdp_time_t>& times) {
    for (const sdp_time_t& time : times) {
        lines.Begin('t').Add(time.start).Add(" ").Add(time.stop);
        lines.End();
    }
}

void write_zones(CSdpLines& lines, const sdp_list<sdp_zone_t>& zones) {
    if (zones.empty()) {
        return;
    }
    CTextWriter& text = lines.Begin('z');
    const char* separator = "";
    for (const sdp_zone_t& zone : zones) {
        text.Add(separator).Add(zone.time).Add(" ").Add(zone.offset);
        separator = " ";
    }
    lines.End();
}

// "k=" and "a=" have one form: a name, and a value behind ":" if there is one.
void write_pair(CSdpLines& lines, char letter, const char* name, const char* value) {
    if (name == nullptr) {
        return;
    }
    CTextWriter& text = lines.Begin(letter).Add(name);
    if (value != nullptr) {
        text.Add(":").Add(value);
    }
    lines.End();
}

void write_attributes(CSdpLines& lines, const sdp_list<sdp_attribute_t>& attributes) {
    for (const sdp_attribute_t& attribute : attributes) {
        write_pair(lines, 'a', attribute.name, attribute.value);
    }
}

void write_media(CSdpLines& lines, const sdp_media_t& media) {
    CTextWriter& text = lines.Begin('m').Add(media.type).Add(" ").Add(media.port);
    if (media.port_count != 1) {
        text.Add("/").Add(media.port_count);
    }
    text.Add(" ").Add(media.protocol);
    for (const CSdpText& format : media.formats) {
        text.Add(" ").Add(format);
    }
    lines.End();
    lines.Line('i', media.info);
    write_connections(lines, media.connections);
    write_bandwidths(lines, media.bandwidths);
    write_pair(lines, 'k', media.key.method, media.key.value);
    write_attributes(lines, media.attributes);
}

// In the order of RFC 4566 5.
void write_session(CSdpLines& lines, const sdp_session_t& session) {
    lines.Begin('v').Add(session.version);
    lines.End();
    write_origin(lines, session.origin);
    lines.Line('s', session.name);
    lines.Line('i', session.info);
    lines.Line('u', session.uri);
    lines.Lines('e', session.emails);
    lines.Lines('p', session.phones);
    write_connections(lines, session.connections);
    write_bandwidths(lines, session.bandwidths);
    write_times(lines, session.times);
    write_zones(lines, session.zones);
    write_pair(lines, 'k', session.key.method, session.key.value);
    write_attributes(lines, session.attributes);
    for (const sdp_media_t& media : session.media) {
        write_media(lines, media);
    }
}

}  // namespace

// The lines that RFC 4566 demands, into the tree itself.
int CSdpParser::add_defaults() {
    if (m_session == nullptr) {
        return -1;
    }
    const uint64_t now = CTime::getCurrentTime().makeTime() + Ostra::NTP_TO_UNIX_SECONDS;
    if (m_session->origin.username == nullptr && set_origin("-", now, now, "IN", "IP4", "0.0.0.0") < 0) {
        return -1;
    }
    if (m_session->name == nullptr && set_name("RTSP Session/2.0") < 0) {
        return -1;
    }
    if (m_session->times.empty() && add_session_time(0, 0) < 0) {
        return -1;
    }
    if (m_session->connections.empty() && add_session_connection("0.0.0.0", 0, 0, nullptr, nullptr) < 0) {
        return -1;
    }
    return 0;
}

int CSdpParser::GetStream() {
    if (add_defaults() < 0) {
        return -1;
    }
    char text[SDP_STREAM_SIZE];
    CSdpLines lines(text, sizeof(text));
    write_session(lines, *m_session);
    const int size = static_cast<int>(lines.Needed()) + 4;
    if (size > STREAM_LIMIT) {
        logWarn("CSdpParser::GetStream() error, buffer too small. data size:%d is bigger than buffer size:%d\n", size,
                STREAM_LIMIT);
    }
    return m_stream.Set(text) ? 0 : -1;
}

}  // namespace Vidora
}  // namespace Kavio
