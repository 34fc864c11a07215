// The readers of parameter sets and headers: H.264 SPS and slice heads, MPEG-4 VOL, MPEG-2 sequence. First byte: which;
// the rest is the data.
#include "FuzzSupport.h"
#include "StreamParser/Mpeg2Parser.h"
#include "Vidora/H264Parser.h"
#include "Vidora/Mpeg4Parser.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

void check_sps(const uint8_t* data, size_t size) {
    H264Sps sps;
    if (!h264_parse_sps(data, size, sps)) {
        Fuzz::Require(sps.width == 0 && sps.height == 0);  // left as it was
        return;
    }
    Fuzz::Require(sps.width > 0 && sps.width <= 16384 && sps.height > 0 && sps.height <= 16384);
    Fuzz::Require(sps.height == sps.field_height * (sps.frame_mbs_only ? 1 : 2));
    Fuzz::Require(sps.log2_max_frame_num >= 4 && sps.log2_max_frame_num <= 16);
}

void check_slice(const uint8_t* data, size_t size) {
    H264Sps sps;
    sps.frame_mbs_only = size % 2 == 0;
    H264Slice head;
    H264Slice slice;
    const bool typed = h264_parse_slice_type(data, size, head);
    const bool whole = h264_parse_field_pic(data, size, sps, slice);
    Fuzz::Require(!whole || (typed && head.slice_type == slice.slice_type && head.first_mb == slice.first_mb));
    Fuzz::Require(head.slice_type <= 9 && !(sps.frame_mbs_only && slice.field_pic));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    const uint8_t which = input.ReadU8() % 4;
    data = input.Rest();
    size = input.Remaining();
    Mpeg4Vol vol;
    Mpeg2Sequence sequence;
    switch (which) {
        case 0:
            check_sps(data, size);
            break;
        case 1:
            check_slice(data, size);
            break;
        case 2:
            Fuzz::Require(!mpeg4_parse_vol(data, size, vol) || (vol.width > 0 && vol.width < 8192 && vol.height > 0));
            break;
        default:
            Fuzz::Require(!mpeg2_parse_sequence(data, size, sequence) || sequence.width < 4096);
            Fuzz::Require(mpeg2_picture_type(data, size) < 8);
            break;
    }
    return 0;
}
