#ifndef VIDORA_OSTRA_PAGEMEMORY_H
#define VIDORA_OSTRA_PAGEMEMORY_H

#include <cstddef>

namespace Kavio {
namespace Ostra {

// Memory for one large object of a connection that uses the whole of it only at its worst: fresh pages of the system,
// which take no memory until they are touched. What the heap hands out may be resident already, or lie in a huge page
// that becomes resident as a whole. Any thread.

// `size` bytes of zeros, aligned for a page; null if memory is short.
void* NewPages(size_t size) noexcept;
// Frees what NewPages returned for that size.
void DeletePages(void* memory, size_t size) noexcept;
// Returns to the system the whole pages among `size` bytes that nobody needs any more: they are zeros then, and take no
// memory until they are touched again. The bytes outside whole pages stay. The memory is NewPages' or of the heap.
void ForgetPages(void* memory, size_t size) noexcept;

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_PAGEMEMORY_H
