#include "RecordingSource.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "AnnexB.h"
#include "FrameMaker.h"
#include "Vidora/Ostra/Log.h"

using namespace Kavio::Vidora;
using std::chrono::duration;
using std::chrono::duration_cast;

namespace {

// No frame is due later: a client may ask for a rate of next to nothing, and a file may tell any time.
const double MAX_PLAY_MS = 1e12;

const int64_t US_PER_SECOND = 1000000;
const int64_t DEFAULT_RATE = 25;  // pictures a second, where a recording tells none

// Above this rate, and backwards, only key frames go out.
const float MAX_FULL_SPEED = 4.0F;

// From a thread of the store to the source's strand: what was asked for has been opened, or not.
const unsigned int MSG_OPENED = 0x7001;

}  // namespace

// What the store hands over. The source holds it, the store only while it hands over, so that either may go first.
class RecordingSource::Answer : public CNetHandler {
public:
    explicit Answer(long source_id) : m_source_id(source_id) {}

    void Set(std::unique_ptr<OpenRecording> open) {
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_open = std::move(open);
        }
        Notify(m_source_id, MSG_OPENED, 0);
    }
    std::unique_ptr<OpenRecording> Take() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return std::move(m_open);
    }

private:
    const long m_source_id;
    std::mutex m_mutex;
    std::unique_ptr<OpenRecording> m_open;
};

RecordingSource::RecordingSource(RecordingStore& store, RecordingQuery query, std::string content, bool begins_before)
    : m_store(store), m_query(std::move(query)), m_content(std::move(content)), m_begins_before(begins_before) {}

RecordingSource::~RecordingSource() = default;

int RecordingSource::Init(long receiver_id, int) {
    m_receiver_id = receiver_id;
    m_answer = std::make_shared<Answer>(GetID());
    m_store.Open(m_query, m_answer, [asker = std::weak_ptr<Answer>(m_answer)](std::unique_ptr<OpenRecording> open) {
        if (const std::shared_ptr<Answer> answer = asker.lock()) {
            answer->Set(std::move(open));
        }
    });
    return 0;
}

int RecordingSource::handle_message(long, unsigned int msg, long) {
    if (msg != MSG_OPENED) {
        return 0;
    }
    std::unique_ptr<OpenRecording> open = m_answer->Take();
    if (!open || !open->error.empty()) {
        Kavio::Ostra::logWarn("%s: %s\n", m_content.c_str(), open ? open->error.c_str() : "not enough memory");
        // Ready, without a description: DESCRIBE is answered with 404. MSG_STREAM_FAIL would end the client's
        // connection without an answer.
        Notify(m_receiver_id, MSG_SRC_READY, 0);
        return 0;
    }
    m_open = std::move(open);
    m_cursor = std::make_unique<FrameCursor>(m_open->file);
    m_cursor->Seek(first());
    m_now_sec = first().utc_sec;
    Notify(m_receiver_id, MSG_STREAM_INFO, 0);
    return 0;
}

void RecordingSource::GetAudioFormat(StreamAudioFormat& format) {
    format = m_open ? recording().AudioFormat() : StreamAudioFormat();
}

void RecordingSource::GetVideoFormat(StreamVideoFormat& format) {
    format = m_open ? recording().VideoFormat() : StreamVideoFormat();
}

int RecordingSource::GetVideoSpecificInfo(char* buf, int len) {
    if (!m_open) {
        return 0;
    }
    const std::string& info = recording().SpecificInfo();
    std::memcpy(buf, info.data(), std::min(info.size(), static_cast<size_t>(len)));
    return static_cast<int>(info.size());
}

int RecordingSource::UpdataStreamInfo(long) {
    Notify(m_receiver_id, m_open ? MSG_STREAM_INFO : MSG_STREAM_FAIL, 0);
    return 0;
}

template <typename Change>
bool RecordingSource::order(Change change) {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_orders.is_new = true;
        change(m_orders);
    }
    m_pump.Wake();
    return true;
}

bool RecordingSource::Start(frame_proc_t proc) {
    m_proc = proc;
    order([](Orders& orders) { orders.paused = false; });
    return m_open && m_pump.Start([this](Clock::time_point now) { return step(now); });
}

