#ifndef VIDORA_TRAMEL_SOCKACCEPTOR_H
#define VIDORA_TRAMEL_SOCKACCEPTOR_H

#include <sys/socket.h>

#include "Vidora/Tramel/Sock.h"

namespace Kavio {
namespace Tramel {

class CSockStream;

// CSockAcceptor: a listening TCP socket. An IPv6 wildcard listens on both families.
class CSockAcceptor : public CSock {
public:
    CSockAcceptor();
    ~CSockAcceptor() override;

    // Binds (with address reuse) and listens. 0, or -1 with errno set.
    int Open(const CSockAddr& local);
    // Takes one waiting connection into `out`; `peer` may be null. 0; -1 if none waits or the system refused. When
    // descriptors are exhausted the waiting connection is accepted on a spare descriptor and closed at once, so that
    // the reactor doesn't spin on it.
    int Accept(CSockStream& out, CSockAddr* peer);

private:
    int take_one(sockaddr_storage& native, socklen_t& length);
    void refuse_one();

    int m_spare_fd = -1;  // kept open to be given up when descriptors are exhausted
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCKACCEPTOR_H
