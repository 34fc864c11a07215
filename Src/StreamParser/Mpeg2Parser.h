#ifndef VIDORA_STREAMPARSER_MPEG2PARSER_H
#define VIDORA_STREAMPARSER_MPEG2PARSER_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Vidora {

// Start code values behind 00 00 01 (ISO 13818-2 table 6-1).
enum mpeg2_start_t { MPEG2_PICTURE = 0x00, MPEG2_SLICE_FIRST = 0x01, MPEG2_SLICE_LAST = 0xAF, MPEG2_SEQUENCE = 0xB3 };

struct Mpeg2Sequence {
    uint32_t width = 0;
    uint32_t height = 0;
    uint8_t aspect_code = 0;
    uint8_t frame_rate_code = 0;
    int frame_rate = 0;  // whole frames a second by this library's mapping of the code
};

// Finds the first sequence header in `data` and reads it (ISO 13818-2 6.2.2.1). False, with `sequence` unchanged, if
// there is none or it is truncated.
bool mpeg2_parse_sequence(const unsigned char* data, size_t len, Mpeg2Sequence& sequence);

// Finds the first picture header and returns its picture_coding_type: 1 I, 2 P, 3 B, 4 D; 0 if there is none.
int mpeg2_picture_type(const unsigned char* data, size_t len);

// The mapping of frame_rate_code: 1 and 2 are 24, 4 and 5 are 30, 6 is 50, 7 and 8 are 60, 0 is 0, all others 25.
int mpeg2_frame_rate(int frame_rate_code);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_MPEG2PARSER_H
