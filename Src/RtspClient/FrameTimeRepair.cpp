#include "RtspClient/FrameTimeRepair.h"

#include <cstdlib>

#include "StreamParser/FrameLetter.h"
#include "Vidora/KXFrame.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_AUDIO_OFFSET_MS = 100;
const int MAX_VIDEO_AGE_MS = 1000;
const int STEP_MS = 45;
const int NEW_BEGINNING_MS = 1000;

int distance(uint16_t from, uint16_t to) {
    return static_cast<int16_t>(to - from);
}

uint16_t in_order(bool known, uint16_t last, uint16_t value) {
    const int step = distance(last, value);
    return known && step < 0 && step >= -NEW_BEGINNING_MS ? static_cast<uint16_t>(last + STEP_MS) : value;
}

}  // namespace

void CFrameTimeRepair::Modify(Flumen::CMediaFrame& frame) {
    KXHeader header;
    const bool known = kx_read_header(frame.getBuffer(), frame.size(), header);
    if (!known || (header.frame_type != KX_TYPE_AUDIO && !IsVideoLetter(kx_letter_of_type(header.frame_type)))) {
        return;
    }
    const uint16_t value =
        header.frame_type == KX_TYPE_AUDIO ? repair_audio(header.time_stamp) : repair_video(header.time_stamp);
    const int moved = distance(header.time_stamp, value);
    if (moved != 0) {
        kx_patch_time_stamp(frame.getBuffer(), frame.size(), value);
        frame.setPts(frame.getPts(Flumen::PTS_TYPE_MS) + static_cast<uint64_t>(int64_t{moved}), Flumen::PTS_TYPE_MS);
    }
}

uint16_t CFrameTimeRepair::repair_audio(uint16_t value) {
    m_raw_audio = {true, value};
    if (!m_audio_at_video.known) {
        m_audio_at_video = {true, value};
    }
    // Behind the second it stays so, whatever the distance is where the stamps wrap.
    m_video_is_near = m_video_is_near && distance(m_audio_at_video.value, value) <= MAX_VIDEO_AGE_MS;
    if (m_video_is_near && std::abs(distance(m_last_video.value, value)) > MAX_AUDIO_OFFSET_MS) {
        value = m_last_video.value;
    }
    value = in_order(m_last_audio.known, m_last_audio.value, value);
    m_last_audio = {true, value};
    return value;
}

uint16_t CFrameTimeRepair::repair_video(uint16_t value) {
    if (!is_b_picture(value)) {
        const uint16_t raw = value;
        value = in_order(m_latest.known, m_latest.value, value);
        const bool has_room = value == raw && distance(m_latest.value, value) >= 0;
        m_before_latest = {m_latest.known && has_room, m_latest.value};
        m_latest = {true, value};
    }
    m_last_video = {true, value};
    m_video_is_near = true;
    m_audio_at_video = m_raw_audio;
    return value;
}

bool CFrameTimeRepair::is_b_picture(uint16_t value) const {
    return m_before_latest.known && distance(m_before_latest.value, value) > 0 && distance(value, m_latest.value) > 0;
}

}  // namespace Vidora
}  // namespace Kavio
