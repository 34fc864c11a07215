#ifndef VIDORA_TESTS_SUPPORT_INTERLEAVE_H
#define VIDORA_TESTS_SUPPORT_INTERLEAVE_H

#include "support/StreamBytes.h"

namespace Kavio {
namespace Support {

// A unit of an interleaved stream (RFC 2326 10.12), of bytes or characters.
template <typename Unit = Bytes>
Unit Interleaved(int channel, const Unit& unit) {
    const int head[] = {'$', channel, static_cast<int>(unit.size() >> 8), static_cast<int>(unit.size() & 0xff)};
    Unit all;
    for (const int each : head) {
        all.push_back(static_cast<typename Unit::value_type>(each));
    }
    all.insert(all.end(), unit.begin(), unit.end());
    return all;
}

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_INTERLEAVE_H
