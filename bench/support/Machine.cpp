#include "support/Machine.h"

#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace Bench {

uint64_t ProcessTimeUs() {
    rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto us = [](const timeval& time) {
        return static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_usec);
    };
    return us(usage.ru_utime) + us(usage.ru_stime);
}

uint64_t MachineTimeUs() {
    unsigned long long part[8] = {};  // user, nice, system, idle, waiting, interrupts, soft interrupts, stolen
    if (std::FILE* file = std::fopen("/proc/stat", "r")) {
        if (std::fscanf(file, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &part[0], &part[1], &part[2], &part[3],
                        &part[4], &part[5], &part[6], &part[7]) != 8) {
            std::fprintf(stderr, "/proc/stat is unknown\n");
        }
        std::fclose(file);
    }
    const unsigned long long ticks = part[0] + part[1] + part[2] + part[5] + part[6] + part[7];
    return ticks * 1000000 / static_cast<unsigned long long>(::sysconf(_SC_CLK_TCK));
}

void PrintMachine() {
    utsname name = {};
    ::uname(&name);
    char model[256] = "unknown processor";
    if (std::FILE* file = std::fopen("/proc/cpuinfo", "r")) {
        char line[256];
        while (std::fgets(line, sizeof(line), file) != nullptr) {
            if (std::sscanf(line, "model name : %255[^\n]", model) == 1) {
                break;
            }
        }
        std::fclose(file);
    }
    std::printf("%s, %u processors, %s %s, compiler %s, %s\n", model, std::thread::hardware_concurrency(), name.sysname,
                name.release, __VERSION__,
#ifdef NDEBUG
                "optimized build"
#else
                "WARNING: build with assertions, not for figures"
#endif
    );
}

void RaiseDescriptorLimit() {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace Bench
