#ifndef VIDORA_PROTOCOL_RTSPPARSER_H
#define VIDORA_PROTOCOL_RTSPPARSER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "Protocol/MessageMemory.h"
#include "Protocol/RtspInfo.h"
#include "Protocol/RtspMsgInfo.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// Results of the RTSP readers.
enum rtsp_result_t {
    RTSP_OK = 0,
    RTSP_BAD_MESSAGE = -1,     // too long, a wrong first line, or a required part is missing
    RTSP_NO_HEADER = -3,       // no "RTSP/" in what should be a reply
    RTSP_UNKNOWN_METHOD = -5,  // in a request
    RTSP_INCOMPLETE = -7,      // read more and try again
    RTSP_CHALLENGE = -8        // a 401 reply; get_auth() has the challenge
};

// CRtspParser: what the server's and the client's RTSP codec share (RFC 2326): the buffers of one message, the rule
// that finds a message's end in a byte stream, the readers of headers that both sides get, and the extra headers that
// the application may add to what is generated.
//
// The grammar is deliberately loose, as the peers are: a header is not tokenised. A reader searches the whole message
// for a key text, in any letter case, and the first match counts wherever it is. Lines are not unfolded. Every
// reader takes time linear in the message's length, looks at no byte behind the given length and allocates nothing.
// A text that is too long for its buffer is cut.
//
// One object per connection, used again for every message. Its state is that of the last message read and of the last
// one written; after a failed read the fields hold whatever the message reached.
//
// THREADING  None of its own: one thread at a time. See CRtspReqParser for the client's two threads.
// MEMORY     The texts are the derived class's: the client keeps its own, the server has them for a message at a time.
class CRtspParser {
public:
    typedef std::map<std::string, std::string> ext_keys_t;

    CRtspParser();
    virtual ~CRtspParser();
    CRtspParser(const CRtspParser&) = delete;
    CRtspParser& operator=(const CRtspParser&) = delete;

    // Takes the triple of a message that check_message has judged into get_method, get_status and get_cseq. With a
    // null `info` it runs check_message itself. 0, or -1 if that failed. Derived readers replace or extend it.
    virtual int parse_message(const char* buffer, unsigned int length, rtsp_msg_info* info);
    // CSeq and method of the message whose header part `text` is bound to; a CSeq below 0 if there is none, and method
    // 8 if it is unknown.
    virtual std::pair<int, int> parse_start_line(CStrParser& text) = 0;
    // The status of a reply; 0 here. Negative makes the message a bad one.
    virtual int parse_status_code(CStrParser& text);

    // Finds the message at the start of `length` received bytes: the number of bytes that it takes, leading blanks and
    // line ends included, and `info` is filled. RTSP_INCOMPLETE while it isn't there whole, RTSP_BAD_MESSAGE for more
    // than 4096 bytes (even if they hold whole messages) or a first line of the wrong form. A text ends at a NUL.
    int check_message(const char* buffer, unsigned int length, rtsp_msg_info* info);

    // Readers over a whole message; they rewind `text` first.
    // The CSeq, or -1 if there is none.
    int parse_cseq(CStrParser& text);
    // The body, its length and type. 0.
    int parse_body(CStrParser& text);
    // Range, Speed, Scale or Rate-Control, and get_range_cseq. 0.
    int parse_range_speed(CStrParser& text);

    // Reads "20200102T030405Z" or "20200102T030405.678Z", and "-" with an end time if one follows; `end` may be null.
    // The length of what was read last, or -1.
    static int parse_clock_range(const char* text, unsigned int length, UtcTime* begin, UtcTime* end);
    // Write a Range header line of up to `size` bytes, NUL included, and return `out`; null for a null `out`. A null
    // `end` leaves the range open.
    static char* format_clock_range(char* out, unsigned int size, const UtcTime* begin, const UtcTime* end,
                                    bool conformance);
    static char* format_smpte_range(char* out, unsigned int size, const SmpteTime* begin, const SmpteTime* end);

    // Extra headers by method. set: -1 for a method above 7 or a null key; a null value is the empty text. remove:
    // method 8 empties all tables; -1 for a null key. get and set of all: `eight` tables; -1 for null or if memory is
    // short.
    int set_ext_key(int method, const char* key, const char* value);
    int remove_ext_key(int method, const char* key);
    int get_ext_keys(ext_keys_t* eight) const;
    int set_ext_keys(const ext_keys_t* eight);
    // The header lines of a method in the order of their keys. -1, with an empty `out`, for a method outside 0 to 7.
    int build_ext_headers(int method, std::string& out) const;

    // Reads ranges and rates as RFC 2326 3.6, 12.29, 12.34 and 12.35 have them: a range without a beginning, "now",
    // hours:minutes:seconds, headers without a blank. The same goes for the transports, credentials, challenges, bases
    // and methods of 12.39, 12.5, 12.44, 12.11 and 12.28, whose lines may be folded (RFC 2616 4.2). Otherwise all are
    // searched for as older peers write them.
    void SetConformance(bool on) { m_conformance = on; }

