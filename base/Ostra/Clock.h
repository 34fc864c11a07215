#ifndef VIDORA_OSTRA_CLOCK_H
#define VIDORA_OSTRA_CLOCK_H

#include <cstdint>

namespace Kavio {
namespace Ostra {

// CClock: the one source of time: CTime's clocks, and with them all timers, time-outs and ages of the library. A test
// moves it forward instead of waiting; wall time moves along.
//
// THREADING  Any thread.
class CClock {
public:
    // Microseconds by which the clock is ahead of the system's; 0 but in tests.
    static uint64_t Shift();
    // For tests. Timers that run aren't told: the reactor's queue is to be asked to look again.
    static void Advance(uint64_t microseconds);
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_CLOCK_H
