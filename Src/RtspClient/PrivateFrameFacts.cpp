#include "RtspClient/PrivateFrameFacts.h"

#include "Vidora/KXFrame.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t MAX_GAP_S = 30;  // less than half of what the stamp can count
const uint64_t STAMP_MASK = 0xFFFF;
const uint64_t MS_A_SECOND = 1000;

int letter_of(uint8_t frame_type) {
    return frame_type == KX_TYPE_JPEG ? static_cast<int>(FRAME_TYPE_JPEG) : kx_letter_of_type(frame_type);
}

// The count close to the end of that second whose low 16 bits are the stamp.
uint64_t count_near(uint64_t seconds, uint16_t time_stamp) {
    const uint64_t latest = seconds * MS_A_SECOND + MS_A_SECOND - 1;
    return latest < time_stamp ? time_stamp : ((latest - time_stamp) & ~STAMP_MASK) + time_stamp;
}

}  // namespace

void CPrivateFrameFacts::Fill(Flumen::CMediaFrame& frame) {
    KXHeader header;
    if (!kx_read_header(frame.getBuffer(), frame.size(), header)) {
        return;
    }
    const uint64_t seconds = kx_unpack_date_time(header.date_time);
    const uint64_t pts = unwrap(seconds, header.time_stamp);
    const int type = letter_of(header.frame_type);
    const int sequence = static_cast<int>(header.sequence);
    if (frame.getType() == type && frame.getSequence() == sequence && frame.getPts(Flumen::PTS_TYPE_MS) == pts) {
        return;
    }
    frame.setType(type);
    frame.setSequence(sequence);
    frame.setChannel(header.channel);
    frame.setUtc(static_cast<double>(seconds));
    frame.setPts(pts, Flumen::PTS_TYPE_MS);
}

uint64_t CPrivateFrameFacts::unwrap(uint64_t seconds, uint16_t time_stamp) {
    const uint64_t gap = seconds > m_seconds ? seconds - m_seconds : m_seconds - seconds;
    if (m_known && gap < MAX_GAP_S) {
        const int step = static_cast<int16_t>(time_stamp - static_cast<uint16_t>(m_pts));
        m_pts += static_cast<uint64_t>(int64_t{step});
    } else {
        m_pts = count_near(seconds, time_stamp);
    }
    m_known = true;
    m_seconds = seconds;
    return m_pts;
}

}  // namespace Vidora
}  // namespace Kavio
