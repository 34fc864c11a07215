// Load on the live server, beside a bare loop that does the same work in the same run. README.md says how it measures.
//
//   bench_server VIDORA_HOST [--clients N] [--tcp | --udp | --http | --nat] [--slices K] [--setups K]
//   [--threads T] [--clip FILE.h264]

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "rendezvous/Rendezvous.h"
#include "support/BareServer.h"
#include "support/LoadClient.h"
#include "support/Loopback.h"
#include "support/Machine.h"
#include "support/Process.h"

namespace {

const char CONTENT[] = "cam/realmonitor?channel=1&subtype=0";
const size_t CLIP_FRAMES = 100;
// Blocks for the host's RTP ports, each enough for 3000 sessions: away from the default range, which another host may
// have, and from the ports that the system gives out itself. Two benchmarks at once take different ones.
const uint16_t RTP_BLOCKS[] = {1600, 7700, 13800};
const uint16_t RTP_BLOCK_SIZE = 6100;
const uint16_t SERVER_UDP_BASE = 42000;  // of the clients' ports
const uint16_t BARE_UDP_BASE = 50000;
const uint16_t FIRST_UDP_BASE = 58000;
const int SETUP_ROUNDS = 5;
const unsigned int FIRST_SESSIONS = 8;  // that are there when memory is measured, for what the first ones bring
// A host that was halted for longer than two seconds goes on from where it is instead of catching up.
const std::chrono::milliseconds SLICE(2200);
const std::chrono::milliseconds STAMPED(4000);
const std::chrono::milliseconds CLOSING(300);  // in which the other end notices

// How sessions come and their media leave. The bare loop has TCP in the place of a tunnel, and plain UDP for NAT.
struct Road {
    const char* name;
    const char* option;
    bool udp;
    Bench::fleet_link_t link;
    std::vector<unsigned int> clients;
};

const Road ROADS[] = {
    {"TCP", "--tcp", false, Bench::FLEET_PLAIN, {10, 100, 500, 1000, 5000}},
    {"UDP", "--udp", true, Bench::FLEET_PLAIN, {10, 100, 500, 1000, 3000}},
    {"HTTP", "--http", false, Bench::FLEET_TUNNELS, {100, 500}},
    {"NAT", "--nat", true, Bench::FLEET_NAT, {100, 500}},
};

struct Options {
    std::string host;
    std::string clip;
    std::vector<unsigned int> clients;  // empty: those of the road
    const Road* road = nullptr;         // null: all
    int slices = 4;
    int threads = 0;  // the host's own choice
    int setups = 0;   // rounds of a run that only sets up; 0: the whole benchmark
};

// The server or the bare loop, with its own clients: one of both runs, the other one is halted.
struct Side {
    pid_t process = -1;
    uint16_t port = 0;
    std::unique_ptr<Bench::CLoadClient> client;
    std::vector<double> setup_s;
    std::vector<double> cost;  // processor seconds a Gbit of each slice
    uint64_t cpu_ns = 0;
    uint64_t bytes = 0;
    double seconds = 0;
    double spread_ms = 0;
    double silence_ms = 0;

    double Cost() const { return static_cast<double>(cpu_ns) / (static_cast<double>(bytes) * 8); }
    void Stop() const { Bench::Halt(process); }
    void Go() const { Bench::Resume(process); }
};

struct Row {
    unsigned int clients;
    const Road& road;
    uint64_t resident_before = 0;
    uint64_t resident_after = 0;

