#include "RtspClient/FrameRateRepair.h"

#include <algorithm>

#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t RATE_OFFSET = 27;  // of the video block when that is the first one
const int MAX_RATE = 255;
const int MS_A_SECOND = 1000;
const double SLOW_SPAN_MS = 2000.0;

uint64_t pts_of(const Flumen::CMediaFrame& frame) {
    return frame.getPts(Flumen::PTS_TYPE_MS);
}

// Longer ones than a day say nothing about a rate.
int distance_ms(const Flumen::CMediaFrame& from, const Flumen::CMediaFrame& to) {
    const int64_t longest = 24 * 3600 * 1000;
    const int64_t distance = static_cast<int64_t>(pts_of(to) - pts_of(from));
    return static_cast<int>(std::max(-longest, std::min(distance, longest)));
}

bool follows(const Flumen::CMediaFrame& first, const Flumen::CMediaFrame& second) {
    return static_cast<uint32_t>(second.getSequence()) - static_cast<uint32_t>(first.getSequence()) == 1;
}

}  // namespace

void CFrameRateRepair::Modify(Flumen::CMediaFrame& frame) {
    if (!kx_has_magic(frame.getBuffer(), frame.size()) || frame.size() < KX_HEADER_LEN) {
        return;
    }
    if (m_rate > 0) {
        set_rate(frame);
        return;
    }
    hold(frame);
}

// The header's checksum doesn't cover the block.
void CFrameRateRepair::set_rate(Flumen::CMediaFrame& frame) const {
    if (frame.getType() != FRAME_TYPE_I || frame.size() <= RATE_OFFSET ||
        frame.getBuffer()[KX_HEADER_LEN] != KX_EXT_VIDEO) {
        return;
    }
    CByteWriter writer(frame.getBuffer(), frame.size());
    writer.Reserve(RATE_OFFSET);
    writer.WriteU8(static_cast<uint8_t>(std::min(m_rate, MAX_RATE)));
}

void CFrameRateRepair::set_saved_rates() {
    for (Flumen::CMediaFrame& saved : m_saved) {
        if (saved.valid()) {
            set_rate(saved);
        }
    }
}

void CFrameRateRepair::hold(Flumen::CMediaFrame& frame) {
    if (m_saved_count == MAX_SAVED - 1) {
        m_saved[m_saved_count++] = frame;
        measure();
        frame = take_first();
        return;
    }
    if (m_saved_count > 0) {
        m_span_ms += distance_ms(m_saved[0], frame);
        if (m_span_ms > SLOW_SPAN_MS) {
            // The frame in hand is dropped, as users of slow streams know it.
            measure_slow();
            frame = take_first();
            return;
        }
    }
    m_saved[m_saved_count++] = frame;
    frame = Flumen::CMediaFrame();
}

void CFrameRateRepair::measure() {
    m_rate = mean_rate();
    if (m_rate == 0) {
        const int shown = std::min(m_saved_count, MAX_SAVED - 1);
        logWarn("%s:%d frame abnormal, m_frame_rate default to %d\n", __FILE__, __LINE__, DEFAULT_RATE);
        for (int i = 0; i < shown; ++i) {
            logWarn("%s %d seq:%d  ts:%llu\n", __FILE__, __LINE__, m_saved[i].getSequence(),
                    static_cast<unsigned long long>(pts_of(m_saved[i])));
        }
        m_rate = DEFAULT_RATE;
    }
    set_saved_rates();
}

// The mean of the rates that the steps between the saved frames show, as long as none is missing; 0 if they show none.
int CFrameRateRepair::mean_rate() const {
    int sum = 0;
    int steps = 0;
    for (int i = 0; i + 1 < m_saved_count && follows(m_saved[i], m_saved[i + 1]); ++i) {
        const int span = distance_ms(m_saved[i], m_saved[i + 1]);
        if (span == 0) {
            logWarn("%s:%d seq diff, but ts is the same, m_frame_rate default to %d\n", __FILE__, __LINE__,
                    DEFAULT_RATE);
            return DEFAULT_RATE;
        }
        sum += MS_A_SECOND / span;
        ++steps;
    }
    return steps > 0 ? std::max(sum / steps, 0) : 0;
}

void CFrameRateRepair::measure_slow() {
    const double mean_ms = m_span_ms / (m_saved_count + 1);
    m_rate = static_cast<int>(MS_A_SECOND / mean_ms);
    if (m_rate < 1) {
        logWarn("%s %d Calculate FrameRate Failed, set default low rate[%d]\n", __FILE__, __LINE__, DEFAULT_RATE);
        m_rate = DEFAULT_RATE;
    }
    set_saved_rates();
}

void CFrameRateRepair::End() {
    if (m_rate < 1 && m_saved_count > 0) {
        measure();
    }
}

Flumen::CMediaFrame CFrameRateRepair::Release() {
    return HasFrames() ? take_first() : Flumen::CMediaFrame();
}

// There is one.
Flumen::CMediaFrame CFrameRateRepair::take_first() {
    const Flumen::CMediaFrame first = m_saved[0];
    std::move(m_saved + 1, m_saved + m_saved_count, m_saved);
    m_saved[--m_saved_count] = Flumen::CMediaFrame();
    m_span_ms = m_saved_count > 0 ? m_span_ms : 0;
    return first;
}

}  // namespace Vidora
}  // namespace Kavio