bool RecordingSource::Stop(frame_proc_t) {
    return m_pump.Stop();
}

bool RecordingSource::Pause() {
    return order([](Orders& orders) { orders.paused = true; });
}

bool RecordingSource::Resume() {
    return order([](Orders& orders) { orders.paused = false; });
}

bool RecordingSource::SetSpeed(float speed) {
    return std::isfinite(speed) && speed != 0.0F && order([speed](Orders& orders) { orders.speed = speed; });
}

bool RecordingSource::GetSpeed(float& speed) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    speed = m_orders.speed;
    return true;
}

bool RecordingSource::SeekByTime(const CTime& time) {
    if (!m_open) {
        return false;
    }
    size_t key = recording().FindKey(time.makeTime(), window().first_key, window().last_key);
    if (m_begins_before && key > window().first_key && recording().Keys()[key].utc_sec > time.makeTime()) {
        --key;
    }
    m_now_sec = recording().Keys()[key].utc_sec;
    return order([key](Orders& orders) {
        orders.seeks = true;
        orders.seek_key = key;
    });
}

bool RecordingSource::GetTime(CTime& time) {
    time = CTime(m_now_sec);
    return true;
}

bool RecordingSource::GetFileRange(CTime& begin, CTime& end) {
    if (!m_open) {
        return false;
    }
    begin = CTime(first().utc_sec);
    end = CTime(static_cast<uint64_t>(window().last.utc_sec) + 1);  // the second behind the last frame
    return true;
}

bool RecordingSource::GetFileRange(uint64_t& length_us) {
    if (!m_open) {
        return false;
    }
    // The last picture is looked at, too.
    const int64_t rate = recording().VideoFormat().frame_rate > 0 ? recording().VideoFormat().frame_rate : DEFAULT_RATE;
    const int64_t span_us = std::max<int64_t>(0, window().last.time_ms - first().time_ms) * 1000;
    length_us = static_cast<uint64_t>(span_us + US_PER_SECOND / rate);
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

bool RecordingSource::is_keys_only() const {
    return m_speed < 0.0F || m_speed > MAX_FULL_SPEED;
}

bool RecordingSource::is_sent(const FrameEntry& entry) const {
    if (entry.letter == 0 || entry.letter == FRAME_TYPE_ASSIST) {
        return false;
    }
    return entry.letter != FRAME_TYPE_AUDIO || m_speed == 1.0F;  // sound makes sense at its own rate only
}

// From now on the next frame is due at once and the others follow it at the rate that is wanted.
void RecordingSource::take_orders(const Orders& orders, Clock::time_point now) {
    if (!m_begun) {
        m_begin = now;
        m_begun = true;
    }
    if (m_has_next) {
        m_cursor->Seek(m_next.place);  // it may be no frame that the new rate sends
        m_has_next = false;
    }
    if (orders.seeks) {
        m_cursor->Seek(recording().Keys()[orders.seek_key]);
    }
    m_ended = false;  // one that goes on at its end is told of it again
    m_speed = orders.speed;
    m_has_anchor = false;
    m_anchor_time = now;
    find_next_key();
}

// The next key frame in the playing direction.
void RecordingSource::find_next_key() {
    const std::vector<FramePlace>& keys = recording().Keys();
    const auto at = std::lower_bound(keys.begin(), keys.end(), m_cursor->Offset(),
                                     [](const FramePlace& key, uint64_t offset) { return key.offset < offset; });
    m_key = static_cast<size_t>(at - keys.begin());
    const bool is_on_key = at != keys.end() && at->offset == m_cursor->Offset();
    if (m_speed < 0.0F && !is_on_key) {
        --m_key;  // the one in front; wraps at the beginning, behind every window
    }
}

// Reads the next frame that goes out; false at an end of the window, or of a file that has become shorter.
bool RecordingSource::fetch() {
    if (!m_has_next) {
        m_has_next = is_keys_only() ? fetch_key() : fetch_in_row();
    }
    return m_has_next;
}

bool RecordingSource::fetch_key() {
    if (m_key < window().first_key || m_key > window().last_key) {
        return false;
    }
    m_cursor->Seek(recording().Keys()[m_key]);
    m_key += m_speed < 0.0F ? SIZE_MAX : 1;  // backwards by one, wrapping
    return m_cursor->Next(m_next) == FrameCursor::STEP_FRAME && m_next.letter == FRAME_TYPE_I;
}

bool RecordingSource::fetch_in_row() {
    while (m_cursor->Offset() < window().end_offset) {
        const FrameCursor::step_t met = m_cursor->Next(m_next);
        if (met == FrameCursor::STEP_END) {
            return false;
        }
        if (met == FrameCursor::STEP_FRAME && is_sent(m_next)) {
            return true;
        }
    }
    return false;
}

// When a frame is due, in milliseconds from m_begin.
double RecordingSource::play_ms(const FrameEntry& entry) const {
    const double anchor = duration<double, std::milli>(m_anchor_time - m_begin).count();
    const double due = anchor + (static_cast<double>(entry.place.time_ms) - m_anchor_ms) / static_cast<double>(m_speed);
    return std::clamp(due, -MAX_PLAY_MS, MAX_PLAY_MS);
}

RecordingSource::Clock::time_point RecordingSource::step(Clock::time_point now) {
    const Clock::time_point far_away = now + std::chrono::hours(1);
    for (;;) {
        Orders orders;
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            orders = m_orders;
            if (orders.paused) {
                return far_away;
            }
            m_orders.is_new = false;
            m_orders.seeks = false;
        }
        if (orders.is_new) {
            take_orders(orders, now);
        }
        if (!fetch()) {
            give_end();
            return far_away;
        }
        if (!m_has_anchor) {
            m_anchor_ms = static_cast<double>(m_next.place.time_ms);
            m_has_anchor = true;
        }
        const double due_ms = play_ms(m_next);
        const Clock::time_point due = m_begin + duration_cast<Clock::duration>(duration<double, std::milli>(due_ms));
        if (due > now) {
            return due;
        }
        m_has_next = false;
        m_last_pts_ms = due_ms;
        m_now_sec = m_next.place.utc_sec;
        give(m_next, due_ms);
    }
}

