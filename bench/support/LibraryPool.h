#ifndef VIDORA_BENCH_SUPPORT_LIBRARYPOOL_H
#define VIDORA_BENCH_SUPPORT_LIBRARYPOOL_H

#include <poll.h>

#include <cstdio>
#include <cstdlib>

#include "Vidora/Ostra/Log.h"
#include "Vidora/Tramel/NetThread.h"

namespace Bench {

// For a load whose work is done by the library's pool: makes that, with a silent log, or ends the program.
inline void StartLibraryPool(unsigned int threads) {
    Kavio::Ostra::SetLogLevel(Kavio::Ostra::LOG_LEVEL_NONE);
    if (Kavio::Tramel::CNetThread::CreateThreadPool(threads, false) != 0) {
        std::fprintf(stderr, "no thread pool\n");
        std::exit(1);
    }
}

inline void EndLibraryPool() {
    Kavio::Tramel::CNetThread::DestroyThreadPool();
}

// What such a load does in Run.
inline void WaitForCommand(int wake_fd) {
    pollfd wake = {wake_fd, POLLIN, 0};
    while (::poll(&wake, 1, -1) != 1) {
    }
}

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_LIBRARYPOOL_H
