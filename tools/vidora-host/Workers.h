#ifndef VIDORA_HOST_WORKERS_H
#define VIDORA_HOST_WORKERS_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Workers: a few threads of the host for work that waits for a disk, which the library's pool must not do.
//
// THREADING  Post: any thread, also inside a job.
class Workers {
public:
    typedef std::function<void()> job_t;

    explicit Workers(size_t max_threads) : m_max_threads(max_threads) {}
    // Waits for the jobs that run and drops the others.
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // Runs the job soon; the jobs begin in their order. Threads are started as they are needed.
    void Post(job_t job);
    // Set from the destructor's beginning on: a long job looks at it.
    const std::atomic<bool>& Stopping() const { return m_stopping; }

private:
    void run();

    const size_t m_max_threads;
    std::atomic<bool> m_stopping{false};
    std::mutex m_mutex;  // guards all below
    std::condition_variable m_changed;
    std::deque<job_t> m_jobs;
    size_t m_idle = 0;
    std::vector<std::thread> m_threads;
};

#endif  // VIDORA_HOST_WORKERS_H
