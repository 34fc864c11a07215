#include "Tramel/Turn.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Kavio {
namespace Tramel {

// futex(2): sleeps only while the state is still the one that was seen. Who has waited leaves the turn marked as
// awaited, since others may wait as well.
void CTurn::wait() {
    while (m_state.exchange(AWAITED, std::memory_order_acquire) != FREE) {
        syscall(SYS_futex, &m_state, FUTEX_WAIT_PRIVATE, static_cast<int>(AWAITED), nullptr, nullptr, 0);
    }
}

void CTurn::wake() {
    syscall(SYS_futex, &m_state, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace Tramel
}  // namespace Kavio
