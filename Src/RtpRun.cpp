#include "RtpRun.h"

#include "Vidora/H264Parser.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

run_kind_t nal_kind(int type) {
    if (type == H264_NAL_IDR || type == H264_NAL_SPS || type == H264_NAL_PPS) {
        return RUN_KIND_KEY;
    }
    return type == H264_NAL_SEI || type == H264_NAL_DELIMITER ? RUN_KIND_UNDECIDED : RUN_KIND_OTHER;
}

// RFC 6184 5.7.1: units behind their 16-bit sizes.
run_kind_t aggregate_kind(CByteReader& payload) {
    while (payload.Remaining() > 0) {
        CByteReader unit = payload.SubReader(payload.ReadU16());
        const run_kind_t kind = nal_kind(h264_nal_type(unit.ReadU8()));
        if (!unit.Ok() || kind != RUN_KIND_UNDECIDED) {
            return unit.Ok() ? kind : RUN_KIND_OTHER;
        }
    }
    return RUN_KIND_UNDECIDED;
}

}  // namespace

run_kind_t H264PayloadKind(const unsigned char* payload, size_t length) {
    CByteReader reader(payload, length);
    const int type = h264_nal_type(reader.ReadU8());
    if (type == H264_NAL_STAP_A) {
        return aggregate_kind(reader);
    }
    if (type == H264_NAL_FU_A) {
        const uint8_t header = reader.ReadU8();
        return (header & H264_FU_START) != 0 ? nal_kind(h264_nal_type(header)) : RUN_KIND_OTHER;
    }
    return reader.Ok() ? nal_kind(type) : RUN_KIND_OTHER;
}

run_kind_t H264RunKind(const unsigned char* run, size_t length) {
    CByteReader reader(run, length);
    interleaved_unit_t unit;
    RtpHeader header;
    while (ReadInterleavedUnit(reader, unit) && rtp_parse_header(unit.data, unit.length, header)) {
        const run_kind_t kind =
            header.is_empty ? RUN_KIND_UNDECIDED : H264PayloadKind(header.payload, header.payload_len);
        if (kind != RUN_KIND_UNDECIDED) {
            return kind;
        }
    }
    return RUN_KIND_UNDECIDED;
}

}  // namespace Vidora
}  // namespace Kavio
