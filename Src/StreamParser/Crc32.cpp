#include "StreamParser/Crc32.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint32_t POLYNOMIAL = 0x04C11DB7;

struct CrcTable {
    uint32_t entries[256];

    constexpr CrcTable() : entries() {
        for (uint32_t byte = 0; byte < 256; ++byte) {
            uint32_t value = byte << 24;
            for (int bit = 0; bit < 8; ++bit) {
                value = (value << 1) ^ ((value & 0x80000000U) != 0 ? POLYNOMIAL : 0);
            }
            entries[byte] = value;
        }
    }
};

constexpr CrcTable TABLE;

}  // namespace

uint32_t mpeg_crc32(const unsigned char* data, size_t len) {
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < len; ++i) {
        crc = (crc << 8) ^ TABLE.entries[(crc >> 24) ^ data[i]];
    }
    return crc;
}

}  // namespace Vidora
}  // namespace Kavio
