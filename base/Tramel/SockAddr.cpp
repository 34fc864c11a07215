#include "Vidora/Tramel/SockAddr.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <cstring>

#include "Tramel/IpText.h"

namespace Kavio {
namespace Tramel {

CSockAddrIPv4::CSockAddrIPv4() : CSockAddr(SOCK_ADDR_IPV4), m_addr() {}

CSockAddrIPv4::CSockAddrIPv4(const char* ip, unsigned short port) : CSockAddr(SOCK_ADDR_IPV4), m_addr() {
    SetAddr(ip, port);
}

int CSockAddrIPv4::GetAddr(struct sockaddr* addr) const {
    if (!m_valid || addr == nullptr) {
        return -1;
    }
    memcpy(addr, &m_addr, sizeof(m_addr));
    return 0;
}

int CSockAddrIPv4::GetAddrLen() const {
    return m_valid ? static_cast<int>(sizeof(m_addr)) : 0;
}

int CSockAddrIPv4::SetSockAddr(const struct sockaddr* addr, unsigned int length) {
    m_valid = ReadIPv4(addr, length, m_addr);
    return m_valid ? 0 : -1;
}

int CSockAddrIPv4::SetAddr(const char* ip, unsigned short port) {
    sockaddr_storage native = {};
    if (ip == nullptr || ip[0] == '\0') {
        ip = "0.0.0.0";
    }
    m_valid = ParseIpText(ip, native) && ReadIPv4(reinterpret_cast<const sockaddr*>(&native), sizeof(native), m_addr);
    m_addr.sin_port = htons(port);
    return m_valid ? 0 : -1;
}

unsigned short CSockAddrIPv4::GetPort() const {
    return ntohs(m_addr.sin_port);
}

char* CSockAddrIPv4::GetIpStr(char* buf, unsigned int size) const {
    return WriteIpText(m_valid ? AF_INET : AF_UNSPEC, &m_addr.sin_addr, buf, size);
}

CSockAddrIPv6::CSockAddrIPv6() : CSockAddr(SOCK_ADDR_IPV6), m_addr() {}

CSockAddrIPv6::CSockAddrIPv6(const char* ip, unsigned short port) : CSockAddr(SOCK_ADDR_IPV6), m_addr() {
    SetAddr(ip, port);
}

int CSockAddrIPv6::GetAddr(struct sockaddr* addr) const {
    if (!m_valid || addr == nullptr) {
        return -1;
    }
    memcpy(addr, &m_addr, sizeof(m_addr));
    return 0;
}

int CSockAddrIPv6::GetAddrLen() const {
    return m_valid ? static_cast<int>(sizeof(m_addr)) : 0;
}

int CSockAddrIPv6::SetSockAddr(const struct sockaddr* addr, unsigned int length) {
    m_valid = ReadIPv6(addr, length, m_addr);
    return m_valid ? 0 : -1;
}

int CSockAddrIPv6::SetAddr(const char* ip, unsigned short port) {
    sockaddr_storage native = {};
    if (ip == nullptr || ip[0] == '\0') {
        ip = "::";
    }
    m_valid = ParseIpText(ip, native) && native.ss_family == AF_INET6 &&
              ReadIPv6(reinterpret_cast<const sockaddr*>(&native), sizeof(native), m_addr);
    m_addr.sin6_port = htons(port);
    return m_valid ? 0 : -1;
}

unsigned short CSockAddrIPv6::GetPort() const {
    return ntohs(m_addr.sin6_port);
}

char* CSockAddrIPv6::GetIpStr(char* buf, unsigned int size) const {
    return WriteIpText(m_valid ? AF_INET6 : AF_UNSPEC, &m_addr.sin6_addr, buf, size);
}

}  // namespace Tramel
}  // namespace Kavio
