#include "support/Fleet.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>

#include "Vidora/Ostra/Base64.h"
#include "rendezvous/Rendezvous.h"
#include "support/Loopback.h"
#include "support/Machine.h"

namespace Bench {

namespace {

const size_t ROOM_SIZE = 256 * 1024;
const unsigned int DATAGRAMS = 32;  // of one system call
const size_t DATAGRAM_ROOM = 2048;
const int UDP_RECV_BUFFER = 1 << 20;
const int CONNECT_LIMIT_MS = 5000;
const char NAT_HELLO[] = "RTSP Client/2.0 NAT";
const char NAT_ANSWER[] = "RTSP Server/2.0 NAT";
const unsigned char FIRST_RTCP_TYPE = 192;  // on the one socket, of no RTP payload type with a marker (RFC 5761 4)
const unsigned char LAST_RTCP_TYPE = 223;
// As the library's client: hellos that keep the way open, each client's from its own beginning on, and requests that
// are sent again until they are answered.
const uint64_t HELLO_PERIOD_NS = 5000000000u;
const uint64_t REPEAT_PERIOD_NS = 1000000000u;
const uint64_t HELLO_CHECK_NS = 100000000u;
const int HELLO_CHECK_MS = 100;

uint64_t now_ns() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

int bound_udp(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_in address = loopback(port);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &UDP_RECV_BUFFER, sizeof(UDP_RECV_BUFFER));
    return fd;
}

const size_t CONTROL_ROOM = CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(timespec) * 3);

// When the system got what a message has brought, by the wall clock; 0 if it doesn't say.
uint64_t arrival_of(msghdr& message) {
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr; each = CMSG_NXTHDR(&message, each)) {
        timespec time = {};
        if (each->cmsg_level == SOL_SOCKET && each->cmsg_type == SCM_TIMESTAMPNS) {
            std::memcpy(&time, CMSG_DATA(each), sizeof(time));
            return static_cast<uint64_t>(time.tv_sec) * 1000000000u + static_cast<uint64_t>(time.tv_nsec);
        }
    }
    return 0;
}

uint64_t dropped_by(int fd) {
    uint32_t info[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof(info);
    return ::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &length) == 0 ? info[SK_MEMINFO_DROPS] : 0;
}

}  // namespace

CFleet::CFleet(FleetFigures& figures, uint16_t port_base, fleet_media_t media, fleet_link_t link)
    : m_figures(figures),
      m_port_base(port_base),
      m_media(media),
      m_link(link),
      m_epoll(::epoll_create1(EPOLL_CLOEXEC)),
      m_room(ROOM_SIZE) {}

CFleet::~CFleet() {
    Close();
    ::close(m_epoll);
}

void CFleet::Open(uint16_t port, unsigned int count, bool udp) {
    Close();
    m_udp = udp;
    m_server_port = port;
    m_next_udp = m_port_base;
    for (unsigned int i = 0; i < count; ++i) {
        m_clients.push_back(std::make_unique<CClient>());
    }
    m_start_ns = now_ns();
    for (unsigned int i = 0; i < WINDOW; ++i) {
        start_next();
    }
}

