#include "RecordingSource.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "AnnexB.h"
#include "FrameMaker.h"

using namespace Kavio::Vidora;
using std::chrono::duration;
using std::chrono::duration_cast;

namespace {

// Above this rate, and backwards, only key frames go out.
const float MAX_FULL_SPEED = 4.0F;

}  // namespace

RecordingSource::RecordingSource(std::shared_ptr<const Recording> recording, const Interval& interval)
    : m_recording(std::move(recording)), m_last(static_cast<long>(m_recording->Frames().size()) - 1) {
    if (interval.begin_sec > m_recording->BeginSec()) {
        m_first = find_key_frame(interval.begin_sec);
    }
    while (interval.end_sec != 0 && m_last > m_first && frame(m_last).utc_sec > interval.end_sec) {
        --m_last;
    }
    m_index = m_first;
}

int RecordingSource::Init(long receiver_id, int) {
    m_receiver_id = receiver_id;
    Notify(receiver_id, MSG_STREAM_INFO, 0);
    return 0;
}

int RecordingSource::GetVideoSpecificInfo(char* buf, int len) {
    const std::string& info = m_recording->SpecificInfo();
    std::memcpy(buf, info.data(), std::min(info.size(), static_cast<size_t>(len)));
    return static_cast<int>(info.size());
}

int RecordingSource::UpdataStreamInfo(long) {
    Notify(m_receiver_id, MSG_STREAM_INFO, 0);
    return 0;
}

bool RecordingSource::Start(frame_proc_t proc) {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        const Clock::time_point now = Clock::now();
        if (!m_begun) {
            m_begin = now;
            m_begun = true;
        }
        m_proc = proc;
        m_paused = false;
        set_anchor_locked(now);
    }
    return m_pump.Start([this](Clock::time_point now) { return step(now); });
}

bool RecordingSource::Stop(frame_proc_t) {
    return m_pump.Stop();
}

bool RecordingSource::Pause() {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_paused = true;
    return true;
}

bool RecordingSource::Resume() {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_paused = false;
        set_anchor_locked(Clock::now());
    }
    m_pump.Wake();
    return true;
}

bool RecordingSource::SetSpeed(float speed) {
    if (!std::isfinite(speed) || speed == 0.0F) {
        return false;
    }
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_speed = speed;
        set_anchor_locked(Clock::now());
    }
    m_pump.Wake();
    return true;
}

bool RecordingSource::GetSpeed(float& speed) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    speed = m_speed;
    return true;
}

// The first key frame of that second or a later one: pictures in front of it would have nothing to refer to. Behind the
// last key frame it is that one.
long RecordingSource::find_key_frame(uint64_t utc_sec) const {
    long found = m_first;
    for (long i = m_first; i <= m_last; ++i) {
        if (frame(i).letter == FRAME_TYPE_I) {
            found = i;
            if (frame(i).utc_sec >= utc_sec) {
                break;
            }
        }
    }
    return found;
}

bool RecordingSource::SeekByTime(const CTime& time) {
    const long target = find_key_frame(time.makeTime());
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_index = target;
        m_ended = false;
        set_anchor_locked(Clock::now());
    }
    m_pump.Wake();
    return true;
}

bool RecordingSource::GetTime(CTime& time) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    time = CTime(frame(std::min(std::max(m_index, m_first), m_last)).utc_sec);
    return true;
}

bool RecordingSource::GetFileRange(CTime& begin, CTime& end) {
    begin = CTime(frame(m_first).utc_sec);
    end = CTime(frame(m_last).utc_sec + 1);  // the second behind the last frame
    return true;
}

bool RecordingSource::GetFileRange(uint64_t& length_us) {
    length_us = (std::max(frame(m_last).time_ms, frame(m_first).time_ms) - frame(m_first).time_ms) * 1000;
    return true;
}

bool RecordingSource::getPacketType(int& packet_state) {
    packet_state = m_packet_state;
    return true;
}

