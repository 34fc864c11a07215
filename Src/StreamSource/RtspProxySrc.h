#ifndef VIDORA_STREAMSOURCE_RTSPPROXYSRC_H
#define VIDORA_STREAMSOURCE_RTSPPROXYSRC_H

#include <array>
#include <string>

#include "RtspClient/RtspClient.h"
#include "StreamSource/NotifyingSource.h"
#include "StreamSource/ProxyRelay.h"

namespace Kavio {
namespace Vidora {

// CRtspProxySrc: the data source that relays another RTSP server: "<content>?proxy=host:port" pulls that content from
// there, as RTP over TCP, and feeds it to the clients here. It has one client engine, whose messages go on to those who
// have registered; what ends it, as MSG_SRC_END if the stream plays, and otherwise as MSG_SRC_FAIL.
//
// A client chooses the server by its URL: with this source every client can make the process connect anywhere. A host
// that doesn't want that rewrites or refuses such contents by RTSP_SVR_CONFIG_URL_FUNC.
//
// THREADING  Any thread. m_mutex keeps the engine while it is called, which answers at once; above the engine's locks.
// OWNERSHIP  The engine feeds m_input, and the relay takes that on. Both live until the engine has gone, which is when
//            the source, closed before, ends.
class CRtspProxySrc final : public CNotifyingSource {
public:
    // `url`: of the other server, at most 255 characters; null makes a source whose Init fails.
    explicit CRtspProxySrc(const char* url);

    int Init(long notify_id, int ext) override;
    int Play(const UtcTime& start, const UtcTime& end, float speed, bool is_scale) override;
    int Play(uint64_t start_us, uint64_t end_us, float speed, bool is_scale) override;
    int Pause() override;
    int StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq) override;
    int StopStreaming(packet_type_t packet_type) override;
    int StopFeeding(packet_type_t packet_type, CMediaBuffer* buffer) override;
    void CutFeeding(const CMediaBuffer* buffer) override { m_relay.Cut(buffer); }
    using CDataSource::GetSdp;
    int GetSdp(CSdpParser& sdp) override;
    int GetSrcInfo(SrcInfo& info, int track_id) override;
    int GetPlayRange(UtcTime& start, UtcTime& end) override;
    int GetPlayRange(uint64_t& start_us, uint64_t& end_us) override;
    int GetTcpChannel(int track_id) override;
    unsigned int GetSSRC(int track_id) override;

    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    static const size_t MAX_URL = 255;

    // What the wall clock shows, or would have shown, at a track's last RTP time stamp.
    struct Date {
        uint32_t timestamp = 0;
        uint64_t wall_us = 0;  // 0: none yet
    };

    ~CRtspProxySrc() override;

    int play(const client_play& wish);
    unsigned int told_as_locked(unsigned int msg) VIDORA_REQUIRES(m_mutex);
    void finish();
    bool find_track(int track_id, client_track_facts& facts, reception_stats_t& stats);
    uint64_t date(int track_id, uint32_t timestamp, uint32_t clock_rate);

    char m_url[MAX_URL + 1];
    CMediaBuffer m_input;
    CProxyRelay m_relay;

    CMutex m_mutex;
    CRtspClient* m_client VIDORA_GUARDED_BY(m_mutex) = nullptr;  // null again once closed; frees itself
    bool m_has_engine VIDORA_GUARDED_BY(m_mutex) = false;        // one was made, and hasn't gone
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;
    bool m_ready VIDORA_GUARDED_BY(m_mutex) = false;       // the tracks are set up
    bool m_wants_play VIDORA_GUARDED_BY(m_mutex) = false;  // Play came before that
    client_play m_wish VIDORA_GUARDED_BY(m_mutex);
    std::array<Date, CLIENT_MAX_TRACKS> m_dates VIDORA_GUARDED_BY(m_mutex) = {};
    bool m_plays VIDORA_GUARDED_BY(m_mutex) = false;  // the last Play was answered, and none or a Pause followed
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_RTSPPROXYSRC_H
