#ifndef VIDORA_PROTOCOL_SDPPARSER_H
#define VIDORA_PROTOCOL_SDPPARSER_H

#include <memory>

#include "Protocol/SdpModel.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// Results of the queries of CSdpParser.
enum sdp_media_type_t {
    SDP_MEDIA_AUDIO = 0,
    SDP_MEDIA_VIDEO = 1,
    SDP_MEDIA_TEXT = 2,
    SDP_MEDIA_APPLICATION = 3,
    SDP_MEDIA_MESSAGE = 4,
    SDP_MEDIA_UNKNOWN = 5  // another type, or no such track
};
enum sdp_direction_t {
    SDP_DIRECTION_SENDONLY = 0,
    SDP_DIRECTION_RECVONLY = 1,
    SDP_DIRECTION_SENDRECV = 2,  // also when the track names none
    SDP_DIRECTION_NONE = 3       // no such track
};
enum sdp_encoding_t {
    SDP_ENCODING_H264 = 0,
    SDP_ENCODING_MPEG4 = 1,  // also JPEG
    SDP_ENCODING_MP2T = 2,
    SDP_ENCODING_UNKNOWN = 3
};

const unsigned int SDP_STREAM_SIZE = 2048;  // room of a description's text, its final NUL included

// CSdpParser: one session description (RFC 4566): a tree of records, its text, and what the library asks about tracks.
//
// A track is named by its `index`, its place in the media list from 0, or by its `track_id`, a number from 1 that the
// media gets with its control attribute. Unless said otherwise operations return 0, or -1 for a null argument, an
// unknown track or no memory, and then change nothing.
//
// THREADING  No lock: an object belongs to its owner, who guards it if it is shared. What is constant may be read by
//            any number of threads.
// OWNERSHIP  Arguments are copied; they may be texts of this same tree. Texts that are handed out lie in the tree:
// valid until it changes. Memory: a parsed text is held in records of a few times its length, and its first 2047 bytes
// once more.
class CSdpParser {
public:
    // A new description, empty, for who shares it when it is done; null without memory.
    static std::shared_ptr<CSdpParser> Make();
    // An empty one that never ends, and takes no memory.
    static std::shared_ptr<const CSdpParser> None();

    CSdpParser();
    // As the assignment.
    CSdpParser(const CSdpParser& other);
    // Takes the text of `other` and parses it: what was changed in its tree since its last Parse or GetStream, and what
    // lies behind 2047 bytes, is not copied. Self-assignment does nothing.
    CSdpParser& operator=(const CSdpParser& other);
    ~CSdpParser();

    // Reads a description of `length` bytes (below 1: up to the NUL; a NUL ends it in any case). A line that can't be
    // read is logged and left out, unknown ones are left out. 0, also for a null text, which clears the tree; -1 with
    // an empty tree without memory.
    int Parse(const char* text, int length);
    // From then on Parse also takes lines that devices write with blanks at the end, or with several where one belongs:
    // otherwise such an m= line is left out, and its attributes go to the media before.
    void SetTolerant(bool on) { m_tolerant = on; }
    // Empties the tree; the text of get_stream stays.
    int Clear();
    // Adds the lines that every description must have to the tree (o=, s=, t=, c=) if they are missing, and writes its
    // text for get_stream. A text that would be longer than 2047 bytes is cut behind the last whole line that fits. 0;
    // -1 without memory.
    int GetStream();
    // The text of the last Parse or GetStream; never null.
    const char* get_stream() const { return m_stream != nullptr ? m_stream.Get() : ""; }
    // The tree, for reading; null without memory.
    const sdp_session_t* get_session() const { return m_session; }

    // Building, session level. A set name, info or key isn't replaced: -1.
    int set_origin(const char* username, uint64_t session_id, uint64_t session_version, const char* network_type,
                   const char* address_type, const char* address);
    int set_name(const char* text);
    int set_info(const char* text);
    int set_uri(const char* text);
    int add_email(const char* text);
    int add_phone(const char* text);
    // Appends a connection; a null `network_type` means "IN", a null `address_type` "IP4".
    int add_session_connection(const char* address, uint8_t ttl, int address_count, const char* network_type,
                               const char* address_type);
    int clear_session_connections();
    int add_session_bandwidth(const char* modifier, uint64_t value);
    // Seconds since 1900 (RFC 4566 5.9).
    int add_session_time(uint64_t start, uint64_t stop);
    int add_zone(uint64_t time, const char* offset);
    // `value` may be null.
    int set_session_key(const char* method, const char* value);
    // A known name keeps its place and gets the new value; a null `value` makes a flag.
    int set_session_attribute(const char* name, const char* value);
    int remove_session_attribute(const char* name);
    // Session attribute "range" (RFC 2326 C.1.5); microseconds.
    int set_range(int64_t begin_us, int64_t end_us);

