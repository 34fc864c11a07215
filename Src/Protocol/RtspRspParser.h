#ifndef VIDORA_PROTOCOL_RTSPRSPPARSER_H
#define VIDORA_PROTOCOL_RTSPRSPPARSER_H

#include <cstdint>
#include <string_view>

#include "Protocol/RtspParser.h"

namespace Kavio {
namespace Vidora {

// Kind of the peer, by its User-Agent.
enum client_kind_t {
    CLIENT_KIND_LIBVLC = 0,
    CLIENT_KIND_QUICKTIME = 1,
    CLIENT_KIND_OWN = 2,  // this library's own client, by the name that it had in older releases
    CLIENT_KIND_UNKNOWN = 3
};

struct transport_offer;

// CRtspRspParser: the server's RTSP codec. It reads requests and writes replies; one object in each server session.
//
// A generator returns the whole message in the object's own buffer, valid until the next generator runs; it is cut at
// 4096 bytes.
//
// THREADING  One thread at a time: the session's own.
// MEMORY     Some 700 bytes, and a CMessageMemory from construction to release_memory, and from the next message on.
class CRtspRspParser : public CRtspParser {
public:
    CRtspRspParser();

    // The memory of the message that is read, served and answered now: taken from the spare ones if there is none. Null
    // if memory is short; reading then fails, and what is generated is null.
    CMessageMemory* open_memory();
    // The same without taking one; null if there is none.
    const CMessageMemory* memory() const { return m_memory.get(); }
    // Nothing of the last message is needed any more: all texts but the Session line are empty until the next one.
    void release_memory();

    // Reads one request of `length` bytes. `info` is what check_message gave, or null to have it judged here. 0, also
    // for a null buffer or no bytes; -1 for a bad message, a Session header of another session, a request without an
    // "rtsp://" URL that needs one, or an unknown transport; -5 for an unknown method.
    virtual int parse_request(const char* buffer, unsigned int length, rtsp_msg_info* info);
    std::pair<int, int> parse_start_line(CStrParser& text) override;

    // By conformance a client may offer several transports (RFC 2326 12.39), of which parse_request has read the first.
    // Reads the next one of the same message into get_transport and get_multicast; false if there is none left.
    bool next_offer(std::string_view message);

    // The status by which a request that parse_request refused last is answered (RFC 2326 11).
    int get_refusal() const { return m_refusal; }

    // client_kind_t; once known it stays.
    int get_client_kind() const { return m_client_kind; }
    // The identifier that this connection's Session lines carry.
    uint64_t get_session_id() const { return m_session_id; }
    // Before the first request.
    void set_session_id(uint64_t session_id) { m_session_id = session_id; }

    const char* generate_options_reply();
    // Headers only: the caller sends `content_length` bytes of SDP behind them.
    const char* generate_describe_reply(int content_length);
    // Null for a null `transport`, and for multicast over UDP with a null `multicast`; a 461 for an unknown transport.
    const char* generate_setup_reply(const transport_info* transport, const multicast_info* multicast);
    // With conformance the rate that is played follows, if the request asked for one.
    // Seconds; NPT_NOT_GIVEN as `begin` leaves the Range out, as `end` it leaves it open. Null without entries.
    const char* generate_play_reply(const rtp_info_entry* entries, int count, double begin, double end);
    // The same with year 0 for "not given".
    const char* generate_play_reply_clock(const rtp_info_entry* entries, int count, const UtcTime* begin,
                                          const UtcTime* end);
    // 401 with the WWW-Authenticate value `challenge`.
    const char* generate_auth_reply(const char* challenge);
    // A reply of that status, 200 included, with no header of its own.
    const char* generate_error_reply(int status);
    // The common frame: `headers` (whole lines) and `body` may be null. A status outside the table makes a 400 that
    // has neither.
    const char* generate_reply(const char* headers, int status, const char* body);

private:
    int read_request(CStrParser& text);
    bool check_session(CStrParser& text) const;
    int read_by_method(CStrParser& text);
    void report_unknown(CStrParser& text) const;
    int read_url(CStrParser& text);
    void detect_client(CStrParser& text);

    // Transport, in the order of reading.
    int read_transport(CStrParser& text);
    int read_usual_transport(CStrParser& text);
    int read_offers(std::string_view message);
    void take_offer(const transport_offer& offer);
    int begin_session();
    void read_client_ports(CStrParser& text);
    void read_destination(CStrParser& text);

    const char* generate_play_tail(const rtp_info_entry* entries, int count, const char* range);

    CMessageMemory::pointer_t m_memory;
    uint64_t m_session_id;
    int m_client_kind = CLIENT_KIND_UNKNOWN;
    int m_refusal = 0;
    int m_offers_read = 0;
    char m_session_line[sizeof "Session: 18446744073709551615\r\n"];
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPRSPPARSER_H
