#ifndef TERNCORELIB_FOUNDATION_INTERNAL_COMPILER_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_COMPILER_H_

// What differs between the compilers that build the library: GCC (MinGW) and Microsoft's ABI
// (cl.exe, or clang-cl, which defines _MSC_VER and so takes the same branch). Internal to the
// library and its tools: bit scans, byte swaps, inlining hints, a function's instruction set, loop
// unrolling and the processor's identification. Nothing else names a builtin, an attribute or a
// target pragma.
//
// The functions have internal linkage (static) on purpose. The files of the vector kernels are
// compiled for instruction sets beyond the baseline and include this header; an ordinary inline
// function would be a shared copy there, built for AVX2, say, and the linker could keep that copy
// for every caller, a processor without AVX2 included. A static one stays in its file.

#include <cstdint>

#if defined(_MSC_VER)
#include <intrin.h>
#include <stdlib.h>  // _byteswap_uint64
#else
#include <cpuid.h>
#endif

#if defined(_MSC_VER)
#define TERN_NOINLINE __declspec(noinline)
#define TERN_ALWAYS_INLINE __forceinline
#else
#define TERN_NOINLINE __attribute__((noinline))
#define TERN_ALWAYS_INLINE __attribute__((always_inline)) inline
#endif

// Inlines a lambda wherever it is called: [&](int x) TERN_INLINE_LAMBDA { ... }. GCC and clang
// (clang-cl too) take the attribute there; cl.exe has no such form and decides for itself.
#if defined(__GNUC__) || defined(__clang__)
#define TERN_INLINE_LAMBDA __attribute__((always_inline))
#else
#define TERN_INLINE_LAMBDA
#endif

// Unrolls the loop that follows completely where its count is a small constant: GCC's and
// clang's pragmas; cl.exe has none, and unrolls such loops at /O2 of its own accord.
#if defined(__clang__)
#define TERN_UNROLL _Pragma("unroll")
#elif defined(__GNUC__)
#define TERN_UNROLL _Pragma("GCC unroll 16")
#else
#define TERN_UNROLL
#endif

namespace KVT {
namespace internal {

// The index of the lowest set bit of x, which must not be 0.
static inline unsigned LowestBit(std::uint32_t x) {
#if defined(_MSC_VER)
  unsigned long index;
  _BitScanForward(&index, x);
  return static_cast<unsigned>(index);
#else
  return static_cast<unsigned>(__builtin_ctz(x));
#endif
}

static inline unsigned LowestBit(std::uint64_t x) {
#if defined(_MSC_VER) && defined(_M_X64)
  unsigned long index;
  _BitScanForward64(&index, x);
  return static_cast<unsigned>(index);
#elif defined(_MSC_VER)
  const auto low = static_cast<std::uint32_t>(x);
  return low != 0 ? LowestBit(low) : 32 + LowestBit(static_cast<std::uint32_t>(x >> 32));
#else
  return static_cast<unsigned>(__builtin_ctzll(x));
#endif
}

// The index of the highest set bit of x, which must not be 0.
static inline unsigned HighestBit(std::uint32_t x) {
#if defined(_MSC_VER)
  unsigned long index;
  _BitScanReverse(&index, x);
  return static_cast<unsigned>(index);
#else
  return 31u - static_cast<unsigned>(__builtin_clz(x));
#endif
}

static inline unsigned HighestBit(std::uint64_t x) {
#if defined(_MSC_VER) && defined(_M_X64)
  unsigned long index;
  _BitScanReverse64(&index, x);
  return static_cast<unsigned>(index);
#elif defined(_MSC_VER)
  const auto high = static_cast<std::uint32_t>(x >> 32);
  return high != 0 ? 32 + HighestBit(high) : HighestBit(static_cast<std::uint32_t>(x));
#else
  return 63u - static_cast<unsigned>(__builtin_clzll(x));
#endif
}

// The number of set bits. The POPCNT instruction only where the file is compiled for it: the
// baseline processor lacks it (Microsoft's __popcnt is that instruction unconditionally), and
// GCC's builtin without it is a call into libgcc. Elsewhere the bits are summed in halves.
static inline unsigned PopCount(std::uint32_t x) {
#if defined(__POPCNT__) && !defined(_MSC_VER)
  return static_cast<unsigned>(__builtin_popcount(x));
#else
  x = x - ((x >> 1) & 0x55555555u);
  x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
  x = (x + (x >> 4)) & 0x0F0F0F0Fu;
  return (x * 0x01010101u) >> 24;
#endif
}

static inline unsigned PopCount(std::uint64_t x) {
  return PopCount(static_cast<std::uint32_t>(x)) + PopCount(static_cast<std::uint32_t>(x >> 32));
}

static inline std::uint64_t ByteSwap(std::uint64_t x) {
#if defined(_MSC_VER)
  return _byteswap_uint64(x);
#else
  return __builtin_bswap64(x);
#endif
}

// The registers EAX, EBX, ECX and EDX that CPUID gives for `leaf` and `subleaf`; false, with
// zeros, where the processor has no such leaf.
static inline bool Cpuid(unsigned leaf, unsigned subleaf, unsigned regs[4]) {
  regs[0] = regs[1] = regs[2] = regs[3] = 0;
#if defined(_MSC_VER)
  int info[4];
  __cpuid(info, static_cast<int>(leaf & 0x80000000u));
  if (static_cast<unsigned>(info[0]) < leaf) return false;
  __cpuidex(info, static_cast<int>(leaf), static_cast<int>(subleaf));
  for (int i = 0; i < 4; ++i) regs[i] = static_cast<unsigned>(info[i]);
  return true;
#else
  return __get_cpuid_count(leaf, subleaf, &regs[0], &regs[1], &regs[2], &regs[3]) != 0;
#endif
}

// XCR0, the register states that the system saves on a thread switch. Only where CPUID leaf 1
// reports OSXSAVE: elsewhere the instruction faults.
static inline std::uint64_t ReadXcr0() {
#if defined(_MSC_VER)
  return _xgetbv(0);
#else
  unsigned low = 0, high = 0;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return static_cast<std::uint64_t>(high) << 32 | low;
#endif
}

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_COMPILER_H_
