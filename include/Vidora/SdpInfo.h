#ifndef VIDORA_SDPINFO_H
#define VIDORA_SDPINFO_H

#include "Vidora/Export.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CSdpParser;
struct sdp_info_data;

// CSdpInfo: what a client session is going to deliver, read from the session description that its server sent. Hosts
// get it from CRtspClientSession::GetSdpInfo.
//
// The `kind` of an operation names a track: 'A' the first audio track, 'V' the first video track; no other letter and
// no lower case. Results are -1 or null for a kind that the description doesn't have.
//
// THREADING  No lock: neither the object nor its description may change while it is read.
// OWNERSHIP  Doesn't own the description, which must live longer.
class VIDORA_API CSdpInfo {
public:
    // Without a description: every query returns -1 or null.
    CSdpInfo();
    explicit CSdpInfo(CSdpParser* sdp);
    // Both share the contents of `other`, as with CRtspUrlParser.
    CSdpInfo(const CSdpInfo& other);
    CSdpInfo& operator=(const CSdpInfo& other);
    ~CSdpInfo();

    // The payload type of RTP (RFC 3550 5.1).
    int GetPayloadType(char kind);
    // The encoding name ("H264"), from the description or, for a static payload type, from RFC 3551. Valid until the
    // next call.
    char* GetPayloadNameEx(char kind);
    // The RTP clock rate in Hz, from the same two places.
    int GetSampleRate(char kind);
    // Video frames a second, rounded.
    int GetFrameRate();
    // Sets `seconds` to the length of a recording, 0 for a live stream: 0. -1 without a description.
    int GetDuration(float& seconds);
    // Audio channels: 1 if the description doesn't say, -1 without audio.
    int GetAudioChannel();
    // The packet_type_t that the session has chosen.
    int GetPacketType();

private:
    friend class CSdpInfoAccess;  // the client engine and the frame buffer

    int get_media_index(char kind);

    sdp_info_data* m_data;  // null when memory was short
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SDPINFO_H
