#ifndef VIDORA_BENCH_SUPPORT_PAIREDROW_H
#define VIDORA_BENCH_SUPPORT_PAIREDROW_H

// Rows that set the cost of a piece of work beside that of a floor on the same bytes.
//
// A row's work and its floor take turns in slices of SLICE_MS, PAIRS of each, so that whatever else the machine does
// hits both; the cost is the median of the ratio over these pairs. Time is the thread's processor time.
#include <ctime>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/Machine.h"
#include "support/MallocCount.h"

namespace Bench {

constexpr int PAIRS = 101;
constexpr double SLICE_MS = 1;

// One row of a table: `work` does its work on the `index`th of a ring of `ring` items of `bytes` bytes.
struct Row {
    std::string name;
    size_t bytes;
    size_t ring;
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
    // Fills the ring, then finds out how many items make a slice.
    explicit Slicer(const Row& row) : m_row(row) {
        run(row.ring);
        const double estimate = run(std::max<size_t>(row.ring / 8, 20));
        m_times = 1 + static_cast<size_t>(SLICE_MS / 1000 / estimate);
    }
    // The next slice; seconds an item.
    double Run() { return run(m_times); }
    // Items in a slice.
    size_t Times() const { return m_times; }

private:
    double run(size_t times) {
        const double start = processor_seconds();
        for (size_t i = 0; i < times; ++i) {
            m_row.work(m_index);
            m_index = m_index + 1 < m_row.ring ? m_index + 1 : 0;
        }
        return (processor_seconds() - start) / static_cast<double>(times);
    }

    const Row& m_row;
    size_t m_index = 0;
    size_t m_times = 0;
};

struct Comparison {
    double seconds = 0;  // an item, as all the others the median
    double floor_seconds = 0;
    double ratio = 0;
    double low_ratio = 0;  // the ratio's quartiles
    double high_ratio = 0;
    double allocations = 0;  // an item
};

inline Comparison compare(const Row& row, const Row& floor) {
    Slicer work(row);
    Slicer base(floor);
    std::vector<double> seconds;
    std::vector<double> floor_seconds;
    std::vector<double> ratios;
    seconds.reserve(PAIRS);  // so that the rows' own allocations aren't counted
    uint64_t allocations = 0;
    for (int pair = 0; pair < PAIRS; ++pair) {
        const uint64_t before = g_allocations;
        seconds.push_back(work.Run());
        allocations += g_allocations - before;
        floor_seconds.push_back(base.Run());
        ratios.push_back(seconds.back() / floor_seconds.back());
    }
    Comparison result;
    result.seconds = Percentile(seconds, 0.5);
    result.floor_seconds = Percentile(floor_seconds, 0.5);
    result.ratio = Percentile(ratios, 0.5);
    result.low_ratio = Percentile(ratios, 0.25);
    result.high_ratio = Percentile(ratios, 0.75);
    result.allocations = static_cast<double>(allocations) / (PAIRS * static_cast<double>(work.Times()));
    return result;
}

// Prints a row about a text that is read or written.
inline void print_text_row(const Row& row, const Comparison& cost) {
    std::printf("  %-34s %5zu bytes %8.0f ns %9.0f a second %6.2f allocations %6.1f x floor (%.1f to %.1f)\n",
                row.name.c_str(), row.bytes, cost.seconds * 1e9, 1 / cost.seconds, cost.allocations, cost.ratio,
                cost.low_ratio, cost.high_ratio);
    std::fflush(stdout);
}

// The floor for a text: a memcpy, and one strstr pass for a text that isn't there.
inline Row text_floor(const std::string& text) {
    const auto copy = std::make_shared<std::vector<char>>(text.size() + 1);
    return {"floor: memcpy and one strstr", text.size(), 1, [=](size_t) {
                const char* volatile absent = "\r\na=absent:";
                std::memcpy(copy->data(), text.c_str(), text.size() + 1);
                if (std::strstr(copy->data(), absent) != nullptr) {
                    std::abort();
                }
            }};
}

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_PAIREDROW_H
