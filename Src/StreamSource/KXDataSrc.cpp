#include "StreamSource/KXDataSrc.h"

#include <cinttypes>
#include <cstdio>
#include <new>

#include "Protocol/SdpParser.h"
#include "StreamSource/SourceGate.h"

namespace Kavio {
namespace Vidora {

namespace {

// What handlers of the library send to themselves: no host's source may speak for them.
const unsigned int FIRST_OWN_MESSAGE = 0x1f00;
const unsigned int LAST_OWN_MESSAGE = 0x1fff;

}  // namespace

class CKXDataSrc::CMethodJob : public CSourceJob {
public:
    typedef void (CKXDataSrc::*method_t)();

    explicit CMethodJob(method_t method) : m_method(method) {}
    void Run(CDataSource& source) override { (static_cast<CKXDataSrc&>(source).*m_method)(); }

private:
    const method_t m_method;
};

CKXDataSrc::CKXDataSrc(const char* content) {
    std::snprintf(m_content, sizeof(m_content), "%s", content);
    try {
        m_describe_job = std::make_shared<CMethodJob>(&CKXDataSrc::describe);
        m_end_job = std::make_shared<CMethodJob>(&CKXDataSrc::end);
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
    }
}

CKXDataSrc::~CKXDataSrc() = default;

void CKXDataSrc::run(const std::shared_ptr<CSourceJob>& job) {
    const std::shared_ptr<CSourceGate> gate = CSourceGate::Of(this);
    if (gate != nullptr && job != nullptr) {
        gate->Do(job);
    } else if (job != nullptr) {
        job->Run(*this);
    }
}

CKXDataReceiver::CUse CKXDataSrc::enter() {
    CGuard guard(m_recvr_mutex);
    return CKXDataReceiver::CUse(m_recvr);
}

void CKXDataSrc::SetConfig(const CRtspSvrConfig& config) {
    m_config = config;
}

int CKXDataSrc::Init(long notify_id, int ext) {
    if (!add_notify(notify_id)) {
        return -1;
    }
    CKXDataReceiver* recvr = CKXDataReceiver::Create();
    if (recvr == nullptr) {
        logError("%s:%d CKXDataSrc::Init new CKXDataReceiver fail\n", __FILE__, __LINE__);
        return -1;
    }
    recvr->set_create_src_fun(m_config.GetSrcFunc());
    recvr->SetConformance(m_config.GetConformance());
    if (!store_receiver(recvr)) {
        recvr->Close();
        return -1;
    }
    const CKXDataReceiver::CUse use = enter();
    if (!use || use->Init(m_content, GetID(), ext) < 0) {
        close_receiver();
        logError("%s:%d CKXDataSrc::Init m_recvr->Init fail\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

// Before its first message can come. False if the source has one, or is closed.
bool CKXDataSrc::store_receiver(CKXDataReceiver* recvr) {
    CGuard guard(m_recvr_mutex);
    const bool is_first = m_recvr == nullptr && !m_closed;
    m_recvr = is_first ? recvr : m_recvr;
    return is_first;
}

int CKXDataSrc::handle_message(long, unsigned int msg, long) {
    if (m_closed) {
        return 0;
    }
    switch (msg) {
        case MSG_STREAM_FAIL:
            notify_all(MSG_SRC_FAIL);
            break;
        case MSG_STREAM_INFO:
        case MSG_SDP_UPDATE:
            m_to_report |= msg == MSG_SDP_UPDATE ? DESCRIBED_UPDATE : DESCRIBED_READY;
            run(m_describe_job);
            break;
        default:
            if (msg < FIRST_OWN_MESSAGE || msg > LAST_OWN_MESSAGE) {
                notify_all(msg);
            }
            break;
    }
    return 0;
}

// Messages that came while the source was busy are answered by one description.
void CKXDataSrc::describe() {
    const unsigned int to_report = m_to_report.exchange(0);
    if (m_closed) {
        return;
    }
    if (!build_description()) {
        notify_all(MSG_SRC_FAIL);
        return;
    }
    if ((to_report & DESCRIBED_READY) != 0) {
        notify_all(MSG_SRC_READY);
    }
    if ((to_report & DESCRIBED_UPDATE) != 0) {
        notify_all(MSG_SDP_UPDATE);
    }
}

// A format that can't be described leaves the description as it was.
bool CKXDataSrc::build_description() {
    const CKXDataReceiver::CUse use = enter();
    std::unique_ptr<CKXDescription> made(new (std::nothrow) CKXDescription);
    if (made != nullptr) {
        made->SetConformance(m_config.GetConformance());
    }
    if (!use || made == nullptr || made->Build(*use, m_src_type) < 0) {
        return false;
    }
    CGuard guard(m_sdp_mutex);
    m_description.swap(made);
    return true;
}

// Goes the way of the receiver's messages, behind those that are on it: an end that was told before a PLAY comes before
// the answer to it.
void CKXDataSrc::report_behind(const CKXDataReceiver::CUse& use, unsigned int msg) {
    if (use) {
        use->Report(msg);
    } else {
        notify_all(msg);
    }
}

int CKXDataSrc::Play(const UtcTime& start, const UtcTime& end, float speed, bool) {
    const CKXDataReceiver::CUse use = enter();
    if (!use || use->Play(start, end, speed) < 0) {
        report_behind(use, MSG_SRC_FAIL);
        // The text begins with a "d" where a year is meant; readers of the log know it so.
        logError(
            "%s:%d CKXDataSrc::Play fail, start_utc_time:[d-%d-%d %d:%d:%d] end_utc_time:[d-%d-%d %d:%d:%d] "
            "speed:%lf\n",
            __FILE__, __LINE__, start.month, start.day, start.hour, start.minute, start.second, end.month, end.day,
            end.hour, end.minute, end.second, static_cast<double>(speed));
        return -1;
    }
    report_behind(use, MSG_PLAY_READY);
    return 0;
}

int CKXDataSrc::Play(uint64_t start_us, uint64_t end_us, float speed, bool) {
    const CKXDataReceiver::CUse use = enter();
    if (!use || use->Play(start_us, end_us, speed) < 0) {
        report_behind(use, MSG_SRC_FAIL);
        logError("%s:%d CKXDataSrc::Play fail, start_time_us:%lld end_time_us:%lld speed:%lf\n", __FILE__, __LINE__,
                 static_cast<long long>(start_us), static_cast<long long>(end_us), static_cast<double>(speed));
        return -1;
    }
    report_behind(use, MSG_PLAY_READY);
    return 0;
}

int CKXDataSrc::Pause() {
    const CKXDataReceiver::CUse use = enter();
    if (!use || use->Pause() < 0) {
        report_behind(use, MSG_SRC_FAIL);
        logError("%s:%d CKXDataSrc::Pause fail\n", __FILE__, __LINE__);
        return -1;
    }
    report_behind(use, MSG_SRC_PAUSED);
    return 0;
}

int CKXDataSrc::StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq) {
    const CKXDataReceiver::CUse use = enter();
    return !use ? -1 : use->StartStreaming(packet_type, buffer, cseq);
}

int CKXDataSrc::StopStreaming(packet_type_t packet_type) {
    const CKXDataReceiver::CUse use = enter();
    return !use ? -1 : use->StopStreaming(packet_type, nullptr);
}

int CKXDataSrc::StopFeeding(packet_type_t packet_type, CMediaBuffer* buffer) {
    const CKXDataReceiver::CUse use = enter();
    return !use ? -1 : use->StopStreaming(packet_type, buffer);
}

void CKXDataSrc::CutFeeding(const CMediaBuffer* buffer) {
    const CKXDataReceiver::CUse use = enter();
    if (use) {
        use->CutFeeding(buffer);
    }
}

int CKXDataSrc::GetPlayRange(UtcTime& start, UtcTime& end) {
    const CKXDataReceiver::CUse use = enter();
    return !use ? -1 : use->GetPlayRange(start, end);
}

int CKXDataSrc::GetPlayRange(uint64_t& start_us, uint64_t& end_us) {
    const CKXDataReceiver::CUse use = enter();
    return !use ? -1 : use->GetPlayRange(start_us, end_us);
}

// The medium's index of an SDP track number, or -1.
int CKXDataSrc::find_track(int track_id) {
    CGuard guard(m_sdp_mutex);
    return m_description == nullptr ? -1 : m_description->FindTrack(track_id);
}

// A channel looks before the source has told its format, which is no fault: hence no error line.
int CKXDataSrc::GetSdp(CSdpParser& sdp) {
    CGuard guard(m_sdp_mutex);
    if (m_description == nullptr) {
        logInfo("%s:%d CKXDataSrc::GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    sdp = m_description->GetSdp();
    return 0;
}

// The assist medium is never in the source's own SDP: who wants it asks for it, and the source then knows its track.
int CKXDataSrc::GetSdp(CSdpParser& sdp, int ext_info) {
    CGuard guard(m_sdp_mutex);
    if (m_description == nullptr) {
        logError("%s:%d CKXDataSrc::GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    sdp = m_description->GetSdp();
    if (ext_info != SDP_EXTENSION_ASSIST) {
        logError("%s %d do not support ext_info:%d\n", __FILE__, __LINE__, ext_info);
        return -1;
    }
    return m_description->AddAssist(sdp);
}

int CKXDataSrc::GetSrcInfo(SrcInfo& info, int track_id) {
    const int index = find_track(track_id);
    const CKXDataReceiver::CUse use = enter();
    if (index < 0 || !use) {
        logError("%s:%d CKXDataSrc::GetSrcInfo fail, track_id:%d\n", __FILE__, __LINE__, track_id);
        return -1;
    }
    const int result = use->GetSrcInfo(info, index);
    info.track_id = track_id;
    return result;
}

// An unknown track has the channel of the first one.
int CKXDataSrc::GetTcpChannel(int track_id) {
    const int index = find_track(track_id);
    return index < 0 ? 0 : index * 2;
}

unsigned int CKXDataSrc::GetSSRC(int track_id) {
    const int index = find_track(track_id);
    const CKXDataReceiver::CUse use = enter();
    return index < 0 || !use ? 0 : use->GetSSRC(index);
}

int CKXDataSrc::UpdataDataSrc(long arg) {
    const CKXDataReceiver::CUse use = enter();
    return !use ? -1 : use->UpdataStreamInfo(arg);
}

int CKXDataSrc::EnableStreamTrack(int track_kind) {
    const CKXDataReceiver::CUse use = enter();
    if (!use) {
        logError("%s %d KXDataReceiver is NULL!\n", __FILE__, __LINE__);
        return -1;
    }
    return use->EnableStreamTrack(track_kind);
}

int CKXDataSrc::DisableStreamTrack(int track_kind) {
    const CKXDataReceiver::CUse use = enter();
    if (!use) {
        logError("%s %d KXDataReceiver is NULL!\n", __FILE__, __LINE__);
        return -1;
    }
    return use->DisableStreamTrack(track_kind);
}

// From now on messages are dropped. The rest waits for a call of a channel that is inside the host.
void CKXDataSrc::Close() {
    if (m_closed.exchange(true)) {
        return;
    }
    if (m_end_job == nullptr) {
        end();
    } else {
        run(m_end_job);
    }
}

void CKXDataSrc::end() {
    {
        CGuard guard(m_sdp_mutex);
        m_description = nullptr;
    }
    close_receiver();
    notify_all(MSG_SOURCE_CLOSED);
    CDataSource::Close();
}

void CKXDataSrc::close_receiver() {
    CKXDataReceiver* recvr = nullptr;
    {
        CGuard guard(m_recvr_mutex);
        recvr = m_recvr;
        m_recvr = nullptr;
    }
    if (recvr != nullptr) {
        recvr->Close();
    }
}

int CKXDataSrc::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
