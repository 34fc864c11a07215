#ifndef VIDORA_HOST_FRAMECURSOR_H
#define VIDORA_HOST_FRAMECURSOR_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "FileBytes.h"

// Where a frame stands in a recording, and when.
struct FramePlace {
    uint64_t offset = 0;
    int64_t time_ms = 0;      // from the first frame, by the frames' 16-bit time stamps
    uint32_t utc_sec = 0;     // wall time
    uint16_t time_stamp = 0;  // as in the frame
};

// One private frame of a recording, as its header and blocks tell.
struct FrameEntry {
    FramePlace place;
    uint32_t size = 0;         // of the whole frame
    uint64_t body_offset = 0;  // of the payload, absolute
    uint32_t body_size = 0;
    int letter = 0;       // frame type letter: I (JPEG pictures too), P, B, A, W; 0 for an unknown type
    int encode_code = 0;  // of the frame's own block, 0 without one
    int width = 0;        // of key frames
    int height = 0;
    int frame_rate = 0;
    int sample_rate = 0;  // of audio frames
};

// FrameCursor: walks the frames of a recording, and goes on at the next magic behind damage.
//
// Holds WINDOW_SIZE bytes. A frame above MAX_FRAME_SIZE counts as damage, so that nobody has to hold more than that.
class FrameCursor {
public:
    static constexpr uint32_t MAX_FRAME_SIZE = 16u << 20;
    static constexpr size_t WINDOW_SIZE = 64u << 10;

    // What a step of the walk met.
    enum step_t {
        STEP_FRAME,   // a whole frame
        STEP_DAMAGE,  // up to a window of bytes that are no frame
        STEP_END
    };

    // `bytes` outlives the cursor, which begins at its front.
    explicit FrameCursor(const IBytes& bytes) : m_bytes(bytes) {}

    step_t Next(FrameEntry& entry);
    // Goes to a frame; the next ones take their times from it. Or to any place, which leaves the times alone.
    void Seek(const FramePlace& place);
    void SkipTo(uint64_t offset);
    uint64_t Offset() const { return m_offset; }
    // At the end: where a file that grows has to be read again, as a frame begins there that isn't whole.
    uint64_t ResumeOffset() const { return m_cut_offset != NO_OFFSET ? m_cut_offset : m_offset; }

private:
    static constexpr uint64_t NO_OFFSET = UINT64_MAX;

    size_t fill(size_t wanted);
    bool read_frame(FrameEntry& entry);
    step_t skip_damage();
    void set_time(FramePlace& place);

    const IBytes& m_bytes;
    uint64_t m_offset = 0;
    uint64_t m_cut_offset = NO_OFFSET;  // of the first frame that would end behind the bytes
    bool m_has_last = false;            // m_last holds the frame in front
    FramePlace m_last;
    std::vector<unsigned char> m_window;  // bytes from m_window_offset on
    uint64_t m_window_offset = 0;
};

#endif  // VIDORA_HOST_FRAMECURSOR_H
