#ifndef TERNCORELIB_FOUNDATION_MEMORY_H_
#define TERNCORELIB_FOUNDATION_MEMORY_H_

#include <cstdint>

#include "foundation/export.h"

namespace KVT {

// The zero-filling allocator on the process heap. Its blocks are not malloc's: release them with
// MemFree only. The same heap serves every result of the library that the caller owns
// (StrReplace's new text, the Base64 buffers).

// A zero-filled block of `size` bytes, or null when the heap is exhausted. A size of 0 gives null
// without asking the heap.
TERN_API void* MemAlloc(std::uint32_t size);

// Resizes `block` to `size` bytes; bytes added at the end are zero. A null block gives null and
// allocates nothing, so this is no substitute for MemAlloc. A size of 0 is handed to the heap as
// it is. On failure the result is null and the old block stays valid and unchanged.
TERN_API void* MemRealloc(void* block, std::uint32_t size);

// Releases a block of MemAlloc or MemRealloc. Null does nothing.
TERN_API void MemFree(void* block);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_MEMORY_H_
