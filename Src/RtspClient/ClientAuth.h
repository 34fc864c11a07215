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
    // See CRtspClientAuth. A request that was refused with an answer to a challenge ends it then, unless the nonce was
    // too old: devices lock out who tries a wrong password again and again.
    void SetConformance(bool on) {
        m_conformance = on;
        m_auth.SetConformance(on);
    }
    // A 401 to a request of `method` with that CSeq, whose challenge the parser holds. False, with a log line: there
    // were 8 since the last success, or it can't be answered. A Basic value goes along with every later request.
    bool TakeChallenge(rtsp_method_t method, int cseq, const char* url);
    // A request succeeded.
    void Succeeded() { m_count = 0; }
    // Whether Sign is needed.
    bool IsDigest() const { return m_auth.get_auth_type() == CRtspClientAuth::AUTH_DIGEST; }
    // A copy of `request` with an Authorization header as its last one. False if it can't be made.
    bool Sign(const char* request, std::string& text);

private:
    static const int MAX_CHALLENGES = 8;

    bool may_go_on(int cseq) const;

    CRtspReqParser& m_parser;
    CRtspClientAuth m_auth;
    int m_count = 0;
    bool m_conformance = false;
    int m_answered_cseq = 0;  // of the last request in front of the last answer
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTAUTH_H
