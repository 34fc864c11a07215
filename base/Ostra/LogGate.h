#ifndef VIDORA_OSTRA_LOGGATE_H
#define VIDORA_OSTRA_LOGGATE_H

#include <cstdint>

#include "Vidora/Ostra/Time.h"

namespace Kavio {
namespace Ostra {

// CLogGate: lets a log line about what a peer sends through once a second, however often that comes. One thread.
class CLogGate {
public:
    bool Pass() {
        const uint64_t now = CTime::getCurrentMilliSecond();
        if (m_passed && now - m_last_ms < INTERVAL_MS) {
            return false;
        }
        m_passed = true;
        m_last_ms = now;
        return true;
    }

private:
    static constexpr uint64_t INTERVAL_MS = 1000;

    bool m_passed = false;
    uint64_t m_last_ms = 0;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_LOGGATE_H
