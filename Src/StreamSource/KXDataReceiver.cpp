#include "StreamSource/KXDataReceiver.h"

#include <new>
#include <utility>

#include "Protocol/LogQuote.h"

namespace Kavio {
namespace Vidora {

CKXDataReceiver* CKXDataReceiver::Create() {
    CKXDataReceiver* receiver = new (std::nothrow) CKXDataReceiver;
    if (receiver != nullptr && receiver->GetID() == 0) {
        delete receiver;
        return nullptr;
    }
    return receiver;
}

CKXDataReceiver::~CKXDataReceiver() = default;

CKXDataReceiver::CUse::CUse(CKXDataReceiver* receiver)
    : m_receiver(receiver != nullptr && receiver->m_use.Enter() ? receiver : nullptr) {}

CKXDataReceiver::CUse::~CUse() {
    if (m_receiver != nullptr && m_receiver->m_use.Leave()) {
        m_receiver->end();
    }
}

int CKXDataReceiver::Init(const char* content, long notify_id, int ext) {
    m_notify_id = notify_id;
    {
        CGuard guard(m_mutex);
        m_info_ready = false;
    }
    if (m_create_src_fun == nullptr) {
        logError("%s:%d do not set create_src_fun!\n", __FILE__, __LINE__);
        return -1;
    }
    CStreamSource* source = m_create_src_fun(content);
    if (source == nullptr) {
        logError("%s:%d get stream source fail, content:%s!\n", __FILE__, __LINE__,
                 CLogQuote(Ostra::LOG_LEVEL_ERROR, content).Text());
        return -1;
    }
    // Both are set before the source's Init, which may post MSG_STREAM_INFO at once; the message waits for its end.
    m_src_type = source->GetSrcType();
    m_stream_source = source;
    if (source->Init(GetID(), ext) < 0) {
        m_stream_source = nullptr;
        source->Close();
        logError("%s:%d stream source init fail!\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(m_mutex);
    m_begun = true;
    if (m_info_early) {
        Notify(GetID(), MSG_STREAM_INFO, 0);
    }
    return 0;
}

int CKXDataReceiver::handle_message(long, unsigned int msg, long) {
    if (m_notify_id == 0) {
        return 0;
    }
    if (msg != MSG_STREAM_INFO) {
        Notify(m_notify_id, msg, 0);
        return 0;
    }
    CGuard guard(m_mutex);
    if (!m_begun) {
        m_info_early = true;  // the source's Init still runs, or has failed
    } else if (!m_info_ready) {
        guard.Leave();
        on_first_info();
    } else {
        update_formats_locked();
    }
    return 0;
}

void CKXDataReceiver::on_first_info() {
    uint64_t length_us = 0;
    CTime begin;
    CTime end;
    const bool range_ok =
        !is_seekable() || (m_stream_source->GetFileRange(length_us) && m_stream_source->GetFileRange(begin, end));
    CGuard guard(m_mutex);
    m_info_ready = true;
    if (!range_ok) {
        Notify(m_notify_id, MSG_STREAM_FAIL, 0);
        return;
    }
    if (is_seekable()) {
        m_window.Open(begin, end, length_us);
    }
    m_formats.Read(*m_stream_source);
    m_encoders.Build(m_formats);
    m_encoders.Reset();
    Notify(m_notify_id, MSG_STREAM_INFO, 0);
}

// Compares the source with what is described. True for a change, upon which the tracks are rebuilt and the owner hears
// of it.
bool CKXDataReceiver::update_formats_locked() {
    if (!m_formats.Update(*m_stream_source)) {
        return false;
    }
    m_encoders.Build(m_formats);
    logWarn("%s:%d sdp info need updata\n", __FILE__, __LINE__);
    Notify(m_notify_id, MSG_SDP_UPDATE, 0);
    return true;
}

bool CKXDataReceiver::HasVideo() {
    CGuard guard(m_mutex);
    return m_formats.HasVideo();
}

bool CKXDataReceiver::HasAudio() {
    CGuard guard(m_mutex);
    return m_formats.HasAudio();
}

int CKXDataReceiver::GetVideoFormat(StreamVideoFormat& format) {
    CGuard guard(m_mutex);
    if (!m_formats.HasVideo()) {
        logError("%s:%d do not have video\n", __FILE__, __LINE__);
        return -1;
    }
    format = m_formats.GetVideo();
    return 0;
}

int CKXDataReceiver::GetAudioFormat(StreamAudioFormat& format) {
    CGuard guard(m_mutex);
    if (!m_formats.HasAudio()) {
        logError("%s:%d do not have audio\n", __FILE__, __LINE__);
        return -1;
    }
    format = m_formats.GetAudio();
    return 0;
}

int CKXDataReceiver::GetVideoSpecificInfo(char* buf, int len) {
    CGuard start_guard(m_start_mutex);
    return m_stream_source == nullptr ? -1 : m_stream_source->GetVideoSpecificInfo(buf, len);
}

int CKXDataReceiver::GetSrcInfo(SrcInfo& info, int index) {
    return m_src_info.Get(index, info);
}

unsigned int CKXDataReceiver::GetSSRC(int index) {
    return m_src_info.GetSsrc(index);
}

int CKXDataReceiver::UpdataStreamInfo(long arg) {
    if (m_stream_source == nullptr) {
        return -1;
    }
    logDebug("%s:%d UpdataStreamInfo\n", __FILE__, __LINE__);
    CGuard start_guard(m_start_mutex);
    bool was_ready = false;
    {
        CGuard guard(m_mutex);
        std::swap(was_ready, m_info_ready);
    }
    if (m_stream_source->UpdataStreamInfo(arg) == 0) {
        return 0;
    }
    logError("%s:%d m_stream_source->UpdataStreamInfo fail\n", __FILE__, __LINE__);
    CGuard guard(m_mutex);
    m_info_ready = m_info_ready || was_ready;  // the stream goes on as it was
    return -1;
}

int CKXDataReceiver::EnableStreamTrack(int track_kind) {
    if (track_kind == STREAM_TRACK_ASSIST) {
        const int count = ++m_assist_count;
        logInfo("%s %d Add STREAM_TRACK_ASSIST:%d\n", __FILE__, __LINE__, count);
    } else {
        logWarn("%s %d StreamTrack:%d is not support!\n", __FILE__, __LINE__, track_kind);
    }
    return 0;
}

int CKXDataReceiver::DisableStreamTrack(int track_kind) {
    if (track_kind != STREAM_TRACK_ASSIST) {
        logWarn("%s %d StreamTrack:%d is not support!\n", __FILE__, __LINE__, track_kind);
        return 0;
    }
    int count = m_assist_count.load();
    while (count > 0 && !m_assist_count.compare_exchange_weak(count, count - 1)) {
    }
    return 0;
}

void CKXDataReceiver::Close() {
    {
        CGuard start_guard(m_start_mutex);
        m_closing = true;
        bool started = false;
        {
            CGuard guard(m_mutex);
            started = m_started;
        }
        if (started) {
            stop_source();
        }
        // Taking the mutex also waits out a frame in progress.
        CGuard guard(m_mutex);
        m_started = false;
    }
    CNetHandler::Close();
}

int CKXDataReceiver::handle_close(CNetHandler*) {
    if (m_use.End()) {
        end();
    }
    return 0;
}

// Nobody is inside any more, nor comes.
void CKXDataReceiver::end() {
    if (m_stream_source != nullptr) {
        m_stream_source->Close();
    }
    delete this;
}

}  // namespace Vidora
}  // namespace Kavio
