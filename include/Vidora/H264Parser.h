#ifndef VIDORA_H264PARSER_H
#define VIDORA_H264PARSER_H

#include <cstddef>
#include <cstdint>

#include "Vidora/Export.h"

namespace Kavio {
namespace Vidora {

// NAL unit types of ISO 14496-10 table 7-1 and of RFC 6184.
enum h264_nal_t {
    H264_NAL_SLICE = 1,
    H264_NAL_IDR = 5,
    H264_NAL_SEI = 6,
    H264_NAL_SPS = 7,
    H264_NAL_PPS = 8,
    H264_NAL_DELIMITER = 9,
    H264_NAL_END_OF_SEQUENCE = 10,
    H264_NAL_END_OF_STREAM = 11,
    H264_NAL_STAP_A = 24,
    H264_NAL_FU_A = 28
};

// In the second byte of a FU-A packet (RFC 6184 5.8): it holds the first or the last fragment of its NAL unit.
constexpr unsigned char H264_FU_START = 0x80;
constexpr unsigned char H264_FU_END = 0x40;

// The type of a NAL unit, from its first byte.
inline int h264_nal_type(unsigned char header) {
    return header & 0x1F;
}

// What a sequence parameter set says (ISO 14496-10 7.3.2.1).
struct H264Sps {
    uint8_t profile_idc = 0;
    uint8_t level_idc = 0;
    uint32_t width = 0;          // luma samples, cropped
    uint32_t field_height = 0;   // cropped height of one map unit column: of a frame if frame_mbs_only, else of a field
    uint32_t height = 0;         // field_height, doubled unless frame_mbs_only
    bool frame_mbs_only = true;  // false: frames may be coded as two fields
    bool separate_colour_plane = false;
    uint32_t log2_max_frame_num = 4;
};

// Reads a parameter set that begins with its NAL header byte (type 7), without start code. Emulation prevention bytes
// are taken out. Cropping is counted in units of two samples whatever the chroma format, before the height is doubled.
// False, with `sps` unchanged, if it is truncated or out of range (a side above 16384).
VIDORA_API bool h264_parse_sps(const unsigned char* nal, size_t len, H264Sps& sps);

// The head of a slice (ISO 14496-10 7.3.3).
struct H264Slice {
    uint32_t first_mb = 0;
    uint32_t slice_type = 0;  // 0 to 9
    uint32_t pps_id = 0;
    bool field_pic = false;  // only from h264_parse_field_pic
};

// Reads first_mb and slice_type only, from `len` bytes behind the NAL header byte. False if they aren't there or the
// type is above 9. So a caller may pass the first three bytes alone.
VIDORA_API bool h264_parse_slice_type(const unsigned char* rbsp, size_t len, H264Slice& slice);

// Reads on to field_pic_flag, with the parameter set that the slice refers to; `rbsp` as above, still with emulation
// prevention bytes. False if the bytes end before it.
VIDORA_API bool h264_parse_field_pic(const unsigned char* rbsp, size_t len, const H264Sps& sps, H264Slice& slice);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_H264PARSER_H
