#ifndef VIDORA_AUTHMODULE_H
#define VIDORA_AUTHMODULE_H

#include "Vidora/Export.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// IAuthModule: authentication of one session, implemented by the host.
//
// The server makes one for each session through the factory of CRtspSvrConfig (RTSP_SVR_CONFIG_AUTH_FUNC) and hands it
// back with Release.
//
// THREADING  GetChallenge and ProcessChallenge run on a pool thread, never twice at once for one module. The result
//            callback may be called inside the call or later, on any thread, once for each call. It leads into the
//            session, which ends right after Release: Release returns only when no callback runs, and none is made
//            after it. A callback that is made while Release runs is harmless, and so Release may wait for a thread of
//            the module's.
class VIDORA_API IAuthModule {
public:
    enum auth_result_t {
        AUTH_RESULT_CHALLENGE =
            0,                  // of GetChallenge: the text is the challenge to send; of ProcessChallenge: authorised
        AUTH_RESULT_OK = 1,     // authorised
        AUTH_RESULT_DENIED = 2  // refused
    };
    typedef TFunction2<void, auth_result_t, const char*> result_proc_t;

    IAuthModule() = default;
    IAuthModule(const IAuthModule&) {}
    IAuthModule& operator=(const IAuthModule&) { return *this; }
    virtual ~IAuthModule() = default;

    // Disposes of the module; the library doesn't touch it again. See THREADING.
    virtual void Release() = 0;

    // Asks for a challenge. `method_or_url`: the URL of the request; `info`: the peer's IP address as text; both are
    // valid during the call. `kind`: 2000. The answer goes to `result` with the value of a WWW-Authenticate header (RFC
    // 2617 3.2.1), or the reason of a refusal. 0, or negative on failure, which the session doesn't look at: a
    // module that doesn't answer leaves the client waiting until its time-out. The base returns -1.
    virtual int GetChallenge(const char* method_or_url, result_proc_t result, const char* info, int kind);

    // Judges a response. `response`: the value of the Authorization header (RFC 2617 3.2.2), with ".OnvifInterDomain"
    // behind it if the URL is of ONVIF's form: users of another table may be meant. Valid during the call. `kind`:
    // 2000. 0, or negative on failure. The base returns -1.
    virtual int ProcessChallenge(const char* response, result_proc_t result, int kind);

    // Says which request the next GetChallenge or ProcessChallenge is for: right before each of them, on the same
    // thread. A Digest response is good for one method and one URL (RFC 2617 3.2.2.3), so a module that judges them
    // keeps both and compares. `method`: its name as it came, such as "DESCRIBE"; `url`: the request's URL as it came,
    // empty if there is none. Both are valid until that operation returns. The base does nothing.
    virtual void SetRequest(const char* method, const char* url);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_AUTHMODULE_H
