#ifndef VIDORA_RTSPCLIENT_SDPINFOACCESS_H
#define VIDORA_RTSPCLIENT_SDPINFOACCESS_H

#include <atomic>

#include "Protocol/SdpParser.h"
#include "Vidora/SdpInfo.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

const int SDP_INFO_MAX_TRACKS = 16;

// The contents of CSdpInfo, shared by the objects that were assigned to one another.
struct sdp_info_data {
    explicit sdp_info_data(CSdpParser* sdp) : m_sdp(sdp) {}

    CSdpParser* m_sdp;  // not owned; may be null
    // The media that are delivered, by their places in the description; -1: the first one of the kind.
    int m_audio_index = -1;
    int m_video_index = -1;
    int m_audio_channel = -1;
    int m_video_channel = -1;
    int m_app_channel = -1;
    packet_type_t m_packet_type = PACKET_TYPE_RTP;
    char m_name[128] = "";  // the payload name given out last
    std::atomic<int> m_ref_count{1};
};

// What CSdpInfo takes from one row of the client engine's track table.
struct sdp_info_track {
    int track_id;  // of the description
    int rtp_channel;
    bool back_channel;  // from the client to the server: not delivered, so not shown
};

// CSdpInfoAccess: the library's own way into CSdpInfo.
class CSdpInfoAccess {
public:
    // The contents; null when memory was short.
    static sdp_info_data* Data(const CSdpInfo& info) { return info.m_data; }

    // An attribute of the media that `kind` names, as in CSdpInfo; null if there is none.
    static const char* MediaAttribute(CSdpInfo& info, char kind, const char* name);

    // Called once by the client engine, when it has its track table: `count` rows, of which 16 are used; of
    // several tracks of a kind the first one is shown. `sdp` must outlive `info`. 0, or -1 for a null argument or
    // without memory.
    static int Fill(CSdpInfo& info, CSdpParser* sdp, const sdp_info_track* tracks, int count, packet_type_t type);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_SDPINFOACCESS_H
