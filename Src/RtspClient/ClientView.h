#ifndef VIDORA_RTSPCLIENT_CLIENTVIEW_H
#define VIDORA_RTSPCLIENT_CLIENTVIEW_H

#include <memory>
#include <string>

#include "Protocol/SdpParser.h"
#include "RtspClient/ClientTypes.h"
#include "Vidora/Names.h"
#include "Vidora/SdpInfo.h"

namespace Kavio {
namespace Vidora {

const int CLIENT_MAX_TRACKS = 16;

// A session's description and the host's view of it. Complete before it is published, and never changed then.
struct client_sdp {
    std::string text;
    CSdpParser parser;
    CSdpInfo info;
};

// What others may know of a track.
struct client_track_facts {
    int track_id = -1;
    int media_index = -1;  // its place in the description
    int media_type = SDP_MEDIA_UNKNOWN;
    int rtp_channel = -1;
    uint32_t clock_rate = 0;
    uint32_t ssrc = 0;  // as the server's SETUP reply told it; 0 if it didn't
    bool has_rtp_info = false;
    uint16_t seq = 0;      // of the first packet after the last PLAY
    uint32_t rtptime = 0;  // at the beginning of the range
};

struct client_play_range {
    int type = 0;         // 0 npt, 1 clock
    double begin = -1.0;  // seconds
    double end = -1.0;
    UtcTime clock_begin;
    UtcTime clock_end;
};

// CClientView: what a client's strand has published for other threads.
//
// THREADING  Any thread; a leaf lock. The strand publishes.
class CClientView {
public:
    void PublishSdp(const std::shared_ptr<client_sdp>& sdp);
    void PublishTracks(const client_track_facts* facts, int count);
    void PublishRange(const client_play_range& range);
    // The first failure counts.
    void PublishFailure(rtsp_client_failure_t failure);
    void PublishRedirect(const char* url);

    std::shared_ptr<client_sdp> Sdp();
    // The track of a description's track_id, or the first one of a sdp_media_type_t. False if there is none.
    bool TrackById(int track_id, client_track_facts& facts);
    bool TrackByType(int media_type, client_track_facts& facts);
    // By its place among those that deliver, from 0.
    bool TrackAt(int place, client_track_facts& facts);
    client_play_range Range();
    rtsp_client_failure_t Failure();
    std::string Redirect();

private:
    template <typename Matches>
    bool find(Matches matches, client_track_facts& facts);

    CMutex m_mutex;
    std::shared_ptr<client_sdp> m_sdp VIDORA_GUARDED_BY(m_mutex);
    client_track_facts m_tracks[CLIENT_MAX_TRACKS] VIDORA_GUARDED_BY(m_mutex);
    int m_track_count VIDORA_GUARDED_BY(m_mutex) = 0;
    client_play_range m_range VIDORA_GUARDED_BY(m_mutex);
    rtsp_client_failure_t m_failure VIDORA_GUARDED_BY(m_mutex) = RTSP_CLIENT_FAILURE_NONE;
    std::string m_redirect VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTVIEW_H
