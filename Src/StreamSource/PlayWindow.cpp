#include "StreamSource/PlayWindow.h"

#include <algorithm>

#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t US_PER_SECOND = 1000000;
const uint64_t ROUNDING_US = 1000;        // a client's text of a length may be a little less than that
const int64_t MAX_KEY_DISTANCE_SEC = 10;  // a source that tells a time further off tells that of its last frame

bool is_given(const CTime& time) {
    return time.makeTime() > 0;
}

// For the log: the time's text in `buffer`.
template <int SIZE>
const char* to_text(const CTime& time, char (&buffer)[SIZE]) {
    time.format(buffer, "%Y-%m-%d %H:%M:%S", SIZE);
    return buffer;
}

}  // namespace

void CPlayWindow::Open(const CTime& begin, const CTime& end, uint64_t length_us) {
    m_length_us = length_us;
    m_file_begin = begin;
    m_file_end = end;
    m_start = begin;
    m_end = end;
}

CTime CPlayWindow::At(uint64_t offset_us) const {
    return offset_us == TIME_NOT_GIVEN ? CTime() : m_file_begin + static_cast<int64_t>(offset_us / US_PER_SECOND);
}

CTime CPlayWindow::EndAt(uint64_t offset_us) const {
    if (!m_exact || offset_us == TIME_NOT_GIVEN) {
        return At(offset_us);
    }
    return offset_us + ROUNDING_US >= m_length_us ? m_file_end : At(offset_us + US_PER_SECOND - 1);
}

CTime CPlayWindow::SetFirst(bool backwards, const CTime& time, const CTime& now) {
    if (backwards) {
        m_end = is_given(time) ? std::min(time, m_file_end) : now;
        return m_end;
    }
    m_start = is_given(time) ? std::max(time, m_file_begin) : now;
    return m_start;
}

void CPlayWindow::BeginEarlier(bool backwards, const CTime& time) {
    const bool in_file = m_start <= m_file_end && time >= m_file_begin;
    if (m_exact && !backwards && in_file && time < m_start && m_start - time <= MAX_KEY_DISTANCE_SEC) {
        m_start = time;
    }
}

void CPlayWindow::SetLast(bool backwards, const CTime& time) {
    if (backwards) {
        m_start = is_given(time) ? std::max(time, m_file_begin) : m_file_begin;
    } else {
        m_end = is_given(time) ? std::min(time, m_file_end) : m_file_end;
    }
}

bool CPlayWindow::IsValid() const {
    if (Ostra::GetLogLevel() >= Ostra::LOG_LEVEL_TRACE) {
        char start[32] = {};
        char file_begin[32] = {};
        char end[32] = {};
        char file_end[32] = {};
        logTrace("%s:%d,m_start_time %s,m_file_begin_time %s,m_end_time %s,m_file_end_time %s\n", __FILE__, __LINE__,
                 to_text(m_start, start), to_text(m_file_begin, file_begin), to_text(m_end, end),
                 to_text(m_file_end, file_end));
    }
    return m_start <= m_end && m_start >= m_file_begin && m_end <= m_file_end;
}

bool CPlayWindow::Excludes(const CTime& time) const {
    if (time > m_end || time < m_start) {
        return true;
    }
    if (m_exact) {
        return m_speed > 0.0F && time == m_end && m_end < m_file_end;
    }
    return (m_speed > 0.0F && time >= m_file_end) || (m_speed < 0.0F && time <= m_file_begin);
}

uint64_t CPlayWindow::offset(const CTime& time) const {
    return static_cast<uint64_t>(time - m_file_begin) * US_PER_SECOND;
}

}  // namespace Vidora
}  // namespace Kavio
