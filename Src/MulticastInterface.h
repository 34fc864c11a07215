#ifndef VIDORA_MULTICASTINTERFACE_H
#define VIDORA_MULTICASTINTERFACE_H

#include <net/if.h>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CMulticastInterface: the network interface that multicast leaves by, as a host names it: by an address or by its
// name.
//
// It is looked for anew whenever it is asked, so that it may come up, get another address or be made anew while the
// process runs. An interface that was named by an address it has lost is known by its own name from then on, until some
// interface has that address again.
//
// A value without a lock.
class CMulticastInterface {
public:
    // An IPv4 or IPv6 address of the interface, or its name; at most 127 characters. Empty: the system chooses.
    void Set(const char* text);
    // What was set.
    const char* Text() const { return m_text; }

    // Finds the interface: `index` is 0 if the system is to choose. `source` gets the address to send from, for a
    // `family` (a sock_addr_type_t): the one that was named, or else, for IPv4, the interface's first; invalid if the
    // system is to choose among the interface's. False, with errno set, if there is no such interface, or it has no
    // IPv4 address to send from.
    bool Find(int family, unsigned int& index, CSockAddrStorage& source);

private:
    char m_text[128] = {};
    char m_name[IF_NAMESIZE] = {};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MULTICASTINTERFACE_H
