#include "Protocol/RtspParser.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Protocol/HeaderText.h"
#include "Protocol/LogQuote.h"
#include "Protocol/TextWriter.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const char HEADER_END[] = "\r\n\r\n";
const unsigned int HEADER_END_SIZE = 4;

// Leading line ends are allowed in front of a message (RFC 2326 4.1); blanks are seen as well.
unsigned int count_leading_blanks(const char* text, unsigned int length) {
    unsigned int count = 0;
    while (count < length && (text[count] == '\r' || text[count] == '\n' || text[count] == ' ')) {
        ++count;
    }
    return count;
}

}  // namespace

CRtspParser::CRtspParser() = default;

CRtspParser::~CRtspParser() = default;

int CRtspParser::parse_message(const char* buffer, unsigned int length, rtsp_msg_info* info) {
    rtsp_msg_info own;
    if (info == nullptr) {
        if (check_message(buffer, length, &own) < 0) {
            return RTSP_BAD_MESSAGE;
        }
        info = &own;
    }
    m_method = info->method;
    m_status = info->status;
    m_cseq = info->cseq;
    return RTSP_OK;
}

int CRtspParser::parse_status_code(CStrParser&) {
    return 0;
}

// The place of the message at the start of `length` bytes. False while it isn't there whole.
bool CRtspParser::measure(const char* buffer, unsigned int length, message_place& place) {
    place.skipped = count_leading_blanks(buffer, length);
    const char* message = buffer + place.skipped;
    length -= place.skipped;
    CStrParser text(message, static_cast<unsigned int>(strnlen(message, length)));
    const int header_end = text.LocateString(HEADER_END);
    if (header_end < 0) {
        return false;
    }
    place.header_size = static_cast<unsigned int>(header_end) + HEADER_END_SIZE;

    // The name without its colon, and 16 bits: a length that they cannot hold reads as 0.
    CStrParser header(message, place.header_size);
    place.size = place.header_size;
    if (header.LocateStringCase("Content-Length") >= 0) {
        header.ConsumeUntilDigit();
        place.size += static_cast<unsigned int>(std::max<int>(header.ConsumeInt16(), 0));
    }
    return place.size <= length;
}

int CRtspParser::check_message(const char* buffer, unsigned int length, rtsp_msg_info* info) {
    if (buffer == nullptr || length > RTSP_MAX_MESSAGE) {
        return RTSP_BAD_MESSAGE;
    }
    message_place place;
    if (!measure(buffer, length, place)) {
        return RTSP_INCOMPLETE;
    }
    CStrParser header(buffer + place.skipped, place.header_size);

    // An unknown method with a proper CSeq passes, so that it can be answered; so does a known one with CSeq 0.
    const std::pair<int, int> start = parse_start_line(header);
    const bool wrong_start = start.first < 1 && start.second >= RTSP_METHOD_UNKNOWN;
    const int status = wrong_start ? 0 : parse_status_code(header);
    if (wrong_start || status < 0) {
        const CLogQuote quote(Ostra::LOG_LEVEL_ERROR, buffer, length);
        logError("%s:%d RTSP_WRONG_FORMATA:%s\nrecv_len:%d\n", __FILE__, __LINE__, quote.Text(),
                 static_cast<int>(length - place.skipped));
        return RTSP_BAD_MESSAGE;
    }
    if (info != nullptr) {
        info->cseq = start.first;
        info->method = start.second;
        info->status = status;
    }
    return static_cast<int>(place.size + place.skipped);
}

int CRtspParser::parse_cseq(CStrParser& text) {
    text.ResetAll();
    if (text.LocateStringCase("CSeq:") < 0) {
        return -1;
    }
    text.ConsumeUntilDigit();
    return text.ConsumeInt32();
}

int CRtspParser::parse_body(CStrParser& text) {
    m_body_length = 0;
    text.ResetAll();
    // Unlike check_message this looks at the whole message, so that a body's own text may be taken for the header.
    if (text.LocateStringCase("Content-Length") < 0) {
        return RTSP_OK;
    }
    text.ConsumeUntilDigit();
    m_content_length = text.ConsumeInt16();
    if (m_content_length <= 0) {
        return RTSP_OK;
    }
    if (text.LocateString(HEADER_END) > 0) {
        text.ConsumeLength(HEADER_END_SIZE, nullptr, 0);
        m_body_length = std::max(
            text.ConsumeLength(static_cast<unsigned int>(m_content_length), m_texts->body, sizeof m_texts->body), 0);
    }

    text.ResetAll();
    m_texts->content_type[0] = '\0';
    if (text.LocateStringCase("Content-Type") >= 0) {
        read_value(text, "Content-Type:", m_texts->content_type, sizeof m_texts->content_type);
    }
    return RTSP_OK;
}

bool CRtspParser::find_header(CStrParser& text, const char* key) {
    text.ResetAll();
    return text.LocateStringCase(key) > 0;
}

