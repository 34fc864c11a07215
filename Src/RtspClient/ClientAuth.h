#ifndef VIDORA_RTSPCLIENT_CLIENTAUTH_H
#define VIDORA_RTSPCLIENT_CLIENTAUTH_H

#include <string>

#include "Protocol/RtspReqParser.h"
#include "RtspClient/ClientTypes.h"
#include "RtspClient/RtspClientAuth.h"

namespace Kavio {
namespace Vidora {

// CClientAuth: the authentication of one conversation: it takes challenges, up to 8 in a row, and signs requests.
//
// THREADING  The strand.
class CClientAuth {
public:
    explicit CClientAuth(CRtspReqParser& parser) : m_parser(parser) {}

    void SetUser(const char* user, const char* password) { m_auth.set_user(user, password); }
    // A 401 to a request of `method`, whose challenge the parser holds. False, with a log line: there were 8 since the
    // last success, or it can't be answered. A Basic value goes along with every later request.
    bool TakeChallenge(rtsp_method_t method, const char* url);
    // A request succeeded.
    void Succeeded() { m_count = 0; }
    // Whether Sign is needed.
    bool IsDigest() const { return m_auth.get_auth_type() == CRtspClientAuth::AUTH_DIGEST; }
    // A copy of `request` with an Authorization header as its last one. False if it can't be made.
    bool Sign(const char* request, std::string& text);

private:
    static const int MAX_CHALLENGES = 8;

    CRtspReqParser& m_parser;
    CRtspClientAuth m_auth;
    int m_count = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTAUTH_H
