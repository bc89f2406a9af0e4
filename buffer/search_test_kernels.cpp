// The search kernels of search_vector_kernels.h over an emulated AVX-512 vector: 64 bytes held in
// four SSE2 registers, comparisons into a 64-bit mask with one bit per lane, as AVX-512's mask
// registers hold them. Processors without AVX-512 run the 64-lane rounds and masks of that set
// through it, so that the tests prove the algorithm at that width; the AVX-512 instructions
// themselves run only where the processor has them. Compiled with the SSE2 flags, and so includes
// no header with inline code (search_test_util.h declares the entry point).
#include <emmintrin.h>

#include <cstdint>

#include "buffer/internal/search_kernels.h"
#include "buffer/internal/search_vector_kernels.h"

namespace search_test {
namespace {

struct Vec {
  struct V {
    __m128i part[4];
  };
  using Cmp = std::uint64_t;
  using Mask = std::uint64_t;
  static constexpr std::uint32_t kBytes = 64;
  static constexpr unsigned LaneBits(char) { return 1; }
  static constexpr unsigned LaneBits(wchar_t) { return 1; }

  template <typename F>
  static V Each(F f) {
    V v;
    for (int i = 0; i < 4; ++i) v.part[i] = f(i);
    return v;
  }
  static V Load(const void* p) {
    const char* bytes = static_cast<const char*>(p);
    return Each(
        [&](int i) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes) + i); });
  }
  static void Prefetch(const void* p) { _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0); }
  static V Zero() { return Each([](int) { return _mm_setzero_si128(); }); }
  static V Splat(char ch) { return Each([&](int) { return _mm_set1_epi8(ch); }); }
  static V Splat(wchar_t ch) {
    return Each([&](int) { return _mm_set1_epi16(static_cast<short>(ch)); });
  }
  static Cmp Equal(V a, V b, char) {
    Cmp c = 0;
    for (int i = 0; i < 4; ++i) {
      const auto bits =
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(a.part[i], b.part[i])));
      c |= static_cast<Cmp>(bits) << (16 * i);
    }
    return c;
  }
  static Cmp Equal(V a, V b, wchar_t) {
    Cmp c = 0;
    for (int i = 0; i < 2; ++i) {
      // Words of all ones or zeros packed into bytes of the same: one bit per 16-bit lane.
      const __m128i lanes = _mm_packs_epi16(_mm_cmpeq_epi16(a.part[2 * i], b.part[2 * i]),
                                            _mm_cmpeq_epi16(a.part[2 * i + 1], b.part[2 * i + 1]));
      c |= static_cast<Cmp>(static_cast<unsigned>(_mm_movemask_epi8(lanes))) << (16 * i);
    }
    return c;
  }
  static Cmp Both(Cmp a, Cmp b) { return a & b; }
  static Cmp Either(Cmp a, Cmp b) { return a | b; }
  template <typename T>
  static Mask Bits(Cmp c, T) { return c; }
  static V And(V a, V b) {
    return Each([&](int i) { return _mm_and_si128(a.part[i], b.part[i]); });
  }
  static V Or(V a, V b) { return Each([&](int i) { return _mm_or_si128(a.part[i], b.part[i]); }); }
  // A masked add, lane by lane through memory: slow, and only for the tests.
  template <typename Lane>
  static V AddWhere(V lanes, Cmp c) {
    alignas(16) Lane values[64 / sizeof(Lane)];
    for (int i = 0; i < 4; ++i)
      _mm_store_si128(reinterpret_cast<__m128i*>(values) + i, lanes.part[i]);
    for (unsigned i = 0; i < 64 / sizeof(Lane); ++i) values[i] += (c >> i) & 1;
    return Load(values);
  }
  static V CountEqual(V lanes, Cmp c, char) { return AddWhere<std::uint8_t>(lanes, c); }
  static V CountEqual(V lanes, Cmp c, wchar_t) { return AddWhere<std::uint16_t>(lanes, c); }
  template <typename Lane>
  static std::uint32_t SumOf(V v) {
    alignas(16) Lane values[64 / sizeof(Lane)];
    for (int i = 0; i < 4; ++i) _mm_store_si128(reinterpret_cast<__m128i*>(values) + i, v.part[i]);
    std::uint32_t sum = 0;
    for (Lane value : values) sum += value;
    return sum;
  }
  static std::uint32_t Sum(V v, char) { return SumOf<std::uint8_t>(v); }
  static std::uint32_t Sum(V v, wchar_t) { return SumOf<std::uint16_t>(v); }
};

constexpr KVT::internal::KernelSet kSet =
    KVT::internal::vector_kernels::MakeKernelSet<Vec>("avx512bw emulated by sse2");

}  // namespace

const KVT::internal::KernelSet& EmulatedAvx512Kernels() { return kSet; }

}  // namespace search_test
