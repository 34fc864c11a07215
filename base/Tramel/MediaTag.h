#ifndef VIDORA_TRAMEL_MEDIATAG_H
#define VIDORA_TRAMEL_MEDIATAG_H

#include <cstdint>

namespace Kavio {
namespace Tramel {

// The word that goes along with each packet through a media buffer (see CMediaBuffer::Put), unpacked:
// bits 0 to 7 are the kind of frame, bits 24 to 31 the track.
struct MediaTag {
    enum frame_t : uint8_t {
        OTHER_FRAME = 0,
        KEY_FRAME = 1,
        SKIPPABLE_FRAME = 5  // a slow sink may do without it
    };

    uint8_t track = 0;
    uint8_t frame = OTHER_FRAME;  // a frame_t; other values go through

    static constexpr MediaTag Unpack(int word) {
        const uint32_t bits = static_cast<uint32_t>(word);
        return {static_cast<uint8_t>(bits >> TRACK_SHIFT), static_cast<uint8_t>(bits)};
    }
    constexpr int Pack() const { return static_cast<int>(uint32_t{track} << TRACK_SHIFT | frame); }
    constexpr bool IsKey() const { return frame == KEY_FRAME; }

    static constexpr int TRACK_SHIFT = 24;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIATAG_H
