// The allocation functions' declarations as Microsoft's vcruntime gives them, for libc++ used
// header-only in the MSVC ABI and for comip.h. The replaceable operators and std::nothrow are
// defined once per module by the runtime stand-in, as Microsoft's static runtime does; placement
// forms are inline.
#pragma once

#include <corecrt.h>

#ifdef __cplusplus

namespace std {
struct nothrow_t {
  explicit nothrow_t() = default;
};
extern const nothrow_t nothrow;
enum class align_val_t : size_t {};
typedef void(__cdecl* new_handler)();
}  // namespace std

[[nodiscard]] void* __cdecl operator new(size_t size);
[[nodiscard]] void* __cdecl operator new(size_t size, const std::nothrow_t&) noexcept;
[[nodiscard]] void* __cdecl operator new[](size_t size);
[[nodiscard]] void* __cdecl operator new[](size_t size, const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block) noexcept;
void __cdecl operator delete(void* block, const std::nothrow_t&) noexcept;
void __cdecl operator delete[](void* block) noexcept;
void __cdecl operator delete[](void* block, const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block, size_t size) noexcept;
void __cdecl operator delete[](void* block, size_t size) noexcept;

[[nodiscard]] void* __cdecl operator new(size_t size, std::align_val_t align);
[[nodiscard]] void* __cdecl operator new(size_t size, std::align_val_t align,
                                         const std::nothrow_t&) noexcept;
[[nodiscard]] void* __cdecl operator new[](size_t size, std::align_val_t align);
[[nodiscard]] void* __cdecl operator new[](size_t size, std::align_val_t align,
                                           const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block, std::align_val_t align) noexcept;
void __cdecl operator delete(void* block, std::align_val_t align, const std::nothrow_t&) noexcept;
void __cdecl operator delete[](void* block, std::align_val_t align) noexcept;
void __cdecl operator delete[](void* block, std::align_val_t align, const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block, size_t size, std::align_val_t align) noexcept;
void __cdecl operator delete[](void* block, size_t size, std::align_val_t align) noexcept;

#ifndef __PLACEMENT_NEW_INLINE
#define __PLACEMENT_NEW_INLINE
[[nodiscard]] inline void* __cdecl operator new(size_t, void* where) noexcept { return where; }
inline void __cdecl operator delete(void*, void*) noexcept {}
#endif
#ifndef __PLACEMENT_VEC_NEW_INLINE
#define __PLACEMENT_VEC_NEW_INLINE
[[nodiscard]] inline void* __cdecl operator new[](size_t, void* where) noexcept { return where; }
inline void __cdecl operator delete[](void*, void*) noexcept {}
#endif

#endif  // __cplusplus
