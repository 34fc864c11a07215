#ifndef VIDORA_SESSIONSOURCE_H
#define VIDORA_SESSIONSOURCE_H

#include <memory>

#include "MediaRoute.h"
#include "StreamSource/LiveSvrRef.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CDataSource;
class CRtspSvrConfig;
class CSdpParser;

// CSessionSource: where the media of one conversation come from: a live channel, which it shares with others, or a data
// source of its own.
//
// A live channel answers at once, a source of its own by a message later: MSG_SRC_READY after OpenOwn, MSG_PLAY_READY
// after Play, MSG_SRC_PAUSED after Pause. The messages of either go to the handler that Open... was given.
//
// THREADING  The conversation's strand.
// OWNERSHIP  Holds a reference on its channel, and owns its data source, with the buffer that this one fills. The route
//            that is stored there is borrowed, and leaves at the latest in Release.
class CSessionSource {
public:
    CSessionSource();
    ~CSessionSource();  // after Release
    CSessionSource(const CSessionSource&) = delete;
    CSessionSource& operator=(const CSessionSource&) = delete;

    void SetLiveSvr(const CLiveSvrRef& live_svr) { m_live_svr = live_svr; }

    // Whether a live channel fits the content.
    bool HasChannel(const char* content) const;
    // Takes the live channel that fits, or makes a data source, for the handler `user`. `proto`: of the URL. 0, or -1:
    // then there may be a source all the same, which stays until Release.
    int OpenLive(const char* content, int proto, long user);
    int OpenOwn(const char* content, int proto, const CRtspSvrConfig& config, long user);
    // The end of what was opened: the route leaves, the source is closed. `hears_end`: whether `user` is to get the
    // MSG_SOURCE_CLOSED of a source of its own. True if it will.
    bool Release(long user, bool hears_end);

    bool IsOpen() const { return m_channel != nullptr || m_own != nullptr; }
    // Also when the channel was not to be had.
    bool IsLive() const { return m_is_live; }
    bool IsOwn() const { return m_own != nullptr; }
    // Whether it can seek: a recording of this host.
    bool IsRecording() const;
    // Of a source of its own: whether its media flow.
    bool IsStarted() const { return m_started; }
    // The handler that sends the messages of what is open; 0 for nothing.
    long SenderId() const;
    // The numbers in the live channel's name.
    int Channel() const { return m_channel_number; }
    int Subtype() const { return m_subtype; }

    // Of the source of either kind, which must be open; see CDataSource. GetSdp returns an sdp_result_t, and leaves
    // `sdp` as it is when that is negative; a live channel's description is shared by all its clients.
    int GetSdp(std::shared_ptr<const CSdpParser>& sdp);
    int GetSrcInfo(SrcInfo& info, int track_id);
    int GetTcpChannel(int track_id);
    unsigned int GetSSRC(int track_id);
    int GetPlayRange(UtcTime& begin, UtcTime& end);
    int GetPlayRange(uint64_t& begin_us, uint64_t& end_us);

    // Of a source of its own alone; null for a live channel.
    CDataSource* Own() { return m_own; }
    void Pause();
    // Starts it in that form, or resumes it, unless it runs. 0 or -1.
    int Start(packet_type_t type, int cseq);
    // Stops it for all tracks; `type` is the form of one that doesn't run. 0 or -1.
    int Stop(packet_type_t type);

    // Stores the route in the channel, which is started, or in the buffer. 0 or -1.
    int Enter(IMediaRoute& route, packet_type_t type);
    void Leave();
    bool IsEntered() const { return m_route != nullptr; }
    // Whether media of a source of its own are still on their way to the client; `unsent` takes about how many bytes
    // its system hasn't taken yet. A channel has media for others, always.
    bool HasMediaToSend(uint64_t& unsent);

private:
    // Calls `call` with the source of either kind.
    template <typename Call>
    auto of_source(Call call) {
        return m_channel != nullptr ? call(*m_channel) : call(*m_own);
    }
    int read_channel_name(const char* name);
    bool make_buffer();
    void enable_assist();
    void disable_assist();

    CLiveSvrRef m_live_svr;
    CLiveChannel* m_channel = nullptr;       // a reference on it is held
    CDataSource* m_own = nullptr;            // closed, never deleted
    std::unique_ptr<CMediaBuffer> m_buffer;  // that m_own fills
    int m_channel_number = 0;                // in the live channel's name
    int m_subtype = 0;
    bool m_is_live = false;
    bool m_wants_assist = false;
    bool m_assist_enabled = false;                    // the assist track was counted in
    bool m_started = false;                           // m_own runs
    packet_type_t m_counted_type = PACKET_TYPE_NONE;  // the form in which m_own has counted the session in
    IMediaRoute* m_route = nullptr;                   // that is stored in the channel or the buffer,
    packet_type_t m_route_type = PACKET_TYPE_NONE;    // of this form
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SESSIONSOURCE_H
