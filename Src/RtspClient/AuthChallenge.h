#ifndef VIDORA_RTSPCLIENT_AUTHCHALLENGE_H
#define VIDORA_RTSPCLIENT_AUTHCHALLENGE_H

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Kavio {
namespace Vidora {

// CAuthChallenge: one challenge of a WWW-Authenticate header as RFC 2617 1.2 writes it: a scheme with parameters, whose
// values may be quoted, in any order and case of their names.
//
// THREADING  A value without a lock. Operations may throw std::bad_alloc.
class CAuthChallenge {
public:
    // All challenges of a header's value, or of several values with commas between.
    static std::vector<CAuthChallenge> ReadAll(std::string_view text);

    // Whether the scheme has that name, in any case.
    bool IsScheme(std::string_view name) const;
    // The value of a parameter, without its quotes; none if it is absent.
    std::optional<std::string> Find(std::string_view name) const;
    // Whether a Digest response to it can be made: MD5 or MD5-sess, a realm, a nonce, and a qop that is known, if any.
    bool IsDigestKnown() const;
    // The value of qop to answer with: "auth" before "auth-int"; none if the challenge has none that is known.
    std::optional<std::string> ChooseQop() const;

private:
    std::string m_scheme;
    std::vector<std::pair<std::string, std::string>> m_params;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_AUTHCHALLENGE_H
