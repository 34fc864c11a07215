#include "Tramel/UnitRing.h"

#include <new>

#include "Tramel/OutputUnit.h"

namespace Kavio {
namespace Tramel {

CUnitRing::~CUnitRing() {
    Clear();
    delete[] m_units;
}

bool CUnitRing::Push(COutputUnit* unit) {
    if (m_count == m_capacity && !grow()) {
        return false;
    }
    m_units[(m_first + m_count) & (m_capacity - 1)] = unit;
    ++m_count;
    return true;
}

COutputUnit* CUnitRing::Pop() {
    COutputUnit* unit = m_units[m_first];
    m_first = (m_first + 1) & (m_capacity - 1);
    --m_count;
    trim();
    return unit;
}

void CUnitRing::Clear() {
    Filter([](size_t, COutputUnit*) { return false; });
}

void CUnitRing::release(COutputUnit* unit) {
    unit->Release();
}

bool CUnitRing::grow() {
    const size_t capacity = m_capacity == 0 ? FIRST_CAPACITY : m_capacity * 2;
    COutputUnit** units = new (std::nothrow) COutputUnit*[capacity];
    if (units == nullptr) {
        return false;
    }
    for (size_t i = 0; i < m_count; ++i) {
        units[i] = At(i);
    }
    delete[] m_units;
    m_units = units;
    m_capacity = capacity;
    m_first = 0;
    return true;
}

// A backlog that has gone releases its memory.
void CUnitRing::trim() {
    if (m_count == 0) {
        m_first = 0;
        if (m_capacity > KEPT_CAPACITY) {
            delete[] m_units;
            m_units = nullptr;
            m_capacity = 0;
        }
    }
}

}  // namespace Tramel
}  // namespace Kavio
