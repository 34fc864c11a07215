#ifndef VIDORA_RTSPCLIENT_RTSPCLIENTAUTH_H
#define VIDORA_RTSPCLIENT_RTSPCLIENTAUTH_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "RtspClient/AuthChallenge.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// CRtspClientAuth: answers a server's challenges. It keeps the user's name and password, reads WWW-Authenticate and
// makes the value of Authorization for Basic (RFC 2617 2) or Digest with MD5 (RFC 2617 3, RFC 2069).
//
// An object lives as long as its client engine. No operation throws; if memory is short a setter leaves its field
// empty, and get_authorization fails. The challenge may hold any bytes: reading takes linear time.
// THREADING  One thread at a time: the engine's network thread, and before the start the one that sets the user.
class CRtspClientAuth {
public:
    enum auth_type_t { AUTH_NONE = 0, AUTH_BASIC = 1, AUTH_DIGEST = 2 };

    // Null is empty.
    void set_user(const char* user, const char* password) noexcept;
    // The request that the next digest is for: its URI as in its first line (empty means "/") and its method.
    void set_uri(const std::string& uri) noexcept;
    void set_method(const std::string& method) noexcept;
    // The same by number; any value outside 0 to 7 means OPTIONS.
    void set_method_id(rtsp_method_t method) noexcept;
    // The body of that request, for a challenge that protects it; by conformance only, and valid until the digest is
    // made.
    void set_entity(std::string_view entity) { m_entity = entity; }
    // The value that is made next goes out with a request. By conformance each has a count of its own.
    void count_request();
    // The value of WWW-Authenticate; by conformance also several values with commas between, of which the best is taken
    // that can be answered.
    void set_challenge(const std::string& challenge) noexcept;
    // Reads challenges and writes answers as RFC 2617 has them, and counts the requests of a nonce. Otherwise as older
    // servers know it. Before the first challenge.
    void SetConformance(bool on) { m_conformance = on; }
    // By conformance: whether the last challenge says that only the nonce was too old.
    bool is_stale() const;
    // auth_type_t of the last challenge.
    int get_auth_type() const { return m_auth_type; }

    // Makes the value of Authorization. False, with an empty `value`, without a user, for a scheme other than the two,
    // or for a digest challenge that lacks a part or asks for an algorithm other than MD5 and MD5-sess.
    bool get_authorization(std::string& value) noexcept;

private:
    typedef std::optional<std::string> text_t;  // absent, or a value that may be empty

    bool make_value(std::string& value);
    void detect_type();
    void make_basic(std::string& value) const;
    bool make_digest(std::string& value);
    bool parse_digest_challenge();
    void reset_digest();
    text_t find_quoted(const char* name) const;
    text_t find_unquoted(const char* name) const;
    text_t find_between(const std::string& key, char end) const;
    bool compute_response(std::string& response);
    std::string compute_ha1();
    void make_cnonce_if_needed();
    void append_digest_value(std::string& value, const std::string& response) const;
    void choose_challenge();
    void take_digest(const CAuthChallenge& challenge);
    void append_standard_value(std::string& value, const std::string& response) const;

    std::string m_username;
    std::string m_password;
    std::string m_uri;
    std::string m_www_authenticate;
    std::string m_method;
    std::string_view m_entity;
    bool m_conformance = false;
    // Of the challenge.
    text_t m_realm;
    text_t m_domain;
    text_t m_nonce;
    text_t m_opaque;
    text_t m_stale;
    text_t m_algorithm;
    text_t m_qop;
    uint32_t m_nc = 0;  // 0 until a cnonce was made
    bool m_nc_is_used = false;
    text_t m_cnonce;
    text_t m_session_key;  // HA1 of MD5-sess
    int m_auth_type = AUTH_NONE;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_RTSPCLIENTAUTH_H
