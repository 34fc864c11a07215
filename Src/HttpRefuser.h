#ifndef VIDORA_HTTPREFUSER_H
#define VIDORA_HTTPREFUSER_H

#include "HttpIntake.h"

namespace Kavio {
namespace Vidora {

// CHttpRefuser: the IHttpIntake of a server without RTSP tunnels. It closes each connection, with a log line.
class CHttpRefuser : public IHttpIntake {
public:
    void SetLiveSvr(CLiveSvr*) override {}
    void SetConfig(const CRtspSvrConfig&) override {}
    void set_ip_type(int) override {}
    int add_connection(Tramel::CSockStream* sock, const char* buf, int len) override;
    void Close() override { delete this; }
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_HTTPREFUSER_H
