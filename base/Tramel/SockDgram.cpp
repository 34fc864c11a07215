#include "Tramel/SockDgram.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Tramel/SockDetail.h"

namespace Kavio {
namespace Tramel {

namespace {

constexpr int MIN_RECV_BUFFER = 1 << 20;
constexpr int MAX_ANSWERS = 64;

// A burst of a key frame's packets must fit until a thread reads. The forced form passes the system's limit, but needs
// the privilege.
void raise_recv_buffer(int fd) {
    int size = 0;
    socklen_t length = sizeof(size);
    // The kernel counts its own overhead in and shows twice what was asked for.
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length) == 0 && size >= 2 * MIN_RECV_BUFFER) {
        return;
    }
    if (SetOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, MIN_RECV_BUFFER) != 0) {
        SetOption(fd, SOL_SOCKET, SO_RCVBUF, MIN_RECV_BUFFER);
    }
}

// Joins the group that the socket is bound to, on the system's choice of interface.
int join(int fd, const CSockAddrStorage& group, unsigned int interface_index, in_addr interface_addr) {
    if (group.GetType() == SOCK_ADDR_IPV4) {
        sockaddr_in native = {};
        memcpy(&native, group.Native(), sizeof(native));
        ip_mreq request = {native.sin_addr, interface_addr};
        return ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request));
    }
    sockaddr_in6 native = {};
    memcpy(&native, group.Native(), sizeof(native));
    ipv6_mreq request = {native.sin6_addr, interface_index != 0 ? interface_index : native.sin6_scope_id};
    return ::setsockopt(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &request, sizeof(request));
}

// The family that the socket itself has: its peers' addresses are given to it in that form.
int family_of(int fd) {
    int domain = AF_UNSPEC;
    socklen_t length = sizeof(domain);
    ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length);
    return domain == AF_INET6 ? SOCK_ADDR_IPV6 : SOCK_ADDR_IPV4;
}

// The error of a read says nothing about the next one: what the kernel makes of ICMP and ICMPv6 messages, and short
// memory.
bool passes_by(int error) {
    switch (error) {
        case 0:
        case ENOMEM:
        case ENOBUFS:
        case ECONNREFUSED:
        case EHOSTUNREACH:
        case EHOSTDOWN:
        case ENETUNREACH:
        case ENETDOWN:
        case ENONET:
        case ENOPROTOOPT:
        case EOPNOTSUPP:
        case EMSGSIZE:
        case EPROTO:
        case EACCES:
            return true;
        default:
            return false;
    }
}

}  // namespace

int CSockDgram::Open(const CSockAddr* local) {
    const CSockAddrStorage at = ToStorage(local);
    if (local != nullptr && !at.IsValid()) {
        errno = EINVAL;
        return -1;
    }
    if (at.IsMulticast()) {
        return open_group(at) != 0 || join(m_fd, at, 0, in_addr{}) != 0 ? FailOpen(*this) : 0;
    }
    if (OpenUnbound(at.IsValid() ? at.GetType() : static_cast<int>(SOCK_ADDR_IPV4), true) != 0) {
        return -1;
    }
    return at.IsValid() && Bind(at) != 0 ? FailOpen(*this) : 0;
}

int CSockDgram::OpenGroup(const CSockAddrStorage& group, const char* interface_name) {
    return open_group(group) != 0 || SetMulticastIF(interface_name) != 0 ? FailOpen(*this) : 0;
}

