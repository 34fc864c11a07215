// The reading half: replies.
#include <cstring>
#include <new>

#include "Protocol/HeaderText.h"
#include "Protocol/LogQuote.h"
#include "Protocol/RtspReqParser.h"
#include "Protocol/RtspTables.h"
#include "Protocol/TextWriter.h"
#include "Protocol/TransportHeader.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

// First octets of IPv4 multicast addresses (RFC 5771).
bool is_multicast_octet(int octet) {
    return octet >= 224 && octet <= 239;
}

}  // namespace

int CRtspReqParser::parse_message(const char* buffer, unsigned int length, rtsp_msg_info* info) {
    if (buffer == nullptr || length == 0) {
        return RTSP_BAD_MESSAGE;
    }
    CStrParser text(buffer, length);
    if (text.LocateStringCase("RTSP/") < 0) {
        logDebug("%s:%d without RTSP header, invalid rtsp message!\n", __FILE__, __LINE__);
        return RTSP_NO_HEADER;
    }
    const char* message = text.GetString();
    const unsigned int message_length = static_cast<unsigned int>(text.GetStringLen());
    if (!hold_texts() || take_info(message, message_length, info) < 0) {
        return RTSP_BAD_MESSAGE;
    }

    text.Attach(message, message_length);
    if (m_status == RTSP_STATUS_UNAUTHORIZED) {
        return read_challenge(text);
    }
    if (m_status == RTSP_STATUS_MOVED_PERMANENTLY || m_status == RTSP_STATUS_MOVED_TEMPORARILY) {
        return read_redirect(text);
    }
    return read_by_method(text) < 0 ? RTSP_BAD_MESSAGE : RTSP_OK;
}

int CRtspReqParser::take_info(const char* message, unsigned int length, rtsp_msg_info* info) {
    rtsp_msg_info own;
    if (info == nullptr) {
        if (check_message(message, length, &own) < 0) {
            return RTSP_BAD_MESSAGE;
        }
        info = &own;
    }
    CGuard guard(m_shared_lock);
    const int sent = m_cseq;
    const int result = CRtspParser::parse_message(message, length, info);
    // The counter of requests and the CSeq of the reply are one field. No reply moves the counter: an older one would
    // turn it back to a CSeq that is still in flight, a stranger's could drive it anywhere.
    m_cseq = sent;
    return result;
}

std::pair<int, int> CRtspReqParser::parse_start_line(CStrParser& text) {
    const int cseq = parse_cseq(text);
    if (cseq < 0) {
        return {cseq, RTSP_METHOD_UNKNOWN};
    }
    CGuard guard(m_pending_lock);
    const pending_t::iterator found = m_pending.find(cseq);
    if (found == m_pending.end()) {
        return {cseq, RTSP_METHOD_UNKNOWN};
    }
    const int method = found->second;
    m_spare_node = m_pending.extract(found);
    return {cseq, method};
}

// "METHOD url RTSP/1.0": a first line that ends with what a reply's begins with.
int CRtspReqParser::request_size(const char* buffer, unsigned int length) {
    static const std::string_view VERSION = "RTSP/";
    std::string_view text(buffer, length);
    text.remove_prefix(std::min(text.find_first_not_of("\r\n "), text.size()));
    const std::string_view line = text.substr(0, text.find("\r\n"));
    const size_t word = line.rfind(' ');
    if (line.size() == text.size() || word == std::string_view::npos || line.substr(0, VERSION.size()) == VERSION ||
        line.substr(word + 1, VERSION.size()) != VERSION) {
        return 0;
    }
    message_place place;
    return measure(buffer, length, place) ? static_cast<int>(place.skipped + place.size)
                                          : static_cast<int>(RTSP_INCOMPLETE);
}

int CRtspReqParser::parse_status_code(CStrParser& text) {
    text.ResetAll();
    text.ConsumeUntil(' ');
    text.ConsumeWhitespace();
    text.ConsumeUntilDigit();
    return text.ConsumeInt16();
}

