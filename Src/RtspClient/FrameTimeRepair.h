#ifndef VIDORA_RTSPCLIENT_FRAMETIMEREPAIR_H
#define VIDORA_RTSPCLIENT_FRAMETIMEREPAIR_H

#include <cstdint>

#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {
namespace Vidora {

// CFrameTimeRepair: keeps the time stamps of private frames in order, and those of audio near those of video. Stamps
// are 16-bit counts of milliseconds: their distance is signed and goes over the wrap.
//
// An audio frame more than 100 ms off the last video frame takes its stamp, if that came within the last second of
// audio. A frame that steps back goes 45 ms behind the one before it; a step back of more than a second is a new
// beginning, and stays. The presentation time moves by the same distance. Pictures come in decoding order: one that is
// to be shown between the last one and all before that is a B picture, and stays where it is.
//
// THREADING  No lock: one thread at a time.
class CFrameTimeRepair {
public:
    // Frames other than private audio and video ones stay as they are.
    void Modify(Flumen::CMediaFrame& frame);
    // Forgets the frames before, at a break of the stream.
    void Reset() { *this = CFrameTimeRepair(); }

private:
    struct Stamp {
        bool known = false;
        uint16_t value = 0;
    };

    uint16_t repair_audio(uint16_t value);
    uint16_t repair_video(uint16_t value);
    bool is_b_picture(uint16_t value) const;

    Stamp m_last_video;
    Stamp m_latest;                // of the video frames so far, the one that is shown last
    Stamp m_before_latest;         // what was that in front of it; unknown where it was moved
    bool m_video_is_near = false;  // the last video frame came within the last second of audio
    Stamp m_last_audio;
    Stamp m_raw_audio;       // the last audio frame's as it came
    Stamp m_audio_at_video;  // of the audio frame around the last video frame, as it came
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_FRAMETIMEREPAIR_H
