#include "Ostra/LogLimit.h"

#include <algorithm>
#include <new>

#include "Vidora/Ostra/Log.h"
#include "Vidora/Ostra/Time.h"

namespace Kavio {
namespace Ostra {

namespace {

thread_local CLogLimit* t_current = nullptr;

}  // namespace

CLogLimit::CScope::CScope(CLogLimit& limit) : m_outer(t_current) {
    t_current = &limit;
}

CLogLimit::CScope::~CScope() {
    t_current = m_outer;
}

CLogLimit* CLogLimit::Current() {
    return t_current;
}

CLogLimit::~CLogLimit() {
    if (m_rows != nullptr) {
        std::for_each(m_rows.get(), m_rows.get() + MAX_CAUSES,
                      [this](const Row& row) { m_passed_over += row.passed_over; });
    }
    if (m_passed_over > 0) {
        logWarn("%u lines of a session that has gone were passed over\n", m_passed_over);
    }
}

bool CLogLimit::Passes(const void* cause, unsigned int& passed_over) {
    const uint64_t now = CTime::getCurrentMilliSecond();
    Row* row = find_row(cause, now);
    if (row == nullptr) {
        ++m_passed_over;
        return false;
    }
    if (row->cause == cause && now - row->last_ms < INTERVAL_MS) {
        ++row->passed_over;
        return false;
    }
    if (row->cause != cause) {
        m_passed_over += row->passed_over;
        row->passed_over = 0;
    }
    passed_over = row->passed_over;
    *row = {cause, now, 0};
    return true;
}

// The cause's own row, or one that is free or has been quiet for as long as a line has to wait; null if there is none.
CLogLimit::Row* CLogLimit::find_row(const void* cause, uint64_t now) {
    if (m_rows == nullptr) {
        m_rows.reset(new (std::nothrow) Row[MAX_CAUSES]);
    }
    if (m_rows == nullptr) {
        return nullptr;
    }
    Row* const end = m_rows.get() + MAX_CAUSES;
    Row* row = std::find_if(m_rows.get(), end, [&](const Row& each) { return each.cause == cause; });
    if (row == end) {
        row = std::find_if(m_rows.get(), end,
                           [&](const Row& each) { return each.cause == nullptr || now - each.last_ms >= INTERVAL_MS; });
    }
    return row == end ? nullptr : row;
}

}  // namespace Ostra
}  // namespace Kavio