    double SessionKb() const {
        return (static_cast<double>(resident_after) - static_cast<double>(resident_before)) / 1024 / clients;
    }
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : values[values.size() / 2];
}

void make_clip(const std::string& path) {
    if (::access(path.c_str(), R_OK) == 0) {
        return;
    }
    std::printf("making %s\n", path.c_str());
    const std::string source = "testsrc=size=1280x720:rate=25:duration=4,noise=alls=24:allf=t";
    Bench::CProgram ffmpeg({"ffmpeg",
                            "-nostdin",
                            "-y",
                            "-loglevel",
                            "error",
                            "-f",
                            "lavfi",
                            "-i",
                            source,
                            "-pix_fmt",
                            "yuv420p",
                            "-c:v",
                            "libx264",
                            "-preset",
                            "veryfast",
                            "-threads",
                            "1",
                            "-bf",
                            "0",
                            "-g",
                            "50",
                            "-b:v",
                            "2M",
                            "-minrate",
                            "2M",
                            "-maxrate",
                            "2M",
                            "-bufsize",
                            "500k",
                            "-x264-params",
                            "slices=1:sliced-threads=0:scenecut=0",
                            "-f",
                            "h264",
                            path},
                           path + ".log");
    if (ffmpeg.Wait() != 0) {
        std::fprintf(stderr, "ffmpeg could not make the clip, see %s.log\n", path.c_str());
        ::unlink(path.c_str());
        std::exit(1);
    }
}

// The lowest port of a block is the first that a host takes.
bool is_free(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Bench::loopback(port);
    const bool free = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return free;
}

std::string rtp_ports() {
    const size_t blocks = std::size(RTP_BLOCKS);
    const size_t first = static_cast<size_t>(::getpid()) % blocks;
    size_t at = first;
    for (size_t i = 0; i < blocks && !is_free(RTP_BLOCKS[at]); ++i) {
        at = (at + 1) % blocks;
    }
    return std::to_string(RTP_BLOCKS[at]) + "-" + std::to_string(RTP_BLOCKS[at] + RTP_BLOCK_SIZE);
}

std::unique_ptr<Bench::CProgram> start_host(const Options& options, uint16_t port, const std::string& point) {
    std::vector<std::string> command = {options.host,
                                        "--listen",
                                        "127.0.0.1:" + std::to_string(port),
                                        "--live",
                                        std::string(CONTENT) + "=" + options.clip,
                                        "--fps",
                                        "25",
                                        "--rtp-ports",
                                        rtp_ports()};
    if (!point.empty()) {
        command.insert(command.end(), {"--nat", point, "--nat-name", Bench::NAT_NAME});
    }
    if (options.threads > 0) {
        command.push_back("--threads");
        command.push_back(std::to_string(options.threads));
    }
    auto host = std::make_unique<Bench::CProgram>(command, options.clip + ".host.log");
    if (!Bench::WaitForListener(port)) {
        std::fprintf(stderr, "the host doesn't listen, see %s.host.log\n", options.clip.c_str());
        std::exit(1);
    }
    return host;
}

// The point at which NAT sessions meet.
class Meeting {
public:
    Meeting() { m_point.Open("127.0.0.1:0"); }
    ~Meeting() {
        m_point.Stop();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    uint16_t Port() const { return static_cast<uint16_t>(m_point.Port()); }
    // After all processes have been made.
    void Begin() {
        m_thread = std::thread([this] { m_point.Run(); });
    }

private:
    RendezvousPoint m_point;
    std::thread m_thread;
};

// Sets all sessions up, and takes them down again unless it is the last round.
void set_up(Side& side, const Row& row, bool last) {
    side.Go();
    side.setup_s.push_back(side.client->Open(side.port, row.clients, row.road.udp));
    if (!last) {
        side.client->Close();
        std::this_thread::sleep_for(CLOSING);
    }
}

void run_slice(Side& side) {
    const uint64_t cpu = Bench::ProcessorNs(side.process);
    const uint64_t bytes = side.client->Figures().bytes;
    const auto start = std::chrono::steady_clock::now();
    side.Go();
    std::this_thread::sleep_for(SLICE);
    side.Stop();
    side.seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    side.client->Settle();
    const uint64_t used = Bench::ProcessorNs(side.process) - cpu;
    const uint64_t sent = side.client->Figures().bytes - bytes;
    side.cpu_ns += used;
    side.bytes += sent;
    side.cost.push_back(static_cast<double>(used) / (static_cast<double>(sent) * 8));
}

// By the system's clock at the receiving sockets. Not in the slices that count: a stamp costs whoever sends.
void measure_spread(Side& side) {
    side.client->Stamp(true);
    side.Go();
    std::this_thread::sleep_for(STAMPED);
    side.Stop();
    side.client->Settle();
    side.client->Stamp(false);
    side.spread_ms = static_cast<double>(side.client->Figures().spread_ns) / 1e6;
    side.silence_ms = static_cast<double>(side.client->Figures().silence_ns) / 1e6;
}

void print_row(const Row& row, const Side& server, const Side& bare, uint64_t packets, uint64_t gaps, uint64_t up) {
    std::vector<double> ratios;
    for (size_t i = 0; i < server.cost.size(); ++i) {
        ratios.push_back(server.cost[i] / bare.cost[i]);
    }
    const auto ends = std::minmax_element(ratios.begin(), ratios.end());
    std::printf(
        "%5u %-4s %5llu %9llu %5llu %8.1f %8.4f %8.4f %6.2f %6.2f (%.2f-%.2f) %7.1f %7.3f %7.3f %5.2f %7.1f %6.1f "
        "%6.0f\n",
        row.clients, row.road.name, static_cast<unsigned long long>(up), static_cast<unsigned long long>(packets),
        static_cast<unsigned long long>(gaps), static_cast<double>(server.bytes) * 8 / 1e6 / server.seconds,
        server.Cost(), bare.Cost(), server.Cost() / bare.Cost(), median(ratios), *ends.first, *ends.second,
        row.SessionKb(), median(server.setup_s), median(bare.setup_s), median(server.setup_s) / median(bare.setup_s),
        server.spread_ms, bare.spread_ms, server.silence_ms);
    std::fflush(stdout);
}

// The row as README.md shows it.
std::string readme_line(const Row& row, const Side& server, const Side& bare, uint64_t gaps) {
    char line[200];
    std::snprintf(line, sizeof(line), "| %s | %u | %llu | %.3f | %.3f | %.2f | %.1f | %.2f | %.1f (%.1f) | %.0f |",
                  row.road.name, row.clients, static_cast<unsigned long long>(gaps), server.Cost(), bare.Cost(),
                  server.Cost() / bare.Cost(), row.SessionKb(), median(server.setup_s) / median(bare.setup_s),
                  server.spread_ms, bare.spread_ms, server.silence_ms);
    return line;
}

std::unique_ptr<Bench::CLoadClient> fleet(const Road& road, uint16_t udp_port_base) {
    return std::make_unique<Bench::CLoadClient>([&road, udp_port_base](Bench::FleetFigures& figures) {
        return std::make_unique<Bench::CFleet>(figures, udp_port_base, Bench::FLEET_COUNTS, road.link);
    });
}

// Both sides of a row, made before any thread.
struct Match {
    Side server;
    Side bare;
    Meeting meeting;
    std::unique_ptr<Bench::CBareServer> bare_process;
    std::unique_ptr<Bench::CProgram> host;

