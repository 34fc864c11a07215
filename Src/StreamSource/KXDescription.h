#ifndef VIDORA_STREAMSOURCE_KXDESCRIPTION_H
#define VIDORA_STREAMSOURCE_KXDESCRIPTION_H

#include "Protocol/SdpParser.h"
#include "Vidora/Names.h"
#include "Vidora/StreamSource.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CKXDataReceiver;

// CKXDescription: the SDP of a host's stream (RFC 4566), built from the formats that the receiver read, with the track
// number of each of its media.
//
// THREADING  None of its own: its owner guards it. Build asks the host for its codec configuration.
class CKXDescription {
public:
    // Before Build: whether sound and configurations are told by the RFCs alone; see MapAudio.
    void SetConformance(bool on) { m_conformance = on; }
    // Describes the stream of a source of that type. 0, or -1 with a log line if it can't be described; the object is
    // of no use then.
    int Build(CKXDataReceiver& receiver, src_type_t src_type);
    const CSdpParser& GetSdp() const { return m_sdp; }
    // Puts the assist medium into a copy of the SDP; from then on its track is known here. 0 or -1.
    int AddAssist(CSdpParser& sdp);
    // The medium's index of an SDP track number, or -1.
    int FindTrack(int track_id) const;

private:
    static const int MAX_TRACK = 8;

    int build_session(CKXDataReceiver& receiver, src_type_t src_type);
    int build_video(CKXDataReceiver& receiver, src_type_t src_type);
    int build_audio(const StreamAudioFormat& audio, src_type_t src_type);
    int add_track(CSdpParser& sdp, const char* type, const char* format);

    bool m_conformance = false;
    CSdpParser m_sdp;
    int m_track_num = 0;
    int m_track_ids[MAX_TRACK] = {};  // SDP track number of each medium
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_KXDESCRIPTION_H
