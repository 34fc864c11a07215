#include "Ostra/PageMemory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

// AddressSanitizer watches heap memory only.
#if defined(__SANITIZE_ADDRESS__)
#define VIDORA_HEAP_PAGES
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VIDORA_HEAP_PAGES
#endif
#endif

namespace Kavio {
namespace Ostra {

#ifdef VIDORA_HEAP_PAGES

void* NewPages(size_t size) noexcept {
    return std::calloc(1, size);
}

void DeletePages(void* memory, size_t) noexcept {
    std::free(memory);
}

#else

void* NewPages(size_t size) noexcept {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    madvise(memory, size, MADV_NOHUGEPAGE);
    return memory;
}

void DeletePages(void* memory, size_t size) noexcept {
    munmap(memory, size);
}

#endif

void ForgetPages(void* memory, size_t size) noexcept {
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* first = memory;
    if (std::align(page, page, first, size) != nullptr) {
        madvise(first, size / page * page, MADV_DONTNEED);
    }
}

}  // namespace Ostra
}  // namespace Kavio
