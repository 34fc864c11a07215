#include "UdpPortTable.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

CUdpPortTable& CUdpPortTable::Shared() {
    alignas(CUdpPortTable) static unsigned char room[sizeof(CUdpPortTable)];
    static CUdpPortTable* table = new (room) CUdpPortTable;
    return *table;
}

int CUdpPortTable::Reserve(int first, int limit, int family, uint64_t now_ms, int* retries) {
    const int end = std::min(std::max(limit, first + 1), MAX_EVEN_PORT + 1);
    CGuard guard(m_mutex);
    TakenPairs& taken = taken_locked(family, now_ms);
    uint64_t from = ~uint64_t{0} << (first / 2 % WORD_BITS);  // of the first word, the pairs that come in question
    for (int i = first / 2 / WORD_BITS; i < WORD_COUNT; ++i, from = ~uint64_t{0}) {
        const uint64_t passed = *retries > 0 ? 0 : taken.now.words[i] | taken.before.words[i];
        const uint64_t free = from & ~m_held.words[i] & ~passed;
        if (free == 0) {
            continue;
        }
        const int port = 2 * (i * WORD_BITS + __builtin_ctzll(free));
        if (port >= end) {
            return -1;
        }
        *retries -= taken.has(port) ? 1 : 0;
        m_held.add(port);
        return port;
    }
    return -1;
}

void CUdpPortTable::Release(int port) {
    CGuard guard(m_mutex);
    m_held.remove(port);
}

void CUdpPortTable::ReleaseTaken(int port, int family, uint64_t now_ms) {
    CGuard guard(m_mutex);
    m_held.remove(port);
    taken_locked(family, now_ms).now.add(port);
}

// The pairs of others that are still remembered.
CUdpPortTable::TakenPairs& CUdpPortTable::taken_locked(int family, uint64_t now_ms) {
    TakenPairs& taken = m_taken[family == Tramel::SOCK_ADDR_IPV6 ? 1 : 0];
    const uint64_t age_ms = now_ms - taken.began_ms;
    if (age_ms >= AGE_MS) {
        taken.before = age_ms < 2 * AGE_MS ? taken.now : PairSet();
        taken.now = PairSet();
        taken.began_ms = now_ms;
    }
    return taken;
}

}  // namespace Vidora
}  // namespace Kavio
