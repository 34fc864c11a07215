#ifndef VIDORA_RTSPCLIENT_FRAMERATEREPAIR_H
#define VIDORA_RTSPCLIENT_FRAMERATEREPAIR_H

#include <cstdint>

#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {
namespace Vidora {

// CFrameRateRepair: writes the frame rate into the private key frames of a video track. While the rate isn't known it
// holds the first frames back and measures it: on the fourth frame, or as soon as the held ones span two seconds.
//
// MEMORY     Four frames.
// THREADING  No lock: one thread at a time.
class CFrameRateRepair {
public:
    void SetRate(int rate) { m_rate = rate; }
    int Rate() const { return m_rate; }

    // Sets the frame's rate, or takes it to hold it back: it is then empty, or an earlier frame is in its place.
    // Frames without a whole private header stay as they are.
    void Modify(Flumen::CMediaFrame& frame);
    // No more frames come: those that are held back tell the rate, as far as they can.
    void End();
    // The oldest frame that is held back, once the rate is known; empty otherwise.
    Flumen::CMediaFrame Release();
    bool HasFrames() const { return m_saved_count > 0 && m_rate > 0; }

private:
    static constexpr int MAX_SAVED = 4;
    static constexpr int DEFAULT_RATE = 25;

    void set_rate(Flumen::CMediaFrame& frame) const;
    void set_saved_rates();
    void hold(Flumen::CMediaFrame& frame);
    void measure();
    int mean_rate() const;
    void measure_slow();
    Flumen::CMediaFrame take_first();

    int m_rate = 0;
    Flumen::CMediaFrame m_saved[MAX_SAVED];
    int m_saved_count = 0;
    double m_span_ms = 0;  // distances of the saved frames from the first, summed up
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_FRAMERATEREPAIR_H
