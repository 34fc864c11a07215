#ifndef VIDORA_STREAMSOURCE_FORMATWATCH_H
#define VIDORA_STREAMSOURCE_FORMATWATCH_H

#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/StreamSource.h"

namespace Kavio {
namespace Vidora {

// CFormatWatch: the formats of a source as its description and its tracks show them, and the watch for frames of
// others. A source marks the first frame of a new format. From an audio one on nothing passes, since the audio clock is
// of the description; from a video one on all passes until the next key frame.
//
// THREADING  None of its own: its owner guards it.
class CFormatWatch {
public:
    enum verdict_t {
        FRAME_PASSES,
        FRAME_HELD,        // its format isn't described yet
        FRAME_ENDS_CHANGE  // the source is to be compared now
    };

    // Takes over the source's formats.
    void Read(CStreamSource& source);
    // The same where they are others than those held. Whether they were.
    bool Update(CStreamSource& source);
    // Looks at the next frame.
    verdict_t Look(const Flumen::CMediaFrame& frame);

    bool HasVideo() const { return m_has_video; }
    bool HasAudio() const { return m_has_audio; }
    const StreamVideoFormat& GetVideo() const { return m_video; }
    const StreamAudioFormat& GetAudio() const { return m_audio; }

private:
    void read_video(CStreamSource& source);
    void read_audio(CStreamSource& source);
    bool video_differs(CStreamSource& source) const;
    bool audio_differs(CStreamSource& source) const;

    bool m_has_video = false;
    bool m_has_audio = false;
    StreamVideoFormat m_video;
    StreamAudioFormat m_audio;
    bool m_video_changes = false;  // a frame of that kind had a new format
    bool m_audio_changes = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_FORMATWATCH_H
