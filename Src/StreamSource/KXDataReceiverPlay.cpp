// Starting, stopping, pausing and the play window of CKXDataReceiver.
#include "StreamSource/KXDataReceiver.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t NOT_GIVEN_US = ~uint64_t{0};
const uint64_t US_PER_SECOND = 1000000;

CTime to_time(const UtcTime& utc) {
    return utc.year == 0 ? CTime() : CTime(utc.year, utc.month, utc.day, utc.hour, utc.minute, utc.second);
}

UtcTime to_utc(const CTime& time) {
    UtcTime utc;
    time.getFields(&utc.year, &utc.month, &utc.day, &utc.hour, &utc.minute, &utc.second);
    return utc;
}

bool is_given(const CTime& time) {
    return time.makeTime() > 0;
}

}  // namespace

int CKXDataReceiver::Play(uint64_t start_us, uint64_t end_us, float speed, bool is_scale) {
    if (!is_seekable()) {
        return check_seekable();
    }
    CGuard start_guard(m_start_mutex);
    CTime begin;
    {
        CGuard guard(m_mutex);
        begin = m_file_begin_time;
    }
    // Whole seconds: the source seeks by CTime.
    const CTime start = start_us == NOT_GIVEN_US ? CTime() : begin + static_cast<int64_t>(start_us / US_PER_SECOND);
    const CTime end = end_us == NOT_GIVEN_US ? CTime() : begin + static_cast<int64_t>(end_us / US_PER_SECOND);
    return set_play(start, end, speed, is_scale);
}

