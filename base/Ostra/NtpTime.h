#ifndef VIDORA_OSTRA_NTPTIME_H
#define VIDORA_OSTRA_NTPTIME_H

#include <cstdint>

namespace Kavio {
namespace Ostra {

// From 1900, where NTP time begins (RFC 5905 6), to 1970, where the system's does.
constexpr uint64_t NTP_TO_UNIX_SECONDS = 2208988800;

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_NTPTIME_H
