// Whole sessions: memory of one that plays, and processor time per gigabit against a bare loop.
//
// Clients in child processes DESCRIBE, SETUP and PLAY one live H.264 channel at 25 frames a second and discard what
// arrives. Memory: growth of this process's anonymous resident memory from 20 playing sessions to 20 + N, divided by N;
// the first ones bring in what all share. Processor time: of this process, user and system, per gigabit that arrived at
// the clients; in turns of 0.4 s with the bare loop, which sends the same amount to as many sockets of another child
// (one writev a TCP client, one sendmmsg with segmentation offload a UDP client) at the same rate.
//
//   bench_server [--seconds S] [--threads T] [--clients N]

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Tramel/SockDgram.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/RtspSvr.h"
#include "Vidora/RtspSvrConfig.h"
#include "support/Drain.h"
#include "support/FakeStreamSource.h"
#include "support/FrameBuilder.h"
#include "support/Players.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using Clock = std::chrono::steady_clock;
using Support::CFakeStreamSource;

namespace {

const char CONTENT[] = "cam/realmonitor?channel=1&subtype=0";
const int FRAMES_PER_SECOND = 25;
const unsigned int KEY_PERIOD = 50;
const unsigned int PICTURE_SIZE = 10000;  // bytes: 2 Mbit/s
const size_t PACKET_SIZE = 1452;
const int SEND_BUFFER = 204800;  // what a session asks for

unsigned int g_number = 0;

// One frame at the camera's rate for each call of `send`.
template <typename Send>
void run(double seconds, Send send) {
    const int count = static_cast<int>(seconds * FRAMES_PER_SECOND);
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(1000000 / FRAMES_PER_SECOND) * i);
        send();
    }
}

void give_frame() {
    Support::FrameSpec spec;
    const bool key = g_number % KEY_PERIOD == 0;
    spec.type = key ? 'I' : 'P';
    spec.sequence = ++g_number;
    spec.pts_ms = g_number * 40;
    spec.payload = Support::H264Picture(key, PICTURE_SIZE, 7);
    CFakeStreamSource::Last()->Give(Support::BuildFrame(spec));
}

// What the bare loops send: a picture in packets with their interleave headers.
std::string merged_frame() {
    std::string frame;
    for (size_t left = PICTURE_SIZE; left > 0;) {
        const size_t size = std::min(left, PACKET_SIZE);
        frame += std::string("$\0", 2);
        frame += static_cast<char>(size >> 8);
        frame += static_cast<char>(size);
        frame.append(size, 'm');
        left -= size;
    }
    return frame;
}

// One writev for each TCP client; one sendmmsg, cut by the kernel, for each UDP client.
class CBareLoop {
public:
    CBareLoop(const Bench::CDrain& drain, unsigned int clients, bool udp) : m_udp(udp), m_frame(merged_frame()) {
        for (unsigned int i = 0; i < clients; ++i) {
            m_fds.push_back(udp ? udp_socket(drain.UdpPorts()[i]) : drain.Connect(SEND_BUFFER));
        }
    }
    ~CBareLoop() {
        for (const int fd : m_fds) {
            ::close(fd);
        }
    }
    void Send() {
        std::string copy = m_frame;  // a source makes each frame anew
        m_udp ? send_udp(copy) : send_tcp(copy);
    }

private:
    static int udp_socket(uint16_t port) {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        return fd;
    }
    void send_tcp(std::string& frame) {
        for (const int fd : m_fds) {
            const iovec part = {&frame[0], frame.size()};
            if (::writev(fd, &part, 1) < 0) {
                std::perror("writev");
            }
        }
    }
    void send_udp(std::string& frame) {
        iovec parts[64];
        unsigned int count = 0;
        for (size_t at = 0; at < frame.size(); at += 4 + PACKET_SIZE) {
            parts[count++] = {&frame[at + 4], std::min(PACKET_SIZE, frame.size() - at - 4)};
        }
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(uint16_t))] = {};
        mmsghdr message = {};
        message.msg_hdr.msg_iov = parts;
        message.msg_hdr.msg_iovlen = count;
        message.msg_hdr.msg_control = control;
        message.msg_hdr.msg_controllen = sizeof(control);
        cmsghdr* header = CMSG_FIRSTHDR(&message.msg_hdr);
        header->cmsg_level = SOL_UDP;
        header->cmsg_type = UDP_SEGMENT;
        header->cmsg_len = CMSG_LEN(sizeof(uint16_t));
        const uint16_t segment = PACKET_SIZE;
        std::memcpy(CMSG_DATA(header), &segment, sizeof(segment));
        for (const int fd : m_fds) {
            if (::sendmmsg(fd, &message, 1, MSG_DONTWAIT) != 1) {
                std::perror("sendmmsg");
            }
        }
    }

    bool m_udp;
    std::string m_frame;
    std::vector<int> m_fds;
};

double per_gigabit(uint64_t cpu_us, uint64_t bytes) {
    return static_cast<double>(cpu_us) / 1000 / (static_cast<double>(bytes) * 8 / 1e9);
}

