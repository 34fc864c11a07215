// What it costs to rebuild frames from RTP and TS and to put frames into TS and PS: gigabytes of frame a second and
// allocations for each frame, beside a memcpy of the same bytes.
//
// Method: H.264 key frames of parameter sets and one slice of random bytes, in packets as a sender makes them. A row's
// work and the memcpy take turns, ROUNDS times, each for ROUND_MS or more; the best round of each counts, since on a
// shared machine everything else only adds. Both go through a ring of RING_BYTES of frames, so that neither lives in
// the first caches. Allocations are counted in malloc, over all rounds but the first; packets that go in are made
// beforehand.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "StreamParser/Frame2Ps.h"
#include "StreamParser/Frame2Ts.h"
#include "StreamParser/StreamParser.h"

extern "C" void* __libc_malloc(size_t size);
static std::atomic<uint64_t> g_allocations{0};

// glibc lets a program put its own malloc in front.
extern "C" void* malloc(size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace {

using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

constexpr int ROUNDS = 20;
constexpr double ROUND_MS = 5;
constexpr size_t SIZES[] = {2000, 20000, 200000};
constexpr size_t RING_BYTES = 16 << 20;

typedef std::vector<unsigned char> Bytes;

// One row: `work` converts one frame of `bytes` bytes, the `index`th of a ring of `frames`.
struct Row {
    const char* name;
    size_t bytes;
    size_t frames;
    std::function<void(size_t index)> work;
};

double seconds_of(const Row& row, size_t times) {
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < times; ++i) {
        row.work(i % row.frames);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

size_t times_for_round(const Row& row) {
    const double turn_ms = seconds_of(row, row.frames) * 1000;
    return row.frames * (1 + static_cast<size_t>(ROUND_MS / (turn_ms + 1e-6)));
}

void run_row(const Row& row) {
    const Bytes from(row.bytes * row.frames, 0x5A);
    Bytes to(from.size());
    const Row copy = {"memcpy", row.bytes, row.frames, [&](size_t index) {
                          std::memcpy(to.data() + index * row.bytes, from.data() + index * row.bytes, row.bytes);
                          asm volatile("" ::"r"(to.data()) : "memory");  // the copy is wanted
                      }};
    const size_t times = times_for_round(row);
    const size_t copies = times_for_round(copy);
    double best_work = 1e9;
    double best_copy = 1e9;
    uint64_t allocations = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        const uint64_t before = g_allocations;
        best_work = std::min(best_work, seconds_of(row, times) / static_cast<double>(times));
        allocations += round > 0 ? g_allocations - before : 0;
        best_copy = std::min(best_copy, seconds_of(copy, copies) / static_cast<double>(copies));
    }
    const double gigabytes = static_cast<double>(row.bytes) / 1e9;
    std::printf("%-14s %7zu B %7.2f GB/s   memcpy %6.2f GB/s   cost %5.2f memcpys   %5.2f allocations a frame\n",
                row.name, row.bytes, gigabytes / best_work, gigabytes / best_copy, best_work / best_copy,
                static_cast<double>(allocations) / static_cast<double>((ROUNDS - 1) * times));
}

Bytes make_frame(size_t size) {
    Bytes frame = {0, 0, 0, 1,    0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBE, 0x40, 0,
                   0, 0, 1, 0x68, 0xCE, 0x3C, 0x80, 0,    0,    0,    1,    0x65, 0x88};
    std::mt19937 random(static_cast<unsigned>(size));
    while (frame.size() < size) {
        const auto byte = static_cast<unsigned char>(random());
        frame.push_back(byte < 2 ? 0x80 : byte);  // so that there is no start code inside
    }
    return frame;
}

Flumen::CMediaFrame to_media(const unsigned char* data, size_t len) {
    Flumen::CMediaFrame frame(static_cast<unsigned>(len));
    std::memcpy(frame.getBuffer(), data, len);
    frame.setType(FRAME_TYPE_I);
    return frame;
}

// The packets of one frame, each in a media frame of its own; TS in packets of 188 bytes.
std::vector<Flumen::CMediaFrame> packets_of(CStreamParser& encoder, const Bytes& bytes, uint64_t pts) {
    Flumen::CMediaFrame input = to_media(bytes.data(), bytes.size());
    input.setPts(pts, Flumen::PTS_TYPE_MS);
    encoder.InputFrame(input);
    std::vector<Flumen::CMediaFrame> packets;
    for (Flumen::CMediaFrame out = encoder.OutputFrame(); out.valid(); out = encoder.OutputFrame()) {
        packets.push_back(out);
    }
    return packets;
}

void run_decoder(const char* name, int stream_type, const Bytes& bytes, size_t frames) {
    const CStreamParserPtr encoder = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, stream_type);
    const CStreamParserPtr decoder = CStreamParser::Create(stream_type, STREAM_TYPE_RAW_FRAME);
    RtpEncParam rtp;
    rtp.enc_type = ENC_TYPE_H264;
    rtp.payload_type = 96;
    rtp.ssrc = 0x11223344;
    encoder->SetParam(rtp);
    TsEncParam ts;
    ts.video_enc_type = ENC_TYPE_H264;
    ts.packets_per_output = 1;
    encoder->SetParam(ts);
    RtpDecParam param;
    param.enc_type = ENC_TYPE_H264;
    param.payload_type = 96;
    param.drop_damaged = 1;
    if (stream_type == STREAM_TYPE_RTP) {
        decoder->SetParam(param);
    }
    std::vector<std::vector<Flumen::CMediaFrame>> ring(frames);
    for (size_t i = 0; i < frames; ++i) {
        ring[i] = packets_of(*encoder, bytes, 1 + i * 40);
    }
    uint16_t sequence = 0;
    run_row({name, bytes.size(), frames, [&](size_t index) {
                 size_t out_bytes = 0;
                 for (Flumen::CMediaFrame& packet : ring[index]) {
                     if (stream_type == STREAM_TYPE_RTP) {  // the ring goes round, but the numbers go on
                         packet.getBuffer()[2] = static_cast<unsigned char>(sequence >> 8);
                         packet.getBuffer()[3] = static_cast<unsigned char>(sequence++);
                     }
                     if (decoder->InputFrame(packet) == PARSER_FRAME_READY) {
                         const Flumen::CMediaFrame out = decoder->OutputFrame();
                         out_bytes += out.size();
                     }
                 }
                 // A transport stream shows the end of a frame only with the next one.
                 if (stream_type == STREAM_TYPE_RTP && out_bytes != bytes.size()) {
                     std::abort();
                 }
             }});
}

void run_packer(const char* name, IFrame2Packet& packer, const Bytes& bytes, size_t frames) {
    Bytes from;
    for (size_t i = 0; i < frames; ++i) {
        from.insert(from.end(), bytes.begin(), bytes.end());
    }
    Bytes to(70000);
    uint64_t pts = 1;
    run_row({name, bytes.size(), frames, [&](size_t index) {
                 const unsigned char* frame = from.data() + index * bytes.size();
                 if (packer.PutFrame(frame, static_cast<unsigned>(bytes.size()), ENC_TYPE_H264, pts += 40, 0) != 0) {
                     std::abort();
                 }
                 do {
                     packer.GetPacket(to.data(), static_cast<unsigned>(to.size()));
                     asm volatile("" ::"r"(to.data()) : "memory");
                 } while (packer.NextPacket() == 0);
             }});
}

}  // namespace

int main() {
    std::printf("compiler %s%s\n", __VERSION__,
#ifdef __OPTIMIZE__
                ""
#else
                " WITHOUT OPTIMIZATION"
#endif
    );
    for (const size_t size : SIZES) {
        const Bytes frame = make_frame(size);
        const size_t frames = RING_BYTES / size;
        run_decoder("RTP to frame", STREAM_TYPE_RTP, frame, frames);
        run_decoder("TS to frame", STREAM_TYPE_TS, frame, frames);
        CFrame2Ts ts;
        ts.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 7);
        run_packer("frame to TS", ts, frame, frames);
        CFrame2Ps ps;
        ps.SetPsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 8000, 4000000);
        run_packer("frame to PS", ps, frame, frames);
    }
    return 0;
}
