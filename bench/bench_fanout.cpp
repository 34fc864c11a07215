// Fan-out of one source to many clients. README.md says how it measures.
//
//   bench_fanout [--seconds S] [--threads T] [--clients N] [--tcp | --udp]

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Tramel/MediaStreamSender.h"
#include "Tramel/PooledSink.h"
#include "Tramel/SinkEntry.h"
#include "Tramel/SockDgram.h"
#include "Tramel/SockStream.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "Vidora/Tramel/MediaPacket.h"
#include "Vidora/Tramel/NetThread.h"
#include "support/Drain.h"
#include "support/Machine.h"

using namespace Kavio::Tramel;
using Clock = std::chrono::steady_clock;

namespace {

const int FRAMES_PER_SECOND = 25;
const int FRAMES_PER_SLICE = 10;
const size_t PACKET_SIZE = 1452;
const size_t FRAME_PAYLOAD = 10000;
const int SEND_BUFFER = 204800;  // what a session asks for
const unsigned int KEY_PERIOD = 50;

// A merged frame: RTP packets behind their interleave headers.
std::string make_frame() {
    std::string frame;
    for (size_t left = FRAME_PAYLOAD; left > 0;) {
        const size_t size = left < PACKET_SIZE ? left : PACKET_SIZE;
        frame += '$';
        frame += '\0';
        frame += static_cast<char>(size >> 8);
        frame += static_cast<char>(size & 0xff);
        frame.append(size, 'm');
        left -= size;
    }
    return frame;
}

class CFramePacket : public CMediaPacket {
public:
    explicit CFramePacket(const std::string& bytes) : m_bytes(bytes) {
        std::lock_guard<std::mutex> guard(s_mutex);
        ++s_alive;
    }
    ~CFramePacket() override {
        std::lock_guard<std::mutex> guard(s_mutex);
        if (--s_alive == 0) {
            s_none.notify_all();
        }
    }
    unsigned char* GetData() override { return reinterpret_cast<unsigned char*>(&m_bytes[0]); }
    static void WaitForNone() {
        std::unique_lock<std::mutex> lock(s_mutex);
        s_none.wait(lock, [] { return s_alive == 0; });
    }

private:
    static std::mutex s_mutex;
    static std::condition_variable s_none;
    static int s_alive;
    std::string m_bytes;
};
std::mutex CFramePacket::s_mutex;
std::condition_variable CFramePacket::s_none;
int CFramePacket::s_alive = 0;

// One way to send a frame to all clients.
struct CWay {
    virtual ~CWay() = default;
    virtual const char* Name() const = 0;
    virtual void Send(unsigned int number) = 0;
    // Waits until what was sent has left.
    virtual void Finish() {}

