#ifndef VIDORA_TRAMEL_EPOLLPOLLER_H
#define VIDORA_TRAMEL_EPOLLPOLLER_H

#include <cstdint>

namespace Kavio {
namespace Tramel {

// What a descriptor is watched for, and what came. POLL_ERROR comes also unasked: an error or a hang-up. POLL_LASTING,
// of ARM_EDGE alone: a read that leaves room isn't the last one, as the peer sends nothing more, or has sent urgent
// data, in front of which a read stops.
constexpr unsigned int POLL_READ = 1;
constexpr unsigned int POLL_WRITE = 2;
constexpr unsigned int POLL_ERROR = 4;
constexpr unsigned int POLL_LASTING = 8;

// One event of a descriptor. `generation` is the one it was added with, so that an event gathered before the number
// was closed and given out again can be told.
struct CPollEvent {
    int fd;
    uint32_t generation;
    unsigned int events;  // set of POLL_READ, ...
};

// What one Wait gathered: so few events that what their handlers touch, and the sockets, which the system looks at once
// more in the next Wait, are still in the processor's near caches.
struct CPollBatch {
    static constexpr int MAX_EVENTS = 16;

    CPollEvent events[MAX_EVENTS];
    int count = 0;
    bool woken = false;  // a Wake() was taken
    bool alarm = false;  // the time of SetAlarm has come
};

// How long a descriptor is watched.
enum poll_arming_t {
    ARM_ONCE,   // one event, or an error: silent after that until Modify
    ARM_LEVEL,  // each Wait tells what there is
    ARM_EDGE,   // one Wait tells what has come since Modify, or since the last that told
};

// CEpollPoller: the system's side of the reactor: an epoll set, a wake-up and an alarm.
//
// Wake-ups and alarms are told once, to one waiting thread, and so is an event of a descriptor that is armed once. One
// that is armed by level is told by each Wait as long as it lasts, but needs no call to be armed again. One that is
// armed by edge needs none either, and isn't looked at once more in the next Wait.
//
// THREADING  All operations: any thread, Wait on many at once, but Renew: while nobody waits.
class CEpollPoller {
public:
    CEpollPoller() = default;
    ~CEpollPoller();
    CEpollPoller(const CEpollPoller&) = delete;
    CEpollPoller& operator=(const CEpollPoller&) = delete;

    // 0, or -1 if the system has no descriptor.
    int Open();

    // Watches `fd` for `events` (or an error). 0, or the negative errno.
    int Add(int fd, uint32_t generation, unsigned int events, poll_arming_t arming);
    // Arms `fd` anew. 0, or the negative errno: -ENOENT if the file that was added has been closed.
    int Modify(int fd, uint32_t generation, unsigned int events, poll_arming_t arming);
    // Silences `fd` until Modify, but for a hang-up, which is told once. Its handler may be busy with it on another
    // thread.
    void Disarm(int fd, uint32_t generation);
    // Takes `fd` out; an unknown one is ignored.
    void Remove(int fd);
    // Forgets every descriptor, also those that were closed while the file lived on elsewhere, which nothing else takes
    // out. 0, or -1 if the system has no descriptor: all stays as it is.
    int Renew();

    // Gathers events: only what is there for 0 ms, and for as long as it takes with FOREVER.
    static constexpr int FOREVER = -1;
    void Wait(CPollBatch& batch, int limit_ms);
    // Makes one waiting thread return, or the next one that would wait.
    void Wake();
    // One waiting thread returns at `time_us` of Now(); the former alarm is replaced.
    void SetAlarm(uint64_t time_us);
    void ClearAlarm();

    // Monotonic microseconds: the clock of SetAlarm.
    static uint64_t Now();

private:
    int watch_own(int epoll_fd) const;
    int control(int operation, int fd, uint32_t generation, unsigned int events, poll_arming_t arming) const;

    int m_epoll_fd = -1;
    int m_wake_fd = -1;
    int m_alarm_fd = -1;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_EPOLLPOLLER_H
