// The search kernels for SSE2 (search_vector_kernels.h over 16-byte vectors), compiled with the
// SSE2 flags (buffer/CMakeLists.txt) and used only where the processor has SSE2. Everything here
// but the entry point is file-local: a copy of a shared inline function compiled for SSE2 could be
// the one the linker keeps for every caller.
#include <emmintrin.h>

#include <cstdint>

#include "buffer/internal/search_kernels.h"
#include "buffer/internal/search_vector_kernels.h"

namespace KVT {
namespace internal {
namespace {

struct Vec {
  using V = __m128i;
  using Cmp = __m128i;
  using Mask = std::uint32_t;
  static constexpr std::uint32_t kBytes = 16;
  static constexpr unsigned LaneBits(char) { return 1; }
  static constexpr unsigned LaneBits(wchar_t) { return 2; }
  static V Load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
  static void Prefetch(const void* p) { _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0); }
  static V Zero() { return _mm_setzero_si128(); }
  static V Splat(char ch) { return _mm_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm_set1_epi16(static_cast<short>(ch)); }
  static Cmp Equal(V a, V b, char) { return _mm_cmpeq_epi8(a, b); }
  static Cmp Equal(V a, V b, wchar_t) { return _mm_cmpeq_epi16(a, b); }
  static Cmp Both(Cmp a, Cmp b) { return _mm_and_si128(a, b); }
  static Cmp Either(Cmp a, Cmp b) { return _mm_or_si128(a, b); }
  template <typename T>
  static Mask Bits(Cmp c, T) { return static_cast<Mask>(_mm_movemask_epi8(c)); }
  static V And(V a, V b) { return _mm_and_si128(a, b); }
  static V Or(V a, V b) { return _mm_or_si128(a, b); }
  // An equal lane is all ones, -1: subtracting it adds 1.
  static V CountEqual(V lanes, Cmp c, char) { return _mm_sub_epi8(lanes, c); }
  static V CountEqual(V lanes, Cmp c, wchar_t) { return _mm_sub_epi16(lanes, c); }
  static std::uint32_t Sum(V v, char) {
    const __m128i sums = _mm_sad_epu8(v, _mm_setzero_si128());
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums) +
                                      _mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
  }
  static std::uint32_t Sum(V v, wchar_t) {
    __m128i sums = _mm_madd_epi16(v, _mm_set1_epi16(1));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 8));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 4));
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
  }
};

constexpr KernelSet kSet = vector_kernels::MakeKernelSet<Vec>("sse2");

}  // namespace

const KernelSet& Sse2Kernels() { return kSet; }

}  // namespace internal
}  // namespace KVT
