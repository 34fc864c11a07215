#include "StreamSource/KXDataSrc.h"

#include <cinttypes>
#include <cstdio>
#include <new>

#include "Protocol/SdpParser.h"
#include "StreamSource/KXDataReceiver.h"

namespace Kavio {
namespace Vidora {

CKXDataSrc::CKXDataSrc(const char* content) {
    std::snprintf(m_content, sizeof(m_content), "%s", content);
}

CKXDataSrc::~CKXDataSrc() {
    delete m_sdp;
}

void CKXDataSrc::SetConfig(const CRtspSvrConfig& config) {
    m_config = config;
}

int CKXDataSrc::Init(long notify_id, int ext) {
    {
        CGuard guard(m_notify_mutex);
        if (!m_notify_list.Append(notify_id)) {
            return -1;
        }
    }
    CKXDataReceiver* recvr = new (std::nothrow) CKXDataReceiver;
    if (recvr == nullptr) {
        logError("%s:%d CKXDataSrc::Init new CKXDataReceiver fail\n", __FILE__, __LINE__);
        return -1;
    }
    // The pointer stands before the receiver's first message can come.
    CGuard guard(m_recvr_mutex);
    m_recvr = recvr;
    recvr->set_create_src_fun(m_config.GetSrcFunc());
    if (recvr->Init(m_content, GetID(), ext) < 0) {
        m_recvr = nullptr;
        recvr->Close();
        logError("%s:%d CKXDataSrc::Init m_recvr->Init fail\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

void CKXDataSrc::AddNotify(long notify_id) {
    CGuard guard(m_notify_mutex);
    m_notify_list.Append(notify_id);
}

void CKXDataSrc::DelNotify(long notify_id) {
    CGuard guard(m_notify_mutex);
    m_notify_list.Remove(notify_id);
}

void CKXDataSrc::notify_all(unsigned int msg) {
    CGuard guard(m_notify_mutex);
    for (const long id : m_notify_list) {
        Notify(id, msg, 0);
    }
}

int CKXDataSrc::handle_message(long, unsigned int msg, long) {
    CGuard guard(m_close_mutex);
    if (m_closed) {
        return 0;
    }
    switch (msg) {
        case MSG_STREAM_FAIL:
            notify_all(MSG_SRC_FAIL);
            break;
        case MSG_STREAM_INFO:
        case MSG_SDP_UPDATE:
            if (build_sdp() < 0) {
                notify_all(MSG_SRC_FAIL);
            } else {
                notify_all(msg == MSG_SDP_UPDATE ? MSG_SDP_UPDATE : MSG_SRC_READY);
            }
            break;
        default:
            notify_all(msg);
            break;
    }
    return 0;
}

int CKXDataSrc::Play(const UtcTime& start, const UtcTime& end, float speed, bool is_scale) {
    CGuard guard(m_recvr_mutex);
    if (m_recvr == nullptr || m_recvr->Play(start, end, speed, is_scale) < 0) {
        notify_all(MSG_SRC_FAIL);
        // The text begins with a "d" where a year is meant; readers of the log know it so.
        logError(
            "%s:%d CKXDataSrc::Play fail, start_utc_time:[d-%d-%d %d:%d:%d] end_utc_time:[d-%d-%d %d:%d:%d] "
            "speed:%lf\n",
            __FILE__, __LINE__, start.month, start.day, start.hour, start.minute, start.second, end.month, end.day,
            end.hour, end.minute, end.second, static_cast<double>(speed));
        return -1;
    }
    notify_all(MSG_PLAY_READY);
    return 0;
}

int CKXDataSrc::Play(uint64_t start_us, uint64_t end_us, float speed, bool is_scale) {
    CGuard guard(m_recvr_mutex);
    if (m_recvr == nullptr || m_recvr->Play(start_us, end_us, speed, is_scale) < 0) {
        notify_all(MSG_SRC_FAIL);
        logError("%s:%d CKXDataSrc::Play fail, start_time_us:%lld end_time_us:%lld speed:%lf\n", __FILE__, __LINE__,
                 static_cast<long long>(start_us), static_cast<long long>(end_us), static_cast<double>(speed));
        return -1;
    }
    notify_all(MSG_PLAY_READY);
    return 0;
}

int CKXDataSrc::Pause() {
    CGuard guard(m_recvr_mutex);
    if (m_recvr == nullptr || m_recvr->Pause() < 0) {
        notify_all(MSG_SRC_FAIL);
        logError("%s:%d CKXDataSrc::Pause fail\n", __FILE__, __LINE__);
        return -1;
    }
    notify_all(MSG_SRC_PAUSED);
    return 0;
}

int CKXDataSrc::StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq) {
    CGuard guard(m_recvr_mutex);
    return m_recvr == nullptr ? -1 : m_recvr->StartStreaming(packet_type, buffer, cseq);
}

int CKXDataSrc::StopStreaming(packet_type_t packet_type) {
    CGuard guard(m_recvr_mutex);
    return m_recvr == nullptr ? -1 : m_recvr->StopStreaming(packet_type);
}

int CKXDataSrc::GetPlayRange(UtcTime& start, UtcTime& end) {
    CGuard guard(m_recvr_mutex);
    return m_recvr == nullptr ? -1 : m_recvr->GetPlayRange(start, end);
}

int CKXDataSrc::GetPlayRange(uint64_t& start_us, uint64_t& end_us) {
    CGuard guard(m_recvr_mutex);
    return m_recvr == nullptr ? -1 : m_recvr->GetPlayRange(start_us, end_us);
}

// The medium's index of an SDP track number, or -1.
int CKXDataSrc::find_track(int track_id) {
    CGuard guard(m_sdp_mutex);
    for (int i = 0; i < m_track_num && i < MAX_TRACK; ++i) {
        if (m_track_ids[i] == track_id) {
            return i;
        }
    }
    return -1;
}

int CKXDataSrc::GetSrcInfo(SrcInfo& info, int track_id) {
    const int index = find_track(track_id);
    CGuard guard(m_recvr_mutex);
    if (index < 0 || m_recvr == nullptr) {
        logError("%s:%d CKXDataSrc::GetSrcInfo fail, track_id:%d\n", __FILE__, __LINE__, track_id);
        return -1;
    }
    const int result = m_recvr->GetSrcInfo(info, index);
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
    CGuard guard(m_recvr_mutex);
    return index < 0 || m_recvr == nullptr ? 0 : m_recvr->GetSSRC(index);
}

int CKXDataSrc::UpdataDataSrc(long arg) {
    CGuard guard(m_recvr_mutex);
    return m_recvr == nullptr ? -1 : m_recvr->UpdataStreamInfo(arg);
}

int CKXDataSrc::EnableStreamTrack(int track_kind) {
    CGuard guard(m_recvr_mutex);
    if (m_recvr == nullptr) {
        logError("%s %d KXDataReceiver is NULL!\n", __FILE__, __LINE__);
        return -1;
    }
    return m_recvr->EnableStreamTrack(track_kind);
}

int CKXDataSrc::DisableStreamTrack(int track_kind) {
    CGuard guard(m_recvr_mutex);
    if (m_recvr == nullptr) {
        logError("%s %d KXDataReceiver is NULL!\n", __FILE__, __LINE__);
        return -1;
    }
    return m_recvr->DisableStreamTrack(track_kind);
}

void CKXDataSrc::Close() {
    {
        CGuard guard(m_close_mutex);
        m_closed = true;  // from now on messages are dropped
    }
    {
        CGuard guard(m_sdp_mutex);
        delete m_sdp;
        m_sdp = nullptr;
    }
    CKXDataReceiver* recvr = nullptr;
    {
        CGuard guard(m_recvr_mutex);
        recvr = m_recvr;
        m_recvr = nullptr;
    }
    if (recvr != nullptr) {
        recvr->Close();
    }
    notify_all(MSG_SOURCE_CLOSED);
    CNetHandler::Close();
}

int CKXDataSrc::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
