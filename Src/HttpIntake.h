#ifndef VIDORA_HTTPINTAKE_H
#define VIDORA_HTTPINTAKE_H

#include <cstdint>

namespace Kavio {

namespace Tramel {
class CSockStream;
}

namespace Vidora {

class CLiveSvr;
class CRtspSvrConfig;

// IHttpIntake: what CSvrSessionManager hands connections to whose first request is HTTP, that is, the two halves of an
// RTSP tunnel.
//
// THREADING  Any thread, under the lock of the connection intake: an operation must not wait, and must not call back.
// OWNERSHIP  The intake makes one, and ends it with Close, once; it isn't called after that.
class IHttpIntake {
public:
    // As the operations of CSvrSessionManager.
    virtual void SetLiveSvr(CLiveSvr* live_svr) = 0;
    virtual void SetConfig(const CRtspSvrConfig& config) = 0;
    // Takes `sock` over, also on failure, with the `len` bytes at `buf` that were read from it: a whole request head,
    // and what came behind it. `deadline_us`, of CTime::getCurrentMicroSecond: until then it may wait for its other
    // half. 0, or -1 if the connection was refused.
    virtual int add_connection(Tramel::CSockStream* sock, const char* buf, int len, uint64_t deadline_us) = 0;
    // Drops the connections that wait for their other half.
    virtual void Stop() = 0;
    virtual void Close() = 0;

protected:
    virtual ~IHttpIntake() = default;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_HTTPINTAKE_H
