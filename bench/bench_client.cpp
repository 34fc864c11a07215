// What it costs to pull streams into whole frames, beside a bare loop that reads as many sockets of the same sender and
// throws the bytes away, in the same run. README.md says how it measures.
//
//   bench_client [--streams N] [--tcp | --udp | --group | --track] [--slices K] [--threads T] [--frame-size BYTES]
//   [--profile SECONDS]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Vidora/Flumen/MediaFrame.h"
#include "support/BareServer.h"
#include "support/H264Runs.h"
#include "support/LoadClient.h"
#include "support/Machine.h"
#include "support/Process.h"
#include "support/PullFleet.h"
#include "support/SideFleet.h"

namespace {

const size_t FRAMES = 100;
const size_t FRAMES_PER_SECOND = 25;
const size_t INTERLEAVE_HEADER = 4;
const uint16_t BARE_UDP_BASE = 50000;
const unsigned int FIRST_STREAMS = 8;  // that are there when memory is measured, for what the first ones bring
const int DEFAULT_SLICES = 6;
const std::chrono::milliseconds SLICE(2000);
const std::chrono::milliseconds FIRST_MEDIA(1000);  // that nobody measures

// What receives in the library.
struct Road {
    const char* name;
    const char* option;
    bool udp;
    std::unique_ptr<Bench::ILoad> (*make)(Bench::FleetFigures& figures, unsigned int threads);
};

std::unique_ptr<Bench::ILoad> make_pulls(Bench::FleetFigures& figures, unsigned int threads) {
    return std::make_unique<Bench::CPullFleet>(figures, threads);
}

template <std::unique_ptr<Bench::ISideReceiver> (*Make)(Bench::FleetFigures&)>
std::unique_ptr<Bench::ILoad> make_sides(Bench::FleetFigures& figures, unsigned int threads) {
    return std::make_unique<Bench::CSideFleet>(figures, threads, Make);
}

const Road ROADS[] = {
    {"TCP", "--tcp", false, &make_pulls},
    {"UDP", "--udp", true, &make_pulls},
    {"multicast client", "--group", true, &make_sides<&Bench::MakeMulticastClient>},
    {"single track", "--track", true, &make_sides<&Bench::MakeSingleTrack>},
};

const Road* find_road(const std::string& option) {
    const Road* end = std::end(ROADS);
    const Road* found = std::find_if(ROADS, end, [&](const Road& road) { return option == road.option; });
    return found != end ? found : nullptr;
}

struct Options {
    std::vector<unsigned int> streams = {1, 100, 500};
    const Road* road = nullptr;  // null: all
    int slices = DEFAULT_SLICES;
    unsigned int threads = 2;
    size_t frame_size = 10000;
    int profile_s = 0;
};

// The frames that are sent, and what they come to.
struct Media {
    Bench::Recording recording;
    double packets = 0;  // a frame, as the next ones
    double rtp_bytes = 0;
    double bytes = 0;  // with interleave headers
};

// The library or the bare loop, with a sender of its own. One of both senders runs, the other one is halted.
struct Side {
    std::unique_ptr<Bench::CBareServer> sender;
    std::unique_ptr<Bench::CLoadClient> client;
    std::vector<double> cost;  // processor seconds a Gbit of each slice
    uint64_t cpu_ns = 0;
    double gigabits = 0;

