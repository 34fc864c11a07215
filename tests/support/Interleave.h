#ifndef VIDORA_TESTS_SUPPORT_INTERLEAVE_H
#define VIDORA_TESTS_SUPPORT_INTERLEAVE_H

#include "support/StreamBytes.h"

namespace Kavio {
namespace Support {

// A unit of an interleaved stream (RFC 2326 10.12).
inline Bytes Interleaved(int channel, const Bytes& unit) {
    return Bytes{'$', static_cast<uint8_t>(channel), static_cast<uint8_t>(unit.size() >> 8),
                 static_cast<uint8_t>(unit.size())} +
           unit;
}

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_INTERLEAVE_H
