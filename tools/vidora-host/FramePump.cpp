#include "FramePump.h"

#include <ctime>
#include <system_error>
#include <utility>

namespace {

// Libraries of the C++ language on Linux count their steady clock by CLOCK_MONOTONIC.
timespec to_timespec(FramePump::Clock::time_point time) {
    const auto since = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    timespec result = {};
    result.tv_sec = seconds.count();
    result.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count());
    return result;
}

}  // namespace

FramePump::~FramePump() {
    Stop();
    sem_destroy(&m_changed);
}

bool FramePump::Start(step_t step) {
    const std::lock_guard<std::mutex> control(m_control_mutex);
    if (m_thread.joinable()) {
        return false;
    }
    m_stop = false;
    try {
        m_thread = std::thread([this, moved = std::move(step)]() { run(moved); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

bool FramePump::Stop() {
    const std::lock_guard<std::mutex> control(m_control_mutex);
    if (!m_thread.joinable()) {
        return false;
    }
    m_stop = true;
    sem_post(&m_changed);
    m_thread.join();
    return true;
}

void FramePump::Wake() {
    sem_post(&m_changed);
}

// A wait that ends early, by Wake or by a signal, does no harm: the step looks at the time.
void FramePump::run(const step_t& step) {
    while (!m_stop) {
        const timespec next = to_timespec(step(Clock::now()));
        if (!m_stop) {
            sem_clockwait(&m_changed, CLOCK_MONOTONIC, &next);
        }
    }
}
