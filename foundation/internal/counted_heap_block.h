#ifndef TERNCORELIB_FOUNDATION_INTERNAL_COUNTED_HEAP_BLOCK_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_COUNTED_HEAP_BLOCK_H_

// Library-internal: the process heap as the memory of a counted block (apart from
// counted_block.h, which applications compile, so that it needs no <windows.h>).

#include <cstddef>
#include <cstdint>

#include "foundation/internal/counted_block.h"
#include "foundation/memory.h"
#include "foundation/win.h"

namespace KVT {
namespace internal {

// MemAlloc, MemRealloc and MemFree: zero-filled blocks (the bytes a resize adds too), aligned to
// MEMORY_ALLOCATION_ALIGNMENT, which is 8 bytes in 32-bit processes and 16 in 64-bit ones. A size
// beyond 32 bits is refused, as the heap functions take no more.
struct HeapMemory {
  static constexpr std::size_t kAlignment = MEMORY_ALLOCATION_ALIGNMENT;
  static void* Allocate(std::size_t bytes) {
    return bytes <= UINT32_MAX ? MemAlloc(static_cast<std::uint32_t>(bytes)) : nullptr;
  }
  static void* Reallocate(void* block, std::size_t bytes) {
    return bytes <= UINT32_MAX ? MemRealloc(block, static_cast<std::uint32_t>(bytes)) : nullptr;
  }
  static void Free(void* block) { MemFree(block); }
};

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_COUNTED_HEAP_BLOCK_H_
