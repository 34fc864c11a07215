// The writing half: replies. The order of the headers is fixed: status line, Server, CSeq, Session, the application's
// extra headers, the reply's own headers.
#include <string>

#include "Protocol/RtspRspParser.h"
#include "Protocol/RtspTables.h"
#include "Protocol/TextWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const int DEFAULT_TIMEOUT_S = 60;  // RFC 2326 12.37
const int FRACTION_DIGITS = 6;
const char LINE_END[] = "\r\n";
const size_t LINE_END_SIZE = sizeof LINE_END - 1;
const size_t MAX_RTP_INFO_LINE = 1023;
const size_t MAX_RANGE_LINE = 1023;
const size_t MAX_RATE_LINE = 63;
const int RATE_DIGITS = 3;

bool add_unicast(CTextWriter& line, const char* word, const transport_info& t) {
    if (t.transport == RTP_OVER_RTSP) {
        // The channels that the session granted are stored in the server's ports.
        line.Add("Transport: ", word, "/AVP/TCP;unicast;interleaved=", t.server_rtp_port, "-", t.server_rtcp_port);
        return true;
    }
    if (t.transport == RTP_OVER_UDP) {
        line.Add("Transport: ", word, "/AVP;unicast;client_port=", t.rtp_port, "-", t.rtcp_port,
                 ";server_port=", t.server_rtp_port, "-", t.server_rtcp_port);
        return true;
    }
    return false;
}

void add_multicast(CTextWriter& line, const char* word, const transport_info& t, const multicast_info& m) {
    line.Add("Transport: ", word, "/AVP;multicast;destination=", m.addr, ";port=", t.rtp_port);
    if (t.rtcp_port > 0) {
        line.Add("-", t.rtcp_port);
    }
    line.Add(";ttl=", m.ttl);
}

}  // namespace

const char* CRtspRspParser::generate_options_reply() {
    if (open_memory() == nullptr) {
        return nullptr;
    }
    if (m_texts->methods[0] == '\0') {
        CTextWriter list(m_texts->methods, sizeof m_texts->methods);
        for (const rtsp_method_row* row = RTSP_METHODS; row->name != nullptr; ++row) {
            if (row->enabled) {
                list.Add(list.Length() > 0 ? "," : "", row->name);
            }
        }
    }
    char headers[RTSP_MAX_TEXT + 64];
    CTextWriter(headers, sizeof headers).Add("Public: ", m_texts->methods, "\r\n");
    return generate_reply(headers, RTSP_STATUS_OK, nullptr);
}

const char* CRtspRspParser::generate_describe_reply(int content_length) {
    char headers[RTSP_MAX_TEXT + 256];
    CTextWriter(headers, sizeof headers)
        .Add("Content-Base: ", get_url(), "\r\n")  // as it came: no slash is added
        .Add("Content-Type: ", "application/sdp", "\r\n")
        .Add("Content-Length: ", content_length, "\r\n")
        .Add("Cache-Control: must-revalidate\r\n")
        .Add("x-Accept-Dynamic-Rate: 1\r\n");
    return generate_reply(headers, RTSP_STATUS_OK, nullptr);
}

// Not through the common frame: no extra headers, and the version does not follow m_version.
const char* CRtspRspParser::generate_setup_reply(const transport_info* transport, const multicast_info* multicast) {
    if (!OSTRA_ASSERT(transport != nullptr) || open_memory() == nullptr) {
        return nullptr;
    }
    char line[RTSP_MAX_TEXT + 1];
    CTextWriter writer(line, sizeof line);
    const char* word = transport->packet_type == PACKET_TYPE_KX ? "KX" : "RTP";
    if (transport->transport == RTP_OVER_UDP && transport->multicast) {
        if (multicast == nullptr) {
            return nullptr;
        }
        add_multicast(writer, word, *transport, *multicast);
    } else if (!add_unicast(writer, word, *transport)) {
        logWarn("%s:%d Unsupported transport \n", __FILE__, __LINE__);
        return generate_error_reply(RTSP_STATUS_UNSUPPORTED_TRANSPORT);
    }
    if (transport->ssrc != 0) {
        writer.Add(";ssrc=", text_hex8{transport->ssrc});
    }

    const int timeout = transport->timeout < 1 ? DEFAULT_TIMEOUT_S : transport->timeout;
    CTextWriter(m_texts->written, sizeof m_texts->written)
        .Add("RTSP/1.0 200 OK\r\nServer: ", m_product, "\r\nCSeq: ", m_cseq, "\r\n")
        .Add("Session: ", m_session_id, ";timeout=", timeout, "\r\n")
        .Add(line, "\r\n")
        .Add("x-dynamic-rate: 1\r\n\r\n");
    return m_texts->written;
}

