#ifndef VIDORA_STREAMSOURCE_PROXYDESCRIPTION_H
#define VIDORA_STREAMSOURCE_PROXYDESCRIPTION_H

#include <string>

namespace Kavio {
namespace Vidora {

// Rewrites a server's description (RFC 4566) for the clients of a proxy: of its media those that `keeps` says, by
// their places, with controls of the proxy's own ("trackID=0" and on), at no port and no address. What says where the
// server itself has them, and which form of packets it offers, is left out. What would be longer than `limit` bytes
// goes without the lines that players don't need, and if that isn't enough without the last media; a line is never cut.
// Empty if not even one media has room. Throws std::bad_alloc.
std::string ProxyDescription(const std::string& text, const bool* keeps, int count, size_t limit);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_PROXYDESCRIPTION_H
