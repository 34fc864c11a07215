#include "Credentials.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "Vidora/Ostra/Base64.h"
#include "Vidora/Ostra/Md5.h"
#include "Vidora/Ostra/Time.h"
#include "Vidora/Types.h"

using Kavio::Ostra::CTime;

namespace {

// A URL of the ONVIF kind has this behind its answer.
const char ONVIF_MARK[] = ".OnvifInterDomain";
const size_t TIME_DIGITS = 8;

std::string md5(const std::string& text) {
    Kavio::Ostra::Utils::CMd5 digest;
    digest.update(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()));
    char hex[33];
    digest.hex(hex);
    return hex;
}

// Takes as long for a wrong text as for the right one of the same length.
bool equals_in_constant_time(const std::string& left, const std::string& right) {
    unsigned char difference = left.size() == right.size() ? 0 : 1;
    for (size_t i = 0; i < left.size(); ++i) {
        const char other = right.empty() ? '\0' : right[i % right.size()];
        difference = static_cast<unsigned char>(difference | (left[i] ^ other));
    }
    return difference == 0;
}

// The text from `at` up to one of `ends`, which `at` is moved to.
std::string read_until(const std::string& text, size_t& at, const char* ends) {
    const size_t begin = at;
    at = std::min(text.find_first_of(ends, begin), text.size());
    return text.substr(begin, at - begin);
}

// The text between quotes, the first of which is at `at`; a backslash lets any sign be part of it. `at` is moved behind
// it.
std::string read_quoted(const std::string& text, size_t& at) {
    std::string value;
    for (++at; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\' && at + 1 < text.size()) {
            ++at;
        }
        value.push_back(text[at]);
    }
    ++at;
    return value;
}

std::string to_lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char sign) { return static_cast<char>(std::tolower(sign)); });
    return text;
}

// Reads name="value" or name=value pairs with commas between them (RFC 2617 1.2).
std::map<std::string, std::string> read_fields(const std::string& text) {
    std::map<std::string, std::string> fields;
    for (size_t at = 0; at < text.size();) {
        at = std::min(text.find_first_not_of(" ,\t", at), text.size());
        const std::string name = to_lower(read_until(text, at, "=,"));
        if (at >= text.size() || text[at] != '=') {
            continue;
        }
        ++at;
        const bool is_quoted = at < text.size() && text[at] == '"';
        fields.emplace(name, is_quoted ? read_quoted(text, at) : read_until(text, at, ", "));
    }
    return fields;
}

// Is `text` led by `scheme` and a blank, in any case? Then `rest` is what follows.
bool has_scheme(const std::string& text, const char* scheme, std::string& rest) {
    const size_t length = std::strlen(scheme);
    if (text.size() <= length || text[length] != ' ') {
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        if (std::tolower(static_cast<unsigned char>(text[i])) != scheme[i]) {
            return false;
        }
    }
    rest = text.substr(length + 1);
    return true;
}

// What a URL asks for, its path and query: some clients name the whole URL in their answer, some that part alone, and
// some end one of them in a slash.
std::string path_of(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t slash = scheme == std::string::npos ? 0 : url.find('/', scheme + 3);
    const size_t begin = url.find_first_not_of('/', slash);
    const size_t end = url.find_last_not_of('/');
    return slash == std::string::npos || begin == std::string::npos ? std::string()
                                                                    : url.substr(begin, end + 1 - begin);
}

}  // namespace

void Credentials::Set(const std::vector<UserOption>& users, const std::string& realm, int nonce_sec) {
    for (const UserOption& user : users) {
        m_users[user.name] = user.password;
    }
    m_realm = realm;
    m_nonce_sec = nonce_sec;
    std::random_device source;
    for (int i = 0; i < 8; ++i) {
        m_secret += std::to_string(source()) + ".";
    }
}

const std::string* Credentials::find_password(const std::string& name) const {
    const auto user = m_users.find(name);
    return user == m_users.end() ? nullptr : &user->second;
}

