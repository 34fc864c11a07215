#ifndef VIDORA_STREAMSOURCE_KXDATASRC_H
#define VIDORA_STREAMSOURCE_KXDATASRC_H

#include <atomic>
#include <memory>

#include "StreamSource/KXDataReceiver.h"
#include "StreamSource/KXDescription.h"
#include "StreamSource/NotifyingSource.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/StreamSource.h"

namespace Kavio {
namespace Vidora {

class CSourceJob;

// CKXDataSrc: the data source for all that the host itself feeds. It holds one receiver, the list of handlers that want
// its messages, and the SDP, which is built anew each time the stream's formats change.
//
// THREADING  Any thread. The locks are never nested and held over no call into the receiver, whose end waits for
//            the calls that are inside. The SDP is built, and the source ended, in jobs of the source's gate: one at a
//            time, and beside no Start or Stop of a channel.
class CKXDataSrc : public CNotifyingSource {
public:
    // `content`: at most 255 characters are kept.
    explicit CKXDataSrc(const char* content);

    void SetConfig(const CRtspSvrConfig& config) override;
    int Init(long notify_id, int ext) override;
    int Play(const UtcTime& start, const UtcTime& end, float speed, bool is_scale) override;
    int Play(uint64_t start_us, uint64_t end_us, float speed, bool is_scale) override;
    int Pause() override;
    int StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq) override;
    int StopStreaming(packet_type_t packet_type) override;
    int StopFeeding(packet_type_t packet_type, CMediaBuffer* buffer) override;
    void CutFeeding(const CMediaBuffer* buffer) override;
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

    // What the describing job is to report when it is done.
    enum described_t { DESCRIBED_READY = 1, DESCRIBED_UPDATE = 2 };

    class CMethodJob;

    ~CKXDataSrc() override;

    bool store_receiver(CKXDataReceiver* recvr);
    int find_track(int track_id);
    void run(const std::shared_ptr<CSourceJob>& job);
    void report_behind(const CKXDataReceiver::CUse& use, unsigned int msg);
    void describe();
    bool build_description();
    void end();
    void close_receiver();
    // A call into the receiver; empty if there is none.
    CKXDataReceiver::CUse enter();

    char m_content[MAX_CONTENT];
    CRtspSvrConfig m_config;  // constant after Init
    // Constant; null if memory was short.
    std::shared_ptr<CSourceJob> m_describe_job;
    std::shared_ptr<CSourceJob> m_end_job;

    std::atomic<bool> m_closed{false};
    std::atomic<unsigned int> m_to_report{0};  // described_t

    CMutex m_recvr_mutex;
    CKXDataReceiver* m_recvr VIDORA_GUARDED_BY(m_recvr_mutex) = nullptr;  // closed, not deleted, by this class

    CMutex m_sdp_mutex;
    std::unique_ptr<CKXDescription> m_description VIDORA_GUARDED_BY(m_sdp_mutex);  // null without an SDP
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_KXDATASRC_H
