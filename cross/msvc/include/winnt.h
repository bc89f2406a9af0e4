// Wine's <winnt.h> defines, for compilers other than cl.exe, inline functions whose names are
// clang's builtins in the MSVC ABI (_InterlockedCompareExchange128 on x86_64, the 64-bit and
// pointer-sized interlocked functions on i686); clang refuses a definition of a builtin. They
// are renamed while the header is read, and the names then mean clang's own builtins again,
// which do the same.
#pragma once
#if defined(__clang__)
#define _InterlockedAnd64 __tern_wine_InterlockedAnd64
#define _InterlockedCompareExchange128 __tern_wine_InterlockedCompareExchange128
#define _InterlockedCompareExchangePointer __tern_wine_InterlockedCompareExchangePointer
#define _InterlockedDecrement64 __tern_wine_InterlockedDecrement64
#define _InterlockedExchangeAdd64 __tern_wine_InterlockedExchangeAdd64
#define _InterlockedExchangePointer __tern_wine_InterlockedExchangePointer
#define _InterlockedIncrement64 __tern_wine_InterlockedIncrement64
#define _InterlockedOr64 __tern_wine_InterlockedOr64
#define _InterlockedXor64 __tern_wine_InterlockedXor64
#endif
#include_next <winnt.h>
#if defined(__clang__)
#undef _InterlockedAnd64
#undef _InterlockedCompareExchange128
#undef _InterlockedCompareExchangePointer
#undef _InterlockedDecrement64
#undef _InterlockedExchangeAdd64
#undef _InterlockedExchangePointer
#undef _InterlockedIncrement64
#undef _InterlockedOr64
#undef _InterlockedXor64
#endif
