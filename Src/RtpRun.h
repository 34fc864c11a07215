#ifndef VIDORA_RTPRUN_H
#define VIDORA_RTPRUN_H

#include <cstddef>
#include <cstdint>

#include "StreamParser/RtpHeader.h"
#include "Tramel/Interleave.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

// One unit of an interleaved stream (RFC 2326 10.12).
struct interleaved_unit_t {
    uint8_t channel = 0;
    const unsigned char* data = nullptr;  // behind the 4 header bytes
    uint16_t length = 0;                  // bytes at `data`
};

// Reads the next unit of a run, header and all. False at its end, or if what is left is no whole unit.
inline bool ReadInterleavedUnit(Ostra::CByteReader& run, interleaved_unit_t& unit) {
    const uint32_t header = run.ReadU32();
    unit.channel = static_cast<uint8_t>(header >> 16);
    unit.length = static_cast<uint16_t>(header);
    unit.data = run.ReadBytes(unit.length);
    return run.Ok() && header >> 24 == Tramel::INTERLEAVE_MARK;
}

// What the packets of a frame show of its kind.
enum run_kind_t { RUN_KIND_UNDECIDED = 0, RUN_KIND_KEY = 1, RUN_KIND_OTHER = 2 };

// The kind of an H.264 frame by the payload of one of its packets (RFC 6184): key frame for an IDR slice or a parameter
// set, undecided for what precedes either kind. A later fragment of an IDR slice counts as other: nothing can
// begin with it.
run_kind_t H264PayloadKind(const unsigned char* payload, size_t length);

// The kind of the frame that an H.264 run makes, by the first NAL unit that decides.
run_kind_t H264RunKind(const unsigned char* run, size_t length);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTPRUN_H
