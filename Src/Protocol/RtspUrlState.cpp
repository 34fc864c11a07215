#include "Protocol/RtspUrlState.h"

#include <algorithm>
#include <cstring>

#include "Protocol/LogQuote.h"
#include "Protocol/RtspTables.h"
#include "Protocol/TextWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const int DEFAULT_PORT = 554;

const char KEY_LIVE[] = "cam/realmonitor?channel=";
const char KEY_PLAYBACK[] = "cam/playback?channel=";
const char KEY_FILE[] = ".kav";
const char KEY_PROXY[] = "proxy=";
const char KEY_PROTO[] = "proto=";
const char KEY_SUBTYPE[] = "subtype=";
const int KEY_PROXY_LENGTH = 6;
const int KEY_FILE_LENGTH = 4;
const int KEY_SUBTYPE_LENGTH = 8;

// Copies at most `size` - 1 of `length` bytes. `text` may lie in `out`: hosts parse again what a generator gave them.
void copy_text(char* out, unsigned int size, const char* text, size_t length) {
    const size_t copied = std::min<size_t>(length, size - 1);
    std::memmove(out, text, copied);
    out[copied] = '\0';
}

// Moves behind the next `key`. False, without a move, if there is none.
bool step_over(CStrParser& parser, const char* key) {
    const int found = parser.LocateString(key);
    return found >= 0 && parser.LocateOffset(found + static_cast<int>(std::strlen(key))) == 0;
}

// The value behind the next `key`; -1 if the key is absent or no number is there.
int read_number(CStrParser& parser, const char* key, int& value) {
    if (!step_over(parser, key)) {
        return -1;
    }
    const int number = parser.ConsumeInt32();
    if (parser.GetStatus() != 0) {
        return -1;
    }
    value = number;
    return 0;
}

// Year, month, day, hour, minute and second, with "_" somewhere between each two.
int read_time(CStrParser& parser, CTime& time) {
    int fields[6];
    for (int& field : fields) {
        if (&field != fields && !step_over(parser, "_")) {
            return -1;
        }
        field = parser.ConsumeInt32();
    }
    if (parser.GetStatus() != 0) {
        return -1;
    }
    time = CTime(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]);
    return 0;
}

}  // namespace

CRtspUrlParser::CState::peer_t CRtspUrlParser::CState::peer(int index) {
    if (index == 0) {
        return {m_addr, m_port, m_has_addr, m_has_auth[0], m_user, m_password};
    }
    return {m_proxy_addr, m_proxy_port, m_has_proxy_addr, m_has_auth[1], m_proxy_user, m_proxy_password};
}

bool CRtspUrlParser::CState::parse_url(const char* url, unsigned int length) {
    CStrParser parser(url, length);
    const int scheme = parser.LocateStringCase(RTSP_SCHEME);
    if (scheme < 0) {
        return false;
    }
    // The host begins at the eighth byte, wherever the scheme was found: text in front of the scheme is no URL of ours,
    // and ends in a host that can't be read.
    int position = RTSP_SCHEME_SIZE;
    const int after_scheme = scheme + RTSP_SCHEME_SIZE;
    const int credentials_end = find_credentials(parser, after_scheme);
    if (credentials_end > 0) {
        parser.LocateOffset(after_scheme);
        if (parser_auth_info(parser, credentials_end, m_user, m_password) < 0) {
            return false;
        }
        m_has_auth[0] = true;
        position = parser.GetCurOffset();
    }
    parser.LocateOffset(position);
    m_has_addr = parser_connect_info(parser, m_addr, sizeof(m_addr), m_port) == 0;
    if (!m_has_addr) {
        logWarn("%s:%d Parse RTSP connection info failed!\n", __FILE__, __LINE__);
    }
    parser.ConsumeUntil('/');
    if (parser.Expect('/') != 0 && parser.GetCurChar() != '\0') {
        return false;
    }
    copy_text(m_url, sizeof(m_url), url, length);
    if (parser.GetStringLen() > 0) {
        parse_content(parser.GetString(), static_cast<unsigned int>(parser.GetStringLen()));
    }
    m_parsed = true;
    return true;
}

