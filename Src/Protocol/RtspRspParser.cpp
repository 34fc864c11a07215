// The reading half: requests.
#include "Protocol/RtspRspParser.h"

#include "Protocol/HeaderText.h"
#include "Protocol/LogQuote.h"
#include "Protocol/RtspTables.h"
#include "Protocol/TextWriter.h"
#include "Protocol/TransportHeader.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

struct client_row {
    const char* key;
    int kind;
};

// Our own client is first: its text is the longest. The current client's "Rtsp Client/2.0" is not among them, so it
// counts as unknown, as older servers have it.
const client_row CLIENTS[] = {
    {"User-agent: Kavio Rtsp Client", CLIENT_KIND_OWN},
    {"User-Agent: QuickTime", CLIENT_KIND_QUICKTIME},
    {"User-Agent: LibVLC", CLIENT_KIND_LIBVLC},
};

const char TRANSPORT[] = "Transport";
const int MAX_OFFERS = 8;  // of one request that are tried: each may cost a pair of ports

}  // namespace

CRtspRspParser::CRtspRspParser() {
    m_session_id = CTime::getCurrentMicroSecond();
    open_memory();
    m_speed = 1.0F;
    m_product = "Rtsp Server/2.0";
}

CMessageMemory* CRtspRspParser::open_memory() {
    if (m_memory == nullptr) {
        m_memory = CMessageMemory::Take();
        m_texts = m_memory != nullptr ? &m_memory->texts : nullptr;
    }
    return m_memory.get();
}

void CRtspRspParser::release_memory() {
    m_body_length = 0;
    m_texts = nullptr;
    m_memory.reset();
}

int CRtspRspParser::parse_request(const char* buffer, unsigned int length, rtsp_msg_info* info) {
    if (buffer == nullptr || length == 0) {
        return RTSP_OK;
    }
    m_refusal = RTSP_STATUS_BAD_REQUEST;
    if (open_memory() == nullptr || parse_message(buffer, length, info) < 0) {
        return RTSP_BAD_MESSAGE;
    }
    CStrParser text(buffer, length);
    if (m_conformance) {
        read_unfolded(text, "Authorization", m_texts->auth, sizeof m_texts->auth);
    } else if (find_header(text, "Authorization:")) {
        read_value(text, "Authorization:", m_texts->auth, sizeof m_texts->auth);
    }
    return read_request(text);
}

std::pair<int, int> CRtspRspParser::parse_start_line(CStrParser& text) {
    const int cseq = parse_cseq(text);
    if (cseq < 0) {
        return {cseq, RTSP_METHOD_UNKNOWN};
    }
    text.ResetAll();
    text.ConsumeWhitespace();
    char word[1024];
    text.ConsumeWord(word, sizeof word);
    return {cseq, RtspMethodOf(word)};  // with case, unlike headers: RFC 2326 6.1
}

int CRtspRspParser::read_request(CStrParser& text) {
    if (!check_session(text)) {
        m_refusal = RTSP_STATUS_SESSION_NOT_FOUND;
        return RTSP_BAD_MESSAGE;
    }
    // PLAY is read in two steps: without a URL nothing more of it is, the client's kind included.
    if (m_method == RTSP_METHOD_PLAY && read_url(text) < 0) {
        return RTSP_BAD_MESSAGE;
    }
    const int result = read_by_method(text);
    detect_client(text);
    return result;
}

// Requests that carry no state of the session pass with any Session header, and all do until a transport was read.
bool CRtspRspParser::check_session(CStrParser& text) const {
    if (m_session[0] == '\0' || m_method == RTSP_METHOD_OPTIONS || m_method == RTSP_METHOD_SET_PARAMETER ||
        m_method == RTSP_METHOD_GET_PARAMETER) {
        return true;
    }
    text.ResetAll();
    uint64_t session_id = 0;
    if (text.LocateStringCase("Session:") >= 0) {
        text.ConsumeUntilDigit();
        session_id = text.ConsumeUint64();
    }
    return session_id == m_session_id;
}

int CRtspRspParser::read_by_method(CStrParser& text) {
    switch (m_method) {
        case RTSP_METHOD_OPTIONS:
            read_url(text);  // "*" is no URL, and no fault (RFC 2326 10.1)
            return RTSP_OK;
        case RTSP_METHOD_DESCRIBE:
        case RTSP_METHOD_SETUP:
            return read_transport(text);
        case RTSP_METHOD_PLAY:
            parse_range_speed(text);
            m_refusal = get_play_fault();
            return RTSP_OK;
        case RTSP_METHOD_PAUSE:
        case RTSP_METHOD_TEARDOWN:
            return read_url(text);
        case RTSP_METHOD_SET_PARAMETER:
        case RTSP_METHOD_GET_PARAMETER:
            return parse_body(text);
        default:
            m_refusal = RTSP_STATUS_NOT_IMPLEMENTED;
            report_unknown(text);
            return RTSP_UNKNOWN_METHOD;
    }
}

