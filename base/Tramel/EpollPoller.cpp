#include "Tramel/EpollPoller.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

#include "Ostra/Clock.h"
#include "Vidora/Ostra/Time.h"

namespace Kavio {
namespace Tramel {

namespace {

constexpr uint64_t MICROS_PER_SECOND = 1000000;
constexpr uint64_t NANOS_PER_MICRO = 1000;

// The generation of the two descriptors of the poller itself; sockets have others.
constexpr uint32_t OWN_GENERATION = 0;

uint64_t pack_key(int fd, uint32_t generation) {
    return (static_cast<uint64_t>(generation) << 32) | static_cast<uint32_t>(fd);
}

// By poll_arming_t.
constexpr uint32_t ARMING_FLAGS[] = {EPOLLONESHOT, 0, static_cast<uint32_t>(EPOLLET) | EPOLLRDHUP | EPOLLPRI};

uint32_t to_epoll(unsigned int events, poll_arming_t arming) {
    return ((events & POLL_READ) != 0 ? static_cast<uint32_t>(EPOLLIN) : 0U) |
           ((events & POLL_WRITE) != 0 ? static_cast<uint32_t>(EPOLLOUT) : 0U) | ARMING_FLAGS[arming];
}

// Urgent data with nothing behind it is nothing that could be read.
unsigned int from_epoll(uint32_t events) {
    const uint32_t lasting = (events & EPOLLIN) != 0 ? EPOLLRDHUP | EPOLLPRI : EPOLLRDHUP;
    return ((events & EPOLLIN) != 0 ? POLL_READ : 0U) | ((events & EPOLLOUT) != 0 ? POLL_WRITE : 0U) |
           ((events & (EPOLLERR | EPOLLHUP)) != 0 ? POLL_ERROR : 0U) | ((events & lasting) != 0 ? POLL_LASTING : 0U);
}

void close_fd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

CEpollPoller::~CEpollPoller() {
    close_fd(m_alarm_fd);
    close_fd(m_wake_fd);
    close_fd(m_epoll_fd);
}

int CEpollPoller::Open() {
    m_epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
    m_wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_alarm_fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    return m_epoll_fd < 0 || m_wake_fd < 0 || m_alarm_fd < 0 ? -1 : watch_own(m_epoll_fd);
}

// Edge-triggered and never read: each write, and each expiry, is one event that one waiting thread gets.
int CEpollPoller::watch_own(int epoll_fd) const {
    for (const int fd : {m_wake_fd, m_alarm_fd}) {
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLET;
        event.data.u64 = pack_key(fd, OWN_GENERATION);
        if (::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0) {
            return -1;
        }
    }
    return 0;
}

// The number of the set stays, so that other threads may go on using it.
int CEpollPoller::Renew() {
    int fresh = ::epoll_create1(EPOLL_CLOEXEC);
    const bool made = fresh >= 0 && watch_own(fresh) == 0 && ::dup3(fresh, m_epoll_fd, O_CLOEXEC) >= 0;
    close_fd(fresh);
    return made ? 0 : -1;
}

int CEpollPoller::Add(int fd, uint32_t generation, unsigned int events, poll_arming_t arming) {
    const int result = control(EPOLL_CTL_ADD, fd, generation, events, arming);
    return result == -EEXIST ? control(EPOLL_CTL_MOD, fd, generation, events, arming) : result;
}

int CEpollPoller::Modify(int fd, uint32_t generation, unsigned int events, poll_arming_t arming) {
    return control(EPOLL_CTL_MOD, fd, generation, events, arming);
}

// Past the C library, whose connect the thread sanitizer takes for a write to the descriptor that this would read.
void CEpollPoller::Disarm(int fd, uint32_t generation) {
    epoll_event event = {};
    event.events = EPOLLONESHOT;
    event.data.u64 = pack_key(fd, generation);
    ::syscall(SYS_epoll_ctl, m_epoll_fd, EPOLL_CTL_MOD, fd, &event);
}

void CEpollPoller::Remove(int fd) {
    epoll_event event = {};
    ::epoll_ctl(m_epoll_fd, EPOLL_CTL_DEL, fd, &event);
}

int CEpollPoller::control(int operation, int fd, uint32_t generation, unsigned int events, poll_arming_t arming) const {
    epoll_event event = {};
    event.events = to_epoll(events, arming);
    event.data.u64 = pack_key(fd, generation);
    return ::epoll_ctl(m_epoll_fd, operation, fd, &event) == 0 ? 0 : -errno;
}

void CEpollPoller::Wait(CPollBatch& batch, int limit_ms) {
    batch.count = 0;
    batch.woken = false;
    batch.alarm = false;
    epoll_event events[CPollBatch::MAX_EVENTS];
    const int count = ::epoll_wait(m_epoll_fd, events, CPollBatch::MAX_EVENTS, limit_ms);
    for (int i = 0; i < count; ++i) {
        const int fd = static_cast<int>(events[i].data.u64 & 0xffffffffU);
        const uint32_t generation = static_cast<uint32_t>(events[i].data.u64 >> 32);
        if (generation != OWN_GENERATION) {
            batch.events[batch.count++] = CPollEvent{fd, generation, from_epoll(events[i].events)};
        } else if (fd == m_wake_fd) {
            batch.woken = true;
        } else {
            batch.alarm = true;
        }
    }
}

void CEpollPoller::Wake() {
    const uint64_t one = 1;
    const ssize_t written = ::write(m_wake_fd, &one, sizeof(one));
    static_cast<void>(written);  // 64 bits of counter aren't filled by steps of one
}

void CEpollPoller::SetAlarm(uint64_t time_us) {
    const uint64_t shift = Ostra::CClock::Shift();
    const uint64_t system_us = time_us > shift ? time_us - shift : 1;  // 0 would be no alarm at all
    itimerspec alarm = {};
    alarm.it_value.tv_sec = static_cast<time_t>(system_us / MICROS_PER_SECOND);
    alarm.it_value.tv_nsec = static_cast<long>(system_us % MICROS_PER_SECOND * NANOS_PER_MICRO);
    ::timerfd_settime(m_alarm_fd, TFD_TIMER_ABSTIME, &alarm, nullptr);
}

void CEpollPoller::ClearAlarm() {
    const itimerspec none = {};
    ::timerfd_settime(m_alarm_fd, TFD_TIMER_ABSTIME, &none, nullptr);
}

uint64_t CEpollPoller::Now() {
    return Ostra::CTime::getCurrentMicroSecond();
}

}  // namespace Tramel
}  // namespace Kavio