// The offset of the "@" that ends the credentials; -1 if the URL has none.
int CRtspUrlParser::CState::find_credentials(CStrParser& parser, int after_scheme) {
    parser.LocateOffset(after_scheme);
    const int at = parser.LocateString("@");
    if (at < 0) {
        return -1;
    }
    parser.LocateOffset(after_scheme);
    const int slash = parser.LocateString("/");
    if (slash >= 0 && slash < at) {
        return -1;  // it is in the path
    }
    char rest[256];
    parser.LocateOffset(at);
    copy_text(rest, sizeof(rest), parser.GetString(), static_cast<size_t>(parser.GetStringLen()));
    if (std::strchr(rest, '/') == nullptr && std::strstr(rest, KEY_FILE) != nullptr) {
        return -1;  // no host, but a file's name with an "@"
    }
    parser.LocateOffset(after_scheme);
    const int proxy = parser.LocateString("proxy");
    if (proxy >= 0 && proxy < at) {
        return -1;  // the credentials of an upstream server
    }
    // A host has no "@": one more is of a password that isn't encoded, which must not become a host's name.
    const int host_end = slash >= 0 ? slash : at;
    int end = at;
    parser.LocateOffset(at);
    while (step_over(parser, "@") && parser.GetCurOffset() <= host_end) {
        end = parser.GetCurOffset() - 1;
    }
    return end;
}

// "user:password@" up to the "@" at `end`, or to the next one if that lies behind. The password may be empty, the user
// may not.
int CRtspUrlParser::CState::parser_auth_info(CStrParser& parser, int end, std::string& user, std::string& password) {
    char user_text[AUTH_TEXT_SIZE];
    char password_text[AUTH_TEXT_SIZE];
    const bool has_user = parser.ConsumeSentence(":", user_text, sizeof(user_text)) > 0;
    const int left = end - parser.GetCurOffset();
    if (!has_user ||
        (left < 0 ? parser.ConsumeSentence("@", password_text, sizeof(password_text))
                  : parser.ConsumeLength(static_cast<unsigned int>(left), password_text, sizeof(password_text))) < 0) {
        logWarn("%s:%d, parser_auth_info failed.\n", __FILE__, __LINE__);
        return -1;
    }
    if (left >= 0) {
        parser.Expect('@');
    }
    user = user_text;
    password = password_text;
    return 0;
}

// "host" or "host:port". The brackets of an IPv6 address aren't kept, as they are by AddConnection: the address is what
// a socket wants.
int CRtspUrlParser::CState::parser_connect_info(CStrParser& parser, char* host, unsigned int size, int& port) {
    int family = 0;
    if (parser.ConsumeIpAddr(host, size, &family) < 0) {
        return -1;
    }
    if (parser.GetCurChar() != ':') {
        port = DEFAULT_PORT;
        return 0;
    }
    parser.Expect(':');
    port = parser.ConsumeInt32();
    return parser.GetStatus() == 0 ? 0 : -1;
}

bool CRtspUrlParser::CState::parse_content(const char* content, unsigned int length) {
    copy_text(m_raw_content, sizeof(m_raw_content), content, length);
    remove_expand_info();

    char text[URL_SIZE];
    CStrParser content_parser(m_content);
    parser_service_type(content_parser, text);

    CStrParser parser(text);
    parser_src_type(parser);
    parser.ResetAll();
    parser_identifier_info(parser);  // a content may name nothing that we know by its parts
    parser.ResetAll();
    if (m_is_proxy && !parse_proxy(parser)) {
        return false;
    }
    m_parsed = true;
    return true;
}

