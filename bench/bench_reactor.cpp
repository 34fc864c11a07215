// What the reactor costs, each figure beside its floor: the same traffic done with bare system calls in the same run.
//
//   messages    two handlers that bounce a message, on a pool of two threads; and a host's thread that bounces one with
//               a handler. Floors: two threads that bounce a byte by eventfd, and a flag by a condition variable.
//   events      a datagram to one of 10,000 registered sockets in turn, 64 on their way at a time, with read time-outs
//               and without. Floor: a loop of epoll_wait and recv on as many sockets.
//   time-outs   10,000 sockets that are silent, each with a time-out of 200 ms that comes again and again; 10,000
//               timers of 200 ms. Floor: epoll_wait and read on 10,000 timer descriptors of 200 ms.
//   registering RegisterSock with a time-out and RemoveSock on 10,000 sockets. Floor: epoll_ctl to add and to delete.
//
// "cpu" is the processor time of the process, all threads, a unit of work; "wall" is the time that passed.

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Tramel/Reactor.h"
#include "Tramel/SockDgram.h"
#include "Vidora/Tramel/NetHandler.h"
#include "Vidora/Tramel/NetThread.h"
#include "support/Machine.h"

namespace {

using Kavio::Tramel::CEpollPoller;
using Kavio::Tramel::CNetHandler;
using Kavio::Tramel::CNetThread;
using Kavio::Tramel::CReactor;
using Kavio::Tramel::CSockAddrIPv4;
using Kavio::Tramel::CSockAddrStorage;
using Kavio::Tramel::CSockDgram;

constexpr int ROUND_TRIPS = 100000;
constexpr int SOCKS = 10000;
constexpr int DATAGRAMS = 128000;
constexpr int WINDOW = 64;
constexpr int64_t QUIET_US = 200000;
constexpr uint64_t SILENCE_US = 1500000;

double cpu_seconds() {
    return static_cast<double>(Bench::ProcessTimeUs()) / 1e6;
}

// Prints one line of the table for `units` of work since its construction.
class CMeasure {
public:
    CMeasure() : m_cpu(cpu_seconds()), m_start(CEpollPoller::Now()) {}
    void Print(const char* name, double units) const {
        const double wall = static_cast<double>(CEpollPoller::Now() - m_start) / 1e6;
        printf("%-58s %10.0f /s %9.3f us wall %9.3f us cpu\n", name, units / wall, wall / units * 1e6,
               (cpu_seconds() - m_cpu) / units * 1e6);
    }

private:
    double m_cpu;
    uint64_t m_start;
};

// A flag that one thread waits for.
class CGate {
public:
    void Open() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_open = true;
        m_changed.notify_one();
    }
    void Pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_open; });
        m_open = false;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

class CBouncer : public CNetHandler {
public:
    CBouncer(CGate& done, bool is_host) : m_done(done), m_is_host(is_host) {}
    int handle_message(long sender_id, unsigned int, long left) override {
        if (m_is_host || left == 0) {
            m_done.Open();
        } else {
            Notify(sender_id, 1, left - 1);
        }
        return 0;
    }

private:
    CGate& m_done;
    bool m_is_host;
};

void bench_messages() {
    CGate gate;
    {
        CBouncer one(gate, false), other(gate, false);
        const CMeasure measure;
        CReactor::Instance().Post(one.GetID(), other.GetID(), 1, 2L * ROUND_TRIPS);
        gate.Pass();
        measure.Print("Notify round trip of two handlers", ROUND_TRIPS);
        CNetThread::DestroyThreadPool();  // no callback runs any more
    }
    CNetThread::CreateThreadPool(2, false);
    {
        CBouncer handler(gate, true);
        const CMeasure measure;
        for (int i = 0; i < ROUND_TRIPS; ++i) {
            CReactor::Instance().Post(0, handler.GetID(), 1, 0);
            gate.Pass();
        }
        measure.Print("Notify round trip of a host's thread and a handler", ROUND_TRIPS);
        CNetThread::DestroyThreadPool();
    }
    CNetThread::CreateThreadPool(2, false);

    CGate gates[2];
    const CMeasure condition;
    std::thread peer([&gates] {
        for (int i = 0; i < ROUND_TRIPS; ++i) {
            gates[0].Pass();
            gates[1].Open();
        }
    });
    for (int i = 0; i < ROUND_TRIPS; ++i) {
        gates[0].Open();
        gates[1].Pass();
    }
    peer.join();
    condition.Print("  floor: condition variable round trip", ROUND_TRIPS);

    const int fds[2] = {eventfd(0, 0), eventfd(0, 0)};
    const CMeasure eventfds;
    uint64_t count = 1;
    std::thread echo([&fds] {
        uint64_t number = 0;
        for (int i = 0; i < ROUND_TRIPS && read(fds[0], &number, sizeof(number)) > 0; ++i) {
            if (write(fds[1], &number, sizeof(number)) < 0) {
                break;
            }
        }
    });
    for (int i = 0; i < ROUND_TRIPS; ++i) {
        if (write(fds[0], &count, sizeof(count)) < 0 || read(fds[1], &count, sizeof(count)) < 0) {
            break;
        }
    }
    echo.join();
    eventfds.Print("  floor: eventfd round trip", ROUND_TRIPS);
    close(fds[0]);
    close(fds[1]);
}

