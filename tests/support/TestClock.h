#ifndef VIDORA_TESTS_SUPPORT_TESTCLOCK_H
#define VIDORA_TESTS_SUPPORT_TESTCLOCK_H

#include <cstdint>

#include "Ostra/Clock.h"
#include "Tramel/Reactor.h"

namespace Kavio::Support {

// Moves the library's clock, so that timers and time-outs of the process come due without waiting. What repeats fires
// once for all the time that was jumped over.
inline void AdvanceClock(uint64_t milliseconds) {
    Ostra::CClock::Advance(milliseconds * 1000);
    Tramel::CReactor::Instance().Timers().ResetAlarm();
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_TESTCLOCK_H
