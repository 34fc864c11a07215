#include "support/BareServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "support/BareFrame.h"
#include "support/BlockingPeer.h"
#include "support/Loopback.h"

namespace Bench {

namespace {

const int SEND_BUFFER = 204800;  // what a session of the server asks for
const int FRAMES_PER_SECOND = 25;

// The server in the child.
class CBareLoop {
public:
    CBareLoop(const Recording& recording, bool udp, int listener);
    [[noreturn]] void Run();

private:
    struct CPeer {
        int step = 0;
        int udp = -1;
    };

    void watch(int fd) const;
    void accept_one();
    void on_request(int fd);
    void close_peer(int fd);
    void start(int fd, CPeer& peer);
    void send_frame();
    std::string next_frame();

    const Recording& m_recording;
    const bool m_udp;
    const int m_listener;
    const int m_timer;
    const int m_epoll;
    size_t m_frame = 0;
    unsigned int m_sequence = 0;
    std::map<int, CPeer> m_peers;
    std::vector<int> m_players;
};

CBareLoop::CBareLoop(const Recording& recording, bool udp, int listener)
    : m_recording(recording),
      m_udp(udp),
      m_listener(listener),
      m_timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK)),
      m_epoll(::epoll_create1(0)) {
    itimerspec period = {};
    period.it_interval.tv_nsec = period.it_value.tv_nsec = 1000000000 / FRAMES_PER_SECOND;
    ::timerfd_settime(m_timer, 0, &period, nullptr);
    watch(m_listener);
    watch(m_timer);
}

void CBareLoop::watch(int fd) const {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event);
}

void CBareLoop::Run() {
    epoll_event events[64];
    while (true) {
        const int count = ::epoll_wait(m_epoll, events, 64, -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            if (fd == m_timer) {
                uint64_t ticks = 0;
                if (::read(m_timer, &ticks, sizeof(ticks)) > 0) {
                    send_frame();  // one, also when it is late
                }
            } else if (fd == m_listener) {
                accept_one();
            } else {
                on_request(fd);
            }
        }
    }
}

void CBareLoop::accept_one() {
    const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        return;
    }
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof(SEND_BUFFER));
    const int no_delay = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof(no_delay));
    watch(fd);
    m_peers[fd] = CPeer();
}

void CBareLoop::on_request(int fd) {
    char request[4096];
    const ssize_t got = ::recv(fd, request, sizeof(request) - 1, 0);
    if (got <= 0) {
        if (got == 0 || errno != EAGAIN) {
            close_peer(fd);
        }
        return;
    }
    request[got] = '\0';
    CPeer& peer = m_peers[fd];
    if (peer.step == DIALOGUE_STEPS) {
        return;
    }
    const char* port = m_udp && peer.step == 2 ? std::strstr(request, "client_port=") : nullptr;
    if (port != nullptr) {
        const sockaddr_in remote = loopback(static_cast<uint16_t>(std::atoi(port + 12)));
        peer.udp = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        ::connect(peer.udp, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote));
    }
    const std::string& reply = m_recording.replies[peer.step++];
    if (::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) {
        close_peer(fd);
    } else if (peer.step == DIALOGUE_STEPS) {
        m_players.push_back(m_udp ? peer.udp : fd);
    }
}

void CBareLoop::close_peer(int fd) {
    const int media = m_udp ? m_peers[fd].udp : fd;
    for (size_t i = 0; i < m_players.size(); ++i) {
        if (m_players[i] == media) {
            m_players[i] = m_players.back();
            m_players.pop_back();
            break;
        }
    }
    if (m_peers[fd].udp >= 0) {
        ::close(m_peers[fd].udp);
    }
    ::close(fd);
    m_peers.erase(fd);
}

void CBareLoop::send_frame() {
    if (m_players.empty()) {
        return;
    }
    CBareFrame frame(next_frame(), m_udp);
    if (m_udp) {
        for (int fd : m_players) {
            frame.SendUdp(fd);
        }
        return;
    }
    for (int fd : m_players) {
        const ssize_t written = frame.WriteTcp(fd);
        const bool gone = written < 0 && (errno == EPIPE || errno == ECONNRESET);
        if (!gone && written != static_cast<ssize_t>(frame.Bytes().size())) {
            std::fprintf(stderr, "the bare loop's peer is full: the machine is too busy to measure\n");
        }
    }
}

// With its own sequence numbers and time stamp (RFC 3550 5.1, 90 kHz).
std::string CBareLoop::next_frame() {
    std::string frame = m_recording.frames[m_frame % m_recording.frames.size()];
    const size_t time = m_frame++ * (90000 / FRAMES_PER_SECOND);
    const auto at = [&frame](size_t place) { return static_cast<unsigned char>(frame[place]); };
    for (size_t i = 0; i + 12 <= frame.size(); i += 4 + at(i + 2) * 256u + at(i + 3)) {
        frame[i + 6] = static_cast<char>(m_sequence >> 8);
        frame[i + 7] = static_cast<char>(m_sequence++);
        for (size_t k = 0; k < 4; ++k) {
            frame[i + 8 + k] = static_cast<char>(time >> (24 - 8 * k));
        }
    }
    return frame;
}

int open_listener(uint16_t* port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, SOMAXCONN) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("bare server");
        std::exit(1);
    }
    *port = ntohs(address.sin_port);
    return fd;
}

}  // namespace

Recording Record(uint16_t port, size_t frames) {
    Recording recording;
    CBlockingPeer peer(port);
    if (!peer.Play(CRtspDialogue(port, 0), recording.replies)) {
        return recording;
    }
    std::string frame;
    while (recording.frames.size() < frames && peer.Frame(frame)) {
        recording.frames.push_back(frame);
    }
    recording.good = recording.frames.size() == frames;
    return recording;
}

CBareServer::CBareServer(const Recording& recording, bool udp) {
    const int listener = open_listener(&m_port);
    std::fflush(nullptr);
    m_child = ::fork();
    if (m_child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::signal(SIGPIPE, SIG_IGN);  // the peers of a round may be gone before it is noticed
        CBareLoop(recording, udp, listener).Run();
    }
    ::close(listener);
}

CBareServer::~CBareServer() {
    ::kill(m_child, SIGKILL);
    ::waitpid(m_child, nullptr, 0);
}

}  // namespace Bench
