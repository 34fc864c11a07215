#ifndef VIDORA_TRAMEL_IPTEXT_H
#define VIDORA_TRAMEL_IPTEXT_H

#include <netinet/in.h>
#include <sys/socket.h>

namespace Kavio {
namespace Tramel {

const int MAX_PORT = 65535;

// Text and platform forms of addresses, for the address classes. No state, any thread.

// Reads a numeric address: IPv4 dotted, or IPv6 with or without brackets and a %scope. Port 0. False if `text` is none.
bool ParseIpText(const char* text, sockaddr_storage& addr);
// Reads the first address of a host name; may block for the resolver. Port 0. False if it has none.
bool ResolveHost(const char* name, sockaddr_storage& addr);
// Writes the canonical text (RFC 5952 for IPv6) of the in_addr or in6_addr at `address`. Returns `buf`, empty for
// another family or if `size` is too small.
char* WriteIpText(int family, const void* address, char* buf, unsigned int size);

// Copies `addr` as IPv4; an IPv4-mapped IPv6 address (RFC 4291 2.5.5.2) is taken as what it maps. False otherwise.
bool ReadIPv4(const sockaddr* addr, unsigned int length, sockaddr_in& out);
// Copies `addr` as IPv6, an IPv4 address in its mapped form. False otherwise.
bool ReadIPv6(const sockaddr* addr, unsigned int length, sockaddr_in6& out);

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_IPTEXT_H
