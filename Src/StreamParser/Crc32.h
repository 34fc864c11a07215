#ifndef VIDORA_STREAMPARSER_CRC32_H
#define VIDORA_STREAMPARSER_CRC32_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Vidora {

// The CRC-32 of MPEG-2 sections (ISO 13818-1 annex A): polynomial 0x04C11DB7, initial value all ones, bits from the
// top, no final inversion. Over a section with its CRC it is 0.
uint32_t mpeg_crc32(const unsigned char* data, size_t len);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_CRC32_H
