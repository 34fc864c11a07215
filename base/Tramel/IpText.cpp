#include "Tramel/IpText.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace Kavio {
namespace Tramel {

namespace {

// Room for "[", 45 characters of address, "%", an interface name, "]" and the NUL.
constexpr size_t MAX_IP_TEXT = INET6_ADDRSTRLEN + IF_NAMESIZE + 4;

// Bytes 10 and 11 of an IPv4-mapped address are 0xff, those before are 0.
constexpr unsigned char MAPPED_PREFIX[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// The number of a scope: digits, or the name of an interface. 0 if it is neither.
unsigned int parse_scope(const char* text) {
    char* end = nullptr;
    const unsigned long number = strtoul(text, &end, 10);
    if (text[0] >= '0' && text[0] <= '9' && *end == '\0' && number <= UINT32_MAX) {
        return static_cast<unsigned int>(number);
    }
    return ::if_nametoindex(text);
}

bool parse_ipv6(char* text, sockaddr_storage& addr) {
    sockaddr_in6 native = {};
    native.sin6_family = AF_INET6;
    char* scope = strchr(text, '%');
    if (scope != nullptr) {
        *scope = '\0';
        native.sin6_scope_id = parse_scope(scope + 1);
        if (native.sin6_scope_id == 0) {
            return false;
        }
    }
    if (::inet_pton(AF_INET6, text, &native.sin6_addr) != 1) {
        return false;
    }
    memcpy(&addr, &native, sizeof(native));
    return true;
}

}  // namespace

bool ParseIpText(const char* text, sockaddr_storage& addr) {
    addr = sockaddr_storage{};
    const size_t length = strlen(text);
    char copy[MAX_IP_TEXT];
    if (length >= sizeof(copy)) {
        return false;
    }
    memcpy(copy, text, length + 1);
    if (copy[0] == '[') {
        if (copy[length - 1] != ']') {
            return false;
        }
        copy[length - 1] = '\0';
        return parse_ipv6(copy + 1, addr);
    }
    sockaddr_in native = {};
    native.sin_family = AF_INET;
    if (::inet_pton(AF_INET, copy, &native.sin_addr) == 1) {
        memcpy(&addr, &native, sizeof(native));
        return true;
    }
    return parse_ipv6(copy, addr);
}

bool ResolveHost(const char* name, sockaddr_storage& addr) {
    addr = sockaddr_storage{};
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;  // one result an address
    addrinfo* found = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &found) != 0) {
        return false;
    }
    const bool fits = found != nullptr && found->ai_addrlen <= sizeof(addr);
    if (fits) {
        memcpy(&addr, found->ai_addr, found->ai_addrlen);
    }
    ::freeaddrinfo(found);
    return fits;
}

char* WriteIpText(int family, const void* address, char* buf, unsigned int size) {
    if (buf != nullptr && size > 0) {
        if (family == AF_UNSPEC || ::inet_ntop(family, address, buf, size) == nullptr) {
            buf[0] = '\0';
        }
    }
    return buf;
}

bool ReadIPv4(const sockaddr* addr, unsigned int length, sockaddr_in& out) {
    if (addr == nullptr || length < sizeof(sockaddr_in)) {
        return false;
    }
    if (addr->sa_family == AF_INET) {
        memcpy(&out, addr, sizeof(out));
        return true;
    }
    if (addr->sa_family != AF_INET6 || length < sizeof(sockaddr_in6)) {
        return false;
    }
    sockaddr_in6 native = {};
    memcpy(&native, addr, sizeof(native));
    if (memcmp(&native.sin6_addr, MAPPED_PREFIX, sizeof(MAPPED_PREFIX)) != 0) {
        return false;
    }
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    out.sin_port = native.sin6_port;
    memcpy(&out.sin_addr, &native.sin6_addr.s6_addr[sizeof(MAPPED_PREFIX)], sizeof(out.sin_addr));
    return true;
}

bool ReadIPv6(const sockaddr* addr, unsigned int length, sockaddr_in6& out) {
    sockaddr_in native = {};
    if (addr != nullptr && addr->sa_family == AF_INET && ReadIPv4(addr, length, native)) {
        out = sockaddr_in6{};
        out.sin6_family = AF_INET6;
        out.sin6_port = native.sin_port;
        memcpy(&out.sin6_addr, MAPPED_PREFIX, sizeof(MAPPED_PREFIX));
        memcpy(&out.sin6_addr.s6_addr[sizeof(MAPPED_PREFIX)], &native.sin_addr, sizeof(native.sin_addr));
        return true;
    }
    if (addr == nullptr || length < sizeof(out) || addr->sa_family != AF_INET6) {
        return false;
    }
    memcpy(&out, addr, sizeof(out));
    return true;
}

}  // namespace Tramel
}  // namespace Kavio
