#ifndef VIDORA_NAT_P2PCLIENT_H
#define VIDORA_NAT_P2PCLIENT_H

#include <string>

#include "Nat/NatLink.h"
#include "RtspClient/ClientEngine.h"

namespace Kavio {
namespace Vidora {

// CP2PClient: a client engine over a UDP socket through NATs, see TClientEngine. It asks for RTP, interleaved, though
// no interleave header is on the wire.
//
// THREADING  Create, Start: any thread; they return at once. All else as in TClientEngine.
class CP2PClient final : public TClientEngine<CNatLink> {
public:
    // Null if memory is short.
    static CP2PClient* Create(long owner_id);

    // Says hello to the server of `url`, whose host must be an address, over a UDP socket, which is the engine's if the
    // result is 0. 0, or -1 with a log line: not such a URL or socket, or memory short. Once.
    int Start(const std::string& url, const client_settings& settings, int sock_handle);

    int64_t handle_timeout(long timer_id) override;

private:
    friend class TClientEngine<CNatLink>;
    explicit CP2PClient(long owner_id) : TClientEngine(owner_id) {}
    ~CP2PClient() override;

    int start(const std::string& url, client_settings settings, int sock_handle);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NAT_P2PCLIENT_H
