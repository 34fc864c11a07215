#ifndef VIDORA_TESTS_SUPPORT_INTERLEAVE_H
#define VIDORA_TESTS_SUPPORT_INTERLEAVE_H

#include <string>
#include <string_view>
#include <vector>

#include "support/StreamBytes.h"

namespace Kavio::Support {

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

// The value of a header of a message, or "".
inline std::string HeaderOf(std::string_view message, const std::string& name) {
    const std::string_view head = message.substr(0, message.find("\r\n\r\n"));
    const size_t line = head.find("\r\n" + name + ": ");
    const size_t value = line + name.size() + 4;
    return line == head.npos ? "" : std::string(head.substr(value, head.find("\r\n", value) - value));
}

// The length of the interleaved unit, or of the RTSP message with its body, that `bytes` begin with; 0: not all of it
// is there.
inline size_t WholeUnit(std::string_view bytes) {
    size_t size = 4;
    if (bytes.substr(0, 1) != "$") {
        const size_t end = bytes.find("\r\n\r\n");
        size = end == bytes.npos ? SIZE_MAX : end + 4 + strtoul(HeaderOf(bytes, "Content-Length").c_str(), nullptr, 10);
    } else if (bytes.size() >= size) {
        size += static_cast<size_t>(static_cast<uint8_t>(bytes[2]) << 8 | static_cast<uint8_t>(bytes[3]));
    }
    return size <= bytes.size() ? size : 0;
}

// The units and messages that `bytes` begin with, which are taken off.
inline std::vector<std::string> TakeUnits(std::string& bytes) {
    std::vector<std::string> units;
    size_t place = 0;
    for (size_t size = 1; size > 0; place += size) {
        size = WholeUnit(std::string_view(bytes).substr(place));
        if (size > 0) {
            units.push_back(bytes.substr(place, size));
        }
    }
    bytes.erase(0, place);
    return units;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_INTERLEAVE_H
