// The writing half: requests. The order of the headers is fixed: request line, User-Agent, CSeq, Session (once known),
// the application's extra headers, the request's own headers.
#include "Protocol/RtspReqParser.h"

#include <cstring>
#include <new>
#include <string>

#include "Protocol/RtspTables.h"
#include "Protocol/TextWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

// Asks a device for its audio back channel (ONVIF Streaming Specification 5.3.1).
const char BACK_CHANNEL_TAG[] = "Require: www.onvif.org/ver20/backchannel\r\n";
const int NPT_DIGITS = 6;
const int RATE_DIGITS = 3;

// The Transport line; false for a transport that there is not.
bool add_transport(CTextWriter& line, const transport_info& t, const multicast_info* m) {
    const char* word = t.packet_type == PACKET_TYPE_KX ? "KX" : "RTP";
    const unsigned int first = static_cast<unsigned int>(t.rtp_port);
    const unsigned int second = static_cast<unsigned int>(t.rtcp_port);
    line.Add("Transport: ", word);
    if (t.transport == RTP_OVER_RTSP) {
        line.Add("/AVP/TCP;unicast;interleaved=", first, "-", second, "\r\n");
        return true;
    }
    if (!OSTRA_ASSERT(t.transport == RTP_OVER_UDP)) {
        return false;
    }
    // The blank in front of the line's end of both multicast forms has always been sent.
    if (!t.multicast) {
        line.Add("/AVP;unicast;client_port=", first, "-", second, "\r\n");
    } else if (m != nullptr) {
        line.Add("/AVP;multicast;destination=", m->addr, ";port=", first, "-", second, ";ttl=", m->ttl, " \r\n");
    } else {
        line.Add("/AVP;multicast;client_port=", first, "-", second, " \r\n");
    }
    return true;
}

}  // namespace

CRtspReqParser::CRtspReqParser() {
    m_speed = 0.0F;
    hold_texts();
    m_request_url[0] = '\0';
    m_base_url[0] = '\0';
    m_source[0] = '\0';
    m_product = "Rtsp Client/2.0";
}

void CRtspReqParser::set_url(const char* url) {
    // clang-format off
    if (!OSTRA_ASSERT(url!=NULL)) {
        return;
    }
    // clang-format on
    CGuard guard(m_shared_lock);
    CTextWriter(m_request_url, sizeof m_request_url).Add(url);
    CTextWriter(m_base_url, sizeof m_base_url).Add(url);
}

void CRtspReqParser::set_next_cseq(unsigned int n) {
    CGuard guard(m_shared_lock);
    m_cseq = n < 2 ? 0 : static_cast<int>(n - 1);
}

const char* CRtspReqParser::generate_options() {
    return generate_request(RTSP_METHOD_OPTIONS, m_request_url[0] != '\0' ? m_request_url : "*", nullptr, nullptr,
                            nullptr, 0);
}

const char* CRtspReqParser::generate_describe() {
    char headers[128];
    CTextWriter(headers, sizeof headers).Add("Accept: application/sdp\r\n", back_channel_tag());
    return generate_request(RTSP_METHOD_DESCRIBE, m_request_url, headers, nullptr, nullptr, 0);
}

const char* CRtspReqParser::generate_setup(const transport_info* t, const multicast_info* m, bool back_channel) {
    char headers[2048];
    CTextWriter line(headers, sizeof headers);
    if (!OSTRA_ASSERT(t != nullptr) || !add_transport(line, *t, m)) {
        return nullptr;
    }
    line.Add(back_channel ? back_channel_tag() : nullptr);
    char url[1024];
    build_setup_url(t->url, url, sizeof url);
    return generate_request(RTSP_METHOD_SETUP, url, headers, nullptr, nullptr, 0);
}

void CRtspReqParser::build_setup_url(const char* track_url, char* out, unsigned int size) {
    CTextWriter url(out, size);
    if (RtspFindScheme(track_url) == nullptr) {
        CGuard guard(m_shared_lock);
        const size_t length = std::strlen(m_base_url);
        url.Add(m_base_url, length > 0 && m_base_url[length - 1] == '/' ? "" : "/");
    }
    url.Add(track_url);
}

const char* CRtspReqParser::generate_play(float begin, float end, float speed, bool scale) {
    char range[256];
    CTextWriter line(range, sizeof range);
    if (begin >= 0) {
        line.Add("Range: npt=", text_fixed{begin, NPT_DIGITS}, "-");
        if (end > 0) {
            line.Add(text_fixed{end, NPT_DIGITS});
        }
        line.Add("\r\n");
    }
    return generate_play_request(range, speed, scale);
}

const char* CRtspReqParser::generate_play_clock(const UtcTime* begin, const UtcTime* end, float speed, bool scale) {
    char range[256];
    return generate_play_request(format_clock_range(range, sizeof range, begin, end, m_conformance), speed, scale);
}

const char* CRtspReqParser::generate_play_smpte(const SmpteTime* begin, const SmpteTime* end, float speed, bool scale) {
    char range[256];
    return generate_play_request(format_smpte_range(range, sizeof range, begin, end), speed, scale);
}

