#ifndef VIDORA_PROTOCOL_RTSPREQPARSER_H
#define VIDORA_PROTOCOL_RTSPREQPARSER_H

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>

#include "Protocol/RtspParser.h"

namespace Kavio {
namespace Vidora {

// CRtspReqParser: the client's RTSP codec. It writes requests and reads replies; one object in each client engine. A
// reply carries no method: it is matched to its request by CSeq (RFC 2326 12.17), for which the codec remembers the
// method of each request that it wrote. A request that is never answered is remembered until the object ends.
//
// A generator returns the whole message in the object's own buffer, valid until the next generator runs; it is cut at
// 4096 bytes. It returns null for a method outside 0 to 7 or if memory is short.
//
// THREADING  One generator at a time, and one reader (check_message, parse_message) at a time, but a generator may run
//            while a reader does: the requests in flight are under m_pending_lock, and the CSeq counter, the session
//            line and the base URL, which replies set and requests use, under m_shared_lock. The two are never held
//            together. generate_teardown with a buffer of its own may run beside another generator. Extra headers are
//            changed by the thread that generates. The get_ operations belong to the reader's thread.
class CRtspReqParser : public CRtspParser {
public:
    enum limit_t { MAX_RTP_INFO = 32 };

    CRtspReqParser();

    // The URL of the following requests, at most 1024 characters; also the base of track URLs until a reply names one.
    void set_url(const char* url);
    // The next request carries CSeq `n`; 0 and 1 start over at 1.
    void set_next_cseq(unsigned int n);

    const char* generate_options();
    const char* generate_describe();
    // `t->url` is a whole URL, or relative to the base. `m` may be null. `back_channel`: the track is the device's
    // audio back channel.
    const char* generate_setup(const transport_info* t, const multicast_info* m, bool back_channel);
    // Seconds; a `begin` below 0 leaves the Range out, an `end` of 0 or less leaves it open. `speed` goes into Scale
    // or Speed, unless it is 1.0.
    const char* generate_play(float begin, float end, float speed, bool scale);
    const char* generate_play_clock(const UtcTime* begin, const UtcTime* end, float speed, bool scale);
    const char* generate_play_smpte(const SmpteTime* begin, const SmpteTime* end, float speed, bool scale);
    const char* generate_pause();
    // With a `buffer` of `size` bytes the message goes there, and the result is `buffer`.
    const char* generate_teardown(char* buffer, int size);
    // SET_PARAMETER or GET_PARAMETER; `body` and `content_type` (then text/parameters) may be null.
    const char* generate_parameter(int method, const char* body, const char* content_type);

    // Reads one reply. `info` is what check_message found, or null to have it judged here; what precedes "RTSP/"
    // is skipped. 0 for a reply to use, RTSP_BAD_MESSAGE, RTSP_NO_HEADER, or RTSP_CHALLENGE.
    int parse_message(const char* buffer, unsigned int length, rtsp_msg_info* info) override;
    // Looks the method up by CSeq, and forgets the request.
    std::pair<int, int> parse_start_line(CStrParser& text) override;
    int parse_status_code(CStrParser& text) override;

    // A server may send requests of its own (RFC 2326 10). If one is at the start of `length` bytes: the number of
    // bytes that it takes, or RTSP_INCOMPLETE; 0 for anything else.
    static int request_size(const char* buffer, unsigned int length);
    // The reply with this CSeq was a provisional one: the request goes on waiting.
    void expect_reply(int cseq, int method) { remember_request(cseq, method); }
    // Releases the texts of the last reply and of the last request, for a connection that will be quiet for seconds:
    // what the get_ operations give of them is empty, and get_transport not to be called, until the next reply. For an
    // object that one thread uses: the next reader or generator makes the memory anew.
    void forget_reply();
    // No reply to the request is waited for any more.
    void forget_request(int cseq);

    // Whether the last SETUP reply had a Transport header; get_transport and get_source report it. The time-out of
    // get_transport is that of its Session header, 0 if it names none.
    bool has_transport() const { return m_has_transport; }
    // Where the media come from, by that header; empty if it doesn't say.
    const char* get_source() const { return m_source; }

    // The methods that the server offered.
    const char* get_public() const { return m_own_texts != nullptr ? m_own_texts->methods : ""; }
    const char* get_base_url() const { return m_base_url; }
    // Target of a 301 or 302.
    const char* get_redirect_url() const { return m_redirect_url != nullptr ? m_redirect_url.get() : ""; }
    // The tracks of the last RTP-Info header; null before the first one. `count` may be null.
    const rtp_info_entry* get_rtp_info(int* count) const;

private:
    struct CFree {
        void operator()(void* memory) const { std::free(memory); }
    };
    typedef std::map<int, int> pending_t;  // CSeq to method

    const char* generate_request(int method, const char* url, const char* headers, const char* body, char* buffer,
                                 int size);
    bool remember_request(int cseq, int method);
    const char* generate_play_request(const char* range, float speed, bool scale);
    const char* back_channel_tag() const;
    void build_setup_url(const char* track_url, char* out, unsigned int size);
    void build_play_url(char* out, unsigned int size);

    bool hold_texts();
    int take_info(const char* message, unsigned int length, rtsp_msg_info* info);
    int read_challenge(CStrParser& text);
    void join_challenges(std::string_view message);
    int read_redirect(CStrParser& text);
    int read_by_method(CStrParser& text);
    int read_describe(CStrParser& text);
    void read_public(CStrParser& text);
    bool find_content_base(CStrParser& text, char* value, unsigned int size) const;
    void read_content_base(CStrParser& text);
    int read_transport(CStrParser& text);
    int read_standard_transport(CStrParser& text);
    int read_usual_transport(CStrParser& text);
    void read_ports(CStrParser& text);
    void read_destination(CStrParser& text);
    void read_source(CStrParser& text);
    void read_session(CStrParser& text);
    int read_rtp_info(CStrParser& text);
    static void read_rtp_info_entry(CStrParser& text, rtp_info_entry* entry);

    CMutex m_pending_lock;
    pending_t m_pending VIDORA_GUARDED_BY(m_pending_lock);
    // The node of the last request answered, used again by the next one: no allocation per request.
    pending_t::node_type m_spare_node VIDORA_GUARDED_BY(m_pending_lock);

    CMutex m_shared_lock;  // m_cseq, m_session, m_base_url

    // From calloc, so that entries which no reply fills stay untouched pages.
    std::unique_ptr<rtp_info_entry[], CFree> m_rtp_info;
    int m_rtp_info_count = 0;
    bool m_has_transport = false;
    std::unique_ptr<rtsp_texts> m_own_texts;  // m_texts; none after forget_reply
    char m_request_url[RTSP_MAX_TEXT + 1];
    char m_session_line[RTSP_MAX_TEXT + 1];
    char m_source[128];
    char m_base_url[RTSP_MAX_TEXT + 1];
    std::unique_ptr<char[]> m_redirect_url;  // RTSP_MAX_TEXT bytes, made for the first redirect
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPREQPARSER_H
