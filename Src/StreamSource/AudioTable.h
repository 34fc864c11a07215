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

// How a track of sound is announced and stamped.
struct AudioMap {
    int payload_type;    // RTP payload number
    int clock_rate;      // of the time stamps, a second
    const char* name;    // encoding name of the SDP
    int bytes_per_tick;  // of that clock, where a frame may be cut into packets anywhere; 0 elsewhere
};

// Finds that for a codec at a rate in Hz. `standard`: by RFC 3551 alone, static payload numbers at their own rates and
// dynamic ones otherwise; what has no RTP payload that players know is refused. Otherwise the rows above, at the rate
// of the samples. False, with a log line, if there is none.
bool MapAudio(int encode_type, int sample_rate, bool standard, AudioMap& map);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_AUDIOTABLE_H
