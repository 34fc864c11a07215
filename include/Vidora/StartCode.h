#ifndef VIDORA_STARTCODE_H
#define VIDORA_STARTCODE_H

#include <cstddef>
#include <cstdint>

#include "Vidora/Export.h"

namespace Kavio {
namespace Vidora {

// 00 00 01, which units of a codec and PES packets begin with, and the same with a zero byte in front.
constexpr uint32_t START_CODE3 = 0x000001;
constexpr size_t START_CODE3_LEN = 3;
constexpr unsigned char START_CODE4[] = {0, 0, 0, 1};
constexpr size_t START_CODE4_LEN = sizeof(START_CODE4);

// No start code found.
constexpr size_t NO_START_CODE = SIZE_MAX;

// The offset of the first 00 00 01 that lies whole in `data` of `len` bytes, at or behind `from`; NO_START_CODE if
// there is none. Vectorised: its time doesn't depend on the bytes. `data` may be null if `len` is 0.
VIDORA_API size_t find_start_code3(const unsigned char* data, size_t len, size_t from = 0);

// The same for 00 00 00 01.
VIDORA_API size_t find_start_code4(const unsigned char* data, size_t len, size_t from = 0);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STARTCODE_H
