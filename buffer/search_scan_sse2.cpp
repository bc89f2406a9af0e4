// The search kernels for SSE2, compiled with -msse2 (buffer/CMakeLists.txt) and used only where
// the processor has it. Everything here but the entry points is file-local, and the file includes
// no header of the library with shared inline code (compiler.h's functions are static): a copy of
// a shared inline function compiled for SSE2 could be the one the linker keeps for every caller.
#include <emmintrin.h>

#include <cstdint>

#include "buffer/search_kernels.h"
#include "foundation/compiler.h"

namespace KVT {
namespace search_internal {
namespace sse2 {
namespace {

struct Vec {
  using V = __m128i;
  using Mask = std::uint32_t;
  static constexpr std::uint32_t kBytes = 16;
  static V Load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
  static V Zero() { return _mm_setzero_si128(); }
  static V Splat(char ch) { return _mm_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm_set1_epi16(static_cast<short>(ch)); }
  static V Equal(V a, V b, char) { return _mm_cmpeq_epi8(a, b); }
  static V Equal(V a, V b, wchar_t) { return _mm_cmpeq_epi16(a, b); }
  static V And(V a, V b) { return _mm_and_si128(a, b); }
  static V Or(V a, V b) { return _mm_or_si128(a, b); }
  static V Add(V a, V b, char) { return _mm_add_epi8(a, b); }
  static V Add(V a, V b, wchar_t) { return _mm_add_epi16(a, b); }
  static V Sub(V a, V b, char) { return _mm_sub_epi8(a, b); }
  static V Sub(V a, V b, wchar_t) { return _mm_sub_epi16(a, b); }
  static std::uint32_t Bits(V v) { return static_cast<std::uint32_t>(_mm_movemask_epi8(v)); }
  static std::uint32_t SumBytes(V v) {
    const __m128i sums = _mm_sad_epu8(v, _mm_setzero_si128());
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums)) +
           static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
  }
  static std::uint32_t SumWords(V v) {
    __m128i sums = _mm_madd_epi16(v, _mm_set1_epi16(1));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 8));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 4));
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
  }
};

#include "buffer/search_vector_internal.inc"

}  // namespace

const ScanKernels<char>& Kernels(char) { return kKernels<char>; }
const ScanKernels<wchar_t>& Kernels(wchar_t) { return kKernels<wchar_t>; }

}  // namespace sse2
}  // namespace search_internal
}  // namespace KVT
