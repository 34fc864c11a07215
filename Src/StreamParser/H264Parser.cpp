#include "Vidora/H264Parser.h"

#include "Vidora/Ostra/BitReader.h"

namespace Kavio {
namespace Vidora {

using Ostra::CBitReader;

namespace {

constexpr size_t MAX_SPS_BYTES = 512;   // of a parameter set that are read; the size is far in front of its end
constexpr size_t MAX_SLICE_BYTES = 32;  // a slice header up to field_pic_flag takes 17 at most
constexpr uint32_t MAX_SIDE = 16384;

// Takes the emulation prevention bytes out (ISO 14496-10 7.4.1). The bytes written.
size_t unescape(const unsigned char* in, size_t len, unsigned char* out, size_t capacity) {
    size_t written = 0;
    int zeros = 0;
    for (size_t i = 0; i < len && written < capacity; ++i) {
        if (zeros >= 2 && in[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = in[i] == 0 ? zeros + 1 : 0;
        out[written++] = in[i];
    }
    return written;
}

// Profiles whose parameter set has the chroma format (7.3.2.1.1).
bool has_chroma_format(uint8_t profile) {
    constexpr uint8_t PROFILES[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    for (const uint8_t each : PROFILES) {
        if (profile == each) {
            return true;
        }
    }
    return false;
}

// scaling_list() of 7.3.2.1.1.1: only its length in bits matters here.
void skip_scaling_list(CBitReader& reader, int entries) {
    int last = 8;
    int next = 8;
    for (int i = 0; i < entries && reader.Ok() && next != 0; ++i) {
        next = (last + reader.ReadSe() % 256 + 256) % 256;
        last = next == 0 ? last : next;
    }
}

void skip_chroma_format(CBitReader& reader, H264Sps& sps) {
    const uint32_t chroma_format = reader.ReadUe();
    if (chroma_format == 3) {
        sps.separate_colour_plane = reader.ReadFlag();
    }
    reader.ReadUe();     // bit_depth_luma_minus8
    reader.ReadUe();     // bit_depth_chroma_minus8
    reader.SkipBits(1);  // qpprime_y_zero_transform_bypass_flag
    if (!reader.ReadFlag()) {
        return;  // no scaling matrix
    }
    const int lists = chroma_format == 3 ? 12 : 8;
    for (int i = 0; i < lists && reader.Ok(); ++i) {
        if (reader.ReadFlag()) {
            skip_scaling_list(reader, i < 6 ? 16 : 64);
        }
    }
}

void skip_pic_order(CBitReader& reader) {
    const uint32_t type = reader.ReadUe();
    if (type == 0) {
        reader.ReadUe();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (type == 1) {
        reader.SkipBits(1);
        reader.ReadSe();
        reader.ReadSe();
        const uint32_t cycle = reader.ReadUe();
        for (uint32_t i = 0; i < cycle && reader.Ok(); ++i) {
            reader.ReadSe();
        }
    }
}

// Cropping, in units of two samples. False if nothing would be left.
bool crop(CBitReader& reader, H264Sps& sps) {
    if (!reader.ReadFlag()) {
        return reader.Ok();
    }
    const uint64_t left = reader.ReadUe();
    const uint64_t right = reader.ReadUe();
    const uint64_t top = reader.ReadUe();
    const uint64_t bottom = reader.ReadUe();
    if (!reader.Ok() || 2 * (left + right) >= sps.width || 2 * (top + bottom) >= sps.field_height) {
        return false;
    }
    sps.width -= static_cast<uint32_t>(2 * (left + right));
    sps.field_height -= static_cast<uint32_t>(2 * (top + bottom));
    return true;
}

bool read_size(CBitReader& reader, H264Sps& sps) {
    const uint64_t width = (uint64_t{reader.ReadUe()} + 1) * 16;
    const uint64_t height = (uint64_t{reader.ReadUe()} + 1) * 16;
    if (!reader.Ok() || width > MAX_SIDE || height > MAX_SIDE) {
        return false;
    }
    sps.width = static_cast<uint32_t>(width);
    sps.field_height = static_cast<uint32_t>(height);
    sps.frame_mbs_only = reader.ReadFlag();
    if (!sps.frame_mbs_only) {
        reader.SkipBits(1);  // mb_adaptive_frame_field_flag
    }
    reader.SkipBits(1);  // direct_8x8_inference_flag
    if (!crop(reader, sps)) {
        return false;
    }
    sps.height = sps.frame_mbs_only ? sps.field_height : 2 * sps.field_height;
    return reader.Ok() && sps.height <= MAX_SIDE;
}

bool read_slice_type(CBitReader& reader, H264Slice& slice) {
    slice.first_mb = reader.ReadUe();
    slice.slice_type = reader.ReadUe();
    return reader.Ok() && slice.slice_type <= 9;
}

}  // namespace

bool h264_parse_sps(const unsigned char* nal, size_t len, H264Sps& sps) {
    if (nal == nullptr || len < 4 || h264_nal_type(nal[0]) != H264_NAL_SPS) {
        return false;
    }
    unsigned char rbsp[MAX_SPS_BYTES];
    CBitReader reader(rbsp, unescape(nal + 1, len - 1, rbsp, sizeof(rbsp)));
    H264Sps read;
    read.profile_idc = static_cast<uint8_t>(reader.ReadBits(8));
    reader.SkipBits(8);  // constraint flags
    read.level_idc = static_cast<uint8_t>(reader.ReadBits(8));
    reader.ReadUe();  // seq_parameter_set_id
    if (has_chroma_format(read.profile_idc)) {
        skip_chroma_format(reader, read);
    }
    const uint32_t log2_minus4 = reader.ReadUe();
    skip_pic_order(reader);
    reader.ReadUe();     // max_num_ref_frames
    reader.SkipBits(1);  // gaps_in_frame_num_value_allowed_flag
    if (!reader.Ok() || log2_minus4 > 12 || !read_size(reader, read)) {
        return false;
    }
    read.log2_max_frame_num = log2_minus4 + 4;
    sps = read;
    return true;
}

bool h264_parse_slice_type(const unsigned char* rbsp, size_t len, H264Slice& slice) {
    unsigned char bytes[MAX_SLICE_BYTES];
    CBitReader reader(bytes, rbsp == nullptr ? 0 : unescape(rbsp, len, bytes, sizeof(bytes)));
    H264Slice read;
    if (!read_slice_type(reader, read)) {
        return false;
    }
    slice = read;
    return true;
}

bool h264_parse_field_pic(const unsigned char* rbsp, size_t len, const H264Sps& sps, H264Slice& slice) {
    unsigned char bytes[MAX_SLICE_BYTES];
    CBitReader reader(bytes, rbsp == nullptr ? 0 : unescape(rbsp, len, bytes, sizeof(bytes)));
    H264Slice read;
    if (!read_slice_type(reader, read)) {
        return false;
    }
    read.pps_id = reader.ReadUe();
    if (sps.separate_colour_plane) {
        reader.SkipBits(2);  // colour_plane_id
    }
    reader.ReadBits(sps.log2_max_frame_num);  // frame_num
    read.field_pic = !sps.frame_mbs_only && reader.ReadFlag();
    if (!reader.Ok()) {
        return false;
    }
    slice = read;
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