int CRtspReqParser::read_challenge(CStrParser& text) {
    text.ResetAll();
    if (m_conformance) {
        join_challenges(message_of(text));
    } else if (text.LocateStringCase("WWW-Authenticate:") >= 0) {
        read_value(text, "WWW-Authenticate:", m_texts->auth, sizeof m_texts->auth);
    }
    return RTSP_CHALLENGE;
}

// RFC 2616 4.2: the values of headers of one name are a list, as if they stood in one.
void CRtspReqParser::join_challenges(std::string_view message) {
    std::string_view value;
    unsigned int length = 0;
    m_texts->auth[0] = '\0';
    while (NextHeaderValue(message, "WWW-Authenticate", value)) {
        length = AppendUnfolded(length > 0 ? ", " : "", m_texts->auth, length, sizeof m_texts->auth);
        length = AppendUnfolded(value, m_texts->auth, length, sizeof m_texts->auth);
    }
}

int CRtspReqParser::read_redirect(CStrParser& text) {
    text.ResetAll();
    if (m_redirect_url == nullptr) {
        m_redirect_url.reset(new (std::nothrow) char[RTSP_MAX_TEXT]());
    }
    if (m_conformance) {
        text.LocateStringCase("\nLocation:");  // another header may name a URL as well
    }
    if (m_redirect_url == nullptr || text.LocateStringCase(RTSP_SCHEME) < 0) {
        m_status = RTSP_STATUS_BAD_REQUEST;
        return RTSP_BAD_MESSAGE;
    }
    text.ConsumeSentence("\r\n", m_redirect_url.get(), RTSP_MAX_TEXT);
    return RTSP_OK;
}

int CRtspReqParser::read_by_method(CStrParser& text) {
    switch (m_method) {
        case RTSP_METHOD_OPTIONS:
            read_public(text);
            return RTSP_OK;
        case RTSP_METHOD_DESCRIBE:
            return read_describe(text);
        case RTSP_METHOD_SETUP:
            return read_transport(text);
        case RTSP_METHOD_PLAY:
            return parse_range_speed(text) == RTSP_OK ? read_rtp_info(text) : RTSP_BAD_MESSAGE;
        case RTSP_METHOD_PAUSE:
        case RTSP_METHOD_TEARDOWN:
            return RTSP_OK;
        case RTSP_METHOD_SET_PARAMETER:
        case RTSP_METHOD_GET_PARAMETER:
            return m_status == RTSP_STATUS_OK ? parse_body(text) : RTSP_OK;
        default: {
            text.ResetAll();
            const CLogQuote quote(Ostra::LOG_LEVEL_WARN, text.GetString(), static_cast<size_t>(text.GetStringLen()));
            logWarn("%s:%d unknow method!\nrecv:%s\n", __FILE__, __LINE__, quote.Text());
            return RTSP_OK;
        }
    }
}

// The list is behind the first blank, wherever that is.
void CRtspReqParser::read_public(CStrParser& text) {
    if (m_conformance) {
        read_unfolded(text, "Public", m_texts->methods, sizeof m_texts->methods);
        return;
    }
    if (!find_header(text, "Public:")) {
        return;
    }
    text.ConsumeUntil(' ');
    text.ConsumeWhitespace();
    text.ConsumeSentence("\r\n", m_texts->methods, sizeof m_texts->methods);
}

int CRtspReqParser::read_describe(CStrParser& text) {
    if (m_status == RTSP_STATUS_USE_PROXY) {
        m_status = RTSP_STATUS_BAD_REQUEST;  // no proxy is used
        return RTSP_OK;
    }
    if (m_status != RTSP_STATUS_OK) {
        return RTSP_OK;
    }
    read_content_base(text);
    return parse_body(text);
}

bool CRtspReqParser::find_content_base(CStrParser& text, char* value, unsigned int size) const {
    static const char KEY[] = "Content-Base: ";
    if (m_conformance) {
        return read_unfolded(text, "Content-Base", value, size);
    }
    if (!find_header(text, KEY)) {
        return false;
    }
    text.ConsumeLength(sizeof KEY - 1, nullptr, 0);
    return text.ConsumeSentence("\r\n", value, size) > 0;
}

