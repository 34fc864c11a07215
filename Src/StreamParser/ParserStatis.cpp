#include "StreamParser/ParserStatis.h"

namespace Kavio {
namespace Vidora {

void ParserStatis::Count(uint64_t pts, uint32_t size, int32_t sequence) {
    constexpr int32_t INTERVAL_MS = 1000;
    if (m_start_pts == 0) {
        m_start_pts = pts;
        m_frames = -1;  // the first frame only opens the interval
    }
    ++m_frames;
    m_bytes += size;
    const int32_t elapsed_ms = static_cast<int32_t>(pts - m_start_pts);
    // B pictures step back by less than an interval.
    const bool gap =
        (m_last_sequence != 0 && static_cast<uint32_t>(sequence) != static_cast<uint32_t>(m_last_sequence) + 1) ||
        elapsed_ms <= -INTERVAL_MS;
    if (!gap && elapsed_ms >= INTERVAL_MS) {
        finish_interval(elapsed_ms);
    }
    if (gap || elapsed_ms >= INTERVAL_MS) {
        m_frames = 0;
        m_bytes = 0;
        m_start_pts = pts;
    }
    m_last_sequence = sequence;
}

// Carries the fraction of the last rate over into this one, so that a reader who cuts `fps` to a whole number comes
// near the true rate in the mean. A rate below 1 shows 1 more, never 0.
void ParserStatis::finish_interval(int32_t elapsed_ms) {
    fps = static_cast<float>(m_frames * 1000.0 / elapsed_ms);
    bit_rate = static_cast<float>(m_bytes * 8000.0 / elapsed_ms);
    if (static_cast<int32_t>(fps) == 0) {
        fps += 1;
        return;
    }
    if (m_last_fps_int != 0) {
        fps = fps * m_fps_fraction / static_cast<float>(m_last_fps_int) + fps;
    }
    m_last_fps_int = static_cast<int32_t>(fps);
    m_fps_fraction = fps - static_cast<float>(m_last_fps_int);
}

}  // namespace Vidora
}  // namespace Kavio
