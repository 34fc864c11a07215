#ifndef VIDORA_TRAMEL_TURN_H
#define VIDORA_TRAMEL_TURN_H

#include <atomic>

namespace Kavio {
namespace Tramel {

// CTurn: a lock of four bytes, for what lies in an array: who has the turn may touch what lies beside it. Not
// recursive. It costs no system call unless somebody waits. Any thread.
class CTurn {
public:
    CTurn() = default;
    CTurn(const CTurn&) = delete;
    CTurn& operator=(const CTurn&) = delete;

    void Take() {
        int state = FREE;
        if (!m_state.compare_exchange_strong(state, TAKEN, std::memory_order_acquire)) {
            wait();
        }
    }
    void Give() {
        if (m_state.exchange(FREE, std::memory_order_release) == AWAITED) {
            wake();
        }
    }

private:
    enum state_t { FREE, TAKEN, AWAITED };

    void wait();
    void wake();

    std::atomic<int> m_state{FREE};
};

// Holds a turn for a scope.
class CTurnGuard {
public:
    explicit CTurnGuard(CTurn& turn) : m_turn(turn) { m_turn.Take(); }
    ~CTurnGuard() { m_turn.Give(); }
    CTurnGuard(const CTurnGuard&) = delete;
    CTurnGuard& operator=(const CTurnGuard&) = delete;

private:
    CTurn& m_turn;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_TURN_H
