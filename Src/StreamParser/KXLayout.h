#ifndef VIDORA_STREAMPARSER_KXLAYOUT_H
#define VIDORA_STREAMPARSER_KXLAYOUT_H

namespace Kavio {
namespace Vidora {

// Offsets in the header of a private frame, as docs/private-frame.md draws it. Numbers are low byte first.
enum kx_offset_t {
    KX_AT_FRAME_TYPE = 4,
    KX_AT_SUB_TYPE = 5,
    KX_AT_CHANNEL = 6,
    KX_AT_SEQUENCE = 8,
    KX_AT_TOTAL_LENGTH = 12,
    KX_AT_DATE_TIME = 16,
    KX_AT_TIME_STAMP = 20,
    KX_AT_EXT_LENGTH = 22,
    KX_AT_CHECKSUM = 23
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_KXLAYOUT_H
