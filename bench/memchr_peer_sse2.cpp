// memchr_peer.h with SSE2, compiled with the SSE2 flags.
#include <emmintrin.h>

#include "bench/memchr_peer.h"
#include "bench/memchr_peer_loop.h"

namespace tern_bench {
namespace {

struct Vec {
  using V = __m128i;
  static constexpr std::size_t kBytes = 16;
  static constexpr unsigned LaneBits(char) { return 1; }
  static constexpr unsigned LaneBits(wchar_t) { return 2; }
  static V LoadUnaligned(const void* p) { return _mm_loadu_si128(static_cast<const V*>(p)); }
  static V LoadAligned(const void* p) { return _mm_load_si128(static_cast<const V*>(p)); }
  static V Splat(char ch) { return _mm_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm_set1_epi16(static_cast<short>(ch)); }
  static V Equal(V a, V b, char) { return _mm_cmpeq_epi8(a, b); }
  static V Equal(V a, V b, wchar_t) { return _mm_cmpeq_epi16(a, b); }
  static V Either(V a, V b) { return _mm_or_si128(a, b); }
  template <typename T>
  static std::uint64_t Bits(V v, T) { return static_cast<unsigned>(_mm_movemask_epi8(v)); }
};

constexpr MemchrPeer kPeer{"sse2", &memchr_loop::Find<Vec, char>,
                           &memchr_loop::Find<Vec, wchar_t>};

}  // namespace

const MemchrPeer& Sse2MemchrPeer() { return kPeer; }

}  // namespace tern_bench
