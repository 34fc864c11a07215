// What a host that takes seconds to start and stop one channel costs those who ask for another one. README.md says how
// it measures.
//
//   bench_slow_source [--clients N] [--seconds S] [--threads T]

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Vidora/Vidora.h"
#include "support/Loopback.h"
#include "support/Machine.h"
#include "support/Process.h"
#include "support/RtspDialogue.h"

namespace {

using namespace Kavio::Vidora;

const char SECOND_CHANNEL[] = "cam/realmonitor?channel=2&subtype=0";
const int SLOW_MS = 2000;
const int WAVE_MS = 500;          // from one coming of the clients to the next
const int MOST_WATCHED_MS = 200;  // a client stays for some part of it

struct Options {
    int clients = 50;
    int seconds = 20;  // a row
    int threads = 2;
};

struct Figures {
    std::vector<double> options_ms;
    std::vector<double> describe_ms;
    int failed = 0;
};

std::atomic<int> g_start_stop_ms{0};  // what Start and Stop of the first channel's source take
std::atomic<int> g_starts{0};
std::atomic<int> g_played{0};  // clients of the first channel that got as far as the reply to PLAY

void sleep_ms(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// A host's camera that gives no pictures: the starts and stops are what is measured.
class CCamera : public CStreamSource {
public:
    explicit CCamera(bool slow) : m_slow(slow) {}
    int Init(long receiver_id, int) override { return Notify(receiver_id, MSG_STREAM_INFO, 0), 0; }
    src_type_t GetSrcType() override { return SRC_TYPE_LIVE; }
    bool HasVideo() override { return true; }
    bool HasAudio() override { return false; }
    void GetAudioFormat(StreamAudioFormat&) override {}
    void GetVideoFormat(StreamVideoFormat& format) override { format.encode_type = STREAM_VIDEO_JPEG; }
    int GetVideoSpecificInfo(char*, int) override { return 0; }
    int UpdataStreamInfo(long) override { return 0; }
    bool Start(frame_proc_t) override { return wait(), ++g_starts > 0; }
    bool Stop(frame_proc_t) override { return wait(), true; }
    int handle_close(CNetHandler*) override { return delete this, 0; }

private:
    void wait() const {
        if (m_slow) {
            sleep_ms(g_start_stop_ms);
        }
    }

    const bool m_slow;
};

CStreamSource* make_camera(const char* content) {
    return new CCamera(content == std::string(Bench::FIRST_CHANNEL));
}

// A connection with blocking calls.
class CPeer {
public:
    explicit CPeer(uint16_t port) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address = Bench::loopback(port);
        m_good = ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~CPeer() { ::close(m_fd); }
    CPeer(const CPeer&) = delete;
    CPeer& operator=(const CPeer&) = delete;

    // Sends the dialogue's next request and takes its reply: the milliseconds between, or below 0.
    double Ask(Bench::CRtspDialogue& dialogue) {
        const std::string request = dialogue.Request();
        const auto start = std::chrono::steady_clock::now();
        std::string reply;
        m_good = m_good && ::send(m_fd, request.data(), request.size(), MSG_NOSIGNAL) > 0;
        while (m_good && Bench::CRtspDialogue::ReplySize(reply) == 0) {
            char bytes[4096];
            const ssize_t got = ::recv(m_fd, bytes, sizeof(bytes), 0);
            m_good = got > 0;
            reply.append(bytes, m_good ? static_cast<size_t>(got) : 0);
        }
        m_good = m_good && dialogue.Take(reply);
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
        return m_good ? took.count() : -1;
    }

private:
    const int m_fd;
    bool m_good;
};

// A client that comes, watches and goes, again and again; all of them in waves, so that the source is stopped between.
void come_and_go(uint16_t port, unsigned int seed, const std::atomic<bool>& stop) {
    auto wave = std::chrono::steady_clock::now();
    while (!stop) {
        {
            CPeer peer(port);
            Bench::CRtspDialogue dialogue(port, 0);
            while (!dialogue.Done() && peer.Ask(dialogue) >= 0) {
            }
            g_played += dialogue.Done() ? 1 : 0;
            seed = seed * 1103515245 + 12345;
            sleep_ms(static_cast<int>(seed >> 16) % MOST_WATCHED_MS);
        }
        wave = std::max(wave + std::chrono::milliseconds(WAVE_MS), std::chrono::steady_clock::now());
        std::this_thread::sleep_until(wave);
    }
}

Figures ask_for_the_other(uint16_t port, int seconds) {
    Figures figures;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        CPeer peer(port);
        Bench::CRtspDialogue dialogue(port, 0, SECOND_CHANNEL);
        figures.options_ms.push_back(peer.Ask(dialogue));
        figures.describe_ms.push_back(peer.Ask(dialogue));
        figures.failed += figures.describe_ms.back() < 0 ? 1 : 0;
        sleep_ms(2);
    }
    return figures;
}

void print_times(const std::vector<double>& times) {
    std::printf("%9.2f %8.2f %8.2f", Bench::Percentile(times, 0.5), Bench::Percentile(times, 0.99),
                *std::max_element(times.begin(), times.end()));
}

bool run_row(const char* name, uint16_t port, int clients, const Options& options) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    g_starts = 0;
    g_played = 0;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&stop, port, i] { come_and_go(port, static_cast<unsigned int>(i), stop); });
    }
    const uint64_t own = Bench::ProcessTimeUs();
    const uint64_t all = Bench::MachineTimeUs();
    const Figures figures = ask_for_the_other(port, options.seconds);
    // The two clocks have other grains: a quiet machine may give less than nothing.
    const uint64_t machine = Bench::MachineTimeUs() - all;
    const uint64_t process = Bench::ProcessTimeUs() - own;
    const uint64_t others = machine > process ? machine - process : 0;
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::printf("%-26s %7zu", name, figures.options_ms.size());
    print_times(figures.options_ms);
    print_times(figures.describe_ms);
    std::printf("%8d %7d %7d %6.0f %%\n", g_played.load(), g_starts.load(), figures.failed,
                static_cast<double>(others) / 1e4 / options.seconds);
    std::fflush(stdout);
    return figures.failed == 0;
}

