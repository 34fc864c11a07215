#ifndef VIDORA_TRAMEL_HOSTTEXT_H
#define VIDORA_TRAMEL_HOSTTEXT_H

#include <cstddef>

namespace Kavio {
namespace Tramel {

// An address or host name at the beginning of a text.
struct HostText {
    int family = 0;           // 4 IPv4, 6 IPv6, 1 host name, 0 none of them
    unsigned int skip = 0;    // 1 if the address is in brackets, otherwise 0
    unsigned int length = 0;  // bytes of the address itself
};

// Reads an IPv4 address, an IPv6 address (RFC 4291 2.2, bare or in brackets as in RFC 3986 3.2.2), or a host name of
// RFC 1123 2.1 that holds a letter. Looks at `size` bytes only.
HostText ReadHostText(const char* text, size_t size);

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_HOSTTEXT_H
