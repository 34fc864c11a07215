#ifndef VIDORA_STREAMPARSER_FORWARDTIME_H
#define VIDORA_STREAMPARSER_FORWARDTIME_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// CForwardTime: the time of a stream's clock, which must not go back with the presentation times of B pictures, as
// pictures come in decoding order. It stands still until these have caught up; a longer step back is a new beginning.
class CForwardTime {
public:
    // The clock's time for a picture of this presentation time, both in milliseconds.
    uint64_t Take(uint64_t pts_ms) {
        const bool is_back = m_begun && m_ms - pts_ms <= MAX_BACK_MS;
        m_ms = is_back ? m_ms : pts_ms;
        m_begun = true;
        return m_ms;
    }

private:
    static constexpr uint64_t MAX_BACK_MS = 2000;  // some pictures of a slow stream

    bool m_begun = false;
    uint64_t m_ms = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FORWARDTIME_H
