// memchr_peer.h with AVX-512BW (comparisons into mask registers), compiled with the AVX512BW
// flags.
#include <immintrin.h>

#include "bench/memchr_peer.h"
#include "bench/memchr_peer_loop.h"

namespace tern_bench {
namespace {

struct Vec {
  using V = __m512i;
  static constexpr std::size_t kBytes = 64;
  static constexpr unsigned LaneBits(char) { return 1; }
  static constexpr unsigned LaneBits(wchar_t) { return 1; }
  static V LoadUnaligned(const void* p) { return _mm512_loadu_si512(p); }
  static V LoadAligned(const void* p) { return _mm512_load_si512(p); }
  static V Splat(char ch) { return _mm512_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm512_set1_epi16(static_cast<short>(ch)); }
  static __mmask64 Equal(V a, V b, char) { return _mm512_cmpeq_epi8_mask(a, b); }
  static __mmask64 Equal(V a, V b, wchar_t) { return _mm512_cmpeq_epi16_mask(a, b); }
  static __mmask64 Either(__mmask64 a, __mmask64 b) { return a | b; }
  template <typename T>
  static std::uint64_t Bits(__mmask64 m, T) { return m; }
};

constexpr MemchrPeer kPeer{"avx512bw", &memchr_loop::Find<Vec, char>,
                           &memchr_loop::Find<Vec, wchar_t>};

}  // namespace

const MemchrPeer& Avx512bwMemchrPeer() { return kPeer; }

}  // namespace tern_bench
