#ifndef VIDORA_TRAMEL_EPOLLPOLLER_H
#define VIDORA_TRAMEL_EPOLLPOLLER_H

#include <cstdint>

namespace Kavio {
namespace Tramel {

// What a descriptor is watched for, and what came. POLL_ERROR comes also unasked: an error or a hang-up.
constexpr unsigned int POLL_READ = 1;
constexpr unsigned int POLL_WRITE = 2;
constexpr unsigned int POLL_ERROR = 4;

// One event of a descriptor. `generation` is the one it was added with, so that an event gathered before the number
// was closed and given out again can be told.
struct CPollEvent {
    int fd;
    uint32_t generation;
    unsigned int events;  // set of POLL_READ, ...
};

// What one Wait gathered.
struct CPollBatch {
    static constexpr int MAX_EVENTS = 64;

    CPollEvent events[MAX_EVENTS];
    int count = 0;
    bool woken = false;  // a Wake() was taken
    bool alarm = false;  // the time of SetAlarm has come
};

// CEpollPoller: the system's side of the reactor: an epoll set, a wake-up and an alarm.
//
// Every descriptor is armed for one event: it is silent after that until Modify. So any number of threads may wait at
// once (the kernel wakes one for one event) and an event isn't told twice while its handler is still busy with it.
//
// THREADING  All operations: any thread, Wait on many at once.
class CEpollPoller {
public:
    CEpollPoller() = default;
    ~CEpollPoller();
    CEpollPoller(const CEpollPoller&) = delete;
    CEpollPoller& operator=(const CEpollPoller&) = delete;

    // 0, or -1 if the system has no descriptor.
    int Open();

    // Watches `fd` for one event of `events` (or an error). 0, or the negative errno.
    int Add(int fd, uint32_t generation, unsigned int events);
    // Arms `fd` anew. 0, or the negative errno: -ENOENT if the file that was added has been closed.
    int Modify(int fd, uint32_t generation, unsigned int events);
    // Takes `fd` out; an unknown one is ignored.
    void Remove(int fd);

    // Gathers events, for as long as it takes if `block`, otherwise only what is there.
    void Wait(CPollBatch& batch, bool block);
    // Makes one waiting thread return, or the next one that would wait.
    void Wake();
    // One waiting thread returns at `time_us` of Now(); the former alarm is replaced.
    void SetAlarm(uint64_t time_us);

    // Monotonic microseconds: the clock of SetAlarm.
    static uint64_t Now();

private:
    int control(int operation, int fd, uint32_t generation, unsigned int events);

    int m_epoll_fd = -1;
    int m_wake_fd = -1;
    int m_alarm_fd = -1;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_EPOLLPOLLER_H
