#ifndef VIDORA_BENCH_SUPPORT_COPYROW_H
#define VIDORA_BENCH_SUPPORT_COPYROW_H

// Rows that set the cost of a piece of work on a frame beside that of a memcpy of the frame.
//
// A row's work and the memcpy take turns in slices of SLICE_MS, PAIRS of each, so that whatever else the machine does
// hits both; the cost is the median of the ratio over these pairs. Time is the thread's processor time. Each row is
// measured twice. "stream": the frames come from a ring of RING_BYTES and what comes out is held in a ring as long, as
// a server does whose source fills its frames in turn and whose senders hold the packets for a while; the memcpy goes
// from such a ring to another. "hot": one frame again and again, its output let go at once, and a memcpy from one place
// to one place, all of it in the first caches: this shows what the code itself costs.
#include <ctime>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/Machine.h"
#include "support/MallocCount.h"

namespace Bench {

typedef std::vector<unsigned char> Bytes;

constexpr int PAIRS = 101;
constexpr double SLICE_MS = 1;
constexpr size_t RING_BYTES = 64 << 20;

// One row of the table: `work` converts one frame of `bytes` bytes, the `index`th of its ring of `frames`.
struct Row {
    std::string name;
    size_t bytes;
    size_t frames;
    std::function<void(size_t index)> work;
};

inline double processor_seconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// A row's work in slices that go on round its ring.
class Slicer {
public:
    // Fills the ring, then finds out how many frames make a slice.
    explicit Slicer(const Row& row) : m_row(row) {
        run(row.frames);
        const double estimate = run(std::max<size_t>(row.frames / 8, 20));
        m_times = 1 + static_cast<size_t>(SLICE_MS / 1000 / estimate);
    }
    // The next slice; seconds a frame.
    double Run() { return run(m_times); }
    // Frames in a slice.
    size_t Times() const { return m_times; }

private:
    double run(size_t times) {
        const double start = processor_seconds();
        for (size_t i = 0; i < times; ++i) {
            m_row.work(m_index);
            m_index = m_index + 1 < m_row.frames ? m_index + 1 : 0;
        }
        return (processor_seconds() - start) / static_cast<double>(times);
    }

    const Row& m_row;
    size_t m_index = 0;
    size_t m_times = 0;
};

inline Row copy_row(const Row& row) {
    typedef std::vector<Bytes> Ring;
    const auto from = std::make_shared<Ring>(row.frames, Bytes(row.bytes, 0x5A));
    const auto to = std::make_shared<Ring>(row.frames, Bytes(row.bytes));
    return {"memcpy", row.bytes, row.frames, [=](size_t index) {
                std::memcpy((*to)[index].data(), (*from)[index].data(), (*from)[index].size());
                asm volatile("" ::"r"((*to)[index].data()) : "memory");  // the copy is wanted
            }};
}

inline void print_titles() {
    std::printf("%-28s %-6s %8s %8s %12s   %-28s %s\n", "", "", "bytes", "GB/s", "memcpy GB/s", "memcpys (quartiles)",
                "allocations a frame");
}

inline void run_row(const Row& row) {
    const Row copy_of_row = copy_row(row);
    Slicer work(row);
    Slicer copy(copy_of_row);
    std::vector<double> work_seconds;
    std::vector<double> copy_seconds;
    std::vector<double> ratios;
    work_seconds.reserve(PAIRS);  // so that the rows' own allocations aren't counted
    uint64_t allocations = 0;
    for (int pair = 0; pair < PAIRS; ++pair) {
        const uint64_t before = g_allocations;
        work_seconds.push_back(work.Run());
        allocations += g_allocations - before;
        copy_seconds.push_back(copy.Run());
        ratios.push_back(work_seconds.back() / copy_seconds.back());
    }
    const double gigabytes = static_cast<double>(row.bytes) / 1e9;
    std::printf("%-28s %-6s %8zu %8.2f %12.2f   %5.2f (%.2f to %.2f) %13s %5.2f\n", row.name.c_str(),
                row.frames > 1 ? "stream" : "hot", row.bytes, gigabytes / Percentile(work_seconds, 0.5),
                gigabytes / Percentile(copy_seconds, 0.5), Percentile(ratios, 0.5), Percentile(ratios, 0.25),
                Percentile(ratios, 0.75), "",
                static_cast<double>(allocations) / (PAIRS * static_cast<double>(work.Times())));
    std::fflush(stdout);
}

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_COPYROW_H
