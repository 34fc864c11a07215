#ifndef VIDORA_STREAMSOURCE_AUDIOTABLE_H
#define VIDORA_STREAMSOURCE_AUDIOTABLE_H

namespace Kavio {
namespace Vidora {

// RTP payload of an audio codec (RFC 3551 6, with codes of the hosts' own).
struct AudioPayload {
    int encode_type;   // stream_audio_encode_t
    int sample_rate;   // Hz
    int payload_type;  // RTP payload number
    const char* name;  // encoding name of the SDP
};

// The row for a codec: one that matches the sample rate as well, otherwise the first with that codec; null if there is
// none.
const AudioPayload* FindAudioPayload(int encode_type, int sample_rate);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_AUDIOTABLE_H