    uint64_t cpu_us = 0;
    uint64_t bytes = 0;
    double seconds = 0;
    std::vector<uint64_t> send_ns;
    std::vector<double> slice_cost;  // processor time per byte of each slice
};

// The floor: one thread that writes the frame to one socket after another.
class CBareWritev : public CWay {
public:
    CBareWritev(const Bench::CDrain& drain, unsigned int clients, const std::string& frame) : m_frame(frame) {
        for (unsigned int i = 0; i < clients; ++i) {
            m_fds.push_back(drain.Connect(SEND_BUFFER));
        }
    }
    ~CBareWritev() override {
        for (int fd : m_fds) {
            ::close(fd);
        }
    }
    const char* Name() const override { return "bare writev loop"; }
    void Send(unsigned int) override {
        std::string copy = m_frame;  // a source makes each frame anew
        for (int fd : m_fds) {
            const iovec part = {&copy[0], copy.size()};
            if (::writev(fd, &part, 1) < 0) {
                std::perror("writev");
            }
        }
    }

private:
    std::string m_frame;
    std::vector<int> m_fds;
};

class CBufferWay : public CWay {
public:
    explicit CBufferWay(const std::string& frame) : m_frame(frame) { m_buffer.EnableAutoSend(); }
    void Send(unsigned int number) override {
        m_buffer.Put(new CFramePacket(m_frame), static_cast<int>(m_frame.size()), 1, number % KEY_PERIOD == 0 ? 1 : 5);
    }
    void Finish() override { CFramePacket::WaitForNone(); }

protected:
    CMediaBuffer m_buffer;

private:
    std::string m_frame;
};

// The library's way on TCP.
class CBufferTcp : public CBufferWay {
public:
    CBufferTcp(const Bench::CDrain& drain, unsigned int clients, const std::string& frame) : CBufferWay(frame) {
        for (unsigned int i = 0; i < clients; ++i) {
            m_socks.push_back(std::make_unique<CSockStream>());
            m_socks.back()->Attach(drain.Connect(SEND_BUFFER));
            m_senders.push_back(CMediaStreamSender::Create());
            m_senders.back()->Attach(m_socks.back().get());
            m_senders.back()->SetSendTimeout(60);
            m_buffer.AddSender(m_senders.back());
        }
    }
    ~CBufferTcp() override {
        for (CMediaStreamSender* sender : m_senders) {
            m_buffer.DelSender(sender);
            sender->Close();
        }
    }
    const char* Name() const override { return "CMediaBuffer, CMediaStreamSender"; }

private:
    std::vector<std::unique_ptr<CSockStream>> m_socks;
    std::vector<CMediaStreamSender*> m_senders;
};

std::unique_ptr<CSockDgram> connected_dgram(uint16_t port) {
    auto sock = std::make_unique<CSockDgram>();
    const CSockAddrIPv4 local("127.0.0.1", 0);
    const CSockAddrIPv4 remote("127.0.0.1", port);
    if (sock->Open(&local) != 0 || sock->SetRemote(&remote) != 0) {
        std::perror("udp");
        std::exit(1);
    }
    return sock;
}

// How a sink of the library's way on UDP sends.
enum udp_way_t {
    UDP_OUTLETS,  // it leaves its socket in its entry, as the server's do
    UDP_MERGED,
    UDP_PACKETS
};

// The library's way on UDP.
class CBufferUdp : public CBufferWay {
public:
    CBufferUdp(const Bench::CDrain& drain, unsigned int clients, const std::string& frame, udp_way_t way)
        : CBufferWay(frame), m_way(way) {
        for (unsigned int i = 0; i < clients; ++i) {
            m_sinks.push_back(std::make_unique<CSink>(connected_dgram(drain.UdpPorts()[i]), way));
            m_buffer.AddLevel2Buffer(m_sinks.back().get());
        }
    }
    ~CBufferUdp() override {
        for (const auto& sink : m_sinks) {
            m_buffer.DelLevel2Buffer(sink.get());
        }
    }
    const char* Name() const override {
        static const char* const names[] = {"CMediaBuffer, outlets", "CMediaBuffer, SendMerged",
                                            "CMediaBuffer, Send a packet"};
        return names[m_way];
    }

private:
    struct CSink : CPooledSink {
        CSink(std::unique_ptr<CSockDgram> socket, udp_way_t udp_way) : sock(std::move(socket)), way(udp_way) {}
        void EnterPlace(CSinkEntry& entry) override {
            const CTurnGuard turn(entry.turn);
            entry.slots = UINT16_MAX;
            entry.outlets[0] = {sock->GetHandle(), static_cast<uint16_t>(sock->MaxSegment()), 0};
            entry.outlet_count = way == UDP_OUTLETS ? 1 : 0;
        }
        int Put(CMediaPacket* packet, int length, int, int) override {
            const unsigned char* data = packet->GetData();
            const unsigned int size = static_cast<unsigned int>(length);
            if (way != UDP_PACKETS) {
                return sock->SendMerged(data, size);
            }
            for (unsigned int at = 0; at + 4 <= size;) {
                const unsigned int packet_size = data[at + 2] * 256u + data[at + 3];
                sock->Send(reinterpret_cast<const char*>(data) + at + 4, packet_size, nullptr);
                at += 4 + packet_size;
            }
            return length;
        }
        std::unique_ptr<CSockDgram> sock;
        udp_way_t way;
    };
    std::vector<std::unique_ptr<CSink>> m_sinks;
    udp_way_t m_way;
};

// The floor on UDP: one sendmmsg a client with a vector that is laid out once, cut by the kernel.
class CBareOffload : public CWay {
public:
    CBareOffload(const Bench::CDrain& drain, unsigned int clients, const std::string& frame) : m_frame(frame) {
        for (unsigned int i = 0; i < clients; ++i) {
            m_socks.push_back(connected_dgram(drain.UdpPorts()[i]));
        }
    }
    const char* Name() const override { return "bare sendmmsg with offload"; }
    void Send(unsigned int) override {
        std::string copy = m_frame;
        iovec parts[64];
        unsigned int count = 0;
        for (size_t at = 0; at < copy.size(); at += 4 + PACKET_SIZE) {
            parts[count++] = {&copy[at + 4], std::min(PACKET_SIZE, copy.size() - at - 4)};
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
        for (const auto& sock : m_socks) {
            if (::sendmmsg(sock->GetHandle(), &message, 1, MSG_DONTWAIT) != 1) {
                std::perror("sendmmsg");
            }
        }
    }

private:
    std::string m_frame;
    std::vector<std::unique_ptr<CSockDgram>> m_socks;
};

// Ten frames, at the rate of a camera.
void run_slice(CWay& way, const Bench::CDrain& drain, unsigned int& number) {
    drain.Settle();
    const uint64_t bytes = drain.Bytes();
    const uint64_t cpu = Bench::ProcessTimeUs();
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < FRAMES_PER_SLICE; ++i) {
        std::this_thread::sleep_until(start + std::chrono::microseconds(1000000 / FRAMES_PER_SECOND) * i);
        const Clock::time_point before = Clock::now();
        way.Send(number++);
        way.send_ns.push_back(static_cast<uint64_t>((Clock::now() - before).count()));
    }
    way.Finish();
    const uint64_t used = Bench::ProcessTimeUs() - cpu;
    way.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    drain.Settle();
    way.cpu_us += used;
    way.bytes += drain.Bytes() - bytes;
    way.slice_cost.push_back(static_cast<double>(used) / static_cast<double>(drain.Bytes() - bytes));
}

// The ways in turn, slice by slice, so that what else the machine does hits all of them. The last one is the floor.
void compare(const char* title, std::vector<std::unique_ptr<CWay>>& ways, const Bench::CDrain& drain, double seconds,
             unsigned int clients) {
    unsigned int number = 0;
    for (const auto& way : ways) {
        run_slice(*way, drain, number);  // warms caches and windows up, and isn't counted
        way->cpu_us = way->bytes = 0;
        way->seconds = 0;
        way->send_ns.clear();
        way->slice_cost.clear();
    }
    const auto foreign = [&drain] { return Bench::MachineTimeUs() - Bench::ProcessTimeUs() - drain.TimeUs(); };
    const uint64_t others = foreign();
    const Clock::time_point start = Clock::now();
    while (ways[0]->seconds < seconds) {
        for (const auto& way : ways) {
            run_slice(*way, drain, number);
        }
    }
    const double elapsed_us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    // The machine's clock ticks coarsely: the difference of a quiet run may be below nothing.
    const double others_us = static_cast<double>(static_cast<int64_t>(foreign() - others));
    const double others_share = std::max(0.0, 100 * others_us / elapsed_us);
    const CWay& floor = *ways.back();
    const auto cost = [](const CWay& way) {
        return static_cast<double>(way.cpu_us) / 1000 / (static_cast<double>(way.bytes) * 8 / 1e9);
    };
    std::printf("\n%s, %u clients; other processes used %.0f %% of one processor meanwhile\n", title, clients,
                others_share);
    std::printf("  %-34s %9s %12s %7s %7s %9s %9s\n", "", "Mbit/s", "CPU ms/Gbit", "ratio", "median", "p50 us",
                "p99 us");
    for (const auto& way : ways) {
        std::vector<uint64_t> ratios;  // of slices that lie side by side, in thousandths
        for (size_t i = 0; i < way->slice_cost.size(); ++i) {
            ratios.push_back(static_cast<uint64_t>(way->slice_cost[i] / floor.slice_cost[i] * 1000));
        }
        std::printf("  %-34s %9.1f %12.1f %7.2f %7.2f %9.1f %9.1f\n", way->Name(),
                    static_cast<double>(way->bytes) * 8 / 1e6 / way->seconds, cost(*way), cost(*way) / cost(floor),
                    static_cast<double>(Bench::Percentile(ratios, 0.5)) / 1000,
                    static_cast<double>(Bench::Percentile(way->send_ns, 0.5)) / 1000,
                    static_cast<double>(Bench::Percentile(way->send_ns, 0.99)) / 1000);
    }
    std::fflush(stdout);
}

struct COptions {
    double seconds = 12;
    unsigned int threads = 2;
    std::vector<unsigned int> clients = {10, 100, 1000};
    bool tcp = true;
    bool udp = true;
};

COptions parse(int argc, char** argv) {
    COptions options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "0";
        if (word == "--seconds") {
            options.seconds = std::atof(value);
            ++i;
        } else if (word == "--threads") {
            options.threads = static_cast<unsigned int>(std::atoi(value));
            ++i;
        } else if (word == "--clients") {
            options.clients = {static_cast<unsigned int>(std::atoi(value))};
            ++i;
        } else if (word == "--tcp" || word == "--udp") {
            options.tcp = word == "--tcp";
            options.udp = !options.tcp;
        } else {
            std::fprintf(stderr, "usage: bench_fanout [--seconds S] [--threads T] [--clients N] [--tcp | --udp]\n");
            std::exit(2);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const COptions options = parse(argc, argv);
    Bench::RaiseDescriptorLimit();
    unsigned int most = 0;
    for (unsigned int clients : options.clients) {
        most = std::max(most, clients);
    }
    const Bench::CDrain drain(options.udp ? most : 0);
    Bench::PrintMachine();
    std::printf("%u pool threads, %d frames a second of %zu bytes\n", options.threads, FRAMES_PER_SECOND,
                make_frame().size());
    if (CNetThread::CreateThreadPool(options.threads, false) != 0) {
        std::fprintf(stderr, "no thread pool\n");
        return 1;
    }
    const std::string frame = make_frame();
    for (unsigned int clients : options.clients) {
        if (options.tcp) {
            std::vector<std::unique_ptr<CWay>> ways;
            ways.push_back(std::make_unique<CBufferTcp>(drain, clients, frame));
            ways.push_back(std::make_unique<CBareWritev>(drain, clients, frame));
            compare("TCP", ways, drain, options.seconds, clients);
        }
        if (options.udp) {
            std::vector<std::unique_ptr<CWay>> ways;
            for (const udp_way_t way : {UDP_OUTLETS, UDP_MERGED, UDP_PACKETS}) {
                ways.push_back(std::make_unique<CBufferUdp>(drain, clients, frame, way));
            }
            ways.push_back(std::make_unique<CBareOffload>(drain, clients, frame));
            compare("UDP", ways, drain, options.seconds, clients);
        }
    }
    CNetThread::DestroyThreadPool();
    return 0;
}
