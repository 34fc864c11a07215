#ifndef VIDORA_SIP_SDPTRACK_H
#define VIDORA_SIP_SDPTRACK_H

#include <cstdint>

#include "RtspClient/DecoderParams.h"

namespace Kavio {
namespace Vidora {

// CSdpTrack: what the first medium of a description says to either direction of a single track.
//
// THREADING  No lock: read once, by one thread.
class CSdpTrack {
public:
    // Once. False, with a log line, if it has no medium that could be sent or received.
    bool Read(const char* sdp);

    // An enc_type_t; audio is ENC_TYPE_AUDIO whatever its codec, but for MPEG audio, which has a payload format of its
    // own (RFC 2250).
    int EncType() const { return m_decoder.enc_type; }
    uint8_t PayloadType() const { return m_decoder.payload_type; }
    // RTP ticks a second.
    uint32_t ClockRate() const { return m_clock_rate; }
    // For a decoder; leads to configuration blocks that this object holds.
    const RtpDecParam& Decoder() const { return m_decoder; }

private:
    bool read_media(CSdpInfo& info, bool video);

    CDecoderParams m_params;
    RtpDecParam m_decoder;
    uint32_t m_clock_rate = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SIP_SDPTRACK_H
