#ifndef VIDORA_BENCH_SUPPORT_MALLOCCOUNT_H
#define VIDORA_BENCH_SUPPORT_MALLOCCOUNT_H

// Counts allocations: a malloc in front of the C library's, to which operator new comes as well. For the one source
// file of a program with one thread.
#include <cstddef>
#include <cstdint>

namespace Bench {

// Volatile, so that the compiler can't fold a round's allocations away.
inline volatile uint64_t g_allocations = 0;

}  // namespace Bench

// glibc lets a program do this.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    Bench::g_allocations = Bench::g_allocations + 1;
    return __libc_malloc(size);
}

#endif  // VIDORA_BENCH_SUPPORT_MALLOCCOUNT_H