void publish(CLiveSvr* live, const CRtspSvrConfig& config, const char* content) {
    CDataSource* source = CDataSource::Create(content);
    CLiveChannel* channel = CLiveChannel::Create();
    source->SetConfig(config);
    source->Init(channel->GetID(), 0);
    channel->Init(content, 0, TRANSF_TYPE_RTP);
    channel->AddDataSrc(source, 0);
    live->AddLiveChannel(content, channel, source);
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string word = argv[i];
        int* value = word == "--clients"   ? &options.clients
                     : word == "--seconds" ? &options.seconds
                     : word == "--threads" ? &options.threads
                                           : nullptr;
        if (value == nullptr || i + 1 == argc || std::atoi(argv[i + 1]) < 1) {
            std::fprintf(stderr, "usage: bench_slow_source [--clients N] [--seconds S] [--threads T]\n");
            std::exit(2);
        }
        *value = std::atoi(argv[i + 1]);
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    Bench::PrintMachine();
    CNetThread::CreateThreadPool(static_cast<unsigned int>(options.threads), false);
    CRtspSvrConfig config;
    config.SetSrcFunc(&make_camera);
    CLiveSvr* live = CLiveSvr::Create(0);
    publish(live, config, Bench::FIRST_CHANNEL);
    publish(live, config, SECOND_CHANNEL);
    const uint16_t port = Bench::FreePort();
    CSockAddrStorage address("127.0.0.1", port);
    CRtspSvr* server = CRtspSvr::Create(address);
    if (server == nullptr) {
        return 1;
    }
    server->SetLiveSvr(live);
    server->SetConfig(config);
    ask_for_the_other(port, 1);  // whatever is done once
    std::printf("a pool of %d threads; milliseconds from request to reply on the other channel\n", options.threads);
    std::printf("%-26s %7s %9s %8s %8s%9s %8s %8s %7s %7s %7s %8s\n", "the first channel has", "asked", "OPT p50",
                "p99", "max", "DESC p50", "p99", "max", "played", "starts", "failed", "others");
    bool good = run_row("no clients", port, 0, options);
    good = run_row("clients of a quick source", port, options.clients, options) && good;
    g_start_stop_ms = SLOW_MS;
    good = run_row("clients of a slow source", port, options.clients, options) && good;
    server->Stop();
    server->EndSessions(4 * SLOW_MS);
    server->Close();
    live->Close();
    CNetThread::DestroyThreadPool();
    return good ? 0 : 1;
}