void CRtspReqParser::read_content_base(CStrParser& text) {
    char value[1024];
    if (!find_content_base(text, value, sizeof value)) {
        return;
    }
    char base[sizeof m_base_url];
    CTextWriter url(base, sizeof base);
    if (RtspFindScheme(value) != nullptr) {
        url.Add(value);
    } else {
        const char* start = RtspFindScheme(m_request_url);
        const char* path = start != nullptr ? std::strchr(start + RTSP_SCHEME_SIZE, '/') : nullptr;
        if (path == nullptr) {
            return;
        }
        url.Add(std::string_view(start, static_cast<size_t>(path - start)), value[0] == '/' ? "" : "/", value);
    }
    CGuard guard(m_shared_lock);
    CTextWriter(m_base_url, sizeof m_base_url).Add(base);
}

int CRtspReqParser::read_transport(CStrParser& text) {
    m_texts->transport.reset();
    m_multicast = multicast_info();  // another track's group is none of this one's
    text.ResetAll();
    m_has_transport = text.LocateStringCase("Transport:") >= 0;
    m_source[0] = '\0';
    read_session(text);
    return m_conformance ? read_standard_transport(text) : read_usual_transport(text);
}

// What stands anywhere behind the header's name counts, as older servers write it.
int CRtspReqParser::read_usual_transport(CStrParser& text) {
    if (!m_has_transport) {
        return RTSP_OK;
    }
    if (!read_transport_kind(text)) {
        return RTSP_BAD_MESSAGE;
    }
    read_ports(text);
    read_destination(text);

    text.ResetAll();
    if (text.LocateStringCase("ssrc") >= 0) {
        text.ConsumeLength(sizeof "ssrc" - 1, nullptr, 0);
        text.ConsumeUntilHexDigit();
        m_texts->transport.ssrc = text.ConsumeHexUint32();
    }
    read_source(text);
    return RTSP_OK;
}

// RFC 2326 12.39. The server gives one transport, the one that it has chosen.
int CRtspReqParser::read_standard_transport(CStrParser& text) {
    std::string_view value = HeaderValue(message_of(text), "Transport");
    m_has_transport = !value.empty();
    transport_offer offer;
    if (!m_has_transport) {
        return RTSP_OK;
    }
    if (!NextTransport(value, offer)) {
        return RTSP_BAD_MESSAGE;
    }
    transport_info& transport = m_texts->transport;
    transport.packet_type = offer.packet_type;
    transport.transport = offer.transport;
    transport.ssrc = offer.ssrc;
    transport.multicast = ReadGroup(offer.destination, m_multicast) || offer.multicast;
    m_multicast.ttl = offer.ttl;
    const transport_pair& udp = transport.multicast ? offer.port : offer.server_port;
    const transport_pair& server = offer.transport == RTP_OVER_RTSP ? offer.interleaved : udp;
    transport.server_rtp_port = server.first;
    transport.server_rtcp_port = server.second;
    transport.rtp_port = offer.client_port.first;
    transport.rtcp_port = offer.client_port.second;
    CTextWriter(m_source, sizeof m_source).Add(offer.source);
    return RTSP_OK;
}

void CRtspReqParser::read_ports(CStrParser& text) {
    text.ResetAll();
    if (m_texts->transport.transport == RTP_OVER_RTSP) {
        if (text.LocateStringCase("interleaved") >= 0) {
            read_number_pair(text, &m_texts->transport.server_rtp_port, &m_texts->transport.server_rtcp_port);
        }
        return;
    }
    if (text.LocateStringCase("server_port") >= 0) {
        read_number_pair(text, &m_texts->transport.server_rtp_port, &m_texts->transport.server_rtcp_port);
    }
    text.ResetAll();
    if (text.LocateStringCase("client_port") >= 0) {
        read_number_pair(text, &m_texts->transport.rtp_port, &m_texts->transport.rtcp_port);
    }
}