    // Pointers stay valid until the next message or the release of the texts, that of get_session as long as the
    // object.
    int get_method() const { return m_method; }
    int get_cseq() const { return m_cseq; }
    int get_status() const { return m_status; }
    // The whole Session line, header word and line end included; empty before there is a session.
    const char* get_session() const { return m_session; }
    const char* get_url() const { return m_texts != nullptr ? m_texts->url : ""; }
    const char* get_body() const { return m_body_length > 0 ? m_texts->body : ""; }
    // The value of Authorization (server) or WWW-Authenticate (client).
    const char* get_auth() const { return m_texts != nullptr ? m_texts->auth : ""; }
    // `content_length` may be null.
    const char* get_content_type(int* content_length) const;
    const transport_info* get_transport() const { return &m_texts->transport; }
    const multicast_info* get_multicast() const { return &m_multicast; }
    range_type_t get_range_type() const { return m_range_type; }
    // Seconds, or NPT_NOT_GIVEN. 0.
    int get_npt_range(double* begin, double* end) const;
    int get_clock_range(UtcTime* begin, UtcTime* end) const;
    // The rate asked for, 1.0 if none; `is_scale` (may be null) says whether a Scale header was ever read.
    float get_speed(bool* is_scale) const;
    int get_range_cseq() const { return m_range_cseq; }
    // With conformance: which header gave the rate, and the status that refuses a PLAY whose range or rate can't be
    // read; 0 if there is nothing to refuse.
    rate_header_t get_rate_header() const { return m_rate_header; }
    int get_play_fault() const { return m_play_fault; }
    // With conformance: whether there was a range in seconds that has no beginning, not even "now".
    bool has_open_start() const { return m_has_open_start; }
    // The rate of the next reply to PLAY: a live stream has its own, whatever was asked for.
    void keep_own_rate() { m_speed = 1.0F; }
    // Asks the client's codec for the ONVIF back channel.
    void set_back_channel(bool back_channel) { m_back_channel = back_channel; }

protected:
    struct message_place {
        unsigned int skipped = 0;      // leading blanks and line ends
        unsigned int header_size = 0;  // with the empty line
        unsigned int size = 0;         // of header and body
    };
    static bool measure(const char* buffer, unsigned int length, message_place& place);
    // Locates `key` from the start of the message; a match at the very start, where no header is, does not count.
    static bool find_header(CStrParser& text, const char* key);
    // Steps over `key` and white space and copies up to the line's end.
    static void read_value(CStrParser& text, const char* key, char* out, unsigned int size);
    // The whole message.
    static std::string_view message_of(CStrParser& text);
    // By conformance: the value of the header of that name, if it has one, with its lines joined. False if not.
    static bool read_unfolded(CStrParser& text, const char* name, char* out, unsigned int size);
    // The two numbers at the next digits.
    static void read_number_pair(CStrParser& text, int* first, int* second);
    // Parts of a Transport header. The kind of stream and transport; false if there is neither.
    bool read_transport_kind(CStrParser& text);
    // The multicast destination, with the cursor left behind it; false if there is none.
    bool read_multicast_addr(CStrParser& text);
    void read_multicast_ttl(CStrParser& text);

    int m_method = RTSP_METHOD_UNKNOWN;
    int m_cseq = 0;  // of the current message; the client's counter of requests
    int m_status = 0;
    float m_version = 1.0F;
    const char* m_product = "";  // value of Server or User-Agent, set at construction
    int m_content_length = 0;
    int m_body_length = 0;  // bytes in m_body
    range_type_t m_range_type = RANGE_TYPE_NPT;
    UtcTime m_begin_utc;
    UtcTime m_end_utc;
    double m_npt_begin = NPT_NOT_GIVEN;
    double m_npt_end = NPT_NOT_GIVEN;
    float m_speed = 1.0F;
    uint8_t m_is_scale = 0;  // set by the first Scale header and never cleared
    bool m_conformance = false;
    rate_header_t m_rate_header = RATE_HEADER_NONE;
    int m_play_fault = 0;
    bool m_has_open_start = false;
    bool m_back_channel = false;
    int m_range_cseq = 0;
    multicast_info m_multicast;
    ext_keys_t m_ext_keys[RTSP_METHOD_COUNT];

    rtsp_texts* m_texts = nullptr;  // the derived class's; while it reads or writes a message never null
    const char* m_session = "";     // the derived class's as well

private:
    void read_first_rate(CStrParser& text);
    void read_rate(CStrParser& text, const char* key);
    void read_range(CStrParser& text);
    void read_standard_rate(CStrParser& text);
    bool read_rate_of(CStrParser& text, const char* key, rate_header_t header);
    void read_standard_range(CStrParser& text);
    void read_clock(CStrParser& text);
    void read_npt(CStrParser& text);
    static double read_npt_time(CStrParser& text);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPPARSER_H
