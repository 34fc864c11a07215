#include "RtspClient/RtspClientAuth.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "Protocol/HeaderText.h"
#include "Protocol/RtspTables.h"
#include "RtspClient/DigestResponse.h"
#include "Tramel/StrParser.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/Base64.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t MAX_BASIC_TEXT = 1023;   // characters of "user:password"
const size_t MAX_DIGEST_HEAD = 2047;  // characters of the value's fixed part
const char MD5[] = "MD5";
const char MD5_SESS[] = "MD5-sess";

void assign(std::string& field, std::string_view text) noexcept {
    try {
        field = text;
    } catch (const std::bad_alloc&) {
        field.clear();
    }
}

void assign(std::string& field, const char* text) noexcept {
    assign(field, text != nullptr ? std::string_view(text) : std::string_view());
}

}  // namespace

void CRtspClientAuth::set_user(const char* user, const char* password) noexcept {
    assign(m_username, user);
    assign(m_password, password);
}

void CRtspClientAuth::set_uri(const std::string& uri) noexcept {
    assign(m_uri, uri);
}

void CRtspClientAuth::set_method(const std::string& method) noexcept {
    assign(m_method, method);
}

void CRtspClientAuth::set_method_id(rtsp_method_t method) noexcept {
    const char* name = RtspMethodName(method);
    assign(m_method, name != nullptr ? name : RtspMethodName(RTSP_METHOD_OPTIONS));
}

void CRtspClientAuth::set_challenge(const std::string& challenge) noexcept {
    assign(m_www_authenticate, challenge);
    if (!m_conformance) {
        detect_type();
        return;
    }
    m_auth_type = AUTH_NONE;
    try {
        choose_challenge();
    } catch (const std::bad_alloc&) {
        m_auth_type = AUTH_NONE;
    }
}

// RFC 2617 4.6: the strongest one that is known.
void CRtspClientAuth::choose_challenge() {
    m_stale.reset();
    for (const CAuthChallenge& challenge : CAuthChallenge::ReadAll(m_www_authenticate)) {
        if (challenge.IsDigestKnown()) {
            m_auth_type = AUTH_DIGEST;
            take_digest(challenge);
            return;
        }
        m_auth_type = challenge.IsScheme("Basic") ? static_cast<int>(AUTH_BASIC) : m_auth_type;
    }
}

// A nonce that is known goes on with its count.
void CRtspClientAuth::take_digest(const CAuthChallenge& challenge) {
    if (m_nonce != challenge.Find("nonce")) {
        reset_digest();
    }
    m_session_key.reset();
    m_realm = challenge.Find("realm");
    m_nonce = challenge.Find("nonce");
    m_opaque = challenge.Find("opaque");
    m_stale = challenge.Find("stale");
    m_algorithm = challenge.Find("algorithm");
    m_qop = challenge.ChooseQop();
}

bool CRtspClientAuth::is_stale() const {
    return m_stale && EqualsAnyCase(*m_stale, "true");
}

// RFC 2617 3.2.2: a server may take an equal count for a request that somebody repeats.
void CRtspClientAuth::count_request() {
    if (m_conformance && m_nc_is_used && m_cnonce) {
        ++m_nc;
    }
    m_nc_is_used = true;
}

void CRtspClientAuth::detect_type() {
    CStrParser text(m_www_authenticate.data(), static_cast<unsigned int>(m_www_authenticate.size()));
    char word[128];
    text.ConsumeWhitespace();
    text.ConsumeWord(word, sizeof word);
    m_auth_type = EqualsAnyCase(word, "BASIC") ? AUTH_BASIC : EqualsAnyCase(word, "DIGEST") ? AUTH_DIGEST : AUTH_NONE;
}

bool CRtspClientAuth::get_authorization(std::string& value) noexcept {
    bool made = false;
    try {
        made = make_value(value);
    } catch (const std::bad_alloc&) {
        made = false;
    }
    if (!made) {
        value.clear();
    }
    return made;
}

