#include "Recording.h"

#include <algorithm>

#include "Clip.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Ostra/ByteReader.h"

using namespace Kavio::Vidora;

namespace {

bool is_played(const FrameEntry& entry) {
    return entry.letter != 0 && entry.letter != FRAME_TYPE_ASSIST;
}

// The frame at an offset, if there is a whole one.
bool read_at(const FileBytes& file, uint64_t offset, FrameEntry& entry) {
    FrameCursor cursor(file);
    cursor.SkipTo(offset);
    return cursor.Next(entry) == FrameCursor::STEP_FRAME;
}

}  // namespace

bool ReadBody(const IBytes& bytes, const FrameEntry& frame, std::vector<unsigned char>& body) {
    body.resize(frame.body_size);
    return bytes.ReadAt(frame.body_offset, body.data(), body.size()) == body.size();
}

// The trailer tells the length of the last frame.
bool ReadSpan(const FileBytes& file, Interval& span) {
    unsigned char trailer[KX_TRAILER_LEN];
    if (file.Size() < sizeof(trailer) ||
        file.ReadAt(file.Size() - sizeof(trailer), trailer, sizeof(trailer)) != sizeof(trailer)) {
        return false;
    }
    Kavio::Ostra::CByteReader reader(trailer, sizeof(trailer));
    reader.Skip(4);
    const uint32_t last_size = reader.ReadU32Le();
    FrameEntry first;
    FrameEntry last;
    if (last_size > file.Size() || !read_at(file, 0, first) || !read_at(file, file.Size() - last_size, last) ||
        last.size != last_size || !is_played(first) || !is_played(last)) {
        return false;
    }
    span.begin_sec = first.place.utc_sec;
    span.end_sec = static_cast<uint64_t>(last.place.utc_sec) + 1;
    return true;
}

std::shared_ptr<const Recording> Recording::Index(const FileBytes& file, const Recording* former, slices_t slices,
                                                  const std::atomic<bool>& stop) {
    const bool goes_on = former != nullptr && former->goes_on(file);
    const std::shared_ptr<Recording> recording(goes_on ? new Recording(*former) : new Recording);
    recording->m_state = file.State();
    FrameCursor cursor(file);
    if (recording->m_has_frames) {
        cursor.Seek(recording->m_last);
    }
    cursor.SkipTo(recording->m_next_offset);
    FrameEntry entry;
    for (FrameCursor::step_t step = cursor.Next(entry); step != FrameCursor::STEP_END; step = cursor.Next(entry)) {
        if (stop) {
            return nullptr;
        }
        if (step == FrameCursor::STEP_FRAME && is_played(entry)) {
            recording->add(entry);
        }
    }
    recording->m_next_offset = cursor.ResumeOffset();
    recording->m_keys.shrink_to_fit();
    recording->describe(file, slices);
    return recording;
}

// Is this the indexed file, grown? A file that was written anew has other bytes where the last key frame stood.
bool Recording::goes_on(const FileBytes& file) const {
    FrameEntry entry;
    const bool grew = m_state.IsSameFile(file.State()) && file.Size() >= m_state.size;
    return grew && (m_keys.empty() || (read_at(file, m_keys.back().offset, entry) && entry.letter == FRAME_TYPE_I &&
                                       entry.place.utc_sec == m_keys.back().utc_sec &&
                                       entry.place.time_stamp == m_keys.back().time_stamp));
}

void Recording::add(const FrameEntry& entry) {
    if (!m_has_frames) {
        m_begin_sec = entry.place.utc_sec;
        m_has_frames = true;
    }
    m_last = entry.place;
    m_end_offset = entry.place.offset + entry.size;
    if (entry.letter == FRAME_TYPE_I) {
        if (m_key_count == 0) {
            m_first_key = entry;
        }
        add_key(entry.place);
    }
    if (entry.letter == FRAME_TYPE_AUDIO && m_audio.encode_type == 0) {
        m_audio.encode_type = entry.encode_code;
        m_audio.sample_rate = entry.sample_rate;
    }
}

void Recording::add_key(const FramePlace& place) {
    if (m_key_count++ % m_key_step != 0) {
        return;
    }
    if (m_keys.size() == MAX_KEYS) {
        for (size_t i = 0; i < MAX_KEYS / 2; ++i) {
            m_keys[i] = m_keys[2 * i];
        }
        m_keys.resize(MAX_KEYS / 2);
        m_key_step *= 2;
    }
    m_keys.push_back(place);
}

// The formats, and whether the recording can be sent, by its first key frame.
void Recording::describe(const FileBytes& file, slices_t slices) {
    std::vector<unsigned char> picture;
    m_fault.clear();
    if (m_keys.empty()) {
        m_fault = "holds no key frame";
    } else if (!ReadBody(file, m_first_key, picture)) {
        m_fault = "cannot be read";
    } else if (m_first_key.encode_code == STREAM_VIDEO_H264) {
        const char* why = WhyNotSent(picture.data(), picture.size(), slices);
        m_fault = why != nullptr ? why : "";
    }
    m_video.width = m_first_key.width;
    m_video.height = m_first_key.height;
    m_video.encode_type = m_first_key.encode_code;
    m_video.frame_rate = m_first_key.frame_rate;
    m_specific_info = FindSpecificInfo(picture.data(), picture.size(), m_first_key.encode_code);
}

// The first key frame of that second or a later one: pictures in front of it would have nothing to refer to.
size_t Recording::FindKey(uint64_t utc_sec, size_t first, size_t last) const {
    size_t key = first;
    while (key < last && m_keys[key].utc_sec < utc_sec) {
        ++key;
    }
    return key;
}

PlayWindow Recording::Cut(const FileBytes& file, const Interval& interval) const {
    PlayWindow window;
    window.last_key = m_keys.size() - 1;
    window.end_offset = m_end_offset;
    window.last = m_last;
    if (interval.begin_sec > m_begin_sec) {
        window.first_key = FindKey(interval.begin_sec, 0, window.last_key);
    }
    if (interval.end_sec == 0 || m_last.utc_sec <= interval.end_sec) {
        return window;
    }
    while (window.last_key > window.first_key && m_keys[window.last_key].utc_sec > interval.end_sec) {
        --window.last_key;
    }
    // From there to the last frame in time.
    FrameCursor cursor(file);
    cursor.Seek(m_keys[window.last_key]);
    window.last = m_keys[window.last_key];
    window.end_offset = window.last.offset + 1;
    FrameEntry entry;
    for (FrameCursor::step_t step = cursor.Next(entry); step != FrameCursor::STEP_END; step = cursor.Next(entry)) {
        if (step == FrameCursor::STEP_FRAME && is_played(entry) && entry.place.utc_sec > interval.end_sec) {
            break;
        }
        if (step == FrameCursor::STEP_FRAME) {
            window.last = entry.place;
        }
        window.end_offset = cursor.Offset();
    }
    return window;
}
