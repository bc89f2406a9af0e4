// The search kernels for AVX-512BW (search_vector_kernels.h over 64-byte vectors, comparisons into
// mask registers), compiled with the AVX512BW flags (buffer/CMakeLists.txt) and used only where
// the processor has AVX-512 Foundation and Byte/Word and the system saves the mask and 512-bit
// registers. Everything here but the entry point is file-local: a copy of a shared inline
// function compiled for AVX-512 could be the one the linker keeps for every caller.
#include <immintrin.h>

#include <cstdint>

#include "buffer/internal/search_kernels.h"
#include "buffer/internal/search_vector_kernels.h"

namespace KVT {
namespace internal {
namespace {

struct Vec {
  using V = __m512i;
  using Cmp = __mmask64;  // One bit per lane: 64 narrow ones, 32 wide ones.
  using Mask = std::uint64_t;
  static constexpr std::uint32_t kBytes = 64;
  static constexpr unsigned LaneBits(char) { return 1; }
  static constexpr unsigned LaneBits(wchar_t) { return 1; }
  static V Load(const void* p) { return _mm512_loadu_si512(p); }
  static void Prefetch(const void* p) { _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0); }
  static V Zero() { return _mm512_setzero_si512(); }
  static V Splat(char ch) { return _mm512_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm512_set1_epi16(static_cast<short>(ch)); }
  static Cmp Equal(V a, V b, char) { return _mm512_cmpeq_epi8_mask(a, b); }
  static Cmp Equal(V a, V b, wchar_t) { return _mm512_cmpeq_epi16_mask(a, b); }
  static Cmp Both(Cmp a, Cmp b) { return a & b; }
  static Cmp Either(Cmp a, Cmp b) { return a | b; }
  template <typename T>
  static Mask Bits(Cmp c, T) { return static_cast<Mask>(c); }
  static V And(V a, V b) { return _mm512_and_si512(a, b); }
  static V Or(V a, V b) { return _mm512_or_si512(a, b); }
  // Subtracting all ones (-1) in the lanes that c selects adds 1 there.
  static V CountEqual(V lanes, Cmp c, char) {
    return _mm512_mask_sub_epi8(lanes, c, lanes, _mm512_set1_epi32(-1));
  }
  static V CountEqual(V lanes, Cmp c, wchar_t) {
    return _mm512_mask_sub_epi16(lanes, static_cast<__mmask32>(c), lanes, _mm512_set1_epi32(-1));
  }
  // Through memory: called once per many steps, and GCC's reductions warn of their own
  // uninitialised halves.
  static std::uint32_t Sum(V v, char) {
    return Total<std::uint64_t>(_mm512_sad_epu8(v, _mm512_setzero_si512()));
  }
  static std::uint32_t Sum(V v, wchar_t) {
    return Total<std::uint32_t>(_mm512_madd_epi16(v, _mm512_set1_epi16(1)));
  }
  template <typename Lane>
  static std::uint32_t Total(V v) {
    Lane lanes[64 / sizeof(Lane)];
    _mm512_storeu_si512(lanes, v);
    std::uint32_t total = 0;
    for (Lane lane : lanes) total += static_cast<std::uint32_t>(lane);
    return total;
  }
};

constexpr KernelSet kSet = vector_kernels::MakeKernelSet<Vec>("avx512bw");

}  // namespace

const KernelSet& Avx512bwKernels() { return kSet; }

}  // namespace internal
}  // namespace KVT