bool CRtspClientAuth::make_value(std::string& value) {
    if (m_username.empty()) {
        logWarn("%s:%d user info not set, error.\n", __FILE__, __LINE__);
        return false;
    }
    value.clear();
    if (!m_conformance) {
        detect_type();
    }
    if (m_auth_type == AUTH_BASIC) {
        make_basic(value);
        return true;
    }
    if (m_auth_type == AUTH_DIGEST) {
        return make_digest(value);
    }
    logWarn("%s:%d WWWAuthenticate info error:%s\n", __FILE__, __LINE__, m_www_authenticate.c_str());
    return false;
}

void CRtspClientAuth::make_basic(std::string& value) const {
    std::string text = m_username + ":" + m_password;
    text.resize(std::min(text.size(), MAX_BASIC_TEXT));
    const int length = static_cast<int>(text.size());
    std::string encoded(static_cast<size_t>(Ostra::base64EncodeLen(length)), '\0');
    Ostra::base64Encode(encoded.data(), text.data(), length);
    value.append("Basic ").append(encoded.c_str());
}

bool CRtspClientAuth::make_digest(std::string& value) {
    std::string response;
    if (m_conformance) {
        if (!compute_response(response)) {
            return false;
        }
        append_standard_value(value, response);
        return true;
    }
    if (!parse_digest_challenge() || !compute_response(response)) {
        return false;
    }
    append_digest_value(value, response);
    return true;
}

void CRtspClientAuth::reset_digest() {
    for (text_t* field :
         {&m_realm, &m_domain, &m_nonce, &m_opaque, &m_stale, &m_algorithm, &m_qop, &m_cnonce, &m_session_key}) {
        field->reset();
    }
    m_nc = 0;
    m_nc_is_used = false;
}

bool CRtspClientAuth::parse_digest_challenge() {
    reset_digest();
    m_realm = find_quoted("realm");
    m_domain = find_quoted("domain");
    m_nonce = find_quoted("nonce");
    m_opaque = find_quoted("opaque");
    m_qop = find_quoted("qop");
    m_stale = find_unquoted("stale");  // no effect: each request is answered with its newest challenge
    m_algorithm = find_unquoted("algorithm");
    if (!m_realm || !m_nonce) {
        logWarn("%s:%d invalid auth from svr:%s\n", __FILE__, __LINE__, m_www_authenticate.c_str());
        return false;
    }
    // The second name with its case. A quoted algorithm keeps its quotes and so is none that is known.
    if (m_algorithm && !EqualsAnyCase(*m_algorithm, MD5) && *m_algorithm != MD5_SESS) {
        logWarn("%s:%d invalid auth from algorithm svr:%s\n", __FILE__, __LINE__, m_www_authenticate.c_str());
        return false;
    }
    return true;
}

// The first place of the name with its sign counts, also inside another parameter's value or name.
CRtspClientAuth::text_t CRtspClientAuth::find_quoted(const char* name) const {
    return find_between(std::string(name) + "=\"", '"');
}

CRtspClientAuth::text_t CRtspClientAuth::find_unquoted(const char* name) const {
    return find_between(std::string(name) + "=", ',');
}

CRtspClientAuth::text_t CRtspClientAuth::find_between(const std::string& key, char end) const {
    const size_t found = m_www_authenticate.find(key);
    if (found == std::string::npos) {
        return std::nullopt;
    }
    const size_t begin = found + key.size();
    return m_www_authenticate.substr(begin, m_www_authenticate.find(end, begin) - begin);
}

bool CRtspClientAuth::compute_response(std::string& response) {
    if (!m_realm) {
        logWarn("%s:%d Digest Authentication: Mandatory 'realm' value not available", __FILE__, __LINE__);
        return false;
    }
    const std::string ha1 = compute_ha1();
    digest_request request;
    request.method = m_method;
    request.uri = m_uri;
    request.nonce = *m_nonce;
    if (m_qop) {
        request.qop = *m_qop;
    }
    request.entity = m_conformance ? m_entity : std::string_view();
    if (DigestUsesQop(request.qop)) {
        make_cnonce_if_needed();
        request.cnonce = *m_cnonce;
        request.nc = m_nc;
    }
    response = DigestResponse(ha1, request);
    return true;
}

