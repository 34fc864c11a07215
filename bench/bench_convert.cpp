// What the converters cost: gigabytes a second and allocations for each frame, beside a memcpy of the same bytes.
//
//     bench_convert [CLIP.h264]
//
// CLIP is an H.264 byte stream with four-byte start codes (bench/make_clip.sh makes one); of it the key frames nearest
// to each size are taken. Without it the frames are synthetic: parameter sets and a slice of random bytes.
//
// Method: a row's work and the memcpy take turns, ROUNDS times, each for ROUND_MS or more; the best round of each
// counts, since on a shared machine everything else only adds. Each row is measured twice. "stream": the frames come
// from a ring of RING_BYTES and what comes out is held in a ring as long, as a server does whose source fills its
// frames in turn and whose senders hold the packets for a while; the memcpy goes from such a ring to another. "hot":
// one frame again and again, its output let go at once, and a memcpy from one place to one place, all of it in the
// first caches: this shows what the code itself costs. Allocations are counted in malloc, over all rounds but the
// first.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Vidora/H264Parser.h"
#include "Vidora/StartCode.h"
#include "StreamParser/StreamParser.h"

extern "C" void* __libc_malloc(size_t size);
static std::atomic<uint64_t> g_allocations{0};

// Counts what the converters allocate; glibc lets a program put its own malloc in front.
extern "C" void* malloc(size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace {

using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

constexpr int ROUNDS = 40;
constexpr double ROUND_MS = 2;
constexpr size_t SIZES[] = {2000, 20000, 200000};
constexpr size_t RING_BYTES = 64 << 20;

typedef std::vector<unsigned char> Bytes;

// One row: `work` converts one frame of `bytes` bytes, the `index`th of its ring of `frames`.
struct Row {
    std::string name;
    size_t bytes;
    size_t frames;
    std::function<void(size_t index)> work;
};

double seconds_of(const Row& row, int times) {
    const auto start = std::chrono::steady_clock::now();
    size_t index = 0;
    for (int i = 0; i < times; ++i) {
        row.work(index);
        index = index + 1 < row.frames ? index + 1 : 0;
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Whole turns of the ring, ROUND_MS of them or more.
int times_for_round(const Row& row) {
    const int turn = static_cast<int>(row.frames);
    seconds_of(row, turn);  // fills the rings
    const double turn_ms = seconds_of(row, turn) * 1000;
    return turn * (1 + static_cast<int>(ROUND_MS / (turn_ms + 1e-6)));
}

Row copy_row(const Row& row) {
    typedef std::vector<Bytes> Ring;
    const auto from = std::make_shared<Ring>(row.frames, Bytes(row.bytes, 0x5A));
    const auto to = std::make_shared<Ring>(row.frames, Bytes(row.bytes));
    return {"memcpy", row.bytes, row.frames, [=](size_t index) {
                std::memcpy((*to)[index].data(), (*from)[index].data(), (*from)[index].size());
                asm volatile("" ::"r"((*to)[index].data()) : "memory");  // the copy is wanted
            }};
}

void run_row(const Row& row) {
    const Row copy = copy_row(row);
    const int times = times_for_round(row);
    const int copies = times_for_round(copy);
    double best_work = 1e9;
    double best_copy = 1e9;
    uint64_t allocations = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        const uint64_t before = g_allocations;
        best_work = std::min(best_work, seconds_of(row, times) / times);
        allocations += round > 0 ? g_allocations - before : 0;
        best_copy = std::min(best_copy, seconds_of(copy, copies) / copies);
    }
    const double gigabytes = static_cast<double>(row.bytes) / 1e9;
    std::printf("%-30s %-6s %7zu B %7.2f GB/s   memcpy %6.2f GB/s   cost %5.2f memcpys   %6.2f allocations a frame\n",
                row.name.c_str(), row.frames > 1 ? "stream" : "hot", row.bytes, gigabytes / best_work,
                gigabytes / best_copy, best_work / best_copy,
                static_cast<double>(allocations) / ((ROUNDS - 1.0) * times));
}

// Parameter sets and one slice, `size` bytes in all.
Bytes synthetic_frame(size_t size) {
    Bytes frame = {0, 0, 0, 1,    0x67, 0x42, 0xC0, 0x0A, 0xD9, 0x04, 0x7B, 0x01, 0x10, 0,
                   0, 3, 0, 0x10, 0,    0,    3,    3,    0x20, 0xF1, 0x22, 0x64, 0x80, 0,
                   0, 0, 1, 0x68, 0xCB, 0x83, 0xCB, 0x20, 0,    0,    0,    1,    0x65, 0x88};
    std::mt19937 random(static_cast<unsigned>(size));
    while (frame.size() < size) {
        const auto byte = static_cast<unsigned char>(random());
        frame.push_back(byte < 2 ? 0x80 : byte);  // so that there is no start code inside
    }
    return frame;
}

// The clip with four-byte start codes throughout, as sources deliver frames; encoders write three-byte ones as well.
Bytes lengthen_start_codes(const Bytes& clip) {
    Bytes out;
    size_t done = 0;
    for (size_t at = find_start_code3(clip.data(), clip.size()); at != NO_START_CODE;
         at = find_start_code3(clip.data(), clip.size(), at + 3)) {
        out.insert(out.end(), clip.begin() + static_cast<long>(done), clip.begin() + static_cast<long>(at));
        if (out.empty() || out.back() != 0) {
            out.push_back(0);
        }
        done = at;
    }
    out.insert(out.end(), clip.begin() + static_cast<long>(done), clip.end());
    return out;
}

// The access units of a byte stream that open with a parameter set.
std::vector<Bytes> key_frames(const Bytes& file) {
    const Bytes clip = lengthen_start_codes(file);
    std::vector<Bytes> frames;
    size_t open = NO_START_CODE;  // where a frame with its parameter set begins
    bool slice = false;
    const size_t end = clip.size() > 4 ? clip.size() - 1 : 0;  // a byte stands behind each start code
    for (size_t at = find_start_code4(clip.data(), end); at != NO_START_CODE;
         at = find_start_code4(clip.data(), end, at + 4)) {
        const int type = h264_nal_type(clip[at + 4]);
        if (slice && open != NO_START_CODE) {
            frames.emplace_back(clip.begin() + static_cast<long>(open), clip.begin() + static_cast<long>(at));
            open = NO_START_CODE;
        }
        if (type == H264_NAL_SPS) {
            open = at;
        }
        slice = type == H264_NAL_IDR || type == H264_NAL_SLICE;
    }
    return frames;
}

Bytes pick_frame(const std::vector<Bytes>& frames, size_t size) {
    const auto distance = [size](const Bytes& frame) {
        return frame.size() > size ? frame.size() - size : size - frame.size();
    };
    const Bytes* best = nullptr;
    for (const Bytes& frame : frames) {
        best = best == nullptr || distance(frame) < distance(*best) ? &frame : best;
    }
    return best != nullptr ? *best : synthetic_frame(size);
}

// An encoder with the parameters of a server's track.
CStreamParserPtr make_encoder(int dst_type, bool merge) {
    const CStreamParserPtr encoder = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, dst_type);
    RtpEncParam rtp;
    rtp.enc_type = ENC_TYPE_H264;
    rtp.payload_type = 96;
    encoder->SetParam(rtp);
    TsEncParam ts;
    ts.video_enc_type = ENC_TYPE_H264;
    encoder->SetParam(ts);
    PsEncParam ps;
    ps.video_enc_type = ENC_TYPE_H264;
    encoder->SetParam(ps);
    RtpOverTcpParam over_tcp;
    over_tcp.use_header = 1;
    over_tcp.merge_frame = merge ? 1 : 0;
    encoder->SetParam(over_tcp);
    return encoder;
}

Flumen::CMediaFrame make_input(const Bytes& bytes) {
    Flumen::CMediaFrame frame(static_cast<unsigned>(bytes.size()));
    std::memcpy(frame.getBuffer(), bytes.data(), bytes.size());
    frame.setType(FRAME_TYPE_I);
    return frame;
}

void run_encoder(const std::string& name, int dst_type, bool merge, const Bytes& bytes, size_t frames) {
    const CStreamParserPtr encoder = make_encoder(dst_type, merge);
    std::vector<Flumen::CMediaFrame> inputs;
    std::vector<Flumen::CMediaFrame> outputs(frames > 1 ? frames : 0);
    while (inputs.size() < frames) {
        inputs.push_back(make_input(bytes));
    }
    uint64_t pts = 1;
    int sequence = 0;
    run_row({name, bytes.size(), frames, [&](size_t index) {
                 Flumen::CMediaFrame& frame = inputs[index];
                 frame.setPts(pts += 40, Flumen::PTS_TYPE_MS);
                 frame.setSequence(++sequence);
                 if (encoder->InputFrame(frame) != PARSER_FRAME_READY) {
                     std::abort();
                 }
                 for (Flumen::CMediaFrame out = encoder->OutputFrame(); out.valid(); out = encoder->OutputFrame()) {
                     if (!outputs.empty()) {
                         outputs[index] = std::move(out);  // of single packets the last one
                     }
                 }
             }});
}

void run_scan(const Bytes& bytes, size_t frames) {
    const std::vector<Bytes> inputs(frames, Bytes(bytes.size(), 0x55));  // no start code: every byte is looked at
    run_row({"start code scan", bytes.size(), frames, [&](size_t index) {
                 const size_t found = find_start_code4(inputs[index].data(), inputs[index].size());
                 asm volatile("" ::"r"(found) : "memory");
             }});
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Bytes> frames;
    if (argc > 1) {
        std::ifstream file(argv[1], std::ios::binary);
        frames = key_frames(Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()));
        if (frames.empty()) {
            std::fprintf(stderr, "no key frames in %s\n", argv[1]);
            return 1;
        }
    }
    std::printf("%s frames, compiler %s%s\n", frames.empty() ? "synthetic" : "recorded", __VERSION__,
#ifdef __OPTIMIZE__
                ""
#else
                " WITHOUT OPTIMIZATION"
#endif
    );
    for (const size_t size : SIZES) {
        const Bytes frame = pick_frame(frames, size);
        for (const size_t ring : {RING_BYTES / frame.size(), size_t{1}}) {
            run_encoder("H.264 to RTP, merged", STREAM_TYPE_RTP, true, frame, ring);
            run_encoder("H.264 to RTP, single packets", STREAM_TYPE_RTP, false, frame, ring);
            run_scan(frame, ring);
        }
    }
    return 0;
}
