#include "NatIntake.h"

#include <atomic>

#include "Tramel/SockDgram.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

// Closes each connection, with a log line.
class CNatRefuser : public INatIntake {
public:
    int add_connection(Tramel::CSockDgram* sock, const char* /*buf*/, int /*len*/, const int (&/*values*/)[4],
                       const CRtspSvrConfig& /*config*/, CLiveSvr* /*live_svr*/) override {
        logWarn("%s:%d NAT streams are not served, connection closed, fd:%d \n", __FILE__, __LINE__, sock->GetHandle());
        delete sock;
        return -1;
    }
};

CNatRefuser refuser;
std::atomic<INatIntake*> installed{&refuser};

}  // namespace

void INatIntake::Install(INatIntake* intake) {
    installed = intake == nullptr ? &refuser : intake;
}

INatIntake* INatIntake::Get() {
    return installed;
}

}  // namespace Vidora
}  // namespace Kavio
