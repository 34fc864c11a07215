#include "Ostra/BlockCache.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VIDORA_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VIDORA_SANITIZED
#endif
#endif

namespace Kavio {
namespace Ostra {

namespace {

#ifdef VIDORA_SANITIZED
const bool KEEPS_BLOCKS = false;
#else
const bool KEEPS_BLOCKS = true;
#endif

}  // namespace

void* CBlockCache::Get(size_t size) noexcept {
    if (size == m_block_size) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_head != nullptr) {
            Free* block = m_head;
            m_head = block->next;
            --m_count;
            return block;
        }
    }
    return ::operator new(size, std::nothrow);
}

void CBlockCache::Put(void* block, size_t size) noexcept {
    if (block == nullptr) {
        return;
    }
    if (KEEPS_BLOCKS && size == m_block_size) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_count < m_max_blocks) {
            m_head = new (block) Free{m_head};
            ++m_count;
            return;
        }
    }
    ::operator delete(block);
}

}  // namespace Ostra
}  // namespace Kavio
