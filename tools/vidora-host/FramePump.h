#ifndef VIDORA_HOST_FRAMEPUMP_H
#define VIDORA_HOST_FRAMEPUMP_H

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

// FramePump: a thread that calls a step function at the times that the function itself names.
//
// THREADING  Start, Stop and Wake: any thread, also from two at once; not from inside the step. No step runs or starts
//            after Stop has returned. The step runs with no lock of the pump held.
class FramePump {
public:
    typedef std::chrono::steady_clock Clock;
    // Does what is due at `now` and gives the time of the next call.
    typedef std::function<Clock::time_point(Clock::time_point now)> step_t;

    FramePump() { sem_init(&m_changed, 0, 0); }
    ~FramePump();
    FramePump(const FramePump&) = delete;
    FramePump& operator=(const FramePump&) = delete;

    // Starts the thread; false if it runs already or the system gives none.
    bool Start(step_t step);
    // Ends and joins the thread. False if it doesn't run.
    bool Stop();
    // Calls the step soon, whatever time it named.
    void Wake();

private:
    void run(const step_t& step);

    std::mutex m_control_mutex;  // puts Start and Stop in a row
    std::atomic<bool> m_stop{false};
    sem_t m_changed;  // one system call a wait, which a condition variable doesn't manage
    std::thread m_thread;
};

#endif  // VIDORA_HOST_FRAMEPUMP_H
