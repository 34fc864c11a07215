#ifndef VIDORA_BENCH_SUPPORT_MACHINE_H
#define VIDORA_BENCH_SUPPORT_MACHINE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Bench {

// Processor time of this process in microseconds, user and system.
uint64_t ProcessTimeUs();
// The same of the whole machine since its start.
uint64_t MachineTimeUs();
// Prints what a figure depends on: processors, kernel, compiler, build.
void PrintMachine();
// Allows as many descriptors as the system gives.
void RaiseDescriptorLimit();

// The value at `part` (0 to 1) of the sorted samples, 0 if there are none.
template <typename T>
T Percentile(std::vector<T> samples, double part) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const size_t index = static_cast<size_t>(part * static_cast<double>(samples.size()));
    return samples[std::min(index, samples.size() - 1)];
}

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_MACHINE_H
