// The replaceable allocation functions and std::nothrow, which Microsoft's static runtime links
// into every module: malloc and free of ucrtbase.dll; a failed allocation throws std::bad_alloc,
// or gives null in the nothrow forms. Over-aligned forms use _aligned_malloc.

#include <malloc.h>
#include <new>
#include <stdlib.h>

namespace std {
const nothrow_t nothrow{};
}  // namespace std

namespace {
[[noreturn]] void Fail() { throw std::bad_alloc(); }
}  // namespace

void* __cdecl operator new(size_t size) {
  void* block = malloc(size != 0 ? size : 1);
  if (block == nullptr) Fail();
  return block;
}
void* __cdecl operator new[](size_t size) { return ::operator new(size); }
void* __cdecl operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size != 0 ? size : 1);
}
void* __cdecl operator new[](size_t size, const std::nothrow_t&) noexcept {
  return malloc(size != 0 ? size : 1);
}
void __cdecl operator delete(void* block) noexcept { free(block); }
void __cdecl operator delete[](void* block) noexcept { free(block); }
void __cdecl operator delete(void* block, const std::nothrow_t&) noexcept { free(block); }
void __cdecl operator delete[](void* block, const std::nothrow_t&) noexcept { free(block); }
void __cdecl operator delete(void* block, size_t) noexcept { free(block); }
void __cdecl operator delete[](void* block, size_t) noexcept { free(block); }

void* __cdecl operator new(size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
  return _aligned_malloc(size != 0 ? size : 1, static_cast<size_t>(align));
}
void* __cdecl operator new[](size_t size, std::align_val_t align,
                             const std::nothrow_t& tag) noexcept {
  return ::operator new(size, align, tag);
}
void* __cdecl operator new(size_t size, std::align_val_t align) {
  void* block = ::operator new(size, align, std::nothrow);
  if (block == nullptr) Fail();
  return block;
}
void* __cdecl operator new[](size_t size, std::align_val_t align) {
  return ::operator new(size, align);
}
void __cdecl operator delete(void* block, std::align_val_t) noexcept { _aligned_free(block); }
void __cdecl operator delete[](void* block, std::align_val_t) noexcept { _aligned_free(block); }
void __cdecl operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  _aligned_free(block);
}
void __cdecl operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept {
  _aligned_free(block);
}
void __cdecl operator delete(void* block, size_t, std::align_val_t) noexcept {
  _aligned_free(block);
}
void __cdecl operator delete[](void* block, size_t, std::align_val_t) noexcept {
  _aligned_free(block);
}