void CFleet::Close() {
    for (const auto& client : m_clients) {
        m_figures.drops += client->rtp >= 0 ? dropped_by(client->rtp) : 0;
        for (int fd : {client->control, client->post, client->rtp, client->rtcp}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    m_clients.clear();
    m_started = m_pending = 0;
    m_figures.up = m_figures.failed = 0;
}

void CFleet::Stamp(bool on) {
    m_stamps = on;
    const int value = on ? 1 : 0;
    for (const auto& client : m_clients) {
        const int fd = m_udp || m_link == FLEET_NAT ? client->rtp : client->control;
        ::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &value, sizeof(value));
        client->last_ns = 0;
    }
    std::vector<uint64_t> spreads;
    for (auto span = m_spans.begin(); span != m_spans.end(); ++span) {
        if (span != m_spans.begin() && std::next(span) != m_spans.end()) {  // those at the ends may be cut
            spreads.push_back(span->second.last_ns - span->second.first_ns);
        }
    }
    m_figures.spread_ns = Percentile(spreads, 0.99);
    m_figures.silence_ns = m_silence_ns;
    m_spans.clear();
    m_silence_ns = 0;
}

void CFleet::start_next() {
    while (m_started < m_clients.size()) {
        const unsigned int index = m_started++;
        ++m_pending;
        if (open_client(index)) {
            return;
        }
        end_setup(*m_clients[index], false);
    }
}

bool CFleet::open_client(unsigned int index) {
    CClient& client = *m_clients[index];
    if (m_link == FLEET_NAT) {
        return meet_server(client, index);
    }
    uint16_t rtp_port = 0;
    if (m_udp && !open_udp(client, &rtp_port)) {
        return false;
    }
    client.dialogue = CRtspDialogue(m_server_port, rtp_port);
    client.control = connect_to_server();
    if (client.control < 0) {
        return false;
    }
    watch(client.control, index, KIND_CONTROL);
    if (m_udp) {
        watch(client.rtp, index, KIND_RTP);
        watch(client.rtcp, index, KIND_RTCP);
    }
    if (m_link == FLEET_TUNNELS) {
        send_text(client, client.control, tunnel_head("GET", client));
    } else {
        send_request(client);
    }
    return true;
}

bool CFleet::meet_server(CClient& client, unsigned int index) {
    RendezvousOptions options;
    options.point = "127.0.0.1:" + std::to_string(m_server_port);
    options.name = NAT_NAME;
    PunchedSocket way;
    if (MeetPeer(options, way) < 0) {
        return false;
    }
    client.rtp = way.fd;
    client.dialogue = CRtspDialogue(m_server_port, 0);
    ::setsockopt(way.fd, SOL_SOCKET, SO_RCVBUF, &UDP_RECV_BUFFER, sizeof(UDP_RECV_BUFFER));
    const sockaddr_in peer = loopback(static_cast<uint16_t>(std::stoi(way.peer.substr(way.peer.rfind(':') + 1))));
    if (::connect(way.fd, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) != 0) {
        return false;
    }
    watch(client.rtp, index, KIND_RTP);
    client.hello_ns = now_ns();
    send_text(client, client.rtp, NAT_HELLO);
    send_request(client);
    return true;
}

// What the rendezvous has left on its way is passed over.
void CFleet::take_datagram(CClient& client, const unsigned char* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (text.substr(0, 4) != "RTSP") {
        const bool is_rtcp = size > 1 && data[1] >= FIRST_RTCP_TYPE && data[1] <= LAST_RTCP_TYPE;
        if (data[0] >> 6 == 2 && !is_rtcp) {
            count_packet(client, data, size);
        }
    } else if (text != NAT_ANSWER && !client.over) {
        client.text = text;
        on_reply(client);
    }
}

void CFleet::say_hello() {
    const uint64_t now = now_ns();
    if (m_link != FLEET_NAT || now - m_hello_ns < HELLO_CHECK_NS) {
        return;
    }
    m_hello_ns = now;
    for (const auto& client : m_clients) {
        const uint64_t period = client->over ? HELLO_PERIOD_NS : REPEAT_PERIOD_NS;
        if (client->rtp < 0 || now - client->hello_ns < period) {
            continue;
        }
        client->hello_ns = now;
        ::send(client->rtp, NAT_HELLO, sizeof(NAT_HELLO) - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (!client->over) {
            send_request(*client);
        }
    }
}

// Negative on failure.
int CFleet::connect_to_server() const {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int no_delay = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof(no_delay));
    const sockaddr_in address = loopback(m_server_port);
    // On loopback the connection stands at once, unless the kernel is behind with its packets.
    pollfd stands = {fd, POLLOUT, 0};
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
        (errno != EINPROGRESS || ::poll(&stands, 1, CONNECT_LIMIT_MS) != 1)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// A cookie that no other tunnel has: the round's clients are not those of the last round.
std::string CFleet::tunnel_head(const char* method, const CClient& client) const {
    return std::string(method) + " / HTTP/1.0\r\nx-sessioncookie: " + std::to_string(m_start_ns) + "-" +
           std::to_string(client.control) + "\r\n\r\n";
}

bool CFleet::open_udp(CClient& client, uint16_t* rtp_port) {
    for (; m_next_udp < 65000; m_next_udp = static_cast<uint16_t>(m_next_udp + 2)) {
        client.rtp = bound_udp(m_next_udp);
        client.rtcp = client.rtp < 0 ? -1 : bound_udp(static_cast<uint16_t>(m_next_udp + 1));
        if (client.rtcp >= 0) {
            *rtp_port = m_next_udp;
            m_next_udp = static_cast<uint16_t>(m_next_udp + 2);
            return true;
        }
        if (client.rtp >= 0) {
            ::close(client.rtp);
            client.rtp = -1;
        }
    }
    return false;
}

void CFleet::watch(int fd, unsigned int index, kind_t kind) const {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = static_cast<uint64_t>(index) << 2 | kind;
    ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event);
}

void CFleet::send_request(CClient& client) {
    const std::string text = client.dialogue.Request();
    if (m_link != FLEET_TUNNELS) {
        send_text(client, m_link == FLEET_NAT ? client.rtp : client.control, text);
        return;
    }
    const int length = static_cast<int>(text.size());
    std::string encoded(static_cast<size_t>(Kavio::Ostra::base64EncodeLen(length)), '\0');
    Kavio::Ostra::base64Encode(&encoded[0], text.data(), length);
    encoded.pop_back();  // the NUL
    send_text(client, client.post, encoded);
}

void CFleet::send_text(CClient& client, int fd, const std::string& text) {
    if (::send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
        end_setup(client, false);
    }
}

void CFleet::end_setup(CClient& client, bool good) {
    if (client.over) {
        return;
    }
    client.over = true;
    --m_pending;
    m_figures.setup_ns = now_ns() - m_start_ns;
    ++(good ? m_figures.up : m_figures.failed);
}

void CFleet::Run(int wake_fd) {
    watch(wake_fd, 0, KIND_WAKE);
    epoll_event events[256];
    for (bool woken = false; !woken;) {
        const int count = ::epoll_wait(m_epoll, events, 256, m_link == FLEET_NAT ? HELLO_CHECK_MS : -1);
        say_hello();
        for (int i = 0; i < count; ++i) {
            const kind_t kind = static_cast<kind_t>(events[i].data.u64 & 3);
            CClient* client = kind == KIND_WAKE ? nullptr : m_clients[events[i].data.u64 >> 2].get();
            if (kind == KIND_WAKE) {
                woken = true;
            } else if (kind == KIND_CONTROL) {
                on_control(*client);
            } else if (kind == KIND_RTP) {
                on_rtp(*client);
            } else {
                ::recv(client->rtcp, m_room.data(), m_room.size(), 0);
            }
        }
        while (m_pending < WINDOW && m_started < m_clients.size()) {
            start_next();
        }
        m_figures.packets += m_packets;
        m_figures.bytes += m_bytes;
        m_packets = m_bytes = 0;
    }
    ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, wake_fd, nullptr);
}