void CRtspRspParser::report_unknown(CStrParser& text) const {
    text.ResetAll();
    const CLogQuote quote(Ostra::LOG_LEVEL_WARN, text.GetString(), static_cast<size_t>(text.GetStringLen()));
    logWarn("%s:%d RTSP Command[%d]: %s not supported \n", __FILE__, __LINE__, m_method, quote.Text());
}

// The first "rtsp://" of the message, on whichever line it is, up to white space.
int CRtspRspParser::read_url(CStrParser& text) {
    text.ResetAll();
    m_texts->url[0] = '\0';
    if (text.LocateStringCase("rtsp://") < 0) {
        return RTSP_BAD_MESSAGE;
    }
    text.ConsumeWord(m_texts->url, sizeof m_texts->url);
    return RTSP_OK;
}

void CRtspRspParser::detect_client(CStrParser& text) {
    if (m_client_kind != CLIENT_KIND_UNKNOWN) {
        return;
    }
    for (const client_row& row : CLIENTS) {
        if (find_header(text, row.key)) {
            m_client_kind = row.kind;
            return;
        }
    }
}

int CRtspRspParser::read_transport(CStrParser& text) {
    if (read_url(text) < 0) {
        return RTSP_BAD_MESSAGE;
    }
    m_texts->transport.reset();
    return m_conformance ? read_offers(message_of(text)) : read_usual_transport(text);
}

// What stands anywhere behind the header's name counts, as older clients write it.
int CRtspRspParser::read_usual_transport(CStrParser& text) {
    text.ResetAll();
    if (text.LocateStringCase("Transport:") < 0) {
        return RTSP_OK;  // interleaved RTP, channels 0 and 0
    }
    if (!read_transport_kind(text)) {
        m_refusal = RTSP_STATUS_UNSUPPORTED_TRANSPORT;
        return RTSP_BAD_MESSAGE;
    }
    m_texts->transport.multicast = find_header(text, "multicast");
    read_client_ports(text);
    if (m_texts->transport.multicast) {
        read_destination(text);
    }
    return begin_session();
}

int CRtspRspParser::begin_session() {
    if (m_session[0] == '\0') {
        CTextWriter(m_session_line, sizeof m_session_line).Add("Session: ", m_session_id, "\r\n");
        m_session = m_session_line;
    }
    return RTSP_OK;
}

// RFC 2326 12.39: a list of transports, of which the first that can be served counts.
int CRtspRspParser::read_offers(std::string_view message) {
    m_offers_read = 0;
    if (HeaderValue(message, TRANSPORT).empty()) {
        return RTSP_OK;  // as above
    }
    if (!next_offer(message)) {
        m_refusal = RTSP_STATUS_UNSUPPORTED_TRANSPORT;
        return RTSP_BAD_MESSAGE;
    }
    return begin_session();
}

bool CRtspRspParser::next_offer(std::string_view message) {
    std::string_view offers = m_conformance ? HeaderValue(message, TRANSPORT) : std::string_view();
    transport_offer offer;
    for (int i = 0; i <= m_offers_read; ++i) {
        if (i == MAX_OFFERS || !NextTransport(offers, offer)) {
            return false;
        }
    }
    ++m_offers_read;
    take_offer(offer);
    return true;
}

void CRtspRspParser::take_offer(const transport_offer& offer) {
    transport_info& transport = m_texts->transport;
    transport.reset();
    transport.packet_type = offer.packet_type;
    transport.transport = offer.transport;
    transport.multicast = offer.multicast;
    const transport_pair& udp = offer.client_port.is_given && !offer.multicast ? offer.client_port : offer.port;
    const transport_pair& pair = offer.transport == RTP_OVER_RTSP ? offer.interleaved : udp;
    transport.rtp_port = pair.first;
    transport.rtcp_port = offer.multicast && !pair.has_second ? 0 : pair.second;
    if (offer.multicast) {
        ReadGroup(offer.destination, m_multicast);
        m_multicast.ttl = offer.ttl;
    }
}

// Both numbers come from the next digits, wherever they are: a single port takes its partner from what follows it.
void CRtspRspParser::read_client_ports(CStrParser& text) {
    text.ResetAll();
    bool found = false;
    if (m_texts->transport.transport == RTP_OVER_RTSP) {
        found = text.LocateStringCase("interleaved") >= 0;
    } else if (text.LocateStringCase("Transport") >= 0) {
        text.ConsumeLength(sizeof "Transport" - 1, nullptr, 0);  // it holds "port" itself
        found = text.LocateStringCase("client_port") >= 0 || text.LocateStringCase("port") >= 0;
    }
    if (found) {
        read_number_pair(text, &m_texts->transport.rtp_port, &m_texts->transport.rtcp_port);
    }
}

// destination=239.1.1.1;port=5000-5001;ttl=16
void CRtspRspParser::read_destination(CStrParser& text) {
    if (!read_multicast_addr(text)) {
        return;
    }
    if (text.LocateStringCase("port=") >= 0) {
        text.ConsumeUntilDigit();
        m_texts->transport.rtp_port = text.ConsumeUint16();
        m_texts->transport.rtcp_port = text.Expect('-') == 0 ? text.ConsumeUint16() : 0;
    }
    read_multicast_ttl(text);
}

}  // namespace Vidora
}  // namespace Kavio