// Takes three parameters that are meant for the server out of m_raw_content, into m_content.
void CRtspUrlParser::CState::remove_expand_info() {
    char without_proto[URL_SIZE];
    char without_auth[URL_SIZE];

    CStrParser parser(m_raw_content);
    int position = -1;
    // With a proxy "proto=" names the kind of source and stays.
    if (parser.LocateString(KEY_PROXY) < 0 && (position = parser.LocateString(KEY_PROTO)) >= 0) {
        if (parser.LocateString("Kavio3") >= 0) {
            m_local_stream_proto = STREAM_PROTO_KAVIO;
        }
        parser.LocateOffset(position);
        if (parser.LocateString("Onvif") >= 0) {
            m_local_stream_proto = STREAM_PROTO_ONVIF;
        }
    }
    remove_one_info(parser, position, m_raw_content, without_proto, sizeof(without_proto));

    parser = CStrParser(without_proto);
    remove_one_info(parser, parser.LocateString("authbasic="), without_proto, without_auth, sizeof(without_auth));

    parser = CStrParser(without_auth);
    remove_one_info(parser, parser.LocateString("unicast=true"), without_auth, m_content, sizeof(m_content));
}

// Copies `source` without the parameter at `position` (below 0: whole). The parameter ends at the next "&" behind the
// parser's cursor.
void CRtspUrlParser::CState::remove_one_info(CStrParser& parser, int position, const char* source, char* out,
                                             unsigned int size) {
    const size_t length = std::strlen(source);
    if (position < 0) {
        copy_text(out, size, source, length);
        return;
    }
    const size_t before = static_cast<size_t>(position);
    const int end = parser.LocateString("&");
    CTextWriter writer(out, size);
    if (before == 0) {
        // The "&" stays at the head: the content of such a URL is told by it.
        if (end >= 0) {
            writer.Add(std::string_view(source + end, length - static_cast<size_t>(end)));
        }
    } else if (end < 0) {
        writer.Add(std::string_view(source, before - 1));  // the separator in front goes as well
    } else {
        const size_t behind = static_cast<size_t>(end) + 1;
        writer.Add(std::string_view(source, before), std::string_view(source + behind, length - behind));
    }
}

// Copies the content into `out`, without "ServiceType=" and all that follows it.
void CRtspUrlParser::CState::parser_service_type(CStrParser& parser, char (&out)[URL_SIZE]) {
    const char* content = parser.GetString();
    const size_t length = static_cast<size_t>(parser.GetStringLen());
    const int found = parser.LocateString("ServiceType=");
    if (found < 0) {
        copy_text(out, sizeof(out), content, length);
        return;
    }
    step_over(parser, "ServiceType=");
    char word[URL_WORD_SIZE];
    if (parser.ConsumeWord(word, sizeof(word)) > 0) {
        m_params["ServiceType"] = word;
    }
    copy_text(out, sizeof(out), content, static_cast<size_t>(std::max(found - 1, 0)));
}

namespace {

// Whether a live content ends behind one character of subtype. No more is admitted: a subtype of two digits and a
// further parameter leave the content without a type, as clients of this system expect.
bool ends_in_subtype(CStrParser& parser) {
    const int found = parser.LocateString(KEY_SUBTYPE);
    return found > 0 && parser.GetStringLen() == KEY_SUBTYPE_LENGTH + 1;
}

bool ends_in_file_name(CStrParser& parser) {
    return parser.GetCurOffset() > 0 && parser.GetStringLen() == KEY_FILE_LENGTH;
}

}  // namespace

// The kinds of content without a proxy: the first key that is found decides, the test may still turn it down. The
// parser is at the key.
struct CRtspUrlParser::CState::src_row {
    const char* key;
    bool (*accepts)(CStrParser& parser);  // null: always
    src_type_t type;
};
const CRtspUrlParser::CState::src_row CRtspUrlParser::CState::SOURCES[] = {
    {"token=", nullptr, SRC_TYPE_TOKEN},
    {KEY_LIVE, ends_in_subtype, SRC_TYPE_LIVE},
    {KEY_PLAYBACK, nullptr, SRC_TYPE_FILE},
    {KEY_FILE, ends_in_file_name, SRC_TYPE_FILE},
};

void CRtspUrlParser::CState::parser_src_type(CStrParser& parser) {
    m_is_proxy = parser.LocateString(KEY_PROXY) >= 1;
    if (m_is_proxy) {
        parse_proxied_type(parser);
        return;
    }
    for (const src_row& row : SOURCES) {
        parser.ResetAll();
        if (parser.LocateString(row.key) >= 0) {
            m_src_type = row.accepts == nullptr || row.accepts(parser) ? row.type : m_src_type;
            return;
        }
    }
}

