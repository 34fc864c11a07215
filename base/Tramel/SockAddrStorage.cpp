#include <arpa/inet.h>

#include <cstddef>
#include <cstring>

#include "Tramel/IpText.h"
#include "Vidora/Tramel/SockAddr.h"

namespace Kavio {
namespace Tramel {

CSockAddrStorage::CSockAddrStorage() : CSockAddr(SOCK_ADDR_NONE), m_addr() {}

CSockAddrStorage::CSockAddrStorage(const char* ip, unsigned short port) : CSockAddr(SOCK_ADDR_NONE), m_addr() {
    SetAddr(ip, port);
}

static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port), "one port for both families");

int CSockAddrStorage::SetSockAddr(const struct sockaddr* addr, unsigned int length) {
    CNative native = {};
    m_type = SOCK_ADDR_NONE;
    if (addr != nullptr && addr->sa_family == AF_INET && ReadIPv4(addr, length, native.ipv4)) {
        m_type = SOCK_ADDR_IPV4;
    } else if (addr != nullptr && addr->sa_family == AF_INET6 && ReadIPv6(addr, length, native.ipv6)) {
        m_type = SOCK_ADDR_IPV6;
    }
    m_addr = native;
    return IsValid() ? 0 : -1;
}

int CSockAddrStorage::SetAddr(const char* ip, unsigned short port) {
    const int result = SetIp(ip);
    SetPort(port);
    return result;
}

int CSockAddrStorage::SetIp(const char* ip) {
    const unsigned short port = GetPort();
    if (ip == nullptr || ip[0] == '\0') {
        ip = "::";
    }
    CNative native = {};
    const bool found = ParseIpText(ip, native.storage) || ResolveHost(ip, native.storage);
    const int result = SetSockAddr(found ? &native.any : nullptr, sizeof(native));
    SetPort(port);
    return result;
}

// An address that isn't set yet keeps its port too.
void CSockAddrStorage::SetPort(unsigned short port) {
    m_addr.ipv4.sin_port = htons(port);
}

unsigned short CSockAddrStorage::GetPort() const {
    return ntohs(m_addr.ipv4.sin_port);
}

int CSockAddrStorage::GetAddr(struct sockaddr* addr) const {
    if (!IsValid() || addr == nullptr) {
        return -1;
    }
    memcpy(addr, &m_addr, static_cast<size_t>(GetAddrLen()));
    return 0;
}

int CSockAddrStorage::GetAddrLen() const {
    if (m_type == SOCK_ADDR_IPV4) {
        return static_cast<int>(sizeof(sockaddr_in));
    }
    return m_type == SOCK_ADDR_IPV6 ? static_cast<int>(sizeof(sockaddr_in6)) : 0;
}

bool CSockAddrStorage::IsValid() const {
    return m_type != SOCK_ADDR_NONE;
}

bool CSockAddrStorage::operator==(const CSockAddrStorage& other) const {
    if (m_type != other.m_type || GetPort() != other.GetPort()) {
        return false;
    }
    if (m_type == SOCK_ADDR_IPV4) {
        return m_addr.ipv4.sin_addr.s_addr == other.m_addr.ipv4.sin_addr.s_addr;
    }
    const sockaddr_in6& mine = m_addr.ipv6;
    const sockaddr_in6& its = other.m_addr.ipv6;
    return m_type == SOCK_ADDR_NONE || (memcmp(&mine.sin6_addr, &its.sin6_addr, sizeof(mine.sin6_addr)) == 0 &&
                                        mine.sin6_scope_id == its.sin6_scope_id);
}

char* CSockAddrStorage::GetIpStr(char* buf, unsigned int size) const {
    sockaddr_in ipv4 = {};
    if (ReadIPv4(Native(), sizeof(m_addr), ipv4)) {
        return WriteIpText(AF_INET, &ipv4.sin_addr, buf, size);
    }
    return WriteIpText(m_addr.any.sa_family, &m_addr.ipv6.sin6_addr, buf, size);
}

int CSockAddrStorage::GetRealType() const {
    sockaddr_in ipv4 = {};
    return ReadIPv4(Native(), sizeof(m_addr), ipv4) ? static_cast<int>(SOCK_ADDR_IPV4) : m_type;
}

bool CSockAddrStorage::IsMulticast() const {
    sockaddr_in ipv4 = {};
    if (ReadIPv4(Native(), sizeof(m_addr), ipv4)) {
        return IN_MULTICAST(ntohl(ipv4.sin_addr.s_addr));
    }
    return m_type == SOCK_ADDR_IPV6 && IN6_IS_ADDR_MULTICAST(&m_addr.ipv6.sin6_addr) != 0;
}

CSockAddrStorage CSockAddrStorage::ForFamily(int type) const {
    CSockAddrStorage other(*this);
    CNative native = {};
    if ((type == SOCK_ADDR_IPV4 && ReadIPv4(Native(), sizeof(m_addr), native.ipv4)) ||
        (type == SOCK_ADDR_IPV6 && ReadIPv6(Native(), sizeof(m_addr), native.ipv6))) {
        other.SetSockAddr(&native.any, sizeof(native));
    }
    return other;
}

}  // namespace Tramel
}  // namespace Kavio
