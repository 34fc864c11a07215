// Starting, stopping, pausing and the play window of CKXDataReceiver.
#include "StreamSource/KXDataReceiver.h"

namespace Kavio {
namespace Vidora {

namespace {

CTime to_time(const UtcTime& utc) {
    return utc.year == 0 ? CTime() : CTime(utc.year, utc.month, utc.day, utc.hour, utc.minute, utc.second);
}

UtcTime to_utc(const CTime& time) {
    UtcTime utc;
    time.getFields(&utc.year, &utc.month, &utc.day, &utc.hour, &utc.minute, &utc.second);
    return utc;
}

}  // namespace

void CKXDataReceiver::SetConformance(bool on) {
    CGuard guard(m_mutex);
    m_window.SetExact(on);
    m_encoders.SetConformance(on);
}

int CKXDataReceiver::Play(uint64_t start_us, uint64_t end_us, float speed) {
    if (!is_seekable()) {
        return check_seekable();
    }
    CGuard start_guard(m_start_mutex);
    CGuard guard(m_mutex);
    const CTime start = m_window.At(start_us);
    const CTime end = m_window.EndAt(end_us);
    guard.Leave();
    return set_play(start, end, speed);
}

int CKXDataReceiver::Play(const UtcTime& start, const UtcTime& end, float speed) {
    if (!is_seekable()) {
        return check_seekable();
    }
    CGuard start_guard(m_start_mutex);
    return set_play(to_time(start), to_time(end), speed);
}

// A live kind has nothing to set and plays; any other that isn't seekable can't.
int CKXDataReceiver::check_seekable() const {
    switch (m_src_type) {
        case SRC_TYPE_LIVE:
        case SRC_TYPE_PROXY_LIVE:
        case SRC_TYPE_PROXY_FILE:
            return 0;
        default:
            logError("%s:%d nonsupport this source type[%d] \n", __FILE__, __LINE__, m_src_type);
            return -1;
    }
}

int CKXDataReceiver::set_play(const CTime& start, const CTime& end, float speed) {
    if (speed == 0.0F) {
        logError("%s:%d speed == 0.0\n", __FILE__, __LINE__);
        return -1;
    }
    if (!seek(start, end, speed < 0.0F)) {
        return -1;
    }
    if (!m_stream_source->SetSpeed(speed)) {
        logError("%s:%d setSpeed fail\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(m_mutex);
    // The seek has happened by now, and stays.
    if (!m_window.IsValid()) {
        logError("%s:%d  out of file range\n", __FILE__, __LINE__);
        return -1;
    }
    const CPlayWindow window = m_window;
    guard.Leave();
    if (m_src_type == SRC_TYPE_TOKEN && !m_stream_source->Limit(window.GetStart(), window.GetEnd())) {
        logError("%s:%d Limit Fail\n", __FILE__, __LINE__);
    }
    CGuard store_guard(m_mutex);
    m_window.SetSpeed(speed);
    return 0;
}

// Sets the window and seeks to where it begins; without a time for that playing goes on from the present position.
// After a seek that failed the bound at which playing ends is as it was.
bool CKXDataReceiver::seek(const CTime& start, const CTime& end, bool backwards) {
    CTime now;
    if (!m_stream_source->GetTime(now)) {
        logError("%s:%d getTime fail\n", __FILE__, __LINE__);
        return false;
    }
    const CTime& first = backwards ? end : start;
    CGuard guard(m_mutex);
    const CTime seek_to = m_window.SetFirst(backwards, first, now);
    guard.Leave();
    if (first != CTime() && !m_stream_source->SeekByTime(seek_to)) {
        logError("%s:%d seekByTime fail\n", __FILE__, __LINE__);
        return false;
    }
    if (first != CTime() && !m_stream_source->GetTime(now)) {
        now = seek_to;
    }
    CGuard last_guard(m_mutex);
    m_window.BeginEarlier(backwards, now);
    m_window.SetLast(backwards, backwards ? start : end);
    return true;
}

int CKXDataReceiver::Pause() {
    if (!is_seekable()) {
        logError("%s:%d nonsupport pause, m_src_type:%d\n", __FILE__, __LINE__, m_src_type);
        return -1;
    }
    CGuard start_guard(m_start_mutex);
    if (!m_stream_source->Pause()) {
        logError("%s:%d m_stream_source->Pause fail\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(m_mutex);
    m_paused = true;
    m_encoders.Reset();
    return 0;
}

int CKXDataReceiver::StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq) {
    CGuard start_guard(m_start_mutex);
    bool started = false;
    bool counted = false;
    {
        CGuard guard(m_mutex);
        m_cseq = cseq;
        if (packet_type == PACKET_TYPE_NONE || buffer == nullptr) {
            logError("%s:%d parameter error, packet_type:%d media_buffer:%p\n", __FILE__, __LINE__, packet_type,
                     static_cast<void*>(buffer));
            return -1;
        }
        if (packet_type < PACKET_TYPE_RTP || packet_type > PACKET_TYPE_TS) {
            logError("%s:%d nonsupport this packet type[%d] \n", __FILE__, __LINE__, packet_type);
            return -1;
        }
        counted = !m_paused || m_buffers.Clients() == 0;  // a resume doesn't count its client a second time
        if (m_closing || (counted && !m_buffers.Add(packet_type, buffer))) {
            return -1;
        }
        started = m_started;
    }
    const int result = started ? resume_source() : start_source();
    CGuard guard(m_mutex);
    if (result >= 0) {
        m_paused = false;
    } else if (counted) {
        m_buffers.Remove(packet_type, buffer);
    }
    return result;
}

// Frames count from the call on: a source delivers its first one, the key frame that every client needs, while Start
// runs.
int CKXDataReceiver::start_source() {
    {
        CGuard guard(m_mutex);
        m_started = true;
    }
    if (m_stream_source->Start(CStreamSource::frame_proc_t(this, &CKXDataReceiver::frame_proc))) {
        if (!m_closing) {
            return 0;
        }
        stop_source();  // the host has closed it inside Start
    } else {
        logError("%s:%d m_stream_source->Start fail\n", __FILE__, __LINE__);
    }
    CGuard guard(m_mutex);
    m_started = false;
    return -1;
}

// Counted as stopped from the call on, as the host may close the source inside Stop.
bool CKXDataReceiver::stop_source() {
    {
        CGuard guard(m_mutex);
        m_started = false;
    }
    if (m_stream_source->Stop(CStreamSource::frame_proc_t(this, &CKXDataReceiver::frame_proc))) {
        return true;
    }
    logError("%s:%d m_stream_source->Stop fail\n", __FILE__, __LINE__);
    CGuard guard(m_mutex);
    m_started = true;
    return false;
}

int CKXDataReceiver::resume_source() {
    if (is_seekable() && !m_stream_source->Resume()) {
        logError("%s:%d m_stream_source->Resume fail\n", __FILE__, __LINE__);
        return -1;
    }
    m_stream_source->SetIFrame();  // the new client can begin with a key frame soon
    return 0;
}

void CKXDataReceiver::CutFeeding(const CMediaBuffer* buffer) {
    CGuard guard(m_mutex);
    m_buffers.Cut(buffer);
}

int CKXDataReceiver::StopStreaming(packet_type_t packet_type, const CMediaBuffer* buffer) {
    CGuard start_guard(m_start_mutex);
    {
        CGuard guard(m_mutex);
        if (packet_type < PACKET_TYPE_RTP || packet_type > PACKET_TYPE_TS) {
            logError("%s:%d nonsupport this packet type[%d] \n", __FILE__, __LINE__, packet_type);
            return -1;
        }
        m_buffers.Remove(packet_type, buffer);
        const int rtp_count = m_buffers.Clients(PACKET_TYPE_RTP);
        if (rtp_count < 1) {
            m_encoders.Reset();
        }
        if (m_buffers.Clients() > 0) {
            logInfo("%s:%d, have't stop streamsource already., rtp_client=%d, ts_client=%d, kx_client=%d.\n", __FILE__,
                    __LINE__, rtp_count, m_buffers.Clients(PACKET_TYPE_TS), m_buffers.Clients(PACKET_TYPE_KX));
            return -1;  // shows the caller that the source runs on
        }
        if (!m_started) {
            return 0;  // the host hears of no stop without a start
        }
    }
    if (is_seekable()) {  // only paused: m_started stays, so that the next StartStreaming resumes
        if (!m_stream_source->Pause()) {
            logError("%s:%d m_stream_source->Pause fail\n", __FILE__, __LINE__);
            return -1;
        }
        return 0;
    }
    return stop_source() ? 0 : -1;
}

bool CKXDataReceiver::has_range() const {
    if (!is_seekable()) {
        logError("%s:%d GetFileRange, nonsupport this src type[%d] \n", __FILE__, __LINE__, m_src_type);
        return false;
    }
    return true;
}

int CKXDataReceiver::GetFileRange(uint64_t& length_us) {
    if (!has_range()) {
        return -1;
    }
    CGuard guard(m_mutex);
    length_us = m_window.GetLength();
    return 0;
}

int CKXDataReceiver::GetFileRange(UtcTime& begin, UtcTime& end) {
    if (!has_range()) {
        return -1;
    }
    CGuard guard(m_mutex);
    begin = to_utc(m_window.GetFileBegin());
    end = to_utc(m_window.GetFileEnd());
    return 0;
}

int CKXDataReceiver::GetPlayRange(uint64_t& start_us, uint64_t& end_us) {
    if (!has_range()) {
        return -1;
    }
    CGuard guard(m_mutex);
    start_us = m_window.GetStartOffset();
    end_us = m_window.GetEndOffset();
    return 0;
}

int CKXDataReceiver::GetPlayRange(UtcTime& start, UtcTime& end) {
    if (!has_range()) {
        return -1;
    }
    CGuard guard(m_mutex);
    start = to_utc(m_window.GetStart());
    end = to_utc(m_window.GetEnd());
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
