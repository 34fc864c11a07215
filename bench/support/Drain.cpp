#include "support/Drain.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

#include "support/Loopback.h"
#include "support/Machine.h"

namespace Bench {

namespace {

const int UDP_RECV_BUFFER = 1 << 20;
const int MAX_EVENTS = 1024;
// Between two looks at the sockets. The child never sleeps on them, so that no sending system call pays for waking it,
// as none does where the clients are other machines.
const std::chrono::milliseconds PAUSE(4);

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

int bound_socket(int type, uint16_t* port) {
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        die("bind");
    }
    *port = ntohs(address.sin_port);
    return fd;
}

void watch(int epoll, int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
        die("epoll_ctl");
    }
}

}  // namespace

CDrain::CDrain(unsigned int udp_count) {
    void* shared = ::mmap(nullptr, sizeof(CShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        die("mmap");
    }
    m_shared = new (shared) CShared;
    const int listener = bound_socket(SOCK_STREAM, &m_tcp_port);
    std::vector<int> udp(udp_count);
    m_udp_ports.resize(udp_count);
    for (unsigned int i = 0; i < udp_count; ++i) {
        udp[i] = bound_socket(SOCK_DGRAM, &m_udp_ports[i]);
        ::setsockopt(udp[i], SOL_SOCKET, SO_RCVBUF, &UDP_RECV_BUFFER, sizeof(UDP_RECV_BUFFER));
    }
    if (::listen(listener, SOMAXCONN) != 0 || (m_child = ::fork()) < 0) {
        die("listen or fork");
    }
    if (m_child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        run(listener, udp);
    }
    ::close(listener);
    for (int fd : udp) {
        ::close(fd);
    }
}

CDrain::~CDrain() {
    ::kill(m_child, SIGKILL);
    ::waitpid(m_child, nullptr, 0);
    ::munmap(m_shared, sizeof(CShared));
}

void CDrain::run(int listener, const std::vector<int>& udp) const {
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    watch(epoll, listener);
    for (int fd : udp) {
        watch(epoll, fd);
    }
    static char room[1 << 20];
    epoll_event events[MAX_EVENTS];
    while (true) {
        const int count = ::epoll_wait(epoll, events, MAX_EVENTS, 0);
        if (count < MAX_EVENTS) {
            std::this_thread::sleep_for(PAUSE);
        }
        uint64_t bytes = 0;
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            if (fd == listener) {
                const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (accepted >= 0) {
                    watch(epoll, accepted);
                }
                continue;
            }
            ssize_t got;
            while ((got = ::recv(fd, room, sizeof(room), MSG_TRUNC)) > 0) {
                bytes += static_cast<uint64_t>(got);
            }
            if (got == 0 && std::find(udp.begin(), udp.end(), fd) == udp.end()) {
                ::close(fd);
            }
        }
        m_shared->bytes += bytes;
        m_shared->cpu_us = ProcessTimeUs();
    }
}

int CDrain::Connect(int send_buffer) const {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(m_tcp_port);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, sizeof(send_buffer));
    const int no_delay = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof(no_delay));
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
        die("connect");
    }
    return fd;
}

void CDrain::Settle() const {
    uint64_t last = ~0ULL;
    for (uint64_t now = Bytes(); now != last; now = Bytes()) {
        last = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace Bench
