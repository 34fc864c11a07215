#include "support/Players.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Bench {

namespace {

const int UDP_RECV_BUFFER = 1 << 20;

sockaddr_in loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// Sends one request and reads its reply, byte by byte so that no media is swallowed; the head, or "" unless it is 200.
std::string ask(int fd, const std::string& request) {
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        return std::string();
    }
    std::string head;
    char c;
    while (head.size() < 4096 && head.find("\r\n\r\n") == std::string::npos) {
        if (::recv(fd, &c, 1, 0) != 1) {
            return std::string();
        }
        head += c;
    }
    const size_t length = head.find("Content-Length: ");
    for (int left = length == std::string::npos ? 0 : std::atoi(head.c_str() + length + 16); left > 0; --left) {
        if (::recv(fd, &c, 1, 0) != 1) {
            return std::string();
        }
    }
    return head.compare(0, 12, "RTSP/1.0 200") == 0 ? head : std::string();
}

void watch(int epoll, int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
}

// An RTP port whose upper neighbour this process doesn't need.
int udp_socket(int* port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &UDP_RECV_BUFFER, sizeof(UDP_RECV_BUFFER));
    *port = ntohs(address.sin_port);
    return fd;
}

bool play_one(int port, const std::string& content, bool udp, int epoll) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return false;
    }
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/" + content;
    std::string transport = "RTP/AVP/TCP;unicast;interleaved=0-1";
    if (udp) {
        int rtp_port = 0;
        watch(epoll, udp_socket(&rtp_port));
        transport = "RTP/AVP;unicast;client_port=" + std::to_string(rtp_port) + "-" + std::to_string(rtp_port + 1);
    }
    if (ask(fd, "DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 1\r\n\r\n").empty()) {
        return false;
    }
    const std::string head =
        ask(fd, "SETUP " + url + "/trackID=0 RTSP/1.0\r\nCSeq: 2\r\nTransport: " + transport + "\r\n\r\n");
    const size_t session = head.find("\r\nSession: ");
    if (session == std::string::npos) {
        return false;
    }
    const std::string id = head.substr(session + 11, head.find(';', session) - session - 11);
    if (ask(fd, "PLAY " + url + " RTSP/1.0\r\nCSeq: 3\r\nSession: " + id + "\r\n\r\n").empty()) {
        return false;
    }
    watch(epoll, fd);
    return true;
}

}  // namespace

CPlayers::CPlayers() {
    void* shared = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int ends[2];
    if (shared == MAP_FAILED || ::pipe(ends) != 0) {
        std::perror("players");
        std::exit(1);
    }
    m_shared = new (shared) Shared;
    m_child = ::fork();
    if (m_child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(ends[1]);
        run(ends[0]);
    }
    ::close(ends[0]);
    m_pipe = ends[1];
}

CPlayers::~CPlayers() {
    Stop();
    ::munmap(m_shared, sizeof(Shared));
}

void CPlayers::Stop() {
    if (m_child > 0) {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
        ::close(m_pipe);
        m_child = -1;
    }
}

bool CPlayers::Play(int port, const std::string& content, unsigned int count, bool udp) {
    Command command = {};
    command.port = port;
    command.count = count;
    command.udp = udp ? 1 : 0;
    std::snprintf(command.content, sizeof(command.content), "%s", content.c_str());
    if (::write(m_pipe, &command, sizeof(command)) != sizeof(command)) {
        return false;
    }
    while (m_shared->playing == 0) {
        ::usleep(1000);
    }
    return m_shared->playing > 0;
}

void CPlayers::run(int pipe_fd) {
    Command command;
    if (::read(pipe_fd, &command, sizeof(command)) != sizeof(command)) {
        std::_Exit(0);
    }
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    bool all = true;
    for (unsigned int i = 0; i < command.count && all; ++i) {
        all = play_one(command.port, command.content, command.udp != 0, epoll);
    }
    m_shared->playing = all ? 1 : -1;
    static char room[1 << 20];
    epoll_event events[256];
    while (true) {
        const int count = ::epoll_wait(epoll, events, 256, -1);
        uint64_t bytes = 0;
        for (int i = 0; i < count; ++i) {
            ssize_t got;
            while ((got = ::recv(events[i].data.fd, room, sizeof(room), MSG_TRUNC)) > 0) {
                bytes += static_cast<uint64_t>(got);
            }
            if (got == 0) {
                ::close(events[i].data.fd);
            }
        }
        m_shared->bytes += bytes;
    }
}

uint64_t ResidentBytes() {
    std::FILE* file = std::fopen("/proc/self/status", "r");
    char line[256];
    unsigned long long kilobytes = 0;
    while (file != nullptr && std::fgets(line, sizeof(line), file) != nullptr) {
        if (std::sscanf(line, "RssAnon: %llu", &kilobytes) == 1) {
            break;
        }
    }
    if (file != nullptr) {
        std::fclose(file);
    }
    return kilobytes * 1024;
}

}  // namespace Bench