const char* CRtspReqParser::generate_play_request(const char* range, float speed, bool scale) {
    char headers[512];
    CTextWriter lines(headers, sizeof headers);
    if (speed != 1.0F) {
        lines.Add(scale ? "Scale: " : "Speed: ", text_fixed{speed, RATE_DIGITS}, "\r\n");
    }
    lines.Add(range, back_channel_tag());
    char url[2 * (RTSP_MAX_TEXT + 1) + 1];
    build_play_url(url, sizeof url);
    return generate_request(RTSP_METHOD_PLAY, url, headers, nullptr, nullptr, 0);
}

// The base URL, since a device may answer under another address than it was asked by, and behind its path what the
// asked URL has more, such as a query.
void CRtspReqParser::build_play_url(char* out, unsigned int size) {
    CTextWriter url(out, size);
    CGuard guard(m_shared_lock);
    const size_t length = std::strlen(m_base_url);
    const bool had_slash = length > 0 && m_base_url[length - 1] == '/';
    if (had_slash) {
        m_base_url[length - 1] = '\0';  // for good: later requests see the base without it
    }
    const char* host = std::strstr(m_base_url, "://");
    const char* path = host != nullptr ? std::strchr(host + 3, '/') : nullptr;
    if (path == nullptr) {
        url.Add(m_request_url);
        return;
    }
    const char* found =
        std::strlen(m_request_url) >= RTSP_SCHEME_SIZE ? std::strstr(m_request_url + RTSP_SCHEME_SIZE, path) : nullptr;
    url.Add(m_base_url);
    if (found == nullptr) {
        return;
    }
    const char* rest = found + std::strlen(path);
    if (*rest == '\0') {
        url.Add(had_slash ? "/" : "");
    } else {
        url.Add(*rest == '/' ? "" : "/", rest);
    }
}

const char* CRtspReqParser::generate_pause() {
    return generate_request(RTSP_METHOD_PAUSE, m_request_url, nullptr, nullptr, nullptr, 0);
}

const char* CRtspReqParser::generate_teardown(char* buffer, int size) {
    return generate_request(RTSP_METHOD_TEARDOWN, m_request_url, back_channel_tag(), nullptr, buffer, size);
}

const char* CRtspReqParser::generate_parameter(int method, const char* body, const char* content_type) {
    char headers[RTSP_MAX_MESSAGE];
    CTextWriter lines(headers, sizeof headers);
    if (body != nullptr) {
        lines.Add("Content-Length: ", static_cast<int>(std::strlen(body)),
                  "\r\nContent-Type: ", content_type != nullptr ? content_type : "text/parameters", "\r\n");
    }
    return generate_request(method, m_request_url, headers, body, nullptr, 0);
}

const char* CRtspReqParser::back_channel_tag() const {
    return m_back_channel ? BACK_CHANNEL_TAG : nullptr;
}

const char* CRtspReqParser::generate_request(int method, const char* url, const char* headers, const char* body,
                                             char* buffer, int size) {
    const char* name = RtspMethodName(method);
    std::string extra;
    const bool given = buffer != nullptr && size > 0;
    if (name == nullptr || build_ext_headers(method, extra) < 0 || !(given || hold_texts())) {
        return nullptr;
    }
    char* message = given ? buffer : m_texts->written;
    unsigned int cseq = 0;
    {
        CGuard guard(m_shared_lock);
        cseq = static_cast<unsigned int>(m_cseq) + 1;
        m_cseq = static_cast<int>(cseq);
        CTextWriter(message, given ? static_cast<size_t>(size) : sizeof m_texts->written)
            .Add(name, " ", url, " RTSP/", text_fixed{m_version, 1}, "\r\nUser-Agent: ", m_product)
            .Add("\r\nCSeq: ", cseq, "\r\n", m_session, std::string_view(extra), headers, "\r\n", body);
    }
    return remember_request(static_cast<int>(cseq), method) ? message : nullptr;
}

void CRtspReqParser::forget_reply() {
    m_body_length = 0;
    m_texts = nullptr;
    m_own_texts.reset();
}

// False if memory is short.
bool CRtspReqParser::hold_texts() {
    if (m_own_texts == nullptr) {
        m_own_texts.reset(new (std::nothrow) rtsp_texts);
        m_texts = m_own_texts.get();
    }
    return m_texts != nullptr;
}

void CRtspReqParser::forget_request(int cseq) {
    CGuard guard(m_pending_lock);
    m_pending.erase(cseq);
}

bool CRtspReqParser::remember_request(int cseq, int method) {
    CGuard guard(m_pending_lock);
    const pending_t::iterator found = m_pending.find(cseq);
    if (found != m_pending.end()) {
        found->second = method;  // the counter was set back: the newer request counts
        return true;
    }
    if (!m_spare_node.empty()) {
        m_spare_node.key() = cseq;
        m_spare_node.mapped() = method;
        m_pending.insert(std::move(m_spare_node));
        return true;
    }
    try {
        m_pending.emplace(cseq, method);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
