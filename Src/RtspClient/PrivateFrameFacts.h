#ifndef VIDORA_RTSPCLIENT_PRIVATEFRAMEFACTS_H
#define VIDORA_RTSPCLIENT_PRIVATEFRAMEFACTS_H

#include <cstdint>

#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {
namespace Vidora {

// CPrivateFrameFacts: sets the facts of private frames from their headers. The time stamp there is a 16-bit count of
// milliseconds: it is unwrapped against the frame before. The wall time of the header, whole seconds that may turn at
// another moment than the count does, says where to begin, and again after a gap of 30 seconds.
//
// THREADING  No lock: one thread at a time. A frame that has its facts already is not written to, since others may
//            share it.
class CPrivateFrameFacts {
public:
    // Frames without a whole header stay as they are.
    void Fill(Flumen::CMediaFrame& frame);
    void Reset() { m_known = false; }

private:
    uint64_t unwrap(uint64_t seconds, uint16_t time_stamp);

    bool m_known = false;
    uint64_t m_seconds = 0;  // of the last frame
    uint64_t m_pts = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_PRIVATEFRAMEFACTS_H
