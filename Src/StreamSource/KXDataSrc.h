#ifndef VIDORA_STREAMSOURCE_KXDATASRC_H
#define VIDORA_STREAMSOURCE_KXDATASRC_H

#include "StreamSource/IdList.h"
#include "Vidora/DataSource.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/StreamSource.h"

namespace Kavio {
namespace Vidora {

class CKXDataReceiver;
class CSdpParser;

// CKXDataSrc: the data source for all that the host itself feeds. It holds one receiver, the list of handlers that want
// its messages, and the SDP, which is built anew each time the stream's formats change.
//
// THREADING  Any thread. Lock order: m_close_mutex, m_recvr_mutex, m_sdp_mutex, m_notify_mutex. m_recvr_mutex is held
//            over the calls into the receiver, so that Close, which clears the pointer under it, never ends a
//            receiver that another thread is in. The frame callback takes none of them.
class CKXDataSrc : public CDataSource {
public:
    // `content`: at most 255 characters are kept.
    explicit CKXDataSrc(const char* content);

    void SetConfig(const CRtspSvrConfig& config) override;
    int Init(long notify_id, int ext) override;
    void AddNotify(long notify_id) override;
    void DelNotify(long notify_id) override;
    int Play(const UtcTime& start, const UtcTime& end, float speed, bool is_scale) override;
    int Play(uint64_t start_us, uint64_t end_us, float speed, bool is_scale) override;
    int Pause() override;
    int StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq) override;
    int StopStreaming(packet_type_t packet_type) override;
    int GetSdp(CSdpParser& sdp, int ext_info) override;
    int GetSdp(CSdpParser& sdp) override;
    int GetSrcInfo(SrcInfo& info, int track_id) override;
    int GetPlayRange(UtcTime& start, UtcTime& end) override;
    int GetPlayRange(uint64_t& start_us, uint64_t& end_us) override;
    int GetTcpChannel(int track_id) override;
    unsigned int GetSSRC(int track_id) override;
    int UpdataDataSrc(long arg) override;
    int EnableStreamTrack(int track_kind) override;
    int DisableStreamTrack(int track_kind) override;

    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    static const int MAX_CONTENT = 256;
    static const int MAX_TRACK = 8;

    ~CKXDataSrc() override;

    void notify_all(unsigned int msg);
    int find_track(int track_id);

    // The SDP (KXDataSrcSdp.cpp).
    int build_sdp();
    void read_formats_locked() VIDORA_REQUIRES(m_recvr_mutex, m_sdp_mutex);
    int build_session_locked() VIDORA_REQUIRES(m_recvr_mutex, m_sdp_mutex);
    int build_video_locked() VIDORA_REQUIRES(m_recvr_mutex, m_sdp_mutex);
    int build_audio_locked() VIDORA_REQUIRES(m_recvr_mutex, m_sdp_mutex);
    int make_h264_fmtp_locked(char* fmtp, unsigned int size) VIDORA_REQUIRES(m_recvr_mutex);
    int make_mpeg4_fmtp_locked(char* fmtp, unsigned int size) VIDORA_REQUIRES(m_recvr_mutex);
    int add_track_locked(CSdpParser& sdp, const char* type, const char* format) VIDORA_REQUIRES(m_sdp_mutex);

    char m_content[MAX_CONTENT];
    CRtspSvrConfig m_config;  // constant after Init

    CMutex m_close_mutex;
    bool m_closed VIDORA_GUARDED_BY(m_close_mutex) = false;

    CMutex m_recvr_mutex;
    CKXDataReceiver* m_recvr VIDORA_GUARDED_BY(m_recvr_mutex) = nullptr;  // closed, not deleted, by this class

    CMutex m_sdp_mutex;
    CSdpParser* m_sdp VIDORA_GUARDED_BY(m_sdp_mutex) = nullptr;
    bool m_has_video VIDORA_GUARDED_BY(m_sdp_mutex) = false;
    bool m_has_audio VIDORA_GUARDED_BY(m_sdp_mutex) = false;
    StreamVideoFormat m_video_format VIDORA_GUARDED_BY(m_sdp_mutex);
    StreamAudioFormat m_audio_format VIDORA_GUARDED_BY(m_sdp_mutex);
    int m_track_num VIDORA_GUARDED_BY(m_sdp_mutex) = 0;              // media of the SDP
    int m_track_ids[MAX_TRACK] VIDORA_GUARDED_BY(m_sdp_mutex) = {};  // SDP track number of each medium

    CMutex m_notify_mutex;
    CIdList m_notify_list VIDORA_GUARDED_BY(m_notify_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_KXDATASRC_H
