#ifndef VIDORA_STREAMSOURCE_REPLAYEXTENSION_H
#define VIDORA_STREAMSOURCE_REPLAYEXTENSION_H

#include "StreamParser/StreamParser.h"

namespace Kavio {
namespace Vidora {

// CReplayExtension: the RTP header extension of a replayed frame (ONVIF Streaming Specification, 6.3): its wall time,
// flags, and the CSeq of the PLAY that it answers.
//
// THREADING  None of its own: its owner guards it.
class CReplayExtension {
public:
    static const int SIZE = RTP_EXTENSION_LEN;

    // Writes that of the next frame. `packet_state` as CStreamSource::getPacketType has it; `cseq`: its low eight bits
    // go in.
    void Write(const Flumen::CMediaFrame& frame, int packet_state, int cseq);
    const uint8_t* GetBytes() const { return m_bytes; }

private:
    double m_last_utc = 0.0;  // seconds
    uint8_t m_flags = 0;
    uint8_t m_bytes[SIZE] = {};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_REPLAYEXTENSION_H
