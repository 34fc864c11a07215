#ifndef VIDORA_NATINTAKE_H
#define VIDORA_NATINTAKE_H

namespace Kavio {

namespace Tramel {
class CSockDgram;
}

namespace Vidora {

class CLiveSvr;
class CRtspSvrConfig;

// What CRtspSvr::AddNewConnect says about a connection that is not an ordinary one.
struct ConnectRecord {
    int kind;       // CONNECT_KIND_NAT; any other value makes an ordinary connection
    int values[4];  // go to the NAT session unchanged
};
const int CONNECT_KIND_NAT = 2;

// INatIntake: what CSvrSessionManager hands NAT streams to. The layer of NAT sessions stands above the server, and so
// installs its intake here; without one the connection is closed, with a log line.
//
// THREADING  Any thread, with no lock held.
class INatIntake {
public:
    virtual ~INatIntake() = default;

    // Takes `sock` over, also on failure, with the `len` bytes at `buf` that were read from it (`buf` may be null with
    // `len` 0). 0, or -1 if the connection was refused.
    virtual int add_connection(Tramel::CSockDgram* sock, const char* buf, int len, const int (&values)[4],
                               const CRtspSvrConfig& config, CLiveSvr* live_svr) = 0;

    // Makes `intake` that of the process; null restores the refusal. It is borrowed, and must live as long as servers
    // do.
    static void Install(INatIntake* intake);
    // Never null.
    static INatIntake* Get();
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NATINTAKE_H
