#include "AnnexB.h"

#include "Vidora/StartCode.h"

using namespace Kavio::Vidora;

namespace {

const unsigned char START_CODE[] = {0, 0, 0, 1};
const int LAST_PARTITION = 4;      // data partitions are the types between a slice and an IDR slice
const int FIRST_UNSPECIFIED = 24;  // ISO 14496-10 table 7-1; type 0 is unspecified as well
const int FIRST_RESERVED = 14;     // to LAST_RESERVED: types that stand in front of a picture
const int LAST_RESERVED = 18;
const unsigned SLICE_TYPE_B = 1;  // table 7-6, modulo 5

}  // namespace

std::vector<NalUnit> SplitNalUnits(const unsigned char* data, size_t size) {
    std::vector<NalUnit> units;
    size_t at = find_start_code3(data, size);
    while (at != NO_START_CODE) {
        const size_t begin = at + 3;
        at = find_start_code3(data, size, begin);
        size_t end = at == NO_START_CODE ? size : at;
        // Zeros in front of the next start code belong to it (annex B.1), not to the unit.
        while (end > begin && data[end - 1] == 0) {
            --end;
        }
        if (end > begin) {
            units.push_back(NalUnit{data + begin, end - begin});
        }
    }
    return units;
}

void AppendNalUnit(std::vector<unsigned char>& bytes, const NalUnit& nal) {
    bytes.insert(bytes.end(), START_CODE, START_CODE + sizeof(START_CODE));
    bytes.insert(bytes.end(), nal.data, nal.data + nal.size);
}

bool HasShortStartCode(const unsigned char* data, size_t size) {
    for (size_t at = find_start_code3(data, size); at != NO_START_CODE; at = find_start_code3(data, size, at + 3)) {
        if (at == 0 || data[at - 1] != 0) {
            return true;
        }
    }
    return false;
}

bool IsSlice(const NalUnit& nal) {
    const int type = h264_nal_type(nal.data[0]);
    return type == H264_NAL_SLICE || type == H264_NAL_IDR;
}

bool IsBSlice(const H264Slice& slice) {
    return slice.slice_type % 5 == SLICE_TYPE_B;
}

bool BeginsPicture(const NalUnit& nal) {
    const int type = h264_nal_type(nal.data[0]);
    return (type >= H264_NAL_SEI && type <= H264_NAL_DELIMITER) || (type >= FIRST_RESERVED && type <= LAST_RESERVED);
}

const char* WhyNotSent(const NalUnit& nal, const H264Sps& sps, H264Slice& slice, slices_t slices) {
    const int type = h264_nal_type(nal.data[0]);
    if (type == 0 || type >= FIRST_UNSPECIFIED) {
        return "is no H.264 stream";
    }
    if (type > H264_NAL_SLICE && type <= LAST_PARTITION) {
        return "has data partitions, which cannot be sent";
    }
    if (!IsSlice(nal)) {
        return nullptr;
    }
    if (!h264_parse_slice_type(nal.data + 1, nal.size - 1, slice)) {
        return "has a damaged slice";
    }
    if (slice.first_mb != 0 && slices == ONE_SLICE) {
        return "has several slices in a picture, of which --as-described sends only the first whole: leave that option "
               "away, or encode with one slice a picture";
    }
    if (!sps.frame_mbs_only && h264_parse_field_pic(nal.data + 1, nal.size - 1, sps, slice) && slice.field_pic) {
        return "codes pictures as two fields: encode whole frames";
    }
    return nullptr;
}

const char* WhyNotSent(const unsigned char* picture, size_t size, slices_t slices) {
    H264Sps sps;
    const char* why = nullptr;
    for (const NalUnit& nal : SplitNalUnits(picture, size)) {
        if (h264_nal_type(nal.data[0]) == H264_NAL_SPS) {
            h264_parse_sps(nal.data, nal.size, sps);
        }
        H264Slice slice;
        why = why == nullptr ? WhyNotSent(nal, sps, slice, slices) : why;
    }
    return why;
}