const char* CRtspRspParser::generate_play_reply(const rtp_info_entry* entries, int count, double begin, double end) {
    char range[MAX_RANGE_LINE + 1];
    CTextWriter line(range, sizeof range);
    if (begin != NPT_NOT_GIVEN) {
        line.Add("Range: npt=", text_fixed{begin, FRACTION_DIGITS}, "-");
        if (end != NPT_NOT_GIVEN) {
            line.Add(text_fixed{end, FRACTION_DIGITS});
        }
        line.Add("\r\n");
    }
    return generate_play_tail(entries, count, range);
}

const char* CRtspRspParser::generate_play_reply_clock(const rtp_info_entry* entries, int count, const UtcTime* begin,
                                                      const UtcTime* end) {
    char range[MAX_RANGE_LINE + 1];
    range[0] = '\0';
    if (begin != nullptr && begin->year != 0) {
        format_clock_range(range, sizeof range, begin, end != nullptr && end->year != 0 ? end : nullptr, m_conformance);
    }
    return generate_play_tail(entries, count, range);
}

const char* CRtspRspParser::generate_play_tail(const rtp_info_entry* entries, int count, const char* range) {
    if (entries == nullptr || count < 1) {
        return nullptr;
    }
    char headers[MAX_RTP_INFO_LINE + MAX_RANGE_LINE + MAX_RATE_LINE + 1];
    CTextWriter lines(headers, sizeof headers);
    lines.Add("RTP-Info: ");
    const char* separator = "";
    for (int i = 0; i < count; ++i) {
        const rtp_info_entry& entry = entries[i];
        char part[sizeof entry.url + 64];
        CTextWriter text(part, sizeof part);
        text.Add(separator, "url=", std::string_view(entry.url, strnlen(entry.url, sizeof entry.url)),
                 ";seq=", entry.seq, ";rtptime=", entry.rtptime);
        if (lines.Length() + text.Length() + LINE_END_SIZE > MAX_RTP_INFO_LINE) {
            break;  // a track more than fits is left out, and so are those behind it
        }
        lines.Add(part);
        separator = ",";
    }
    if (separator[0] == '\0') {
        lines.CutBack(0);
    } else {
        lines.Add(LINE_END);
    }
    lines.Add(range);
    if (m_rate_header != RATE_HEADER_NONE) {
        lines.Add(m_rate_header == RATE_HEADER_SCALE ? "Scale: " : "Speed: ", text_fixed{m_speed, RATE_DIGITS},
                  LINE_END);
    }
    return generate_reply(headers, RTSP_STATUS_OK, nullptr);
}

const char* CRtspRspParser::generate_auth_reply(const char* challenge) {
    char headers[RTSP_MAX_MESSAGE];
    CTextWriter(headers, sizeof headers).Add("WWW-Authenticate: ", challenge, "\r\n");
    return generate_reply(headers, RTSP_STATUS_UNAUTHORIZED, nullptr);
}

const char* CRtspRspParser::generate_error_reply(int status) {
    return generate_reply(nullptr, status, nullptr);
}

const char* CRtspRspParser::generate_reply(const char* headers, int status, const char* body) {
    if (open_memory() == nullptr) {
        return nullptr;
    }
    const char* reason = RtspReason(status);
    if (reason == nullptr) {
        logWarn("%s:%d Bad Request !\n", __FILE__, __LINE__);
        return generate_reply(nullptr, RTSP_STATUS_BAD_REQUEST, nullptr);
    }
    std::string extra;
    if (status == RTSP_STATUS_OK) {
        build_ext_headers(m_method, extra);
    }
    CTextWriter head(m_texts->written, sizeof m_texts->written - LINE_END_SIZE);
    head.Add("RTSP/", text_fixed{m_version, 1}, " ", status, " ", reason, "\r\nServer: ", m_product);
    head.Add("\r\nCSeq: ", m_cseq, LINE_END, m_session, std::string_view(extra), headers);
    if (head.Needed() > head.Length()) {
        // A header that doesn't fit is left out, and so are those behind it: the headers always end.
        head.CutBack(std::string_view(m_texts->written, head.Length()).rfind(LINE_END) + LINE_END_SIZE);
    }
    CTextWriter(m_texts->written + head.Length(), sizeof m_texts->written - head.Length()).Add(LINE_END, body);
    return m_texts->written;
}

}  // namespace Vidora
}  // namespace Kavio