    Match(const Options& options, const Bench::Recording& recording, const Road& road) {
        server.client = fleet(road, SERVER_UDP_BASE);
        bare.client = std::make_unique<Bench::CLoadClient>(BARE_UDP_BASE);
        bare_process = std::make_unique<Bench::CBareServer>(recording, road.udp);
        bare.process = bare_process->Pid();
        bare.port = bare_process->Port();
        bare.Stop();
        const bool meets = road.link == Bench::FLEET_NAT;
        const uint16_t listener = Bench::FreePort();
        server.port = meets ? meeting.Port() : listener;
        host = start_host(options, listener, meets ? "127.0.0.1:" + std::to_string(server.port) : "");
        server.process = host->Pid();
    }
};

bool run_row(const Options& options, const Bench::Recording& recording, Row row, std::vector<std::string>& readme) {
    Match match(options, recording, row.road);
    Side& server = match.server;
    Side& bare = match.bare;
    const auto first = fleet(row.road, FIRST_UDP_BASE);
    match.meeting.Begin();
    const auto resident = [&first, &server, &row] {
        first->Open(server.port, FIRST_SESSIONS, row.road.udp);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const uint64_t bytes = Bench::ResidentBytes(server.process);
        first->Close();
        return bytes;
    };
    row.resident_before = resident();
    server.Stop();
    // A NAT session outlives a client that vanishes by 15 seconds, and would go on sending.
    const int rounds = row.road.link == Bench::FLEET_NAT ? 1 : SETUP_ROUNDS;
    for (int i = 1; i <= rounds; ++i) {
        std::this_thread::sleep_for(SLICE);
        set_up(server, row, i == rounds);
        server.Stop();
        set_up(bare, row, i == rounds);
        bare.Stop();
    }
    std::this_thread::sleep_for(SLICE);
    const uint64_t packets = server.client->Figures().packets;
    for (int i = 0; i < options.slices; ++i) {
        run_slice(server);
        run_slice(bare);
    }
    const Bench::FleetFigures& figures = server.client->Figures();
    const uint64_t up = figures.up;
    const uint64_t bare_up = bare.client->Figures().up;
    const uint64_t gaps = figures.gaps;
    const uint64_t played = figures.packets - packets;
    measure_spread(server);
    measure_spread(bare);
    server.Go();
    row.resident_after = resident();
    print_row(row, server, bare, played, gaps, up);
    readme.push_back(readme_line(row, server, bare, gaps));
    server.client->Close();
    if (figures.drops != 0) {
        std::printf("      the clients' sockets had no room for %llu datagrams\n",
                    static_cast<unsigned long long>(figures.drops.load()));
    }
    if (bare_up != row.clients) {
        std::printf("      the bare loop had %llu clients: no comparison\n", static_cast<unsigned long long>(bare_up));
    }
    return up == row.clients && gaps == 0 && bare_up == row.clients;
}

// Set-up alone, round by round in turn: wall time and processor time of a session.
bool run_setups(const Options& options, const Bench::Recording& recording, const Row& row) {
    Match match(options, recording, row.road);
    match.meeting.Begin();
    Side* const sides[] = {&match.server, &match.bare};
    std::vector<double> cpu_us[2];
    match.server.Stop();
    bool good = true;
    for (int i = 0; i < options.setups; ++i) {
        for (int k = 0; k < 2; ++k) {
            Side& side = *sides[k];
            const uint64_t cpu = Bench::ProcessorNs(side.process);
            side.Go();
            side.setup_s.push_back(side.client->Open(side.port, row.clients, row.road.udp));
            cpu_us[k].push_back(static_cast<double>(Bench::ProcessorNs(side.process) - cpu) / 1e3 / row.clients);
            good = good && side.client->Figures().up == row.clients;
            side.client->Close();
            std::this_thread::sleep_for(CLOSING);
            side.Stop();
        }
    }
    std::vector<double> ratios;
    for (size_t i = 0; i < match.server.setup_s.size(); ++i) {
        ratios.push_back(match.server.setup_s[i] / match.bare.setup_s[i]);
    }
    std::printf(
        "%5u %-4s set-up %7.1f ms, bare %7.1f ms, %5.2f; median of rounds %5.2f; processor %6.1f us, bare %6.1f us a "
        "session, %5.2f\n",
        row.clients, row.road.name, median(match.server.setup_s) * 1e3, median(match.bare.setup_s) * 1e3,
        median(match.server.setup_s) / median(match.bare.setup_s), median(ratios), median(cpu_us[0]), median(cpu_us[1]),
        median(cpu_us[0]) / median(cpu_us[1]));
    std::fflush(stdout);
    return good;
}

// False if `word` is no option that has a value.
bool take_value(const std::string& word, const char* value, Options& options) {
    if (word == "--clients") {
        options.clients = {static_cast<unsigned int>(std::atoi(value))};
    } else if (word == "--slices") {
        options.slices = std::max(1, std::atoi(value));
    } else if (word == "--threads") {
        options.threads = std::atoi(value);
    } else if (word == "--setups") {
        options.setups = std::atoi(value);
    } else if (word == "--clip") {
        options.clip = value;
    } else {
        return false;
    }
    return true;
}

const Road* find_road(const std::string& option) {
    const Road* end = std::end(ROADS);
    const Road* found = std::find_if(ROADS, end, [&](const Road& road) { return option == road.option; });
    return found != end ? found : nullptr;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (take_value(word, i + 1 < argc ? argv[i + 1] : "0", options)) {
            ++i;
        } else if (const Road* road = find_road(word)) {
            options.road = road;
        } else if (word[0] != '-' && options.host.empty()) {
            options.host = word;
        } else {
            options.host.clear();
            break;
        }
    }
    if (options.host.empty()) {
        std::fprintf(
            stderr,
            "usage: bench_server VIDORA_HOST [--clients N] [--tcp | --udp | --http | --nat] [--slices K] [--setups K] "
            "[--threads T] [--clip FILE.h264]\n");
        std::exit(2);
    }
    if (options.clip.empty()) {
        const std::string self = argv[0];
        options.clip = self.substr(0, self.rfind('/') + 1) + "server_clip.h264";
        make_clip(options.clip);
    }
    return options;
}

Bench::Recording record(const Options& options) {
    const uint16_t port = Bench::FreePort();
    const auto host = start_host(options, port, "");
    Bench::Recording recording = Bench::Record(port, CLIP_FRAMES);
    if (!recording.good) {
        std::fprintf(stderr, "the host doesn't play, see %s.host.log\n", options.clip.c_str());
        std::exit(1);
    }
    return recording;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    Bench::RaiseDescriptorLimit();
    Bench::PrintMachine();
    const Bench::Recording recording = record(options);
    size_t bytes = 0;
    for (const std::string& frame : recording.frames) {
        bytes += frame.size();
    }
    std::printf(
        "one channel of %.2f Mbit/s, 25 frames a second; processor seconds a Gbit delivered; slices of %.1f s\n",
        static_cast<double>(bytes) * 8 * 25 / 1e6 / static_cast<double>(recording.frames.size()),
        std::chrono::duration<double>(SLICE).count());
    std::printf(
        "    N        up   packets  gaps   Mbit/s   server     bare  ratio median (range)     kB/sess  set-up    bare "
        "ratio  spread   bare  quiet\n");
    bool good = true;
    std::vector<std::string> readme;
    for (const Road& road : ROADS) {
        if (options.road != nullptr && options.road != &road) {
            continue;
        }
        for (unsigned int clients : options.clients.empty() ? road.clients : options.clients) {
            const Row row{clients, road, 0, 0};
            good =
                (options.setups > 0 ? run_setups(options, recording, row) : run_row(options, recording, row, readme)) &&
                good;
        }
    }
    for (const std::string& line : readme) {
        std::printf("%s\n", line.c_str());
    }
    return good ? 0 : 1;
}
