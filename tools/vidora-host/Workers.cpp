#include "Workers.h"

#include <system_error>
#include <utility>

Workers::~Workers() {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_stopping = true;
        m_jobs.clear();
    }
    m_changed.notify_all();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
}

void Workers::Post(job_t job) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_stopping) {
        return;
    }
    m_jobs.push_back(std::move(job));
    if (m_jobs.size() > m_idle && m_threads.size() < m_max_threads) {
        try {
            m_threads.emplace_back([this] { run(); });
        } catch (const std::system_error&) {
            // the job waits for a thread that there is, or for the next try
        }
    }
    m_changed.notify_one();
}

void Workers::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        if (m_jobs.empty()) {
            ++m_idle;
            m_changed.wait(lock);
            --m_idle;
            continue;
        }
        const job_t job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}
