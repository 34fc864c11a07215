// A hostile challenge: whatever it holds, the answer is well-formed and bounded, or there is none.

#include "FuzzSupport.h"
#include "RtspClient/RtspClientAuth.h"

using namespace Kavio::Vidora;

namespace {

void answer(const std::string& challenge, bool conformance) {
    CRtspClientAuth auth;
    auth.SetConformance(conformance);
    auth.set_user("user", "password");
    auth.set_method_id(RTSP_METHOD_DESCRIBE);
    auth.set_uri("rtsp://192.0.2.1/live");
    auth.set_challenge(challenge);
    for (int i = 0; i < 2; ++i) {
        auth.count_request();
        std::string value;
        if (!auth.get_authorization(value)) {
            Fuzz::Require(value.empty());
            continue;
        }
        const bool basic = auth.get_auth_type() == CRtspClientAuth::AUTH_BASIC;
        Fuzz::Require(value.rfind(basic ? "Basic " : "Digest username=\"user\", realm=\"", 0) == 0);
        Fuzz::Require(value.size() <= 2048 + 256 + 3 * challenge.size());
    }
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    const std::string challenge(reinterpret_cast<const char*>(data), size);
    answer(challenge, false);
    answer(challenge, true);
}