void RecordingSource::give(const FrameEntry& entry, double pts_ms) {
    if (!read_body(entry)) {
        return;
    }
    const bool is_audio = entry.letter == FRAME_TYPE_AUDIO;
    FrameFacts facts;
    facts.letter = entry.letter;
    facts.sequence = m_sequence[is_audio ? 1 : 0]++;
    facts.pts_ms = static_cast<uint64_t>(std::max(pts_ms, 0.0) + 1.5);  // above 0, which would mean "no time yet"
    facts.utc = static_cast<double>(entry.place.utc_sec);
    const Kavio::Flumen::CMediaFrame media =
        is_audio ? MakeAudioFrame(facts, recording().AudioFormat(), m_body.data(), m_body.size())
                 : MakeVideoFrame(facts, recording().VideoFormat(), m_body.data(), m_body.size());
    if (media.valid()) {
        m_packet_state = PACKET_STATE_RUNS;
        m_proc(media);
    }
}

bool RecordingSource::read_body(const FrameEntry& entry) {
    if (!ReadBody(m_open->file, entry, m_body)) {
        return false;
    }
    if (entry.letter != FRAME_TYPE_AUDIO && recording().VideoFormat().encode_type == STREAM_VIDEO_H264 &&
        HasShortStartCode(m_body.data(), m_body.size())) {
        m_short_body.swap(m_body);
        m_body.clear();
        for (const NalUnit& nal : SplitNalUnits(m_short_body.data(), m_short_body.size())) {
            AppendNalUnit(m_body, nal);
        }
    }
    return true;
}

// Tells the end, once, with a frame that isn't sent on.
void RecordingSource::give_end() {
    if (m_ended) {
        return;
    }
    m_ended = true;
    FrameFacts facts;
    facts.pts_ms = static_cast<uint64_t>(std::max(m_last_pts_ms, 0.0) + 2.5);
    facts.utc = static_cast<double>(window().last.utc_sec);
    const unsigned char nothing[1] = {};
    const Kavio::Flumen::CMediaFrame media = MakeVideoFrame(facts, recording().VideoFormat(), nothing, sizeof(nothing));
    if (media.valid()) {
        m_packet_state = PACKET_STATE_END;
        m_proc(media);
    }
}