// The time, and a signature of it, so that no list of nonces has to be kept.
std::string Credentials::make_nonce(uint64_t time_sec) const {
    char time_text[TIME_DIGITS + 1];
    std::snprintf(time_text, sizeof(time_text), "%08x", static_cast<unsigned int>(time_sec));
    return time_text + md5(m_secret + time_text + m_secret);
}

bool Credentials::is_nonce_fresh(const std::string& nonce) const {
    if (nonce.size() < TIME_DIGITS) {
        return false;
    }
    const uint64_t made = std::strtoull(nonce.substr(0, TIME_DIGITS).c_str(), nullptr, 16);
    const uint64_t now = CTime::getCurrentTime().makeTime();
    return equals_in_constant_time(make_nonce(made), nonce) && now >= made &&
           now - made <= static_cast<uint64_t>(m_nonce_sec);
}

std::string Credentials::MakeChallenge() const {
    return "Digest realm=\"" + m_realm + "\", nonce=\"" + make_nonce(CTime::getCurrentTime().makeTime()) +
           "\"\r\nWWW-Authenticate: Basic realm=\"" + m_realm + "\"";
}

bool Credentials::IsAllowed(const std::string& authorization, const AuthRequest& request) const {
    std::string value = authorization;
    const size_t mark = std::strlen(ONVIF_MARK);
    if (value.size() > mark && value.compare(value.size() - mark, mark, ONVIF_MARK) == 0) {
        value.resize(value.size() - mark);
    }
    std::string rest;
    if (has_scheme(value, "digest", rest)) {
        return is_digest_allowed(read_fields(rest), request);
    }
    return has_scheme(value, "basic", rest) && is_basic_allowed(rest);
}

// RFC 2617 3.2.2.1, and RFC 2069 where there is no qop.
bool Credentials::is_digest_allowed(const fields_t& fields, const AuthRequest& request) const {
    const auto field = [&](const char* name) {
        const auto found = fields.find(name);
        return found == fields.end() ? std::string() : found->second;
    };
    const std::string nonce = field("nonce");
    const std::string* password = find_password(field("username"));
    if (field("realm") != m_realm || !is_nonce_fresh(nonce) || path_of(field("uri")) != path_of(request.url)) {
        return false;
    }
    // An unknown user costs as much as a known one.
    const std::string ha1 = md5(field("username") + ":" + m_realm + ":" + (password == nullptr ? m_secret : *password));
    const std::string qop = field("qop");
    const std::string middle = qop.empty() ? nonce : nonce + ":" + field("nc") + ":" + field("cnonce") + ":" + qop;
    const std::string ha2 = md5(request.method + ":" + field("uri"));
    const bool matches = equals_in_constant_time(md5(ha1 + ":" + middle + ":" + ha2), field("response"));
    return matches && password != nullptr;
}

bool Credentials::is_basic_allowed(const std::string& token) const {
    std::string text(static_cast<size_t>(Kavio::Ostra::base64DecodeLen(token.c_str())) + 1, '\0');
    const int length = Kavio::Ostra::base64Decode(&text[0], token.c_str());
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    const std::string* password = find_password(text.substr(0, colon));
    const bool matches =
        equals_in_constant_time(md5(password == nullptr ? m_secret : *password), md5(text.substr(colon + 1)));
    return matches && password != nullptr;
}

int AuthModule::GetChallenge(const char*, result_proc_t result, const char*, int) {
    const std::string challenge = m_credentials.MakeChallenge();
    result(AUTH_RESULT_CHALLENGE, challenge.c_str());
    return 0;
}

int AuthModule::ProcessChallenge(const char* response, result_proc_t result, int) {
    const bool allowed = response != nullptr && m_credentials.IsAllowed(response, m_request);
    result(allowed ? AUTH_RESULT_OK : AUTH_RESULT_DENIED, "");
    return 0;
}

void AuthModule::SetRequest(const char* method, const char* url) {
    m_request.method = method;
    m_request.url = url;
}
