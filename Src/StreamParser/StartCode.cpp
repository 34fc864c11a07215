#include "Vidora/StartCode.h"

#include <cstring>

namespace Kavio {
namespace Vidora {

namespace {

// 16 bytes in one register, in the vector types that GCC and Clang share; SSE2 and NEON need nothing else.
typedef unsigned char Bytes16 __attribute__((vector_size(16)));
typedef uint64_t Words2 __attribute__((vector_size(16)));

constexpr size_t STEP = 32;

inline Bytes16 load16(const unsigned char* place) {
    Bytes16 bytes;
    std::memcpy(&bytes, place, sizeof(bytes));
    return bytes;
}

// All ones in each byte lane where 00 00 01 begins.
inline Bytes16 match16(const unsigned char* place) {
    const Bytes16 zero = {};
    const Bytes16 first = reinterpret_cast<Bytes16>(load16(place) == zero);
    const Bytes16 second = reinterpret_cast<Bytes16>(load16(place + 1) == zero);
    const Bytes16 third = reinterpret_cast<Bytes16>(load16(place + 2) == zero + 1);
    return first & second & third;
}

inline bool any(Bytes16 lanes) {
    const Words2 words = reinterpret_cast<Words2>(lanes);
    return (words[0] | words[1]) != 0;
}

// The first lane that isn't 0; there is one.
inline size_t first_lane(Bytes16 lanes) {
    const Words2 words = reinterpret_cast<Words2>(lanes);
    const size_t half = words[0] != 0 ? 0 : 1;
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const int bits = __builtin_ctzll(words[half]);
#else
    const int bits = __builtin_clzll(words[half]);
#endif
    return half * 8 + static_cast<size_t>(bits) / 8;
}

}  // namespace

size_t find_start_code3(const unsigned char* data, size_t len, size_t from) {
    if (len < 3 || from > len - 3) {
        return NO_START_CODE;
    }
    const size_t last = len - 3;  // the last offset where one fits
    size_t offset = from;
    // A step looks at STEP offsets, and so at two bytes more.
    for (; last - offset >= STEP; offset += STEP) {
        const Bytes16 low = match16(data + offset);
        const Bytes16 high = match16(data + offset + 16);
        if (any(low | high)) {
            return offset + (any(low) ? first_lane(low) : 16 + first_lane(high));
        }
    }
    for (; offset <= last; ++offset) {
        if (data[offset] == 0 && data[offset + 1] == 0 && data[offset + 2] == 1) {
            return offset;
        }
    }
    return NO_START_CODE;
}

size_t find_start_code4(const unsigned char* data, size_t len, size_t from) {
    // The last three bytes of the code, then the one in front of them.
    size_t offset = from;
    while (offset < len) {
        const size_t found = find_start_code3(data, len, offset + 1);
        if (found == NO_START_CODE) {
            break;
        }
        if (data[found - 1] == 0) {
            return found - 1;
        }
        offset = found;
    }
    return NO_START_CODE;
}

}  // namespace Vidora
}  // namespace Kavio
