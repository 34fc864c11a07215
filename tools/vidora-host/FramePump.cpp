#include "FramePump.h"

#include <system_error>
#include <utility>

bool FramePump::Start(step_t step) {
    const std::lock_guard<std::mutex> control(m_control_mutex);
    if (m_thread.joinable()) {
        return false;
    }
    m_stop = false;
    m_wake = false;
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
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.join();
    return true;
}

void FramePump::Wake() {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_wake = true;
    }
    m_changed.notify_all();
}

void FramePump::run(const step_t& step) {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        m_wake = false;
        lock.unlock();
        const Clock::time_point next = step(Clock::now());
        lock.lock();
        m_changed.wait_until(lock, next, [this]() { return m_stop || m_wake; });
    }
}
