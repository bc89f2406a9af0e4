#include "foundation/memory.h"

#include "foundation/win.h"

namespace KVT {

void* MemAlloc(std::uint32_t size) {
  if (size == 0) return nullptr;
  return ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, size);
}

void* MemRealloc(void* block, std::uint32_t size) {
  if (block == nullptr) return nullptr;
  return ::HeapReAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, block, size);
}

void MemFree(void* block) {
  if (block != nullptr) ::HeapFree(::GetProcessHeap(), 0, block);
}

}  // namespace KVT
