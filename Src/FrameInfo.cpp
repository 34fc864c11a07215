#include "FrameInfo.h"

#include "Ostra/BlockCache.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_CACHED_OBJECTS = 256;

Ostra::CBlockCache g_cache(sizeof(CFrameInfo), MAX_CACHED_OBJECTS);

}  // namespace

void* CFrameInfo::operator new(size_t size) noexcept {
    return g_cache.Get(size);
}

void* CFrameInfo::operator new(size_t size, const std::nothrow_t&) noexcept {
    return g_cache.Get(size);
}

void CFrameInfo::operator delete(void* memory, size_t size) noexcept {
    g_cache.Put(memory, size);
}

}  // namespace Vidora
}  // namespace Kavio
