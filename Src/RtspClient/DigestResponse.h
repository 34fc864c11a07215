#ifndef VIDORA_RTSPCLIENT_DIGESTRESPONSE_H
#define VIDORA_RTSPCLIENT_DIGESTRESPONSE_H

#include <initializer_list>
#include <string>
#include <string_view>

namespace Kavio {
namespace Vidora {

// H of RFC 2617 3.2.1 over the parts joined by colons: MD5 as 32 lower-case hexadecimal digits.
std::string DigestHash(std::initializer_list<std::string_view> parts);

// What enters a digest response besides HA1.
struct digest_request {
    std::string_view method;
    std::string_view uri;  // "/" if empty
    std::string_view nonce;
    std::string_view qop;     // "auth", "auth-int" in any case; anything else computes the response of RFC 2069
    std::string_view entity;  // the body, for auth-int
    std::string_view cnonce;
    unsigned int nc = 0;
};

// Whether a qop value is one that takes part in the response.
bool DigestUsesQop(std::string_view qop);

// The request-digest of RFC 2617 3.2.2.1, or of RFC 2069 2.1.2 without a qop.
std::string DigestResponse(const std::string& ha1, const digest_request& request);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_DIGESTRESPONSE_H
