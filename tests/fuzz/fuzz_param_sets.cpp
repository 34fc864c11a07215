// The readers of parameter sets and headers: H.264 SPS and slice heads, MPEG-4 VOL, MPEG-2 sequence.
#include "FuzzSupport.h"
#include "StreamParser/Mpeg2Parser.h"
#include "Vidora/H264Parser.h"
#include "Vidora/Mpeg4Parser.h"

using namespace Kavio::Vidora;

void Fuzz::Target(const uint8_t* data, size_t size) {
    H264Sps sps;
    if (h264_parse_sps(data, size, sps)) {
        Require(sps.width > 0 && sps.width <= 16384 && sps.height > 0 && sps.height <= 16384);
        Require(sps.height == sps.field_height * (sps.frame_mbs_only ? 1 : 2));
        Require(sps.log2_max_frame_num >= 4 && sps.log2_max_frame_num <= 16);
    } else {
        Require(sps.width == 0 && sps.height == 0);  // left as it was
    }
    H264Sps other;
    other.frame_mbs_only = size % 2 == 0;
    H264Slice head, slice;
    const bool typed = h264_parse_slice_type(data, size, head);
    const bool whole = h264_parse_field_pic(data, size, other, slice);
    Require(!whole || (typed && head.slice_type == slice.slice_type && head.first_mb == slice.first_mb));
    Require(head.slice_type <= 9 && !(other.frame_mbs_only && slice.field_pic));

    Mpeg4Vol vol;
    Require(!mpeg4_parse_vol(data, size, vol) || (vol.width > 0 && vol.width < 8192 && vol.height > 0));
    Mpeg2Sequence sequence;
    Require(!mpeg2_parse_sequence(data, size, sequence) || sequence.width < 4096);
    Require(mpeg2_picture_type(data, size) < 8);
}