std::string CRtspClientAuth::compute_ha1() {
    if (m_session_key) {
        return *m_session_key;
    }
    std::string ha1 = DigestHash({m_username, *m_realm, m_password});
    if (m_algorithm && EqualsAnyCase(*m_algorithm, MD5_SESS)) {
        make_cnonce_if_needed();
        ha1 = DigestHash({ha1, *m_nonce, *m_cnonce});
        m_session_key = ha1;
    }
    return ha1;
}

// The parameters start afresh with each value made, and the count is not raised: every request carries nc 00000001,
// each with a cnonce of its own. Servers that count per nonce have always been served so.
void CRtspClientAuth::make_cnonce_if_needed() {
    if (m_cnonce || m_nc > 0) {
        return;
    }
    const uint64_t now = CTime::getCurrentMicroSecond();
    m_cnonce = DigestHash({std::string_view(reinterpret_cast<const char*>(&now), sizeof now)});
    m_nc = 1;
}

void CRtspClientAuth::append_digest_value(std::string& value, const std::string& response) const {
    value.append("Digest username=\"").append(m_username);
    value.append("\", realm=\"").append(*m_realm);
    value.append("\", nonce=\"").append(*m_nonce);
    value.append("\", uri=\"").append(m_uri.empty() ? "/" : m_uri);
    value.append("\", response=\"").append(response).append("\"");
    value.resize(std::min(value.size(), MAX_DIGEST_HEAD));
    if (!m_algorithm && !m_cnonce && !m_opaque && !m_qop) {
        return;  // and no nc, which comes with a cnonce only
    }
    const std::pair<const char*, const text_t*> fields[] = {
        {"algorithm", &m_algorithm}, {"cnonce", &m_cnonce}, {"opaque", &m_opaque}, {"qop", &m_qop}};
    value.append(", ");
    for (const auto& [name, field] : fields) {
        if (*field) {
            value.append(name).append("=\"").append(**field).append("\", ");
        }
    }
    // The quotes round every value, and the comma and blank that end the text when there is no nc, differ from
    // RFC 2617 3.2.2; peers accept them and know us so.
    if (m_nc > 0) {
        char nc[16];
        std::snprintf(nc, sizeof nc, "%08x", m_nc);
        value.append("nc=\"").append(nc).append("\"");
    }
}

namespace {

// RFC 2617 3.2.2: what the response is computed over is in quotes; qop, nc and algorithm are not.
std::string quoted(std::string_view text) {
    std::string out;
    for (const char c : text) {
        out.append(c == '"' || c == '\\' ? "\\" : "").push_back(c);
    }
    return out;
}

}  // namespace

// What the challenge has given goes back as it came.
void CRtspClientAuth::append_standard_value(std::string& value, const std::string& response) const {
    value.append("Digest username=\"").append(quoted(m_username));
    value.append("\", realm=\"").append(*m_realm);
    value.append("\", nonce=\"").append(*m_nonce);
    value.append("\", uri=\"").append(m_uri.empty() ? "/" : m_uri);
    value.append("\", response=\"").append(response).append("\"");
    const std::pair<const char*, const text_t*> fields[] = {
        {", algorithm=", &m_algorithm}, {", opaque=\"", &m_opaque}, {", cnonce=\"", &m_cnonce}, {", qop=", &m_qop}};
    for (const auto& [name, field] : fields) {
        if (*field) {
            value.append(name).append(**field).append(std::strchr(name, '"') != nullptr ? "\"" : "");
        }
    }
    if (m_qop) {
        char nc[16];
        std::snprintf(nc, sizeof nc, "%08x", m_nc);
        value.append(", nc=").append(nc);
    }
}

}  // namespace Vidora
}  // namespace Kavio
