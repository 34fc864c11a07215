#include "Ostra/MemoryTrail.h"

#include <algorithm>

namespace Kavio {
namespace Ostra {

namespace {

constexpr size_t LINE = 64;
constexpr unsigned int COUNT_BITS = 8;
constexpr uint64_t MAX_LINES = (1u << COUNT_BITS) - 1;

// Of so many turns the first few take notes: the first one of all may not have gone the whole way.
constexpr uint32_t PERIOD = 1024;
constexpr uint32_t NOTING_TURNS = 16;

thread_local CMemoryTrail* t_noting = nullptr;  // of the turn that runs, while it takes notes

}  // namespace

CMemoryTrail::CTurn::CTurn(CMemoryTrail& trail) : m_outer(t_noting) {
    for (uint32_t i = 0; i < trail.m_count; ++i) {
        const uintptr_t first = static_cast<uintptr_t>(trail.m_places[i] >> COUNT_BITS) * LINE;
        Fetch(reinterpret_cast<const void*>(first), (trail.m_places[i] & MAX_LINES) * LINE);
    }
    trail.begin_turn();
}

CMemoryTrail::CTurn::~CTurn() {
    t_noting = m_outer;
}

void CMemoryTrail::Fetch(const void* place, size_t size) {
    const uintptr_t begin = reinterpret_cast<uintptr_t>(place);
    for (uintptr_t at = begin / LINE * LINE; at < begin + size; at += LINE) {
        const void* line = reinterpret_cast<const void*>(at);
        __builtin_prefetch(line);
        __asm__ volatile("" : : "r"(line));  // a function of nothing but prefetches would be left out as idle
    }
}

void CMemoryTrail::begin_turn() {
    const uint32_t turn = m_turns++ % PERIOD;
    m_count = turn == 0 ? 0 : m_count;
    t_noting = turn < NOTING_TURNS ? this : nullptr;
}

void CMemoryTrail::NoteBytes(const void* place, size_t size) {
    if (t_noting == nullptr || size == 0) {
        return;
    }
    const uintptr_t address = reinterpret_cast<uintptr_t>(place);
    const uint64_t first = address / LINE;
    const uint64_t lines = std::min<uint64_t>((address + size - 1) / LINE - first + 1, MAX_LINES);
    t_noting->add(first << COUNT_BITS | lines);
}

void CMemoryTrail::add(uint64_t place) {
    const uint64_t* end = m_places + m_count;
    if (m_count < MAX_PLACES && std::find(m_places, m_places + m_count, place) == end) {
        m_places[m_count++] = place;
    }
}

}  // namespace Ostra
}  // namespace Kavio
