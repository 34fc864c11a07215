#include "Vidora/Tramel/SockAddr.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <cstring>

#include "Tramel/IpText.h"

namespace Kavio {
namespace Tramel {

namespace {

const char* wildcard_of(int type) {
    return type == SOCK_ADDR_IPV4 ? "0.0.0.0" : "::";
}

}  // namespace

int CSockAddrFamily::GetAddr(struct sockaddr* addr) const {
    if (!m_valid || addr == nullptr) {
        return -1;
    }
    memcpy(addr, &m_addr, static_cast<size_t>(GetAddrLen()));
    return 0;
}

int CSockAddrFamily::GetAddrLen() const {
    const size_t length = m_type == SOCK_ADDR_IPV4 ? sizeof(m_addr.ipv4) : sizeof(m_addr.ipv6);
    return m_valid ? static_cast<int>(length) : 0;
}

int CSockAddrFamily::SetSockAddr(const struct sockaddr* addr, unsigned int length) {
    m_valid = m_type == SOCK_ADDR_IPV4 ? ReadIPv4(addr, length, m_addr.ipv4) : ReadIPv6(addr, length, m_addr.ipv6);
    return m_valid ? 0 : -1;
}

int CSockAddrFamily::SetAddr(const char* ip, unsigned short port) {
    sockaddr_storage native = {};
    const bool is_any = ip == nullptr || ip[0] == '\0';
    const bool is_read = ParseIpText(is_any ? wildcard_of(m_type) : ip, native);
    const bool is_mine = m_type == SOCK_ADDR_IPV4 || native.ss_family == AF_INET6;
    m_valid = is_read && is_mine && SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native)) == 0;
    m_addr.ipv4.sin_port = htons(port);
    return m_valid ? 0 : -1;
}

unsigned short CSockAddrFamily::GetPort() const {
    return ntohs(m_addr.ipv4.sin_port);
}

char* CSockAddrFamily::GetIpStr(char* buf, unsigned int size) const {
    return m_type == SOCK_ADDR_IPV4 ? WriteIpText(m_valid ? AF_INET : AF_UNSPEC, &m_addr.ipv4.sin_addr, buf, size)
                                    : WriteIpText(m_valid ? AF_INET6 : AF_UNSPEC, &m_addr.ipv6.sin6_addr, buf, size);
}

}  // namespace Tramel
}  // namespace Kavio
