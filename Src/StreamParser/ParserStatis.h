#ifndef VIDORA_STREAMPARSER_PARSERSTATIS_H
#define VIDORA_STREAMPARSER_PARSERSTATIS_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// Frame rate and bit rate of a stream, measured over a second of its time stamps.
struct ParserStatis {
    float bit_rate = 0;  // bits a second
    float fps = 0;       // frames a second; carries a fraction over, see Count

    // The measuring itself.
    uint64_t m_start_pts = 0;  // milliseconds; 0 means "none yet"
    int32_t m_frames = 0;
    uint32_t m_bytes = 0;
    int32_t m_last_sequence = 0;
    int32_t m_last_fps_int = 0;
    float m_fps_fraction = 0;

    // Counts one frame: its time stamp in milliseconds, its size in bytes and its running number. A number that isn't
    // the last one plus 1 starts the measurement anew, and so does a time stamp that lies an interval back. A first
    // time stamp of 0 counts as none, so the next frame starts.
    void Count(uint64_t pts, uint32_t size, int32_t sequence);

private:
    void finish_interval(int32_t elapsed_ms);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_PARSERSTATIS_H