// A reply is multicast by its word, or by the first octet of its destination.
void CRtspReqParser::read_destination(CStrParser& text) {
    text.ResetAll();
    m_texts->transport.multicast = text.LocateStringCase("multicast") >= 0;
    if (find_header(text, "destination=")) {
        text.ConsumeUntilDigit();
        if (is_multicast_octet(text.ConsumeInt16())) {
            m_texts->transport.multicast = true;
        }
    }
    if (!m_texts->transport.multicast || !read_multicast_addr(text)) {
        return;
    }
    if (text.LocateStringCase("port=") >= 0) {
        read_number_pair(text, &m_texts->transport.server_rtp_port, &m_texts->transport.server_rtcp_port);
    }
    read_multicast_ttl(text);
}

void CRtspReqParser::read_source(CStrParser& text) {
    static const char KEY[] = "source=";
    if (find_header(text, KEY)) {
        text.ConsumeLength(sizeof KEY - 1, nullptr, 0);
        text.ConsumeSentence("\";,\r\n", m_source, sizeof m_source);
    }
}

// Keeps the first Session line, without parameters such as "timeout", as it is repeated in later requests.
void CRtspReqParser::read_session(CStrParser& text) {
    if (!find_header(text, "Session:")) {
        return;
    }
    char parameters[256];
    CStrParser rest(text.GetString(), static_cast<unsigned int>(text.GetStringLen()));
    rest.ConsumeSentence("\r\n", parameters, sizeof parameters);
    CStrParser timeout(parameters);
    if (timeout.LocateStringCase("timeout=") >= 0) {
        timeout.ConsumeUntilDigit();
        m_texts->transport.timeout = timeout.ConsumeUint16();
    }
    if (m_session[0] != '\0') {
        return;
    }
    char line[sizeof m_session_line - 2];  // room for the line's end
    text.ConsumeSentence(";\r\n", line, sizeof line);
    CGuard guard(m_shared_lock);
    CTextWriter(m_session_line, sizeof m_session_line).Add(line, "\r\n");
    m_session = m_session_line;
}

int CRtspReqParser::read_rtp_info(CStrParser& text) {
    text.ResetAll();
    if (text.LocateStringCase("RTP-Info") < 0) {
        return RTSP_OK;
    }
    if (m_rtp_info == nullptr) {
        m_rtp_info.reset(static_cast<rtp_info_entry*>(std::calloc(MAX_RTP_INFO, sizeof(rtp_info_entry))));
        if (m_rtp_info == nullptr) {
            return RTSP_BAD_MESSAGE;
        }
    }
    rtp_info_entry* table = m_rtp_info.get();
    for (; m_rtp_info_count > 0; --m_rtp_info_count) {
        rtp_info_entry& entry = table[m_rtp_info_count - 1];
        entry.url[0] = '\0';
        entry.rtptime = 0;
        entry.seq = 0;
    }
    while (m_rtp_info_count < MAX_RTP_INFO && text.LocateStringCase("url=") > 0) {
        read_rtp_info_entry(text, &table[m_rtp_info_count]);
        ++m_rtp_info_count;
    }
    return RTSP_OK;
}

// url=rtsp://host/track1;seq=1;rtptime=2, the two numbers in either order.
void CRtspReqParser::read_rtp_info_entry(CStrParser& text, rtp_info_entry* entry) {
    text.ConsumeLength(sizeof "url=" - 1, nullptr, 0);
    text.ConsumeSentence(";\r\n", entry->url, sizeof entry->url);
    text.ConsumeWhitespace();
    for (int i = 0; i < 2; ++i) {
        if (text.CompareCase("rtptime") == 0) {
            text.ConsumeUntilDigit();
            entry->rtptime = text.ConsumeUint32();
        } else if (text.CompareCase("seq") == 0) {
            text.ConsumeUntilDigit();
            entry->seq = text.ConsumeUint16();
        }
        if (text.GetCurChar() == ';') {
            text.Expect(';');
        }
    }
}

const rtp_info_entry* CRtspReqParser::get_rtp_info(int* count) const {
    if (count != nullptr) {
        *count = m_rtp_info_count;
    }
    return m_rtp_info.get();
}

}  // namespace Vidora
}  // namespace Kavio
