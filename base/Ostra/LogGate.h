#ifndef VIDORA_OSTRA_LOGGATE_H
#define VIDORA_OSTRA_LOGGATE_H

#include <cstdint>

#include "Vidora/Ostra/Log.h"
#include "Vidora/Ostra/Time.h"

namespace Kavio {
namespace Ostra {

// CLogGate: lets a log line about what a peer sends through once a second, however often that comes, and reports before
// it how many were passed over. One thread.
class CLogGate {
public:
    bool Pass() {
        const uint64_t now = CTime::getCurrentMilliSecond();
        if (m_passed && now - m_last_ms < INTERVAL_MS) {
            ++m_passed_over;
            return false;
        }
        if (m_passed_over > 0) {
            logWarn("%u more lines like the next one were passed over\n", m_passed_over);
        }
        m_passed_over = 0;
        m_passed = true;
        m_last_ms = now;
        return true;
    }

private:
    static constexpr uint64_t INTERVAL_MS = 1000;

    bool m_passed = false;
    uint64_t m_last_ms = 0;
    unsigned int m_passed_over = 0;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_LOGGATE_H
