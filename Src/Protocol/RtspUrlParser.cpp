#include "Vidora/RtspUrlParser.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "Ostra/Counted.h"
#include "Protocol/RtspUrlState.h"
#include "Protocol/TextWriter.h"
#include "Tramel/IpText.h"

namespace Kavio {
namespace Vidora {

namespace {

// Runs `work` and returns its result; `failure` if a container finds no memory.
template <typename Result, typename Work>
Result guarded(Result failure, Work work) {
    try {
        return work();
    } catch (const std::exception&) {
        return failure;
    }
}

// The bytes in front of a NUL: lengths may be those of buffers, and no text of ours holds a NUL.
unsigned int text_length(const char* text, unsigned int length) {
    return static_cast<unsigned int>(::strnlen(text, length));
}

void copy_auth_text(char* out, const std::string& text) {
    std::snprintf(out, AUTH_TEXT_SIZE, "%s", text.c_str());
}

}  // namespace

CRtspUrlParser::CRtspUrlParser() : m_state(new (std::nothrow) CState) {
    if (m_state == nullptr) {
        return;
    }
    for (char* text : {m_state->m_url, m_state->m_raw_content, m_state->m_content, m_state->m_proxy_url,
                       m_state->m_file_name, m_state->m_addr, m_state->m_proxy_addr}) {
        text[0] = '\0';
    }
}

CRtspUrlParser::CRtspUrlParser(const CRtspUrlParser& other) : m_state(Ostra::ShareCounted(other.m_state)) {}

// Assigned objects share their state: only the pointer is copied. Counting who holds it makes that safe to destroy.
CRtspUrlParser& CRtspUrlParser::operator=(const CRtspUrlParser& other) {
    CRtspUrlParser shared(other);
    std::swap(m_state, shared.m_state);
    return *this;
}

CRtspUrlParser::~CRtspUrlParser() {
    Ostra::ReleaseCounted(m_state);
}

bool CRtspUrlParser::ParseUrl(const char* url, const unsigned& length) {
    const unsigned int size = url != nullptr ? text_length(url, length) : 0;
    if (m_state == nullptr || size == 0) {
        return false;
    }
    return guarded(false, [&] { return m_state->parse_url(url, size); });
}

bool CRtspUrlParser::ParseContent(const char* content, unsigned& length) {
    const unsigned int size = content != nullptr ? text_length(content, length) : 0;
    if (size == 0) {
        logWarn("%s:%d, parse content, invalid parameter. \n", __FILE__, __LINE__);
        return false;
    }
    return m_state != nullptr && guarded(false, [&] { return m_state->parse_content(content, size); });
}

char* CRtspUrlParser::GenerateUrl(const char* content) {
    const bool usable = m_state != nullptr && content != nullptr && m_state->m_has_addr;
    return usable ? m_state->generate_url(content) : nullptr;
}

char* CRtspUrlParser::GenerateContent(const char* content) {
    return m_state != nullptr && content != nullptr ? m_state->generate_content(content) : nullptr;
}

namespace {

const unsigned int LIVE_CONTENT_SIZE = 80;  // the key and two numbers

void print_live_content(char (&out)[LIVE_CONTENT_SIZE], const identifier_t& identifier) {
    std::snprintf(out, sizeof(out), "cam/realmonitor?channel=%d&subtype=%d", identifier.channel, identifier.subtype);
}

}  // namespace

char* CRtspUrlParser::GenerateUrl(const identifier_t* identifier) {
    if (m_state == nullptr || identifier == nullptr) {
        return nullptr;
    }
    char content[LIVE_CONTENT_SIZE];
    print_live_content(content, *identifier);
    m_state->m_first_param = false;  // the content has a query already
    return GenerateUrl(content);
}

char* CRtspUrlParser::GenerateContent(const identifier_t* identifier) {
    if (m_state == nullptr || identifier == nullptr) {
        return nullptr;
    }
    char content[LIVE_CONTENT_SIZE];
    print_live_content(content, *identifier);
    m_state->m_first_param = false;  // the content has a query already
    return GenerateContent(content);
}

int CRtspUrlParser::AddAuth(int index, const auth_info_tc& auth) {
    if (m_state == nullptr || !CState::is_index(index) || auth.user == nullptr || auth.password == nullptr) {
        return -1;
    }
    return guarded(-1, [&] {
        const CState::peer_t peer = m_state->peer(index);
        peer.user = auth.user;
        peer.password = auth.password;
        peer.has_auth = true;
        return 0;
    });
}

int CRtspUrlParser::AddConnection(int index, const char* addr, unsigned short port) {
    if (m_state == nullptr || !CState::is_index(index) || addr == nullptr || port == 0) {
        return -1;
    }
    CStrParser parser(addr);
    if (parser.GetStringLen() >= static_cast<int>(URL_HOST_SIZE)) {
        return -1;
    }
    char host[URL_HOST_SIZE];
    int family = 0;
    if (parser.ConsumeIpAddr(host, sizeof(host), &family) < 0 || parser.GetStringLen() > 0 || family == 0) {
        return -1;
    }
    const CState::peer_t peer = m_state->peer(index);
    // RFC 3986 3.2.2: an IPv6 address is in brackets, so that its colons can't be taken for the port's.
    std::snprintf(peer.addr, sizeof(peer.addr), family == 6 ? "[%.125s]" : "%s", host);
    peer.port = port;
    peer.has_addr = true;
    return 0;
}

int CRtspUrlParser::AppendParam(const char* key, const char* value) {
    if (m_state == nullptr || key == nullptr || value == nullptr) {
        return -1;
    }
    return guarded(-1, [&] {
        m_state->m_params[key] = value;
        m_state->m_has_params = true;
        return 0;
    });
}

char* CRtspUrlParser::GetParam(const char* key) const {
    if (m_state == nullptr || key == nullptr) {
        return nullptr;
    }
    return guarded(static_cast<char*>(nullptr), [&]() -> char* {
        const auto found = m_state->m_params.find(key);
        return found != m_state->m_params.end() ? found->second.data() : nullptr;
    });
}

char* CRtspUrlParser::GetContent() {
    return m_state != nullptr && m_state->m_parsed ? m_state->m_content : nullptr;
}

src_type_t CRtspUrlParser::GetSrcType() {
    return m_state != nullptr && m_state->m_parsed ? m_state->m_src_type : SRC_TYPE_NONE;
}

char* CRtspUrlParser::GetProxyUrl() {
    const bool usable = m_state != nullptr && m_state->m_parsed && m_state->m_is_proxy;
    return usable ? m_state->generate_proxy_url() : nullptr;
}

int CRtspUrlParser::GetLocalStreamProto() {
    return m_state != nullptr ? m_state->m_local_stream_proto : 0;
}

int CRtspUrlParser::GetAuthInfo(auth_info_tc& auth, int index) const {
    if (m_state == nullptr || !m_state->m_parsed || !CState::is_index(index) || auth.user == nullptr ||
        auth.password == nullptr) {
        return -1;
    }
    const CState::peer_t peer = m_state->peer(index);
    if (!peer.has_auth) {
        return -1;
    }
    copy_auth_text(auth.user, peer.user);
    copy_auth_text(auth.password, peer.password);
    return 0;
}

int CRtspUrlParser::GetConnection(int index, char* addr, unsigned int size, unsigned short& port) const {
    if (m_state == nullptr || !m_state->m_parsed || !CState::is_index(index) || addr == nullptr || size == 0) {
        return -1;
    }
    const CState::peer_t peer = m_state->peer(index);
    if (!peer.has_addr || peer.port < 0 || peer.port > Tramel::MAX_PORT) {
        return -1;
    }
    CTextWriter(addr, size).Add(static_cast<const char*>(peer.addr));
    port = static_cast<unsigned short>(peer.port);
    return 0;
}

CSockAddrStorage CRtspUrlParser::GetAddr(int index) const {
    CSockAddrStorage address;
    if (m_state == nullptr || !m_state->m_parsed || !CState::is_index(index)) {
        return address;
    }
    const CState::peer_t peer = m_state->peer(index);
    if (peer.has_addr && peer.port >= 0 && peer.port <= Tramel::MAX_PORT) {
        address.SetAddr(peer.addr, static_cast<unsigned short>(peer.port));
    }
    return address;
}

identifier_t* CRtspUrlParser::GetIdentifier() const {
    const bool present = m_state != nullptr && m_state->m_parsed && m_state->m_has_identifier;
    return present ? &m_state->m_identifier : nullptr;
}

playback_info* CRtspUrlParser::GetPlayback_info() const {
    const bool present = m_state != nullptr && m_state->m_parsed && m_state->m_has_playback;
    return present ? &m_state->m_playback : nullptr;
}

char* CRtspUrlParser::GetFileName() const {
    const bool present = m_state != nullptr && m_state->m_parsed && m_state->m_has_file;
    return present ? m_state->m_file_name : nullptr;
}

}  // namespace Vidora
}  // namespace Kavio