int RecordingSource::handle_close(CNetHandler*) {
    m_pump.Stop();
    delete this;
    return 0;
}

bool RecordingSource::is_at_end_locked() const {
    return m_index < m_first || m_index > m_last;
}

bool RecordingSource::is_sent_locked(const FrameEntry& entry) const {
    if (m_speed < 0.0F || m_speed > MAX_FULL_SPEED) {
        return entry.letter == FRAME_TYPE_I;
    }
    return entry.letter != FRAME_TYPE_AUDIO || m_speed == 1.0F;  // sound makes sense at its own rate only
}

void RecordingSource::skip_unsent_locked() {
    const long direction = m_speed < 0.0F ? -1 : 1;
    while (!is_at_end_locked() && !is_sent_locked(frame(m_index))) {
        m_index += direction;
    }
}

// From now on the next frame is due at once and the others follow it at the present rate.
void RecordingSource::set_anchor_locked(Clock::time_point now) {
    m_anchor_time = now;
    if (!is_at_end_locked()) {
        m_anchor_ms = static_cast<double>(frame(m_index).time_ms);
    }
}

// When a frame is due, in milliseconds from m_begin.
double RecordingSource::play_ms_locked(const FrameEntry& entry) const {
    const double anchor = duration<double, std::milli>(m_anchor_time - m_begin).count();
    return anchor + (static_cast<double>(entry.time_ms) - m_anchor_ms) / static_cast<double>(m_speed);
}

RecordingSource::Clock::time_point RecordingSource::step(Clock::time_point now) {
    const Clock::time_point far_away = now + std::chrono::hours(1);
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (m_paused) {
            return far_away;
        }
        skip_unsent_locked();
        if (is_at_end_locked()) {
            if (!m_ended) {
                m_ended = true;
                const double pts_ms = m_last_pts_ms + 1.0;
                lock.unlock();
                give(frame(m_last), pts_ms, true);
            }
            return far_away;
        }
        const FrameEntry& entry = frame(m_index);
        const double due_ms = play_ms_locked(entry);
        const Clock::time_point due = m_begin + duration_cast<Clock::duration>(duration<double, std::milli>(due_ms));
        if (due > now) {
            return due;
        }
        m_index += m_speed < 0.0F ? -1 : 1;
        m_last_pts_ms = due_ms;
        lock.unlock();
        give(entry, due_ms, false);
        lock.lock();
    }
}

// The frame that tells the end isn't sent on.
void RecordingSource::give(const FrameEntry& entry, double pts_ms, bool is_end) {
    const bool is_audio = entry.letter == FRAME_TYPE_AUDIO;
    FrameFacts facts;
    facts.letter = entry.letter;
    facts.sequence = m_sequence[is_audio ? 1 : 0]++;
    facts.pts_ms = static_cast<uint64_t>(std::max(pts_ms, 0.0) + 1.5);  // above 0, which would mean "no time yet"
    facts.utc = static_cast<double>(entry.utc_sec);
    if (!m_recording->ReadBody(entry, m_body) && !is_end) {
        return;
    }
    if (!is_audio && m_recording->VideoFormat().encode_type == STREAM_VIDEO_H264 &&
        HasShortStartCode(m_body.data(), m_body.size())) {
        m_short_body.swap(m_body);
        m_body.clear();
        for (const NalUnit& nal : SplitNalUnits(m_short_body.data(), m_short_body.size())) {
            AppendNalUnit(m_body, nal);
        }
    }
    const Kavio::Flumen::CMediaFrame media =
        is_audio ? MakeAudioFrame(facts, m_recording->AudioFormat(), m_body.data(), m_body.size())
                 : MakeVideoFrame(facts, m_recording->VideoFormat(), m_body.data(), m_body.size());
    if (media.valid()) {
        m_packet_state = is_end ? 1 : 0;
        m_proc(media);
    }
}