int CKXDataReceiver::Play(const UtcTime& start, const UtcTime& end, float speed, bool is_scale) {
    if (!is_seekable()) {
        return check_seekable();
    }
    CGuard start_guard(m_start_mutex);
    return set_play(to_time(start), to_time(end), speed, is_scale);
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

int CKXDataReceiver::set_play(const CTime& start, const CTime& end, float speed, bool is_scale) {
    if (speed == 0.0F) {
        logError("%s:%d speed == 0.0\n", __FILE__, __LINE__);
        return -1;
    }
    CTime now;
    if (!m_stream_source->GetTime(now)) {
        logError("%s:%d getTime fail\n", __FILE__, __LINE__);
        return -1;
    }
    const int result = speed < 0.0F ? set_reverse_window(start, end, now) : set_forward_window(start, end, now);
    if (result < 0) {
        logError("%s:%d seekByTime fail\n", __FILE__, __LINE__);
        return -1;
    }
    if (!m_stream_source->SetSpeed(speed)) {
        logError("%s:%d setSpeed fail\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(m_mutex);
    // The seek has happened by now, and stays.
    if (!window_is_inside_locked()) {
        logError("%s:%d  out of file range\n", __FILE__, __LINE__);
        return -1;
    }
    const CTime window_start = m_start_time;
    const CTime window_end = m_end_time;
    guard.Leave();
    if (m_src_type == SRC_TYPE_TOKEN && !m_stream_source->Limit(window_start, window_end)) {
        logError("%s:%d Limit Fail\n", __FILE__, __LINE__);
    }
    CGuard store_guard(m_mutex);
    m_speed = speed;
    m_is_scale = is_scale;
    return 0;
}

// Backwards the end is where playing begins. Without one it goes on from the present position, with no seek. After a
// seek that failed the other bound is as it was, here and forwards.
int CKXDataReceiver::set_reverse_window(const CTime& start, const CTime& end, const CTime& now) {
    CTime seek_to;
    {
        CGuard guard(m_mutex);
        m_end_time = !is_given(end) ? now : end < m_file_end_time ? end : m_file_end_time;
        seek_to = m_end_time;
    }
    if (is_given(end) && !m_stream_source->SeekByTime(seek_to)) {
        return -1;
    }
    CGuard guard(m_mutex);
    m_start_time = is_given(start) && start >= m_file_begin_time ? start : m_file_begin_time;
    return 0;
}

int CKXDataReceiver::set_forward_window(const CTime& start, const CTime& end, const CTime& now) {
    CTime seek_to;
    {
        CGuard guard(m_mutex);
        m_start_time = !is_given(start) ? now : start > m_file_begin_time ? start : m_file_begin_time;
        seek_to = m_start_time;
    }
    if (is_given(start) && !m_stream_source->SeekByTime(seek_to)) {
        return -1;
    }
    CGuard guard(m_mutex);
    m_end_time = is_given(end) && end <= m_file_end_time ? end : m_file_end_time;
    return 0;
}

bool CKXDataReceiver::window_is_inside_locked() {
    char texts[4][32] = {};
    if (Ostra::GetLogLevel() >= Ostra::LOG_LEVEL_TRACE) {
        const CTime* times[4] = {&m_start_time, &m_file_begin_time, &m_end_time, &m_file_end_time};
        for (int i = 0; i < 4; ++i) {
            times[i]->format(texts[i], "%Y-%m-%d %H:%M:%S", sizeof(texts[i]));
        }
    }
    logTrace("%s:%d,m_start_time %s,m_file_begin_time %s,m_end_time %s,m_file_end_time %s\n", __FILE__, __LINE__,
             texts[0], texts[1], texts[2], texts[3]);
    return m_start_time <= m_end_time && m_start_time >= m_file_begin_time && m_end_time <= m_file_end_time;
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
    reset_tracks_locked();
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
        if (counted && !m_buffers.Add(packet_type, buffer)) {
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

// Frames count from the call on: a source gives its first one, the key frame that every client needs, while Start runs.
int CKXDataReceiver::start_source() {
    {
        CGuard guard(m_mutex);
        m_started = true;
    }
    if (m_stream_source->Start(CStreamSource::frame_proc_t(this, &CKXDataReceiver::frame_proc))) {
        return 0;
    }
    logError("%s:%d m_stream_source->Start fail\n", __FILE__, __LINE__);
    CGuard guard(m_mutex);
    m_started = false;
    return -1;
}

int CKXDataReceiver::resume_source() {
    if (is_seekable() && !m_stream_source->Resume()) {
        logError("%s:%d m_stream_source->Resume fail\n", __FILE__, __LINE__);
        return -1;
    }
    m_stream_source->SetIFrame();  // the new client can begin with a key frame soon
    return 0;
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
            reset_tracks_locked();
        }
        if (m_buffers.Clients() > 0) {
            logInfo("%s:%d, have't stop streamsource already., rtp_client=%d, ts_client=%d, kx_client=%d.\n", __FILE__,
                    __LINE__, rtp_count, m_buffers.Clients(PACKET_TYPE_TS), m_buffers.Clients(PACKET_TYPE_KX));
            return -1;  // tells the caller that the source runs on
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
    if (!m_stream_source->Stop(CStreamSource::frame_proc_t(this, &CKXDataReceiver::frame_proc))) {
        logError("%s:%d m_stream_source->Stop fail\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(m_mutex);
    m_started = false;
    return 0;
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
    length_us = m_file_length_us;
    return 0;
}

int CKXDataReceiver::GetFileRange(UtcTime& begin, UtcTime& end) {
    if (!has_range()) {
        return -1;
    }
    CGuard guard(m_mutex);
    begin = to_utc(m_file_begin_time);
    end = to_utc(m_file_end_time);
    return 0;
}

int CKXDataReceiver::GetPlayRange(uint64_t& start_us, uint64_t& end_us) {
    if (!has_range()) {
        return -1;
    }
    CGuard guard(m_mutex);
    start_us = static_cast<uint64_t>(m_start_time - m_file_begin_time) * US_PER_SECOND;
    end_us = static_cast<uint64_t>(m_end_time - m_file_begin_time) * US_PER_SECOND;
    return 0;
}

int CKXDataReceiver::GetPlayRange(UtcTime& start, UtcTime& end) {
    if (!has_range()) {
        return -1;
    }
    CGuard guard(m_mutex);
    start = to_utc(m_start_time);
    end = to_utc(m_end_time);
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