// Whether all sessions but `left` have ended.
void wait_for_sessions(unsigned int left) {
    while (CRtspSvr::GetSessionCount() > left) {
        ::usleep(10000);
    }
}

void measure(Bench::CPlayers& warm, Bench::CPlayers& players, const Bench::CDrain& drain, int port,
             unsigned int clients, bool udp, double seconds) {
    // What the first session brings in (code pages, pools, buffers) isn't the price of an added one.
    if (!warm.Play(port, CONTENT, 20, udp)) {
        std::fprintf(stderr, "a client was refused\n");
        std::exit(1);
    }
    run(2, give_frame);
    const uint64_t resident = Bench::ResidentBytes();
    if (!players.Play(port, CONTENT, clients, udp)) {
        std::fprintf(stderr, "a client was refused\n");
        std::exit(1);
    }
    run(4, give_frame);
    const double each = static_cast<double>(Bench::ResidentBytes() - resident) / clients / 1024;
    warm.Stop();
    wait_for_sessions(clients);

    CBareLoop bare(drain, clients, udp);
    uint64_t cpu[2] = {}, bytes[2] = {};
    run(1, [&] { bare.Send(); });
    for (double done = 0; done < seconds; done += 0.4) {  // in turn, so that what else the machine does hits both
        drain.Settle();
        uint64_t before = Bench::ProcessTimeUs();
        uint64_t arrived = players.Bytes();
        run(0.4, give_frame);
        ::usleep(50000);
        cpu[0] += Bench::ProcessTimeUs() - before;
        bytes[0] += players.Bytes() - arrived;
        before = Bench::ProcessTimeUs();
        arrived = drain.Bytes();
        run(0.4, [&] { bare.Send(); });
        cpu[1] += Bench::ProcessTimeUs() - before;
        drain.Settle();
        bytes[1] += drain.Bytes() - arrived;
    }
    const double cost = per_gigabit(cpu[0], bytes[0]);
    const double floor = per_gigabit(cpu[1], bytes[1]);
    std::printf("%s, %5u clients: %6.1f kB resident a session; CPU ms/Gbit %7.1f, bare loop %7.1f, ratio %.2f\n",
                udp ? "UDP" : "TCP", clients, each, cost, floor, cost / floor);
    std::fflush(stdout);
    players.Stop();
    wait_for_sessions(0);
}

CRtspSvr* start_server(int port, CLiveSvr* live_svr) {
    CRtspSvrConfig config;
    config.SetConfig(RTSP_SVR_CONFIG_SRC_FUNC, reinterpret_cast<const void*>(&CFakeStreamSource::Factory),
                     sizeof(&CFakeStreamSource::Factory));
    CFakeStreamSource::SetNext(CFakeStreamSource::LiveVideo());
    CLiveChannel* channel = CLiveChannel::Create();
    channel->Init(CONTENT, 0, TRANSF_TYPE_RTP);
    CDataSource* source = CDataSource::Create(CONTENT);
    source->SetConfig(config);
    source->Init(channel->GetID(), 0);
    channel->AddDataSrc(source, 0);
    live_svr->AddLiveChannel(CONTENT, channel, source);
    CSockAddrStorage address("127.0.0.1", static_cast<unsigned short>(port));
    CRtspSvr* svr = CRtspSvr::Create(address);
    if (svr != nullptr) {
        svr->SetLiveSvr(live_svr);
        svr->SetConfig(config);
    }
    return svr;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 8;
    unsigned int threads = 2;
    std::vector<unsigned int> counts = {100, 500};
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string word = argv[i];
        if (word == "--seconds") {
            seconds = std::atof(argv[i + 1]);
        } else if (word == "--threads") {
            threads = static_cast<unsigned int>(std::atoi(argv[i + 1]));
        } else if (word == "--clients") {
            counts = {static_cast<unsigned int>(std::atoi(argv[i + 1]))};
        }
    }
    Bench::RaiseDescriptorLimit();
    Ostra::SetLogLevel(Ostra::LOG_LEVEL_NONE);
    std::vector<std::unique_ptr<Bench::CPlayers>> players;
    for (size_t i = 0; i < counts.size() * 4; ++i) {
        players.push_back(std::make_unique<Bench::CPlayers>());
    }
    const Bench::CDrain drain(*std::max_element(counts.begin(), counts.end()));
    Bench::PrintMachine();
    std::printf("%u pool threads, %d frames a second of %u bytes\n", threads, FRAMES_PER_SECOND, PICTURE_SIZE);
    const int port = 8554;
    CLiveSvr* live_svr = nullptr;
    CRtspSvr* svr = nullptr;
    if (CNetThread::CreateThreadPool(threads, false) != 0 || (live_svr = CLiveSvr::Create(0)) == nullptr ||
        (svr = start_server(port, live_svr)) == nullptr) {
        std::fprintf(stderr, "no server\n");
        return 1;
    }
    size_t next = 0;
    for (const unsigned int clients : counts) {
        for (const bool udp : {false, true}) {
            measure(*players[next], *players[next + 1], drain, port, clients, udp, seconds);
            next += 2;
        }
    }
    svr->Close();
    live_svr->Close();
    CNetThread::DestroyThreadPool();
    return 0;
}
