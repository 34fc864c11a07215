#ifndef VIDORA_BENCH_SUPPORT_COPYROW_H
#define VIDORA_BENCH_SUPPORT_COPYROW_H

// Rows that set the cost of a piece of work on a frame beside that of a memcpy of the frame. For one source file of a
// program: it puts a malloc of its own in front of the C library's.
//
// A row's work and the memcpy take turns, ROUNDS times, each for ROUND_MS or more; the best round of each
// counts, since on a shared machine everything else only adds. Each row is measured twice. "stream": the frames come
// from a ring of RING_BYTES and what comes out is held in a ring as long, as a server does whose source fills its
// frames in turn and whose senders hold the packets for a while; the memcpy goes from such a ring to another. "hot":
// one frame again and again, its output let go at once, and a memcpy from one place to one place, all of it in the
// first caches: this shows what the code itself costs. Allocations are counted in malloc, over all rounds but the
// first.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Bench {
inline std::atomic<uint64_t> g_allocations{0};
}

// glibc lets a program do this.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    Bench::g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace Bench {

typedef std::vector<unsigned char> Bytes;

constexpr int ROUNDS = 40;
constexpr double ROUND_MS = 2;
constexpr size_t SIZES[] = {2000, 20000, 200000};
constexpr size_t RING_BYTES = 64 << 20;

// One row of the table: `work` converts one frame of `bytes` bytes, the `index`th of its ring of `frames`.
struct Row {
    std::string name;
    size_t bytes;
    size_t frames;
    std::function<void(size_t index)> work;
};

inline double seconds_of(const Row& row, int times) {
    const auto start = std::chrono::steady_clock::now();
    size_t index = 0;
    for (int i = 0; i < times; ++i) {
        row.work(index);
        index = index + 1 < row.frames ? index + 1 : 0;
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Whole turns of the ring, ROUND_MS of them or more.
inline int times_for_round(const Row& row) {
    const int turn = static_cast<int>(row.frames);
    seconds_of(row, turn);  // fills the rings
    const double turn_ms = seconds_of(row, turn) * 1000;
    return turn * (1 + static_cast<int>(ROUND_MS / (turn_ms + 1e-6)));
}

inline Row copy_row(const Row& row) {
    typedef std::vector<Bytes> Ring;
    const auto from = std::make_shared<Ring>(row.frames, Bytes(row.bytes, 0x5A));
    const auto to = std::make_shared<Ring>(row.frames, Bytes(row.bytes));
    return {"memcpy", row.bytes, row.frames, [=](size_t index) {
                std::memcpy((*to)[index].data(), (*from)[index].data(), (*from)[index].size());
                asm volatile("" ::"r"((*to)[index].data()) : "memory");  // the copy is wanted
            }};
}

inline void run_row(const Row& row) {
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

// An H.264 frame of parameter sets and one slice of random bytes, `size` bytes in all.
inline Bytes synthetic_frame(size_t size) {
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

// What the figures depend on.
inline void print_build(const char* frames) {
#ifdef __OPTIMIZE__
    std::printf("%s frames, compiler %s\n", frames, __VERSION__);
#else
    std::printf("%s frames, compiler %s WITHOUT OPTIMIZATION\n", frames, __VERSION__);
#endif
}

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_COPYROW_H