    // Building, tracks.
    // Appends a media with the payload formats of `formats`, separated by white space; `port_count` from 1. Numbers all
    // tracks anew by their places and adds to each that has no control attribute one: "trackID=0" for track_id 1, and
    // so on. The track_id, or -1.
    int add_media(const char* type, unsigned int port, int port_count, const char* protocol, const char* formats);
    int remove_media(int track_id);
    int add_media_connection(int track_id, const char* address, uint8_t ttl, int address_count,
                             const char* network_type, const char* address_type);
    int clear_media_connections(int track_id);
    // As set_session_attribute. "control" sets the track's control text as well, at most 127 characters.
    int set_media_attribute(int track_id, const char* name, const char* value);
    int remove_media_attribute(int track_id, const char* name);
    // Always returns -1, also when it has stored the port: don't test it.
    int set_media_port(int track_id, uint16_t port);
    // Leaves `format` as the only payload format of a medium. 0 or -1.
    int set_media_format(int track_id, const char* format);
    int set_media_key(int track_id, const char* method, const char* value);

    // Queries. Numbers are -1 and texts null for an unknown track or if there is nothing to report.
    int get_media_count() const;
    int get_track_id(int index) const;
    int get_index(int track_id) const;
    const char* get_control(int index) const;
    const char* get_control_by_id(int track_id) const;
    int get_track_by_control(const char* url) const;
    // A sdp_media_type_t.
    int get_media_type(int track_id) const;
    int get_media_type_at(int index) const;
    // A sdp_direction_t.
    int get_direction(int index) const;
    int get_payload_type(int index) const;
    // The encoding name of the rtpmap attribute, which the caller frees with free().
    char* get_payload_name(int index) const;
    // Clock rate and channel count of the rtpmap attribute; values below 1 count as absent, and the count is 1 then.
    int get_sample_rate(int index) const;
    int get_channel_count(int index) const;
    int get_media_port(int track_id) const;
    const char* get_media_attribute(int track_id, const char* name) const;
    // Copy the first connection record of the session or of a track, with texts of its own. The first logs its failure.
    int get_connection(sdp_connection_t* out) const;
    int get_media_connection(int track_id, sdp_connection_t* out) const;
    // A sdp_encoding_t: that of the first video track which has an rtpmap attribute.
    int get_video_encoding() const;
    // Kind of packets that the server offers, by the attribute "packetization-supported": 0 none, 1 private frames, 3
    // another. They are values of packet_type_t.
    int get_packet_kind() const;
    // Length in microseconds, by the session attribute "range"; 0 if it isn't known.
    int64_t get_duration() const;
    // Frames a second of the first video track, rounded, by its attribute "framerate"; -1 if unknown or below 1.
    // `payload_type` takes that track's payload type, and stays if there is no video.
    int get_frame_rate(int* payload_type) const;

private:
    typedef int (CSdpParser::*line_reader_t)(CStrParser& line);
    struct line_row;
    static const line_row LINES[];

    // Reading: one reader a line letter; each gets its line behind the "=", and -1 means that it wasn't good.
    void read_lines(CStrParser& text);
    void read_line(CStrParser& line);
    int sdp_parse_version(CStrParser& line);
    int sdp_parse_origin(CStrParser& line);
    int sdp_parse_name(CStrParser& line);
    int sdp_parse_info(CStrParser& line);
    int sdp_parse_uri(CStrParser& line);
    int sdp_parse_email(CStrParser& line);
    int sdp_parse_phone(CStrParser& line);
    int sdp_parse_connection(CStrParser& line);
    int sdp_parse_bandwidth(CStrParser& line);
    int sdp_parse_time(CStrParser& line);
    int sdp_parse_zone(CStrParser& line);
    int sdp_parse_key(CStrParser& line);
    int sdp_parse_attribute(CStrParser& line);
    int sdp_parse_media(CStrParser& line);

    bool next_word(CStrParser& line) const;

    int add_defaults();
    int number_tracks();

    const sdp_media_t* find_media(int track_id) const;
    sdp_media_t* find_media(int track_id);
    const sdp_media_t* media_at(int index) const;

    sdp_session_t* m_session;  // owned; null when memory was short
    CSdpText m_stream;
    bool m_tolerant = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_SDPPARSER_H