// The parser is at "proxy=".
void CRtspUrlParser::CState::parse_proxied_type(CStrParser& parser) {
    if (!step_over(parser, KEY_PROTO)) {
        m_src_type = SRC_TYPE_PROXY;
        return;
    }
    char word[URL_WORD_SIZE];
    if (parser.ConsumeWord(word, sizeof(word)) > 0) {
        m_params["proto"] = word;
    }
    parser.ResetAll();
    if (parser.LocateString(KEY_LIVE) >= 0) {
        m_src_type = SRC_TYPE_PROXY_LIVE;
    } else if (parser.LocateString(KEY_FILE) >= 0) {
        m_src_type = SRC_TYPE_PROXY_FILE;
    }
}

// The forms of a content, the first that is found is read. The parser is at the key.
struct CRtspUrlParser::CState::form_row {
    const char* key;
    form_reader_t read;
};
const CRtspUrlParser::CState::form_row CRtspUrlParser::CState::FORMS[] = {
    {"cam/realmonitor?", &CState::read_live},
    {"cam/playback?token=", &CState::read_token},
    {"cam/playback?", &CState::read_playback},
    {KEY_FILE, &CState::read_file},
};

int CRtspUrlParser::CState::parser_identifier_info(CStrParser& parser) {
    for (const form_row& row : FORMS) {
        parser.ResetAll();
        if (parser.LocateString(row.key) >= 0) {
            return (this->*row.read)(parser);
        }
    }
    return -1;
}

int CRtspUrlParser::CState::read_live(CStrParser& parser) {
    if (read_number(parser, "channel=", m_identifier.channel) < 0 ||
        read_number(parser, KEY_SUBTYPE, m_identifier.subtype) < 0) {
        return -1;
    }
    if (parser.GetCurChar() != '&' && parser.GetCurChar() != '\0') {
        return -1;
    }
    m_has_identifier = true;
    return 0;
}

int CRtspUrlParser::CState::read_token(CStrParser& parser) {
    const CLogQuote quote(Ostra::LOG_LEVEL_INFO, parser.GetString(), static_cast<size_t>(parser.GetStringLen()));
    logInfo("%s\n", quote.Text());
    step_over(parser, "token=");
    parser.ConsumeSentence("&", m_playback.token, sizeof(m_playback.token));
    m_has_playback = true;
    return 0;
}

int CRtspUrlParser::CState::read_playback(CStrParser& parser) {
    if (read_number(parser, "channel=", m_playback.channel) < 0) {
        return -1;
    }
    m_playback.subtype = 0;
    m_playback.end = CTime();
    if (read_number(parser, KEY_SUBTYPE, m_playback.subtype) < 0 && parser.GetStatus() != 0) {
        return -1;
    }
    if (!step_over(parser, "starttime=") || read_time(parser, m_playback.start) < 0) {
        return -1;
    }
    if (step_over(parser, "endtime=") && read_time(parser, m_playback.end) < 0) {
        return -1;
    }
    // Set before the last test, so that a request with something behind its times is still answered with them.
    m_has_playback = true;
    return parser.GetCurChar() == '\0' ? 0 : -1;
}

int CRtspUrlParser::CState::read_file(CStrParser& parser) {
    const int end = parser.GetCurOffset() + KEY_FILE_LENGTH;
    parser.LocateOffset(0);
    parser.ConsumeLength(static_cast<unsigned int>(end), m_file_name, sizeof(m_file_name));
    if (parser.GetCurChar() != '?' && parser.GetCurChar() != '\0') {
        return -1;
    }
    m_has_file = true;
    return 0;
}

