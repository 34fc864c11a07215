#ifndef VIDORA_TRAMEL_DGRAMTARGET_H
#define VIDORA_TRAMEL_DGRAMTARGET_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>

#include "Vidora/Tramel/SockAddr.h"

namespace Kavio {
namespace Tramel {

// CDgramTarget: where the datagrams of a socket that isn't connected go, and by which interface, in the form that
// sendmsg takes. The system looks for a route, and for an address to send from, at each message. A value without a
// lock.
class CDgramTarget {
public:
    // Room for the control message.
    static const size_t CONTROL_SIZE = CMSG_SPACE(sizeof(in6_pktinfo));

    // Not set: for a socket that is connected.
    CDgramTarget() = default;
    // `remote` is of the socket's family. `interface_index` above 0: datagrams leave by that interface, with the
    // address `source` if that is valid. -1 if the address isn't valid: nothing changes.
    int Set(const CSockAddrStorage& remote, unsigned int interface_index, const CSockAddrStorage& source);
    void Clear() { m_addr_length = 0; }
    bool IsSet() const { return m_addr_length != 0; }

    // Sets in `message` the address and the control message, which borrow from this object. Nothing if it isn't set.
    void Fill(struct msghdr& message) const;

private:
    union {
        struct sockaddr any;
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    } m_addr = {};
    socklen_t m_addr_length = 0;
    alignas(struct cmsghdr) unsigned char m_control[CONTROL_SIZE] = {};
    size_t m_control_size = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_DGRAMTARGET_H
