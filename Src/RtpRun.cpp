#include "RtpRun.h"

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

// NAL unit types of H.264, and the packet types of RFC 6184 5.2.
enum nal_type_t {
    NAL_IDR = 5,
    NAL_SEI = 6,
    NAL_SPS = 7,
    NAL_PPS = 8,
    NAL_DELIMITER = 9,
    NAL_STAP_A = 24,
    NAL_FU_A = 28
};

const uint8_t NAL_TYPE_MASK = 0x1f;
const uint8_t FU_START = 0x80;

run_kind_t nal_kind(int type) {
    if (type == NAL_IDR || type == NAL_SPS || type == NAL_PPS) {
        return RUN_KIND_KEY;
    }
    return type == NAL_SEI || type == NAL_DELIMITER ? RUN_KIND_UNDECIDED : RUN_KIND_OTHER;
}

// RFC 6184 5.7.1: units behind their 16-bit sizes.
run_kind_t aggregate_kind(CByteReader& payload) {
    while (payload.Remaining() > 0) {
        CByteReader unit = payload.SubReader(payload.ReadU16());
        const run_kind_t kind = nal_kind(unit.ReadU8() & NAL_TYPE_MASK);
        if (!unit.Ok() || kind != RUN_KIND_UNDECIDED) {
            return unit.Ok() ? kind : RUN_KIND_OTHER;
        }
    }
    return RUN_KIND_UNDECIDED;
}

}  // namespace

run_kind_t H264PayloadKind(const unsigned char* payload, size_t length) {
    CByteReader reader(payload, length);
    const int type = reader.ReadU8() & NAL_TYPE_MASK;
    if (type == NAL_STAP_A) {
        return aggregate_kind(reader);
    }
    if (type == NAL_FU_A) {
        const uint8_t header = reader.ReadU8();
        return (header & FU_START) != 0 ? nal_kind(header & NAL_TYPE_MASK) : RUN_KIND_OTHER;
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
