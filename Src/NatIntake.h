#ifndef VIDORA_NATINTAKE_H
#define VIDORA_NATINTAKE_H

#include <memory>

#include "Vidora/Names.h"
#include "Vidora/RtspSvr.h"

namespace Kavio {
namespace Vidora {

class CLiveSvrRef;
class CRtspSvrConfig;
class CSessionRoll;

// INatIntake: what CSvrSessionManager hands NAT streams to. The layer of NAT sessions is above the server, and the
// entry, which is above both, passes the manager its intake.
//
// THREADING  Any thread, with no lock held; it doesn't wait.
// OWNERSHIP  Borrowed, and lives as long as the process.
class INatIntake {
public:
    // Takes `sock` over, also on failure. `peer` is the address that the host's rendezvous has found, as text. 0: the
    // socket comes back by `socket_return`, once. -1: it is closed, and `socket_return` isn't called.
    virtual int add_connection(std::unique_ptr<Tramel::CSockDgram> sock, const char* peer,
                               const nat_return_t& socket_return, const CRtspSvrConfig& config,
                               const CLiveSvrRef& live_svr, const std::shared_ptr<CSessionRoll>& roll) = 0;

protected:
    virtual ~INatIntake() = default;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NATINTAKE_H