// Sockets on loopback ports, and one that sends to them in turn, at most WINDOW datagrams ahead of the receivers.
class CTraffic {
public:
    bool Open() {
        const CSockAddrIPv4 any("127.0.0.1", 0);
        for (int i = 0; i < SOCKS; ++i) {
            m_socks.push_back(std::make_unique<CSockDgram>());
            m_addrs.emplace_back();
            if (m_socks.back()->Open(&any) != 0 || m_socks.back()->GetLocalAddr(&m_addrs.back()) != 0) {
                return false;
            }
        }
        return m_sender.Open(nullptr) == 0;
    }
    std::vector<std::unique_ptr<CSockDgram>>& Socks() { return m_socks; }
    void Received() {
        if (m_received.fetch_add(1) + 1 == m_wanted.load()) {
            m_done.Open();
        }
    }
    void Run() {
        m_received.store(0);
        for (int sent = 0; sent < DATAGRAMS; sent += WINDOW) {
            m_wanted.store(sent + WINDOW);
            for (int i = sent; i < sent + WINDOW; ++i) {
                m_sender.Send("0123456789abcdef", 16, &m_addrs[static_cast<size_t>(i % SOCKS)]);
            }
            m_done.Pass();
        }
    }

private:
    std::vector<std::unique_ptr<CSockDgram>> m_socks;
    std::vector<CSockAddrStorage> m_addrs;
    CSockDgram m_sender;
    std::atomic<int> m_received{0};
    std::atomic<int> m_wanted{0};
    CGate m_done;
};

// One registered socket, or one timer.
class CReader : public CNetHandler {
public:
    CReader(CTraffic& traffic, CSockDgram& sock) : m_traffic(traffic), m_sock(sock) {}
    int Register(int64_t timeout_us) { return RegisterSock(m_sock, Kavio::Tramel::SOCK_EVENT_READ, timeout_us); }
    int Remove() { return RemoveSock(m_sock); }
    void StartTimer() { m_timer = SetTimer(QUIET_US); }
    void StopTimer() { DestroyTimer(m_timer); }
    int handle_input(int) override {
        char bytes[64];
        if (m_sock.Recv(bytes, sizeof(bytes), nullptr) > 0) {
            m_traffic.Received();
        }
        return 0;
    }
    int handle_input_timeout(int) override { return static_cast<int>(s_timeouts.fetch_add(1)); }
    int64_t handle_timeout(long) override { return s_timeouts.fetch_add(1); }

    static std::atomic<long> s_timeouts;

private:
    CTraffic& m_traffic;
    CSockDgram& m_sock;
    long m_timer = 0;
};

std::atomic<long> CReader::s_timeouts{0};

