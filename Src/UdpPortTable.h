#ifndef VIDORA_UDPPORTTABLE_H
#define VIDORA_UDPPORTTABLE_H

#include <cstddef>
#include <cstdint>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CUdpPortTable: which pairs of UDP ports (an even one and the one above it) need no attempt to open them: those that
// this process holds, and those that another program had a moment ago. With it the search for the lowest free pair
// costs a fixed number of system calls, however many sessions this process and others serve.
//
// Another program's pair is remembered for 100 to 200 ms, for each address family by itself: an IPv6 socket may be
// bound in the way of IPv6 alone.
//
// THREADING  Any thread; it locks for itself, and no system call runs under the lock.
// MEMORY     20 kB, one table for the process.
class CUdpPortTable {
public:
    static const int MAX_EVEN_PORT = 65534;

    // The table of this process. It never ends: sockets may outlive the statics.
    static CUdpPortTable& Shared();

    // Reserves the lowest pair from `first` (even, 0 to 65534) on that is below `limit`, or is `first` itself, and
    // isn't held. A pair that another program had is passed over, unless `*retries` is above 0: that is taken down by 1
    // then. Its even port, or -1 if there is none.
    int Reserve(int first, int limit, int family, uint64_t now_ms, int* retries);
    // Releases a reserved pair. `taken`: because another program has it.
    void Release(int port);
    void ReleaseTaken(int port, int family, uint64_t now_ms);

private:
    static const int PAIR_COUNT = 65536 / 2;
    static const int WORD_BITS = 64;
    static const int WORD_COUNT = PAIR_COUNT / WORD_BITS;
    static const uint64_t AGE_MS = 100;

    // A bit for each pair.
    struct PairSet {
        uint64_t words[WORD_COUNT] = {};

        static uint64_t bit(int port) { return uint64_t{1} << (port / 2 % WORD_BITS); }
        uint64_t& word(int port) { return words[port / 2 / WORD_BITS]; }
        bool has(int port) { return (word(port) & bit(port)) != 0; }
        void add(int port) { word(port) |= bit(port); }
        void remove(int port) { word(port) &= ~bit(port); }
    };
    // Pairs that others had: in the running span of AGE_MS, and in the one before.
    struct TakenPairs {
        PairSet now;
        PairSet before;
        uint64_t began_ms = 0;

        bool has(int port) { return now.has(port) || before.has(port); }
    };

    TakenPairs& taken_locked(int family, uint64_t now_ms) VIDORA_REQUIRES(m_mutex);

    CMutex m_mutex;
    PairSet m_held VIDORA_GUARDED_BY(m_mutex);
    TakenPairs m_taken[2] VIDORA_GUARDED_BY(m_mutex);  // IPv4, IPv6
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_UDPPORTTABLE_H
