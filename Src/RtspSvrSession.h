#ifndef VIDORA_RTSPSVRSESSION_H
#define VIDORA_RTSPSVRSESSION_H

#include "SvrSessionCore.h"

namespace Kavio {
namespace Vidora {

// CRtspSvrSession: an RTSP session on a TCP connection of its own. See CSvrSessionCore.
class CRtspSvrSession : public CSvrSessionCore {
public:
    // Takes `sock` over with the `len` bytes, at most 4096, that were read from it. They are served on the session's
    // strand; this call doesn't wait, and the session may be gone when it returns. Called once, when all is set.
    void Start(CSockStream* sock, const char* buf, int len);

    int handle_input(int fd) override;
    bool SendsReports() const override { return true; }

protected:
    int Init(int count) override;

private:
    ~CRtspSvrSession() override = default;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPSVRSESSION_H
