#ifndef VIDORA_OSTRA_BLOCKCACHE_H
#define VIDORA_OSTRA_BLOCKCACHE_H

#include <cstddef>
#include <mutex>
#include <new>

namespace Kavio {
namespace Ostra {

// CBlockCache: keeps freed blocks of one size for the next use, behind the operators new and delete of a class whose
// objects come and go with every frame. At most `max_blocks` blocks stay; the one that came back last goes out first.
//
// THREADING  Any thread. One that is a namespace-scope variable works from the program's first instruction to its last.
//
// Under a sanitizer it keeps nothing, so that a use after the end is seen.
class CBlockCache {
public:
    constexpr CBlockCache(size_t block_size, int max_blocks) : m_block_size(block_size), m_max_blocks(max_blocks) {}
    CBlockCache(const CBlockCache&) = delete;
    CBlockCache& operator=(const CBlockCache&) = delete;

    // `size` bytes, or null. A size other than the cache's, of a derived class, comes from the heap.
    void* Get(size_t size) noexcept;
    // Takes back what Get gave for that size; null is ignored.
    void Put(void* block, size_t size) noexcept;

private:
    struct Free {
        Free* next;
    };

    const size_t m_block_size;
    const int m_max_blocks;
    std::mutex m_mutex;
    Free* m_head = nullptr;
    int m_count = 0;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_BLOCKCACHE_H
