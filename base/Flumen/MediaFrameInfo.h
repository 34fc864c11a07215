#ifndef VIDORA_FLUMEN_MEDIAFRAMEINFO_H
#define VIDORA_FLUMEN_MEDIAFRAMEINFO_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Flumen {

// MediaFrameInfo: the facts of one frame, a fixed record of 80 bytes in the extra area of its memory. A host may read
// the area as bytes, so the layout never changes; values have the machine's own byte order.
struct MediaFrameInfo {
    char kind;          // 'V' video, 'A' audio, 0 until a type was set
    uint8_t flag1;      // 1 from creation; read by nobody here
    uint8_t flag2;      // as flag1
    int8_t new_format;  // 1 if the format changes with this frame
    uint32_t channel;
    uint64_t pts0;  // time stamp of type 0, in milliseconds
    uint8_t unused1[2];
    char frame_type;  // letter of a video frame
    uint8_t unused2[5];
    uint32_t capacity;  // bytes of the memory at creation
    uint32_t utc_sec;   // wall time: whole seconds
    uint64_t pts[5];    // time stamps of types 1 to 5
    int32_t sequence;
    uint16_t utc_ms;  // wall time: milliseconds, 0 to 999
    uint8_t unused3[2];

    // Zeroes the record and sets what a new memory of `memory_capacity` bytes has.
    void Init(uint32_t memory_capacity);

    // The type letter; audio is told by `kind` alone, so that the last video letter survives it.
    int GetType() const;
    void SetType(int type);
    // Seconds, to the millisecond: what is finer is cut off. A time that isn't from 0 to 2^32 counts as the nearest.
    double GetUtc() const;
    void SetUtc(double seconds);
    // Time stamp of a type from 0 to 5. Another type reads as 0, and isn't written.
    uint64_t GetPts(int type) const;
    void SetPts(uint64_t value, int type);
    static bool HasPts(int type);
};

static_assert(sizeof(MediaFrameInfo) == 80, "the record has 80 bytes");
static_assert(offsetof(MediaFrameInfo, pts0) == 8 && offsetof(MediaFrameInfo, frame_type) == 18 &&
                  offsetof(MediaFrameInfo, capacity) == 24 && offsetof(MediaFrameInfo, pts) == 32 &&
                  offsetof(MediaFrameInfo, sequence) == 72 && offsetof(MediaFrameInfo, utc_ms) == 76,
              "the record's layout is fixed");

}  // namespace Flumen
}  // namespace Kavio

#endif  // VIDORA_FLUMEN_MEDIAFRAMEINFO_H
