// What it costs to make frames of received RTP, in processor time of the receiving thread, beside a bare loop that
// reads the same socket and throws the bytes away.
//
//     bench_frame_buffer
//
// A child process sends H.264 frames of 20000 bytes in packets of 1448 bytes over a loopback socket. Both loops take
// turns on the same socket, SLICE_BYTES each; the ratio is the median over ROUNDS of such pairs. TCP goes through the
// separator, UDP through the merger and the batches of datagrams, both then through CRtpFrameBuffer, as in a client
// session, but without the reactor. "alone" is CRtpFrameBuffer on runs that are in memory.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "DgramBatch.h"
#include "FrameMerger.h"
#include "MediaFrame.h"
#include "RtpRun.h"
#include "RtpSeparator.h"
#include "RtspClient/SdpInfoAccess.h"
#include "Tramel/SockStream.h"
#include "Vidora/RtpFrameBuffer.h"
#include "support/H264Runs.h"
#include "support/Loopback.h"
#include "support/PairedRow.h"

namespace {

using namespace Bench;
using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

constexpr size_t FRAME_SIZE = 20000;
constexpr size_t FRAMES = 800;
constexpr uint64_t SLICE_BYTES = 32 << 20;
constexpr int ROUNDS = 15;
constexpr unsigned int BARE_READ = 256 * 1024;
constexpr int BURST = 32;  // datagrams sent for one token, so that none is lost

void check(bool good) {
    if (!good) {
        std::fprintf(stderr, "bench_frame_buffer: something failed\n");
        std::exit(1);
    }
}

// The frame buffer of a session with one H.264 track.
class CTaker {
public:
    CTaker() {
        check(m_sdp.Parse("m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:v\r\n", 0) == 0);
        const sdp_info_track track = {1, 0, false};
        check(CSdpInfoAccess::Fill(m_info, &m_sdp, &track, 1, PACKET_TYPE_RTP) == 0);
        check(m_buffer.Init(&m_info, 0, 0) == 0);
    }
    void Take(const Flumen::CMediaFrame& run) {
        CMediaFrame packet(run);
        if (m_buffer.Put(&packet, static_cast<int>(run.size())) == 1) {
            while (m_buffer.Get().valid()) {
                ++m_frames;
            }
        }
    }
    uint64_t Frames() const { return m_frames; }

private:
    CSdpParser m_sdp;
    CSdpInfo m_info;
    CRtpFrameBuffer m_buffer;
    uint64_t m_frames = 0;
};

// A reading loop: takes what is there and gives the bytes.
typedef std::function<uint64_t()> reader_t;

// Nanoseconds of the thread's processor time a byte over a slice.
double slice(const reader_t& reader) {
    uint64_t bytes = 0;
    const double start = processor_seconds();
    while (bytes < SLICE_BYTES) {
        bytes += reader();
    }
    return (processor_seconds() - start) * 1e9 / static_cast<double>(bytes);
}

void compare_readers(const char* name, const reader_t& frames, const reader_t& bare, const CTaker& taker) {
    std::vector<double> work;
    std::vector<double> floor;
    std::vector<double> ratios;
    slice(bare);
    slice(frames);
    const uint64_t before = taker.Frames();
    for (int i = 0; i < ROUNDS; ++i) {
        floor.push_back(slice(bare));
        work.push_back(slice(frames));
        ratios.push_back(work.back() / floor.back());
    }
    check(taker.Frames() > before);
    const double ns_a_gigabit = 1e9 / 8;
    std::printf("  %-6s %6.0f ms a gigabit, bare loop %6.0f ms, ratio %.2f (%.2f to %.2f), %llu frames\n", name,
                Percentile(work, 0.5) * ns_a_gigabit / 1e6, Percentile(floor, 0.5) * ns_a_gigabit / 1e6,
                Percentile(ratios, 0.5), Percentile(ratios, 0.25), Percentile(ratios, 0.75),
                static_cast<unsigned long long>(taker.Frames() - before));
    std::fflush(stdout);
}

// Runs `send` in a child for ever; ended by the destructor.
class CSender {
public:
    explicit CSender(const std::function<void()>& send) : m_child(fork()) {
        if (m_child == 0) {
            for (;;) {
                send();
            }
        }
    }
    ~CSender() {
        kill(m_child, SIGKILL);
        waitpid(m_child, nullptr, 0);
    }
    CSender(const CSender&) = delete;
    CSender& operator=(const CSender&) = delete;

private:
    pid_t m_child;
};

int connected_pair(int& sender) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    check(bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(listener, 1) == 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    sender = socket(AF_INET, SOCK_STREAM, 0);
    check(connect(sender, reinterpret_cast<sockaddr*>(&address), length) == 0);
    const int receiver = accept(listener, nullptr, nullptr);
    close(listener);
    return receiver;
}

void bench_tcp(const std::vector<Flumen::CMediaFrame>& runs) {
    int out = -1;
    const int in = connected_pair(out);
    const CSender sender([&] {
        for (const Flumen::CMediaFrame& run : runs) {
            for (size_t done = 0; done < run.size();) {
                const ssize_t sent = send(out, run.getBuffer() + done, run.size() - done, MSG_NOSIGNAL);
                if (sent <= 0) {
                    _exit(0);
                }
                done += static_cast<size_t>(sent);
            }
        }
    });
    close(out);
    CRTPSeparator separator;
    separator.SetChannel(0, -1);
    CTaker taker;
    std::vector<char> room(BARE_READ);
    const reader_t frames = [&]() -> uint64_t {
        int space = 0;
        char* place = separator.GetBuffer(&space);
        const ssize_t length = recv(in, place, static_cast<size_t>(space), 0);
        check(length > 0);
        int count = separator.Input(static_cast<int>(length));
        for (bool more = true; more; count = more ? separator.Input(0) : 0) {
            check(count >= 0);
            const separator_record_t* records = separator.GetRecords(&count);
            std::for_each(records, records + count, [&](const separator_record_t& r) { taker.Take(r.packet); });
            more = separator.HasMore();
        }
        return static_cast<uint64_t>(length);
    };
    // The bare loop leaves the stream at any byte; the separator finds its place again.
    const reader_t bare = [&]() -> uint64_t {
        const ssize_t length = recv(in, room.data(), room.size(), 0);
        check(length > 0);
        return static_cast<uint64_t>(length);
    };
    compare_readers("TCP", frames, bare, taker);
    close(in);
}

// The RTP packets of interleaved runs. They stay in the runs' memory.
std::vector<DgramSlice> packets_of(const std::vector<Flumen::CMediaFrame>& runs) {
    std::vector<DgramSlice> packets;
    for (const Flumen::CMediaFrame& run : runs) {
        CByteReader reader(run.getBuffer(), run.size());
        interleaved_unit_t unit;
        while (ReadInterleavedUnit(reader, unit)) {
            packets.push_back({const_cast<unsigned char*>(unit.data), unit.length});
        }
    }
    return packets;
}

// Takes a datagram as the client's receiver of datagrams does.
void take_datagram(const DgramSlice& datagram, CFrameMerger& merger, CTaker& taker) {
    RtpHeader header;
    check(rtp_parse_header(datagram.data, datagram.length, header));
    if (merger.EndsBefore(header, datagram.length)) {
        taker.Take(merger.Take());
    }
    merger.Append(0, datagram.data, datagram.length, header);
    if (header.marker) {
        taker.Take(merger.Take());
    }
}

// Reads `BURST` datagrams, and calls `take` for each.
template <typename Take>
uint64_t read_burst(CSockDgram& in, Take take) {
    CDgramBatch* batch = CDgramBatch::OfThread();
    uint64_t bytes = 0;
    for (int left = BURST; left > 0;) {
        const int count = batch->Recv(in);
        check(count >= 0);
        for (int i = 0; i < count; ++i) {
            bytes += batch->Datagram(i).length;
            take(batch->Datagram(i));
        }
        left -= count;
        if (count == 0) {
            char byte;
            recv(in.GetHandle(), &byte, 1, MSG_PEEK | MSG_TRUNC);
            usleep(20);
        }
    }
    return bytes;
}

void bench_udp(const std::vector<Flumen::CMediaFrame>& runs) {
    CSockDgram out;
    CSockDgram in;
    const CSockAddrIPv4 local("127.0.0.1", 0);
    CSockAddrStorage address;
    check(in.Open(&local) == 0 && out.Open(&local) == 0 && in.GetLocalAddr(&address) == 0);
    check(out.SetRemote(&address) == 0);
    int tokens[2];
    check(pipe(tokens) == 0);
    std::vector<DgramSlice> packets = packets_of(runs);
    size_t next = 0;
    const CSender sender([&] {
        char token = 0;
        if (read(tokens[0], &token, 1) != 1) {
            _exit(0);
        }
        next = next + BURST > packets.size() ? 0 : next;
        out.SendBatch(&packets[next], BURST);
        next += BURST;
    });
    CFrameMerger merger;
    CTaker taker;
    const auto ask_burst = [&] { check(write(tokens[1], "t", 1) == 1); };
    const reader_t frames = [&] {
        ask_burst();
        return read_burst(in, [&](const DgramSlice& datagram) { take_datagram(datagram, merger, taker); });
    };
    const reader_t bare = [&] {
        ask_burst();
        return read_burst(in, [](const DgramSlice&) {});
    };
    compare_readers("UDP", frames, bare, taker);
}

void bench_alone(const std::vector<Flumen::CMediaFrame>& runs) {
    CTaker taker;
    const double start = processor_seconds();
    const int turns = 20;
    for (int i = 0; i < turns; ++i) {
        for (const Flumen::CMediaFrame& run : runs) {
            taker.Take(run);
        }
    }
    const double seconds = processor_seconds() - start;
    std::printf("  alone  %.0f frames of %zu bytes a second, %.0f ms a gigabit\n",
                static_cast<double>(taker.Frames()) / seconds, FRAME_SIZE,
                seconds * 1e3 / (static_cast<double>(taker.Frames()) * FRAME_SIZE * 8 / 1e9));
}

}  // namespace

int main() {
    Kavio::Ostra::SetLogLevel(Kavio::Ostra::LOG_LEVEL_NONE);
    const std::vector<Flumen::CMediaFrame> runs = MakeH264Runs(FRAMES, FRAME_SIZE);
    bench_alone(runs);
    bench_tcp(runs);
    bench_udp(runs);
    return 0;
}