// "proxy=[user:password@]host[:port]", anywhere in the content.
bool CRtspUrlParser::CState::parse_proxy(CStrParser& parser) {
    const bool has_auth = parser.LocateString("@") > 0;
    parser.ResetAll();
    step_over(parser, KEY_PROXY);
    if (has_auth) {
        if (parser_auth_info(parser, -1, m_proxy_user, m_proxy_password) < 0) {
            logWarn("%s:%d, parse auth info failed.\n", __FILE__, __LINE__);
            return false;
        }
        m_has_auth[1] = true;
    }
    if (parser_connect_info(parser, m_proxy_addr, sizeof(m_proxy_addr), m_proxy_port) < 0) {
        logWarn("%s:%d, parse connect info failed. \n", __FILE__, __LINE__);
        return false;
    }
    m_has_proxy_addr = true;
    return true;
}

namespace {

// A parsed IPv6 address has lost the brackets that tell its colons from the port's (RFC 3986 3.2.2).
void write_host(CTextWriter& writer, const char* addr, int port) {
    const bool is_bare = addr[0] != '[' && std::strchr(addr, ':') != nullptr;
    writer.Add(is_bare ? "[" : "", addr, is_bare ? "]:" : ":", port);
}

}  // namespace

// The upstream server as a parameter of the content. Parameters are written with it only: without an upstream server
// nobody would read them.
void CRtspUrlParser::CState::write_proxy(CTextWriter& writer) const {
    if (!m_has_proxy_addr) {
        return;
    }
    writer.Add(m_first_param ? "?proxy=" : "&proxy=");
    if (m_has_auth[1]) {
        writer.Add(m_proxy_user.c_str()).Add(":").Add(m_proxy_password.c_str()).Add("@");
    }
    write_host(writer, m_proxy_addr, m_proxy_port);
    if (!m_has_params) {
        return;
    }
    char params[128];
    CTextWriter params_writer(params, sizeof(params));
    for (const auto& param : m_params) {
        char one[URL_WORD_SIZE];
        CTextWriter(one, sizeof(one)).Add("&").Add(param.first.c_str()).Add("=").Add(param.second.c_str());
        params_writer.Add(one);
    }
    writer.Add(params);
}

// The generators write beside their result first: `content` may be that very buffer.
char* CRtspUrlParser::CState::generate_url(const char* content) {
    char url[URL_SIZE];
    CTextWriter writer(url, sizeof(url));
    writer.Add(RTSP_SCHEME);
    if (m_has_auth[0]) {
        writer.Add(m_user.c_str()).Add(":").Add(m_password.c_str()).Add("@");
    }
    write_host(writer, m_addr, m_port);
    writer.Add("/").Add(content);
    write_proxy(writer);
    copy_text(m_url, sizeof(m_url), url, writer.Length());
    return m_url;
}

char* CRtspUrlParser::CState::generate_content(const char* content) {
    char text[URL_SIZE];
    CTextWriter writer(text, sizeof(text));
    writer.Add(content);
    write_proxy(writer);
    copy_text(m_raw_content, sizeof(m_raw_content), text, writer.Length());
    return m_raw_content;
}

// "rtsp://" and the upstream host, then the content in front of the proxy parameter.
char* CRtspUrlParser::CState::generate_proxy_url() {
    CStrParser parser(m_raw_content);
    const int separator = parser.LocateString(KEY_PROXY) - 1;
    parser.ResetAll();
    const int proto_separator = parser.LocateString(KEY_PROTO) - 1;
    if (separator <= 0) {
        return m_proxy_url;
    }
    const int host_start = separator + 1 + KEY_PROXY_LENGTH;
    const int length = proto_separator - host_start;
    const bool has_length = proto_separator >= 1 && length >= 1 && length <= 255;
    const size_t left = std::strlen(m_raw_content) - static_cast<size_t>(host_start);
    const size_t host_length = std::min(left, static_cast<size_t>(has_length ? length : 255));
    CTextWriter(m_proxy_url, sizeof(m_proxy_url))
        .Add(RTSP_SCHEME)
        .Add(std::string_view(m_raw_content + host_start, host_length))
        .Add("/")
        .Add(std::string_view(m_raw_content, static_cast<size_t>(separator)));
    return m_proxy_url;
}

}  // namespace Vidora
}  // namespace Kavio
