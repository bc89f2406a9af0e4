// The search kernels for AVX2, compiled with -mavx2 (buffer/CMakeLists.txt) and used only where
// the processor has it. Everything here but the entry points is file-local, and the file includes
// no header of the library with shared inline code (compiler.h's functions are static): a copy of
// a shared inline function compiled for AVX2 could be the one the linker keeps for every caller.
#include <immintrin.h>

#include <cstdint>

#include "buffer/search_kernels.h"
#include "foundation/compiler.h"

namespace KVT {
namespace search_internal {
namespace avx2 {
namespace {

struct Vec {
  using V = __m256i;
  using Mask = std::uint64_t;
  static constexpr std::uint32_t kBytes = 32;
  static V Load(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
  static V Zero() { return _mm256_setzero_si256(); }
  static V Splat(char ch) { return _mm256_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm256_set1_epi16(static_cast<short>(ch)); }
  static V Equal(V a, V b, char) { return _mm256_cmpeq_epi8(a, b); }
  static V Equal(V a, V b, wchar_t) { return _mm256_cmpeq_epi16(a, b); }
  static V And(V a, V b) { return _mm256_and_si256(a, b); }
  static V Or(V a, V b) { return _mm256_or_si256(a, b); }
  static V Add(V a, V b, char) { return _mm256_add_epi8(a, b); }
  static V Add(V a, V b, wchar_t) { return _mm256_add_epi16(a, b); }
  static V Sub(V a, V b, char) { return _mm256_sub_epi8(a, b); }
  static V Sub(V a, V b, wchar_t) { return _mm256_sub_epi16(a, b); }
  static std::uint32_t Bits(V v) { return static_cast<std::uint32_t>(_mm256_movemask_epi8(v)); }
  static std::uint32_t SumBytes(V v) {
    const __m256i sums = _mm256_sad_epu8(v, _mm256_setzero_si256());
    const __m128i half = _mm_add_epi64(_mm256_castsi256_si128(sums),
                                       _mm256_extracti128_si256(sums, 1));
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(half)) +
           static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(half, 8)));
  }
  static std::uint32_t SumWords(V v) {
    const __m256i pairs = _mm256_madd_epi16(v, _mm256_set1_epi16(1));
    __m128i sums = _mm_add_epi32(_mm256_castsi256_si128(pairs), _mm256_extracti128_si256(pairs, 1));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 8));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 4));
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
  }
};

#include "buffer/search_vector_internal.inc"

}  // namespace

const ScanKernels<char>& Kernels(char) { return kKernels<char>; }
const ScanKernels<wchar_t>& Kernels(wchar_t) { return kKernels<wchar_t>; }

}  // namespace avx2
}  // namespace search_internal
}  // namespace KVT
