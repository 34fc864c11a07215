#ifndef VIDORA_MPEG4PARSER_H
#define VIDORA_MPEG4PARSER_H

#include <cstddef>
#include <cstdint>

#include "Vidora/Export.h"

namespace Kavio {
namespace Vidora {

// Start code values behind 00 00 01 (ISO 14496-2 table 6-3).
enum mpeg4_start_t {
    MPEG4_VOL_FIRST = 0x20,
    MPEG4_VOL_LAST = 0x2F,
    MPEG4_VOS = 0xB0,  // visual object sequence: opens the configuration
    MPEG4_VOP = 0xB6   // video object plane: a picture
};

struct Mpeg4Vol {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t time_increment_resolution = 0;
    bool interlaced = false;
};

// Finds the first video object layer in `data`, which may begin anywhere, and reads its header (ISO 14496-2 6.2.3).
// False, with `vol` unchanged, if there is none, or it is truncated or not rectangular.
VIDORA_API bool mpeg4_parse_vol(const unsigned char* data, size_t len, Mpeg4Vol& vol);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MPEG4PARSER_H
