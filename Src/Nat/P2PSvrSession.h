#ifndef VIDORA_P2PSVRSESSION_H
#define VIDORA_P2PSVRSESSION_H

#include "Nat/P2PSessionCore.h"
#include "NatIntake.h"

namespace Kavio {
namespace Vidora {

// CP2PSvrSession: the server's end of a NAT session, on a socket that the host has punched a way for.
//
// It says hello to the address that the rendezvous has found. A translation may show another port here, so the peer is
// fixed by the first datagram that is a client's hello or a request and comes from that address: the socket is
// connected to it then. Before that all else is dropped unseen, and afterwards what comes from elsewhere; a datagram of
// the peer that is neither ends the session, reports of a receiver excepted by conformance. Each hello is answered.
//
// At its end the socket goes back to the host, as it came, but non-blocking. The host hears of no client connected, and
// so of none disconnected.
class CP2PSvrSession : public CP2PSessionCore {
public:
    // Reads "address:port", the address numeric and with brackets around an IPv6 one. False if it is none.
    static bool ReadPeer(const char* text, CSockAddrStorage& peer);

    // Takes `sock` over, and begins on the session's strand; the session may be gone when this returns. Called once,
    // when all is set.
    void Start(std::unique_ptr<CSockDgram> sock, const CSockAddrStorage& peer, const nat_return_t& socket_return);

    int handle_input(int fd) override;
    int handle_close(CNetHandler* handler) override;

protected:
    int Init(int count) override;

private:
    ~CP2PSvrSession() override;

    bool is_stranger(const CSockAddrStorage& from) const;
    bool fix_peer(const CSockAddrStorage& from);
    int take_datagram(const char* text, int length, const CSockAddrStorage& from);
    int end_broken();

    bool m_remote_fixed = false;
    nat_return_t m_socket_return;
};

// Makes such sessions.
INatIntake& NatSessions();

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_P2PSVRSESSION_H
