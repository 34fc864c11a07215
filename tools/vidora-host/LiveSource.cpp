#include "LiveSource.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "FrameMaker.h"

using namespace Kavio::Vidora;
using std::chrono::duration;
using std::chrono::duration_cast;
using Clock = FramePump::Clock;

namespace {

// A key frame that was given or comes within this time serves a new client: no jump is due.
const double KEY_FRAME_DUE_MS = 1000.0;
// Time stamps begin above 0, which the converters take for "no time yet".
const double FIRST_PTS_MS = 1000.0;
// A pump that is later than this, after the machine slept, goes on from now instead of catching up.
const double MAX_DELAY_MS = 2000.0;

double wall_clock() {
    return duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

LiveSource::LiveSource(std::shared_ptr<const LiveClip> clip) : m_clip(std::move(clip)) {}

int LiveSource::Init(long receiver_id, int) {
    m_receiver_id = receiver_id;
    Notify(receiver_id, MSG_STREAM_INFO, 0);
    return 0;
}

int LiveSource::GetVideoSpecificInfo(char* buf, int len) {
    const std::string& info = m_clip->video.SpecificInfo();
    std::memcpy(buf, info.data(), std::min(info.size(), static_cast<size_t>(len)));
    return static_cast<int>(info.size());
}

int LiveSource::UpdataStreamInfo(long) {
    Notify(m_receiver_id, MSG_STREAM_INFO, 0);
    return 0;
}

// Time stamps and sequence numbers go on from where an earlier run ended.
bool LiveSource::Start(frame_proc_t proc) {
    m_pump.Stop();
    m_proc = proc;
    const Clock::time_point now = Clock::now();
    if (m_begin_utc == 0.0) {
        m_begin = now;
        m_begin_utc = wall_clock();
    }
    m_round_ms = elapsed_ms(now);
    start_round();
    return m_pump.Start([this](Clock::time_point at) { return step(at); });
}

bool LiveSource::Stop(frame_proc_t) {
    return m_pump.Stop();
}

int LiveSource::handle_close(CNetHandler*) {
    m_pump.Stop();
    delete this;
    return 0;
}

double LiveSource::elapsed_ms(Clock::time_point now) const {
    return duration<double, std::milli>(now - m_begin).count();
}

void LiveSource::start_round() {
    m_video_index = 0;
    m_audio_index = 0;
}

bool LiveSource::audio_is_next() const {
    if (!m_clip->has_audio || m_audio_index >= m_clip->audio.Units().size()) {
        return false;
    }
    const double video_ms = m_video_index < m_clip->video.Units().size() ? m_clip->video.Units()[m_video_index].time_ms
                                                                         : m_clip->video.DurationMs();
    return m_clip->audio.Units()[m_audio_index].time_ms < video_ms;
}

Clock::time_point LiveSource::step(Clock::time_point now) {
    const double now_ms = elapsed_ms(now);
    for (;;) {
        if (m_video_index >= m_clip->video.Units().size() && !audio_is_next()) {
            m_round_ms += m_clip->video.DurationMs();
            start_round();
        }
        if (m_key_wanted.exchange(false)) {
            jump_to_key_frame();
        }
        const bool is_audio = audio_is_next();
        const ClipUnit& unit = is_audio ? m_clip->audio.Units()[m_audio_index] : m_clip->video.Units()[m_video_index];
        const double due_ms = m_round_ms + unit.time_ms;
        if (due_ms < now_ms - MAX_DELAY_MS) {
            m_round_ms += now_ms - due_ms;
            continue;
        }
        if (due_ms > now_ms) {
            return m_begin + duration_cast<Clock::duration>(duration<double, std::milli>(due_ms));
        }
        if (is_audio) {
            give_audio();
        } else {
            give_video();
        }
    }
}

// Goes to the next key frame of the clip, or its first one, without a gap in the time line, if the clients would
// otherwise wait long for one.
void LiveSource::jump_to_key_frame() {
    const std::vector<ClipUnit>& units = m_clip->video.Units();
    const double position_ms = units[m_video_index].time_ms;
    const auto next = std::find_if(units.begin() + static_cast<std::ptrdiff_t>(m_video_index), units.end(),
                                   [](const ClipUnit& unit) { return unit.letter == 'I'; });
    const double wait_ms = (next == units.end() ? m_clip->video.DurationMs() : next->time_ms) - position_ms;
    if (wait_ms < KEY_FRAME_DUE_MS || m_round_ms + position_ms - m_last_key_ms < KEY_FRAME_DUE_MS) {
        return;
    }
    const size_t target = next == units.end() ? 0 : static_cast<size_t>(next - units.begin());
    m_round_ms += position_ms - units[target].time_ms;
    m_video_index = target;
    const std::vector<ClipUnit>& blocks = m_clip->audio.Units();
    const auto block = std::lower_bound(blocks.begin(), blocks.end(), units[target].time_ms,
                                        [](const ClipUnit& unit, double time_ms) { return unit.time_ms < time_ms; });
    m_audio_index = static_cast<size_t>(block - blocks.begin());
}

void LiveSource::give_video() {
    const ClipUnit& unit = m_clip->video.Units()[m_video_index++];
    const double time_ms = m_round_ms + unit.time_ms;
    FrameFacts facts;
    facts.letter = unit.letter;
    facts.sequence = m_video_sequence++;
    facts.pts_ms = static_cast<uint64_t>(FIRST_PTS_MS + time_ms + 0.5);
    facts.utc = m_begin_utc + time_ms / 1000.0;
    if (unit.letter == 'I') {
        m_last_key_ms = time_ms;
    }
    const Kavio::Flumen::CMediaFrame frame =
        MakeVideoFrame(facts, m_clip->video.VideoFormat(), m_clip->video.Data(unit), unit.size);
    if (frame.valid()) {
        m_proc(frame);
    }
}

void LiveSource::give_audio() {
    const ClipUnit& unit = m_clip->audio.Units()[m_audio_index++];
    const double time_ms = m_round_ms + unit.time_ms;
    FrameFacts facts;
    facts.letter = FRAME_TYPE_AUDIO;
    facts.sequence = m_audio_sequence++;
    facts.pts_ms = static_cast<uint64_t>(FIRST_PTS_MS + time_ms + 0.5);
    facts.utc = m_begin_utc + time_ms / 1000.0;
    const Kavio::Flumen::CMediaFrame frame =
        MakeAudioFrame(facts, m_clip->audio.AudioFormat(), m_clip->audio.Data(unit), unit.size);
    if (frame.valid()) {
        m_proc(frame);
    }
}