// Bound to the group, which isn't joined yet.
int CSockDgram::open_group(const CSockAddrStorage& group) {
    if (OpenUnbound(group.GetType(), true) != 0) {
        return -1;
    }
    SetOption(m_fd, SOL_SOCKET, SO_REUSEADDR, 1);  // several receivers of a group share its port
    // Only what is sent to the group that this socket joins, not to those that others on the host have joined.
    SetOption(m_fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
#ifdef IPV6_MULTICAST_ALL
    SetOption(m_fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
#endif
    return Bind(group);
}

int CSockDgram::OpenUnbound(int family, bool receives) {
    const bool is_v6 = family == SOCK_ADDR_IPV6;
    const int fd = ::socket(is_v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    take(fd);
    m_family = is_v6 ? SOCK_ADDR_IPV6 : SOCK_ADDR_IPV4;
    if (receives) {
        raise_recv_buffer(fd);
    }
    if (is_v6) {
        SetOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0);
    }
    return 0;
}

int CSockDgram::Bind(const CSockAddrStorage& local) {
    return ::bind(m_fd, local.Native(), static_cast<socklen_t>(local.GetAddrLen()));
}

// A socket that came from outside is asked for its family.
int CSockDgram::family() const {
    return m_family != 0 ? m_family : family_of(m_fd);
}

int CSockDgram::SetRemote(const CSockAddr* remote) {
    const CSockAddrStorage to = ToStorage(remote).ForFamily(family());
    const auto connect_to = [this](const struct sockaddr* addr, size_t length) {
        return ::connect(m_fd, addr, static_cast<socklen_t>(length)) == 0;
    };
    const size_t length = static_cast<size_t>(to.GetAddrLen());
    m_offload_limit = ANY_SIZE;  // as by SetTarget
    if (!to.IsValid() || connect_to(to.Native(), length)) {
        return to.IsValid() ? 0 : -1;
    }
    // A socket that was connected before keeps the address that it sent from, which this host may have lost.
    return ClearRemote() == 0 && connect_to(to.Native(), length) ? 0 : -1;
}

int CSockDgram::ClearRemote() {
    CSockAddrStorage before;
    CSockAddrStorage now;
    const struct sockaddr none = {};  // AF_UNSPEC
    if (GetLocalAddr(&before) != 0 || ::connect(m_fd, &none, sizeof(none)) != 0 || GetLocalAddr(&now) != 0) {
        return -1;
    }
    if (now.GetPort() == before.GetPort()) {
        return 0;
    }
    // The system takes a port away again that it has chosen itself.
    now.SetPort(before.GetPort());
    return ::bind(m_fd, now.Native(), static_cast<socklen_t>(now.GetAddrLen()));
}

bool CSockDgram::GoesOn(int error) {
    pollfd state = {m_fd, POLLRDHUP, 0};
    const bool is_shut = ::poll(&state, 1, 0) > 0 && (state.revents & (POLLRDHUP | POLLHUP | POLLNVAL)) != 0;
    if (is_shut || !passes_by(error)) {
        return false;
    }
    msghdr nothing = {};
    for (int i = 0; i < MAX_ANSWERS && ::recvmsg(m_fd, &nothing, MSG_ERRQUEUE | MSG_DONTWAIT) >= 0; ++i) {
        nothing = {};
    }
    return true;
}

int CSockDgram::SetTarget(const CSockAddrStorage& remote, unsigned int interface_index,
                          const CSockAddrStorage& source) {
    m_offload_limit = ANY_SIZE;  // another path may have another MTU
    return m_target.Set(remote.ForFamily(family()), interface_index, source);
}

int CSockDgram::Recv(char* buf, unsigned int len, CSockAddr* from) {
    sockaddr_storage native = {};
    socklen_t length = sizeof(native);
    ssize_t count = 0;
    // A peer's ICMP answer to what was sent from here is told once and says nothing about what has arrived.
    bool refused = false;
    do {
        refused = count < 0 && errno == ECONNREFUSED;
        length = sizeof(native);
        count = ::recvfrom(m_fd, buf, ClampLength(len), 0, reinterpret_cast<sockaddr*>(&native), &length);
    } while (count < 0 && (errno == EINTR || (errno == ECONNREFUSED && !refused)));
    if (count < 0) {
        return IsWouldBlock(errno) ? 0 : -1;
    }
    if (from != nullptr) {
        from->SetSockAddr(reinterpret_cast<const sockaddr*>(&native), length);
    }
    return static_cast<int>(count);
}

int CSockDgram::Send(const char* buf, unsigned int len, const CSockAddr* to) {
    CDgramTarget target = m_target;
    if (to != nullptr && target.Set(ToStorage(to).ForFamily(family()), 0, CSockAddrStorage()) != 0) {
        return -1;
    }
    struct iovec part = {const_cast<char*>(buf), ClampLength(len)};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    target.Fill(message);
    // An ICMP error that an earlier datagram met is told by the next call, and then gone; it says nothing about this
    // one.
    for (int attempt = 0;; ++attempt) {
        const ssize_t count = ::sendmsg(m_fd, &message, MSG_NOSIGNAL);
        if (count >= 0) {
            return static_cast<int>(count);
        }
        if (errno != EINTR && (errno != ECONNREFUSED || attempt > 0)) {
            return -1;
        }
    }
}

// An IPv6 socket may send to IPv4 groups as well, for which it has options of their own.
int CSockDgram::SetMulticastTTL(unsigned char ttl) {
    const int result = SetOption(m_fd, IPPROTO_IP, IP_MULTICAST_TTL, ttl);
    return family() == SOCK_ADDR_IPV6 ? SetOption(m_fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, ttl) : result;
}

int CSockDgram::SetMulticastIF(const char* ip) {
    if (ip == nullptr || m_fd < 0) {
        return -1;
    }
    unsigned int index = 0;
    in_addr address = {};
    if (::inet_pton(AF_INET, ip, &address) == 1) {
        if (::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof(address)) != 0) {
            return -1;
        }
    } else {
        index = ::if_nametoindex(ip);
        if (index == 0 || SetOption(m_fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(index)) != 0) {
            return -1;
        }
    }
    CSockAddrStorage bound;
    if (GetLocalAddr(&bound) != 0 || !bound.IsMulticast()) {
        return 0;
    }
    return join(m_fd, bound, index, address) == 0 || errno == EADDRINUSE ? 0 : -1;
}

}  // namespace Tramel
}  // namespace Kavio
