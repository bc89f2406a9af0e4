#ifndef TERNCORELIB_BENCH_MEMCHR_PEER_LOOP_H_
#define TERNCORELIB_BENCH_MEMCHR_PEER_LOOP_H_

// The loop of memchr_peer.h over a vector type, for the files that compile it per instruction
// set (memchr_peer_*.cpp). Templates only, so that each file's copy keeps its own flags. A Vec
// gives V and kBytes, LoadUnaligned, LoadAligned, Splat(T), Equal(a, b, T()) -> Cmp,
// Either(Cmp, Cmp) and Bits(Cmp, T()), one bit per byte (or per lane: kLaneBits(T())).

#include <cstddef>
#include <cstdint>

#include "foundation/internal/compiler.h"

namespace tern_bench {
namespace memchr_loop {

template <typename Vec, typename T>
std::size_t Find(const T* p, std::size_t n, T ch) {
  constexpr std::size_t kLanes = Vec::kBytes / sizeof(T);
  constexpr unsigned kLaneBits = Vec::LaneBits(T());
  const typename Vec::V needle = Vec::Splat(ch);
  auto first_in = [&](std::uint64_t bits) { return KVT::internal::LowestBit(bits) / kLaneBits; };
  std::size_t i = 0;
  if (n >= kLanes) {
    if (const std::uint64_t bits = Vec::Bits(Vec::Equal(Vec::LoadUnaligned(p), needle, T()), T())) {
      return first_in(bits);
    }
    // On from the first aligned vector past the first one: the bytes between are looked at twice.
    i = (Vec::kBytes - reinterpret_cast<std::uintptr_t>(p) % Vec::kBytes) / sizeof(T);
    for (; i + 4 * kLanes <= n; i += 4 * kLanes) {
      const typename Vec::V a = Vec::LoadAligned(p + i);
      const typename Vec::V b = Vec::LoadAligned(p + i + kLanes);
      const typename Vec::V c = Vec::LoadAligned(p + i + 2 * kLanes);
      const typename Vec::V d = Vec::LoadAligned(p + i + 3 * kLanes);
      const auto any =
          Vec::Either(Vec::Either(Vec::Equal(a, needle, T()), Vec::Equal(b, needle, T())),
                      Vec::Either(Vec::Equal(c, needle, T()), Vec::Equal(d, needle, T())));
      if (Vec::Bits(any, T()) != 0) break;
    }
    for (; i + kLanes <= n; i += kLanes) {
      if (const std::uint64_t bits =
              Vec::Bits(Vec::Equal(Vec::LoadAligned(p + i), needle, T()), T())) {
        return i + first_in(bits);
      }
    }
    if (i < n) {
      const std::size_t last = n - kLanes;
      if (const std::uint64_t bits =
              Vec::Bits(Vec::Equal(Vec::LoadUnaligned(p + last), needle, T()), T())) {
        return last + first_in(bits);
      }
    }
    return n;
  }
  while (i < n && p[i] != ch) ++i;
  return i;
}

}  // namespace memchr_loop
}  // namespace tern_bench

#endif  // TERNCORELIB_BENCH_MEMCHR_PEER_LOOP_H_
