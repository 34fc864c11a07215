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
const double NPT_NOT_GIVEN = -1.0;
const int FRACTION_DIGITS = 6;

bool add_unicast(CTextWriter& line, const char* word, const transport_info& t) {
    if (t.transport == RTP_OVER_RTSP) {
        // The channels that the session granted stand in the server's ports.
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
    if (m_public[0] == '\0') {
        CTextWriter list(m_public, sizeof m_public);
        for (const rtsp_method_row* row = RTSP_METHODS; row->name != nullptr; ++row) {
            if (row->enabled) {
                list.Add(list.Length() > 0 ? "," : "", row->name);
            }
        }
    }
    char headers[RTSP_MAX_TEXT + 64];
    CTextWriter(headers, sizeof headers).Add("Public: ", m_public, "\r\n");
    return generate_reply(headers, 200, nullptr);
}

const char* CRtspRspParser::generate_describe_reply(int content_length) {
    char headers[RTSP_MAX_TEXT + 256];
    CTextWriter(headers, sizeof headers)
        .Add("Content-Base: ", m_url, "\r\n")  // as it came: no slash is added
        .Add("Content-Type: ", "application/sdp", "\r\n")
        .Add("Content-Length: ", content_length, "\r\n")
        .Add("Cache-Control: must-revalidate\r\n")
        .Add("x-Accept-Dynamic-Rate: 1\r\n");
    return generate_reply(headers, 200, nullptr);
}

// Not through the common frame: no extra headers, and the version does not follow m_version.
const char* CRtspRspParser::generate_setup_reply(const transport_info* transport, const multicast_info* multicast) {
    if (!OSTRA_ASSERT(transport != nullptr)) {
        return nullptr;
    }
    char line[RTSP_MAX_TEXT + 1];
    CTextWriter writer(line, sizeof line);
    const char* word = transport->packet_kx == 1 ? "KX" : "RTP";
    if (transport->transport == RTP_OVER_UDP && transport->multicast != 0) {
        if (multicast == nullptr) {
            return nullptr;
        }
        add_multicast(writer, word, *transport, *multicast);
    } else if (!add_unicast(writer, word, *transport)) {
        logWarn("%s:%d Unsupported transport \n", __FILE__, __LINE__);
        return generate_error_reply(461);
    }
    if (transport->ssrc != 0) {
        writer.Add(";ssrc=", text_hex8{transport->ssrc});
    }

    const int timeout = transport->timeout < 1 ? DEFAULT_TIMEOUT_S : transport->timeout;
    CTextWriter(m_out_msg, sizeof m_out_msg)
        .Add("RTSP/1.0 200 OK\r\nServer: ", m_product, "\r\nCSeq: ", m_cseq, "\r\n")
        .Add("Session: ", m_session_id, ";timeout=", timeout, "\r\n")
        .Add(line, "\r\n")
        .Add("x-dynamic-rate: 1\r\n\r\n");
    return m_out_msg;
}

const char* CRtspRspParser::generate_play_reply(const rtp_info_entry* entries, int count, double begin, double end) {
    char range[1024];
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
    char range[1024];
    range[0] = '\0';
    if (begin != nullptr && begin->year != 0) {
        format_clock_range(range, sizeof range, begin, end != nullptr && end->year != 0 ? end : nullptr);
    }
    return generate_play_tail(entries, count, range);
}

const char* CRtspRspParser::generate_play_tail(const rtp_info_entry* entries, int count, const char* range) {
    if (entries == nullptr || count < 1) {
        return nullptr;
    }
    char headers[1024];
    CTextWriter line(headers, sizeof headers);
    line.Add("RTP-Info: ");
    for (int i = 0; i < count; ++i) {
        const rtp_info_entry& entry = entries[i];
        char part[sizeof entry.url + 64];
        CTextWriter text(part, sizeof part);
        text.Add("url=", std::string_view(entry.url, strnlen(entry.url, sizeof entry.url)), ";seq=", entry.seq,
                 ";rtptime=", entry.rtptime, i + 1 < count ? "," : "\r\n");
        if (text.Length() > line.Room()) {
            // What doesn't fit is left out, and with the last entry goes the line's end: the Range then follows the
            // comma. Peers with so many tracks have always got it so.
            break;
        }
        line.Add(part);
    }
    line.Add(range);
    return generate_reply(headers, 200, nullptr);
}

const char* CRtspRspParser::generate_auth_reply(const char* challenge) {
    char headers[RTSP_MAX_MESSAGE];
    CTextWriter(headers, sizeof headers).Add("WWW-Authenticate: ", challenge, "\r\n");
    return generate_reply(headers, 401, nullptr);
}

const char* CRtspRspParser::generate_error_reply(int status) {
    return generate_reply(nullptr, status, nullptr);
}

const char* CRtspRspParser::generate_reply(const char* headers, int status, const char* body) {
    std::string extra;
    if (status == 200) {
        build_ext_headers(m_method, extra);
    }
    CTextWriter out(m_out_msg, sizeof m_out_msg);
    out.Add("RTSP/", text_fixed{m_version, 1}, " ");
    const char* reason = RtspReason(status);
    if (reason == nullptr) {
        logWarn("%s:%d Bad Request !\n", __FILE__, __LINE__);
        out.Add("400 Bad Request\r\nServer: ", m_product, "\r\nCSeq: ", m_cseq, "\r\n", m_session, "\r\n");
        return m_out_msg;
    }
    out.Add(status, " ", reason, "\r\nServer: ", m_product, "\r\nCSeq: ", m_cseq, "\r\n", m_session,
            std::string_view(extra), headers, "\r\n", body);
    return m_out_msg;
}

}  // namespace Vidora
}  // namespace Kavio