void bench_events_floor(CTraffic& traffic) {
    const int epoll_fd = epoll_create1(0);
    const int stop_fd = eventfd(0, 0);
    {
        const CMeasure measure;
        for (auto& sock : traffic.Socks()) {
            epoll_event event = {};
            event.events = EPOLLIN;
            event.data.fd = sock->GetHandle();
            epoll_ctl(epoll_fd, EPOLL_CTL_ADD, sock->GetHandle(), &event);
        }
        for (auto& sock : traffic.Socks()) {
            epoll_event event = {};
            epoll_ctl(epoll_fd, EPOLL_CTL_DEL, sock->GetHandle(), &event);
        }
        measure.Print("  floor: epoll_ctl add and delete", SOCKS);
    }
    for (auto& sock : traffic.Socks()) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = sock->GetHandle();
        epoll_ctl(epoll_fd, EPOLL_CTL_ADD, sock->GetHandle(), &event);
    }
    epoll_event stop = {};
    stop.events = EPOLLIN;
    stop.data.fd = stop_fd;
    epoll_ctl(epoll_fd, EPOLL_CTL_ADD, stop_fd, &stop);
    std::thread loop([&] {
        epoll_event events[64];
        char bytes[64];
        for (;;) {
            const int count = epoll_wait(epoll_fd, events, 64, -1);
            for (int i = 0; i < count; ++i) {
                if (events[i].data.fd == stop_fd) {
                    return;
                }
                if (recv(events[i].data.fd, bytes, sizeof(bytes), 0) > 0) {
                    traffic.Received();
                }
            }
        }
    });
    const CMeasure measure;
    traffic.Run();
    measure.Print("  floor: epoll_wait and recv in one thread", DATAGRAMS);
    const uint64_t one = 1;
    if (write(stop_fd, &one, sizeof(one)) > 0) {
        loop.join();
    }
    close(stop_fd);
    close(epoll_fd);
}

void bench_timers_floor() {
    const int epoll_fd = epoll_create1(0);
    std::vector<int> fds;
    const CMeasure measure;
    for (int i = 0; i < SOCKS; ++i) {
        fds.push_back(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK));
        itimerspec period = {};
        period.it_value.tv_nsec = period.it_interval.tv_nsec = QUIET_US * 1000;
        timerfd_settime(fds.back(), 0, &period, nullptr);
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fds.back();
        epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fds.back(), &event);
    }
    const uint64_t end = CEpollPoller::Now() + SILENCE_US;
    long fired = 0;
    while (CEpollPoller::Now() < end) {
        epoll_event events[64];
        const int count = epoll_wait(epoll_fd, events, 64, 100);
        for (int i = 0; i < count; ++i) {
            uint64_t number = 0;
            fired += read(events[i].data.fd, &number, sizeof(number)) > 0 ? 1 : 0;
        }
    }
    measure.Print("  floor: a timer descriptor each", static_cast<double>(fired));
    for (const int fd : fds) {
        close(fd);
    }
    close(epoll_fd);
}

void wait_silently(const char* name) {
    CReader::s_timeouts.store(0);
    const CMeasure measure;
    std::this_thread::sleep_for(std::chrono::microseconds(SILENCE_US));
    measure.Print(name, static_cast<double>(CReader::s_timeouts.load()));
}

int bench_socks() {
    CTraffic traffic;
    if (!traffic.Open()) {
        printf("no room for %d sockets: %s\n", SOCKS, strerror(errno));
        return 1;
    }
    std::vector<std::unique_ptr<CReader>> readers;
    for (auto& sock : traffic.Socks()) {
        readers.push_back(std::make_unique<CReader>(traffic, *sock));
    }
    {
        const CMeasure measure;
        for (auto& reader : readers) {
            reader->Register(60000000);
        }
        for (auto& reader : readers) {
            reader->Remove();
        }
        measure.Print("RegisterSock with a time-out and RemoveSock", SOCKS);
    }
    for (const int64_t timeout_us : {0L, 60000000L}) {
        for (auto& reader : readers) {
            reader->Register(timeout_us);
        }
        const CMeasure measure;
        traffic.Run();
        measure.Print(timeout_us == 0 ? "datagram to a handler, no time-out" : "datagram to a handler, time-out 60 s",
                      DATAGRAMS);
    }
    for (auto& reader : readers) {
        reader->Register(QUIET_US);
    }
    wait_silently("time-out of a silent socket");
    for (auto& reader : readers) {
        reader->Remove();
        reader->StartTimer();
    }
    wait_silently("timer");
    CNetThread::DestroyThreadPool();
    readers.clear();
    bench_events_floor(traffic);
    return 0;
}

}  // namespace

int main() {
    Bench::RaiseDescriptorLimit();
    Bench::PrintMachine();
    if (CNetThread::CreateThreadPool(2, false) != 0) {
        return 1;
    }
    bench_messages();
    const int result = bench_socks();
    bench_timers_floor();
    return result;
}
