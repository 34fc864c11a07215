#include "MulticastInterface.h"

#include <ifaddrs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "Tramel/IpText.h"

namespace Kavio {
namespace Vidora {

namespace {

typedef std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> AddressList;

// The addresses of this host's interfaces; null if there are none.
AddressList list_addresses() {
    ifaddrs* list = nullptr;
    return AddressList(::getifaddrs(&list) == 0 ? list : nullptr, &::freeifaddrs);
}

// An address that was set by the host's text.
struct NamedAddress {
    in6_addr ip = {};  // an IPv4 one in its mapped form
    char scope[IF_NAMESIZE] = {};
};

// False if `text` is no address.
bool parse_address(const char* text, NamedAddress& named) {
    char ip[64];
    std::snprintf(ip, sizeof(ip), "%s", text);
    char* scope = std::strchr(ip, '%');
    if (scope != nullptr) {
        *scope = '\0';
        std::snprintf(named.scope, sizeof(named.scope), "%s", scope + 1);
    }
    sockaddr_storage addr;
    sockaddr_in6 native;
    if (!Tramel::ParseIpText(ip, addr) ||
        !Tramel::ReadIPv6(reinterpret_cast<const sockaddr*>(&addr), sizeof(addr), native)) {
        return false;
    }
    named.ip = native.sin6_addr;
    return true;
}

size_t address_size(const sockaddr* addr) {
    return addr->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

// A second address may have a name of its own, "eth0:1".
std::string_view name_of(const ifaddrs& entry) {
    const std::string_view name(entry.ifa_name);
    return name.substr(0, name.find(':'));
}

bool has_address(const ifaddrs& entry, const NamedAddress& named) {
    sockaddr_in6 native;
    const sockaddr* addr = entry.ifa_addr;
    return addr != nullptr && (addr->sa_family == AF_INET || addr->sa_family == AF_INET6) &&
           Tramel::ReadIPv6(addr, static_cast<unsigned int>(address_size(addr)), native) &&
           std::memcmp(&native.sin6_addr, &named.ip, sizeof(named.ip)) == 0 &&
           (named.scope[0] == '\0' || name_of(entry) == named.scope);
}

// The first IPv4 address of the interface; invalid if it has none.
CSockAddrStorage first_ipv4(const ifaddrs* list, const char* name) {
    CSockAddrStorage addr;
    for (; list != nullptr; list = list->ifa_next) {
        if (list->ifa_addr != nullptr && list->ifa_addr->sa_family == AF_INET && name_of(*list) == name) {
            addr.SetSockAddr(list->ifa_addr, sizeof(sockaddr_in));
            break;
        }
    }
    return addr;
}

// Copies a name of an interface, as far as there is room.
void copy_name(std::string_view name, char* out) {
    const size_t size = std::min<size_t>(name.size(), IF_NAMESIZE - 1);
    std::memcpy(out, name.data(), size);
    out[size] = '\0';
}

}  // namespace

void CMulticastInterface::Set(const char* text) {
    std::snprintf(m_text, sizeof(m_text), "%s", text);
    NamedAddress named;
    copy_name(parse_address(m_text, named) ? named.scope : m_text, m_name);
}

bool CMulticastInterface::Find(int family, unsigned int& index, CSockAddrStorage& source) {
    index = 0;
    source = CSockAddrStorage();
    if (m_text[0] == '\0') {
        return true;
    }
    const AddressList list = list_addresses();
    NamedAddress named;
    const ifaddrs* entry = parse_address(m_text, named) ? list.get() : nullptr;
    while (entry != nullptr && !has_address(*entry, named)) {
        entry = entry->ifa_next;
    }
    if (entry != nullptr) {
        copy_name(name_of(*entry), m_name);
        source.SetSockAddr(entry->ifa_addr, static_cast<unsigned int>(address_size(entry->ifa_addr)));
    }
    index = m_name[0] == '\0' ? 0 : ::if_nametoindex(m_name);
    if (index == 0) {
        errno = ENODEV;
        return false;
    }
    const bool is_ipv4 = family == Tramel::SOCK_ADDR_IPV4;
    if (source.GetType() != family) {
        // For IPv6 the system takes an address of the interface by itself (RFC 6724 4). For IPv4 it may take another's.
        source = is_ipv4 ? first_ipv4(list.get(), m_name) : CSockAddrStorage();
    }
    if (is_ipv4 && !source.IsValid()) {
        errno = EADDRNOTAVAIL;
        return false;
    }
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