    double Cost() const { return static_cast<double>(cpu_ns) / 1e9 / gigabits; }
};

std::string reply(int cseq, const std::string& headers, const std::string& body = "") {
    const std::string length = body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return "RTSP/1.0 200 OK\r\nCSeq: " + std::to_string(cseq) + "\r\n" + headers + length + "\r\n" + body;
}

// The four replies of a server with one H.264 track.
Media make_media(const Options& options, bool udp) {
    Media media;
    const std::string type = std::to_string(Bench::H264_PAYLOAD_TYPE);
    const std::string sdp = "v=0\r\no=- 1 1 IN IP4 0.0.0.0\r\ns=-\r\nt=0 0\r\nm=video 0 RTP/AVP " + type +
                            "\r\na=rtpmap:" + type + " H264/90000\r\na=control:track1\r\n";
    const std::string transport = udp ? "RTP/AVP;unicast" : "RTP/AVP/TCP;unicast;interleaved=0-1";
    media.recording.replies[0] = reply(1, "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n");
    media.recording.replies[1] = reply(2, "Content-Type: application/sdp\r\n", sdp);
    media.recording.replies[2] = reply(3, "Session: 1;timeout=3600\r\nTransport: " + transport + "\r\n");
    media.recording.replies[3] = reply(4, "Session: 1\r\n");
    for (const Kavio::Flumen::CMediaFrame& run : Bench::MakeH264Runs(FRAMES, options.frame_size)) {
        media.recording.frames.emplace_back(reinterpret_cast<const char*>(run.getBuffer()), run.size());
    }
    const std::string& frame = media.recording.frames.front();
    for (size_t i = 0; i < frame.size(); media.packets += 1) {
        i += INTERLEAVE_HEADER + static_cast<unsigned char>(frame[i + 2]) * 256u +
             static_cast<unsigned char>(frame[i + 3]);
    }
    media.bytes = static_cast<double>(frame.size());
    media.rtp_bytes = media.bytes - INTERLEAVE_HEADER * media.packets;
    media.recording.good = true;
    return media;
}

// Frames that have come, by the bytes where nobody counts frames.
double frames_of(const Side& side, const Media& media, bool udp) {
    const Bench::FleetFigures& figures = side.client->Figures();
    return figures.frames != 0 ? static_cast<double>(figures.frames)
                               : static_cast<double>(figures.bytes) / (udp ? media.rtp_bytes : media.bytes);
}

void run_slice(Side& side, const Media& media, bool udp) {
    Bench::Resume(side.sender->Pid());
    const uint64_t cpu = Bench::ProcessorNs(side.client->Pid());
    const double frames = frames_of(side, media, udp);
    std::this_thread::sleep_for(SLICE);
    Bench::Halt(side.sender->Pid());
    side.client->Settle();
    const uint64_t used = Bench::ProcessorNs(side.client->Pid()) - cpu;
    const double gigabits = (frames_of(side, media, udp) - frames) * media.rtp_bytes * 8 / 1e9;
    side.cpu_ns += used;
    side.gigabits += gigabits;
    side.cost.push_back(static_cast<double>(used) / 1e9 / gigabits);
}

// Memory of the process with a few sessions.
uint64_t first_resident(Bench::CLoadClient& client, uint16_t port, bool udp) {
    client.Open(port, FIRST_STREAMS, udp);
    std::this_thread::sleep_for(FIRST_MEDIA);
    const uint64_t bytes = Bench::ResidentBytes(client.Pid());
    client.Close();
    return bytes;
}

void print_row(unsigned int streams, const Road& road, const Side& ours, const Side& bare, double kilobytes) {
    std::vector<double> ratios;
    for (size_t i = 0; i < ours.cost.size(); ++i) {
        ratios.push_back(ours.cost[i] / bare.cost[i]);
    }
    const auto ends = std::minmax_element(ratios.begin(), ratios.end());
    const Bench::FleetFigures& figures = ours.client->Figures();
    std::printf("| %s | %u | %llu | %llu | %.3f | %.3f | %.2f | %.2f (%.2f to %.2f) | %.0f |\n", road.name, streams,
                static_cast<unsigned long long>(figures.gaps), static_cast<unsigned long long>(figures.damaged),
                ours.Cost(), bare.Cost(), ours.Cost() / bare.Cost(), Bench::Percentile(ratios, 0.5), *ends.first,
                *ends.second, kilobytes);
    std::fflush(stdout);
}

bool run_row(const Options& options, unsigned int streams, const Road& road) {
    const bool udp = road.udp;
    const Media media = make_media(options, udp);
    Side ours;
    Side bare;
    for (Side* side : {&ours, &bare}) {
        side->sender = std::make_unique<Bench::CBareServer>(media.recording, udp);
    }
    ours.client = std::make_unique<Bench::CLoadClient>(
        [&options, &road](Bench::FleetFigures& figures) { return road.make(figures, options.threads); });
    bare.client = std::make_unique<Bench::CLoadClient>([](Bench::FleetFigures& figures) {
        return std::make_unique<Bench::CFleet>(figures, BARE_UDP_BASE, Bench::FLEET_DISCARDS);
    });
    const uint64_t resident = first_resident(*ours.client, ours.sender->Port(), udp);
    for (Side* side : {&ours, &bare}) {
        side->client->Open(side->sender->Port(), streams, udp);
        std::this_thread::sleep_for(FIRST_MEDIA);
        if (side != &ours || options.profile_s == 0) {
            Bench::Halt(side->sender->Pid());
        }
        if (options.profile_s != 0) {
            std::printf("process %d pulls\n", side->client->Pid());
            std::fflush(stdout);
            std::this_thread::sleep_for(std::chrono::seconds(options.profile_s));
            return true;
        }
    }
    const double added = static_cast<double>(Bench::ResidentBytes(ours.client->Pid())) - static_cast<double>(resident);
    for (int i = 0; i < options.slices; ++i) {
        run_slice(ours, media, udp);
        run_slice(bare, media, udp);
    }
    const bool all_up = ours.client->Figures().up == streams && bare.client->Figures().up == streams;
    const double more = static_cast<double>(streams) - FIRST_STREAMS;
    ours.client->Close();
    print_row(streams, road, ours, bare, more > 0 ? added / 1024 / more : 0);
    if (!all_up) {
        std::printf("not all sessions came up or stayed: no comparison\n");
    }
    return all_up;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const Road* road = find_road(word);
        const int value = road != nullptr || i + 1 == argc ? 0 : std::atoi(argv[++i]);
        if (road != nullptr) {
            options.road = road;
        } else if (word == "--streams") {
            options.streams = {static_cast<unsigned int>(value)};
        } else if (word == "--slices") {
            options.slices = std::max(1, value);
        } else if (word == "--threads") {
            options.threads = static_cast<unsigned int>(value);
        } else if (word == "--frame-size") {
            options.frame_size = static_cast<size_t>(value);
        } else if (word == "--profile") {
            options.profile_s = value;
        } else {
            std::fprintf(
                stderr,
                "usage: bench_client [--streams N] [--tcp | --udp | --group | --track] [--slices K] [--threads T] "
                "[--frame-size BYTES] [--profile SECONDS]\n");
            std::exit(2);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    Bench::RaiseDescriptorLimit();
    Bench::PrintMachine();
    std::printf("streams of %.2f Mbit/s, %zu frames of %zu bytes a second; processor seconds a Gbit of RTP\n",
                static_cast<double>(options.frame_size * FRAMES_PER_SECOND) * 8 / 1e6, FRAMES_PER_SECOND,
                options.frame_size);
    std::printf("| | streams | lost | damaged | library | bare | ratio | median of slices | kB/session |\n");
    bool good = true;
    for (const Road& road : ROADS) {
        for (const unsigned int streams : options.streams) {
            if (options.road == nullptr || options.road == &road) {
                good = run_row(options, streams, road) && good;
            }
        }
    }
    return good ? 0 : 1;
}