// As recv. Of several packets in one read the last one's arrival counts.
ssize_t CFleet::receive(int fd) {
    if (!m_stamps) {
        return ::recv(fd, m_room.data(), m_room.size(), 0);
    }
    alignas(cmsghdr) char control[CONTROL_ROOM];
    iovec part = {m_room.data(), m_room.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t got = ::recvmsg(fd, &message, 0);
    m_arrival_ns = arrival_of(message);
    return got;
}

void CFleet::on_control(CClient& client) {
    ssize_t got = 0;
    do {
        got = receive(client.control);
        if (got > 0) {
            on_media(client, m_room.data(), static_cast<size_t>(got));
        }
    } while (got == static_cast<ssize_t>(m_room.size()));
    if (got == 0 || (got < 0 && errno != EAGAIN)) {
        if (client.over) {
            --m_figures.up;
            ++m_figures.failed;
        }
        end_setup(client, false);
        ::close(client.control);
        client.control = -1;
    }
}

void CFleet::on_media(CClient& client, const unsigned char* data, size_t size) {
    if (m_media == FLEET_DISCARDS && client.over) {
        m_bytes += size;
    } else {
        take_bytes(client, data, size);
    }
}

// Replies and interleaved packets (RFC 2326 10.12), cut anywhere.
void CFleet::take_bytes(CClient& client, const unsigned char* data, size_t size) {
    size_t at = 0;
    while (at < size) {
        if (client.skip > 0) {
            const size_t step = std::min<size_t>(client.skip, size - at);
            client.skip -= static_cast<unsigned int>(step);
            at += step;
        } else if (client.head_size == 0 && (data[at] != '$' || !client.text.empty())) {
            at += take_text(client, data + at, size - at);
        } else {
            const size_t step = std::min<size_t>(HEAD_SIZE - client.head_size, size - at);
            std::memcpy(client.head + client.head_size, data + at, step);
            client.head_size += static_cast<unsigned int>(step);
            at += step;
            if (client.head_size == HEAD_SIZE) {
                const unsigned int length = client.head[2] * 256u + client.head[3];
                if (client.head[1] % 2 == 0) {
                    count_packet(client, client.head + 4, length);
                }
                client.skip = length - (HEAD_SIZE - 4);
                client.head_size = 0;
            }
        }
    }
}

// Bytes taken: up to the end of a reply, or all.
size_t CFleet::take_text(CClient& client, const unsigned char* data, size_t size) {
    const size_t before = client.text.size();
    client.text.append(reinterpret_cast<const char*>(data), size);
    const size_t whole = CRtspDialogue::ReplySize(client.text);
    if (whole == 0) {
        return size;
    }
    client.text.resize(whole);
    if (!client.over) {
        on_reply(client);
    }
    client.text.clear();
    return whole - before;
}

void CFleet::on_reply(CClient& client) {
    if (m_link == FLEET_TUNNELS && client.post < 0) {
        client.post = connect_to_server();  // the GET was answered
        send_text(client, client.post, tunnel_head("POST", client));
        send_request(client);
    } else if (!client.dialogue.Take(client.text)) {
        end_setup(client, false);
    } else if (client.dialogue.Done()) {
        end_setup(client, true);
    } else {
        send_request(client);
    }
}

void CFleet::on_rtp(CClient& client) {
    mmsghdr messages[DATAGRAMS] = {};
    iovec parts[DATAGRAMS];
    alignas(cmsghdr) char controls[DATAGRAMS][CONTROL_ROOM];
    for (unsigned int i = 0; i < DATAGRAMS; ++i) {
        messages[i].msg_hdr.msg_control = m_stamps ? controls[i] : nullptr;
        messages[i].msg_hdr.msg_controllen = m_stamps ? CONTROL_ROOM : 0;
        parts[i] = {m_room.data() + i * DATAGRAM_ROOM, DATAGRAM_ROOM};
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = ::recvmmsg(client.rtp, messages, DATAGRAMS, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < count; ++i) {
        m_arrival_ns = m_stamps ? arrival_of(messages[i].msg_hdr) : 0;
        if (m_link == FLEET_NAT) {
            take_datagram(client, static_cast<const unsigned char*>(parts[i].iov_base), messages[i].msg_len);
        } else if (m_media == FLEET_DISCARDS) {
            m_bytes += messages[i].msg_len;
        } else {
            count_packet(client, static_cast<const unsigned char*>(parts[i].iov_base), messages[i].msg_len);
        }
    }
}

void CFleet::count_packet(CClient& client, const unsigned char* rtp, uint64_t size) {
    const int sequence = rtp[2] * 256 + rtp[3];
    if (client.last_sequence >= 0 && sequence != ((client.last_sequence + 1) & 0xffff)) {
        ++m_figures.gaps;
    }
    client.last_sequence = sequence;
    ++m_packets;
    m_bytes += size;
    if (m_stamps && m_arrival_ns != 0) {
        note_arrival(client, rtp);
    }
}

void CFleet::note_arrival(CClient& client, const unsigned char* rtp) {
    const uint64_t now = m_arrival_ns;
    if (client.last_ns != 0 && now > client.last_ns) {
        m_silence_ns = std::max(m_silence_ns, now - client.last_ns);
    }
    client.last_ns = now;
    uint32_t time = 0;
    std::memcpy(&time, rtp + 4, sizeof(time));
    CSpan& span = m_spans.emplace(ntohl(time), CSpan{now, now}).first->second;
    span.first_ns = std::min(span.first_ns, now);
    span.last_ns = std::max(span.last_ns, now);
}

}  // namespace Bench