void CRtspParser::read_value(CStrParser& text, const char* key, char* out, unsigned int size) {
    text.ConsumeLength(static_cast<unsigned int>(std::strlen(key)), nullptr, 0);
    text.ConsumeWhitespace();
    text.ConsumeSentence("\r\n", out, size);
}

std::string_view CRtspParser::message_of(CStrParser& text) {
    text.ResetAll();
    return {text.GetString(), static_cast<size_t>(text.GetStringLen())};
}

bool CRtspParser::read_unfolded(CStrParser& text, const char* name, char* out, unsigned int size) {
    const std::string_view value = HeaderValue(message_of(text), name);
    return !value.empty() && AppendUnfolded(value, out, 0, size) > 0;
}

void CRtspParser::read_number_pair(CStrParser& text, int* first, int* second) {
    text.ConsumeUntilDigit();
    *first = text.ConsumeUint16();
    text.ConsumeUntilDigit();
    *second = text.ConsumeUint16();
}

bool CRtspParser::read_transport_kind(CStrParser& text) {
    m_texts->transport.packet_type = find_header(text, "Transport: KX") ? PACKET_TYPE_KX : PACKET_TYPE_RTP;
    // On from where the cursor is: from the start, or from that match.
    if (text.LocateStringCase("AVP/TCP") >= 0) {
        m_texts->transport.transport = RTP_OVER_RTSP;
        return true;
    }
    if (text.LocateStringCase("AVP") >= 0) {
        m_texts->transport.transport = RTP_OVER_UDP;
        return true;
    }
    return false;
}

// A host name is passed over up to its first digit: only an address is a destination.
bool CRtspParser::read_multicast_addr(CStrParser& text) {
    text.ResetAll();
    if (text.LocateStringCase("destination=") < 0) {
        return false;
    }
    text.ConsumeUntilDigit();
    return text.ConsumeIpAddr(m_multicast.addr, sizeof m_multicast.addr, &m_multicast.addr_type) >= 0;
}

void CRtspParser::read_multicast_ttl(CStrParser& text) {
    text.ResetAll();
    if (text.LocateStringCase("ttl=") >= 0) {
        text.ConsumeUntilDigit();
        m_multicast.ttl = text.ConsumeUint16();
    }
}

int CRtspParser::set_ext_key(int method, const char* key, const char* value) {
    if (method >= RTSP_METHOD_COUNT || key == nullptr) {
        return -1;
    }
    if (method < 0) {
        return 0;  // taken as valid, but there is no table to put it into
    }
    try {
        m_ext_keys[method][key] = value != nullptr ? value : "";
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

int CRtspParser::remove_ext_key(int method, const char* key) {
    if (key == nullptr) {
        return -1;
    }
    if (method == RTSP_METHOD_UNKNOWN) {
        for (ext_keys_t& table : m_ext_keys) {
            table.clear();
        }
        return 0;
    }
    if (method < 0 || method > RTSP_METHOD_UNKNOWN) {
        return 0;
    }
    try {
        m_ext_keys[method].erase(key);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

int CRtspParser::get_ext_keys(ext_keys_t* eight) const {
    if (eight == nullptr) {
        return -1;
    }
    try {
        std::copy(m_ext_keys, m_ext_keys + RTSP_METHOD_COUNT, eight);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

int CRtspParser::set_ext_keys(const ext_keys_t* eight) {
    if (eight == nullptr) {
        return -1;
    }
    try {
        std::copy(eight, eight + RTSP_METHOD_COUNT, m_ext_keys);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

int CRtspParser::build_ext_headers(int method, std::string& out) const {
    out.clear();
    if (method < 0 || method >= RTSP_METHOD_COUNT) {
        return -1;
    }
    size_t size = 0;
    for (const auto& [key, value] : m_ext_keys[method]) {
        size += key.size() + value.size() + sizeof ": \r\n" - 1;
    }
    try {
        out.reserve(size);
        for (const auto& [key, value] : m_ext_keys[method]) {
            out.append(key).append(": ").append(value).append("\r\n");
        }
    } catch (const std::bad_alloc&) {
        out.clear();
        return -1;
    }
    return 0;
}

const char* CRtspParser::get_content_type(int* content_length) const {
    if (content_length != nullptr) {
        *content_length = m_content_length;
    }
    return m_texts != nullptr ? m_texts->content_type : "";
}

int CRtspParser::get_npt_range(double* begin, double* end) const {
    *begin = m_npt_begin;
    *end = m_npt_end;
    return 0;
}

int CRtspParser::get_clock_range(UtcTime* begin, UtcTime* end) const {
    *begin = m_begin_utc;
    *end = m_end_utc;
    return 0;
}

float CRtspParser::get_speed(bool* is_scale) const {
    if (is_scale != nullptr) {
        *is_scale = m_is_scale != 0;
    }
    return m_speed;
}

}  // namespace Vidora
}  // namespace Kavio
