#ifndef VIDORA_TRAMEL_SOCK_H
#define VIDORA_TRAMEL_SOCK_H

#include "Vidora/Export.h"
#include "Vidora/Tramel/SockAddr.h"

namespace Kavio {
namespace Tramel {

class CNetHandler;
class CSockAcceptor;

// CSock: owns a descriptor, which is non-blocking and close-on-exec from Attach or Open on.
//
// THREADING  Used from the callbacks of the handler that holds it; the senders lock for themselves.
class VIDORA_API CSock {
public:
    CSock() = default;
    virtual ~CSock();
    CSock(const CSock&) = delete;
    CSock& operator=(const CSock&) = delete;

    // Takes `fd` over; a former descriptor is closed. 0, or -1 if `fd` is no open descriptor (it is then not owned).
    int Attach(int fd);
    // Releases the descriptor and returns it, or -1. Whoever watches it takes it out of the reactor first.
    int Detach();
    // The descriptor, or -1.
    int GetHandle() const { return m_fd; }
    bool IsValid() const { return m_fd >= 0; }
    // Closes the descriptor, and takes it out of the reactor if somebody still watches it; 0, or -1 if there is none.
    int Close();
    // The peer's address and the local one. `addr` must be a CSockAddrStorage, or an address of the right family.
    // 0 or -1.
    int GetRemoteAddr(CSockAddr* addr) const;
    int GetLocalAddr(CSockAddr* addr) const;

protected:
    // Takes over a descriptor that was made non-blocking and close-on-exec; a former one is closed.
    void take(int fd);
    // The descriptor is about to be closed or given away: nothing may be written to it through this object any more,
    // since its number can stand for another file at once. The base does nothing.
    virtual void OnRelease() {}
    // A handler has registered the socket with the reactor, perhaps after having taken it out. The base does nothing.
    virtual void OnRegistered() {}

    int m_fd = -1;

private:
    friend class CNetHandler;
    friend class CSockAcceptor;
    int get_addr(int (*query)(int, struct sockaddr*, socklen_t*), CSockAddr* addr) const;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCK_H
