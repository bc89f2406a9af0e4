#ifndef TERNCORELIB_BUFFER_SEARCH_VECTOR_KERNELS_H_
#define TERNCORELIB_BUFFER_SEARCH_VECTOR_KERNELS_H_

// The search kernels of search_kernels.h, written once over a vector type and compiled once per
// instruction set: search_kernels_sse2.cpp, search_kernels_avx2.cpp, search_kernels_avx512bw.cpp
// and the tests' emulated 64-byte set each define a `Vec` in an unnamed namespace and take
// Kernels<Vec>(). A header only because those files share it: everything here is a template over
// Vec, so that each file's instantiations have internal linkage and are built with that file's
// flags alone (a non-template inline function here would be one copy shared by every set).
//
// What a Vec gives, with T char or wchar_t:
//   V                    a vector of kBytes bytes; Load(p) (unaligned), Zero(), Splat(T)
//   Cmp                  the outcome of a comparison: a vector of all-ones lanes, or a mask
//   Equal(a, b, T())     the lanes of T where a and b are equal
//   Both, Either         two outcomes combined, lane by lane
//   Mask                 an unsigned integer, LaneBits(T()) bits per lane, lane 0 lowest
//   Bits(c, T())         the outcome as a Mask
//   And, Or              bitwise, on vectors
//   CountEqual(v, c, T())  v plus 1 in the lanes of T where c holds
//   Sum(v, T())          the sum of v's lanes of T, taken as unsigned and below 2^15 each
//
// A round of `find` fills one Mask: two vectors where a vector gives half its bits (SSE2 and
// AVX2, one bit per byte), one where it gives all (AVX-512, one bit per lane, narrow).

#include <cstdint>

#include "buffer/search_kernels.h"
#include "foundation/compiler.h"

namespace KVT {
namespace search_internal {
namespace vector_kernels {

// The sizes that follow from a Vec and a character type.
template <typename Vec, typename T>
struct Shape {
  using Mask = typename Vec::Mask;
  static constexpr std::uint32_t kLanes = Vec::kBytes / sizeof(T);
  static constexpr unsigned kLaneBits = Vec::LaneBits(T());
  static constexpr unsigned kMaskBits = 8 * sizeof(Mask);
  static constexpr unsigned kVectorBits = kLanes * kLaneBits;
  static constexpr std::uint32_t kRound = kMaskBits / kLaneBits;  // Positions per round.
  static constexpr Mask kVectorAll =
      kVectorBits == kMaskBits ? ~Mask{0} : (Mask{1} << (kVectorBits % kMaskBits)) - 1;
  static constexpr Mask kLaneAll = (Mask{1} << kLaneBits) - 1;
  static_assert(kMaskBits % kVectorBits == 0, "a round is a whole number of vectors");

  // The bits of the first `lanes` lanes; lanes * kLaneBits below kMaskBits.
  static Mask Low(std::uint32_t lanes) { return (Mask{1} << (lanes * kLaneBits)) - 1; }
};

// Whether place k of at[0 .. m - 1] holds first[k] (or second[k], with two members) for every k.
// `room` is the text from `at` on (at least m): a short term is compared by one vector where
// room allows, its lanes past m ignored (the needle's forms can be read that far).
template <typename Vec, int kMembers, typename T>
TERN_ALWAYS_INLINE bool TermAt(const T* at, const T* first, const T* second, std::uint32_t m,
                               std::uint32_t room) {
  using S = Shape<Vec, T>;
  using Mask = typename S::Mask;
  auto equal_lanes = [&](std::uint32_t k) -> Mask {
    const typename Vec::V chars = Vec::Load(at + k);
    typename Vec::Cmp equal = Vec::Equal(chars, Vec::Load(first + k), T());
    if constexpr (kMembers == 2) {
      equal = Vec::Either(equal, Vec::Equal(chars, Vec::Load(second + k), T()));
    }
    return static_cast<Mask>(Vec::Bits(equal, T()));
  };
  if (m >= S::kLanes) {
    std::uint32_t k = 0;
    for (; k + S::kLanes <= m; k += S::kLanes) {
      if (equal_lanes(k) != S::kVectorAll) return false;
    }
    // The rest as one vector that overlaps the part already compared.
    return k == m || equal_lanes(m - S::kLanes) == S::kVectorAll;
  }
  if (room >= S::kLanes) {
    const Mask wanted = S::Low(m);
    return (equal_lanes(0) & wanted) == wanted;
  }
  for (std::uint32_t k = 0; k < m; ++k) {
    if (at[k] != first[k] && (kMembers == 1 || at[k] != second[k])) return false;
  }
  return true;
}

// ScanKernels::find for one shape of filter. A round filters kRound positions at once: for each
// filter place a vector loaded that far from the round's start, compared with the place's
// members; a bit of the round's mask that survives is a candidate, which TermAt verifies.
template <typename Vec, int kPlaces, int kMembers, typename T>
std::uint32_t FindShaped(const Needle<T>& needle, std::uint32_t from, std::uint32_t to,
                         std::uint32_t* out, std::uint32_t capacity) {
  using S = Shape<Vec, T>;
  using Mask = typename S::Mask;
  using V = typename Vec::V;
  const T* const text = needle.text;
  const std::uint32_t n = needle.n;
  const std::uint32_t m = needle.m;
  const T* const first = needle.first;
  const T* const second = needle.second;
  const std::uint32_t last_pos = n - m;

  // The filter in registers: fully unrolled loops over compile-time counts.
  V members[kPlaces][kMembers];
  std::uint32_t places[kPlaces];
  TERN_UNROLL
  for (int i = 0; i < kPlaces; ++i) {
    places[i] = needle.place[i];
    TERN_UNROLL
    for (int j = 0; j < kMembers; ++j) members[i][j] = Vec::Splat(needle.member[i][j]);
  }
  auto round_mask = [&](const T* p) -> Mask {
    Mask mask = 0;
    TERN_UNROLL
    for (std::uint32_t v = 0; v < S::kMaskBits / S::kVectorBits; ++v) {
      const T* at = p + v * S::kLanes;
      typename Vec::Cmp all{};
      TERN_UNROLL
      for (int i = 0; i < kPlaces; ++i) {
        const V chars = Vec::Load(at + places[i]);
        typename Vec::Cmp any = Vec::Equal(chars, members[i][0], T());
        TERN_UNROLL
        for (int j = 1; j < kMembers; ++j) {
          any = Vec::Either(any, Vec::Equal(chars, members[i][j], T()));
        }
        all = i == 0 ? any : Vec::Both(all, any);
      }
      mask |= static_cast<Mask>(Vec::Bits(all, T())) << (v * S::kVectorBits % S::kMaskBits);
    }
    return mask;
  };

  std::uint32_t count = 0;
  std::uint32_t next = from;  // The first position not examined yet.
  // Verifies the candidates in `mask` (positions block + bit / kLaneBits, none before `next`),
  // stores the occurrences and moves `next` past each; false once out[] is full.
  auto take = [&](std::uint32_t block, Mask mask) -> bool {
    while (mask != 0) {
      const std::uint32_t at = block + internal::LowestBit(mask) / S::kLaneBits;
      if (TermAt<Vec, kMembers>(text + at, first, second, m, n - at)) {
        out[count++] = at;
        if (count == capacity) return false;
        if (next < at + m) next = at + m;
        const std::uint32_t reached = (at + m - block) * S::kLaneBits;  // Bits now behind.
        if (reached >= S::kMaskBits) break;
        mask &= ~Mask{0} << reached;
      } else {
        mask &= ~(S::kLaneAll << ((at - block) * S::kLaneBits));
      }
    }
    return true;
  };

  if (last_pos >= S::kRound - 1) {
    // Rounds read up to kRound - 1 + m - 1 characters past their first position, which the
    // text holds up to last_block; positions past `to` are masked off.
    const std::uint32_t last_block = last_pos - (S::kRound - 1);
    while (next <= to && next <= last_block) {
      const std::uint32_t block = next;
      Mask mask = round_mask(text + block);
      next = block + S::kRound;
      if (to < next - 1) {
        mask &= S::Low(to + 1 - block);
        next = to + 1;
      }
      if (!take(block, mask)) return count;
    }
    if (next <= to) {
      // Less than a round before the text's end: the round that ends there, without the
      // positions before `next`.
      const std::uint32_t block = last_block;
      Mask mask = round_mask(text + block) & (~Mask{0} << ((next - block) * S::kLaneBits));
      if (to < last_pos) mask &= S::Low(to + 1 - block);
      take(block, mask);
    }
    return count;
  }
  // A text shorter than a round: one position at a time.
  auto passes_filter = [&](const T* p) {
    for (int i = 0; i < kPlaces; ++i) {
      bool any = false;
      for (int j = 0; j < kMembers; ++j) any = any || p[places[i]] == needle.member[i][j];
      if (!any) return false;
    }
    return true;
  };
  while (next <= to) {
    if (passes_filter(text + next) &&
        TermAt<Vec, kMembers>(text + next, first, second, m, n - next)) {
      out[count++] = next;
      if (count == capacity) break;
      next += m;
    } else {
      ++next;
    }
  }
  return count;
}

template <typename Vec, typename T>
std::uint32_t Find(const Needle<T>& needle, std::uint32_t from, std::uint32_t to,
                   std::uint32_t* out, std::uint32_t capacity) {
  if (needle.members == 1) return FindShaped<Vec, 3, 1>(needle, from, to, out, capacity);
  if (needle.places == 3) return FindShaped<Vec, 3, 2>(needle, from, to, out, capacity);
  return FindShaped<Vec, 2, 2>(needle, from, to, out, capacity);
}

// The delimiters in p[0 .. count - 1] (count below four vectors' worth, else slower than
// CountLines' bulk loop), in one forward pass that also notes the last.
template <typename Vec, typename T>
LineCount CountShort(const T* p, std::uint32_t count, T delimiter) {
  using S = Shape<Vec, T>;
  using Mask = typename S::Mask;
  const typename Vec::V needle = Vec::Splat(delimiter);
  LineCount lines{0, 0};
  auto add = [&](std::uint32_t start, Mask bits) {
    if (bits != 0) {
      lines.count += internal::PopCount(bits) / S::kLaneBits;
      lines.behind_last = start + internal::HighestBit(bits) / S::kLaneBits + 1;
    }
  };
  std::uint32_t i = 0;
  for (; i + S::kLanes <= count; i += S::kLanes) {
    add(i, static_cast<Mask>(Vec::Bits(Vec::Equal(Vec::Load(p + i), needle, T()), T())));
  }
  if (i < count && count >= S::kLanes) {
    // The rest as one vector ending at the stretch's end, without the lanes already counted.
    const std::uint32_t start = count - S::kLanes;
    const Mask bits = static_cast<Mask>(Vec::Bits(Vec::Equal(Vec::Load(p + start), needle, T()),
                                                  T()));
    add(start, bits & ~S::Low(i - start));
    return lines;
  }
  for (; i < count; ++i) {
    if (p[i] == delimiter) {
      ++lines.count;
      lines.behind_last = i + 1;
    }
  }
  return lines;
}

// ScanKernels::count_lines. A long stretch: the last delimiter from the end, then the count up
// to it, four vectors a step into lane counters of their own, summed before a lane can pass
// 2^15.
template <typename Vec, typename T>
LineCount CountLines(const T* p, std::uint32_t count, T delimiter) {
  using S = Shape<Vec, T>;
  using V = typename Vec::V;
  constexpr std::uint32_t kStep = 4 * S::kLanes;
  if (count < kStep) return CountShort<Vec>(p, count, delimiter);
  const V needle = Vec::Splat(delimiter);
  std::uint32_t end = count;
  std::uint32_t last = 0;
  for (;;) {
    if (end < S::kLanes) {
      while (end > 0 && p[end - 1] != delimiter) --end;
      if (end == 0) return LineCount{0, 0};
      last = end - 1;
      break;
    }
    const auto bits = Vec::Bits(Vec::Equal(Vec::Load(p + end - S::kLanes), needle, T()), T());
    if (bits != 0) {
      last = end - S::kLanes + internal::HighestBit(static_cast<typename S::Mask>(bits)) /
                                   S::kLaneBits;
      break;
    }
    end -= S::kLanes;
  }
  // p[last] is the last one; count those before it.
  constexpr std::uint32_t kMaxSteps = sizeof(T) == 1 ? 255 : 32767;
  std::uint32_t total = 1;
  std::uint32_t rest = last;
  while (rest >= kStep) {
    std::uint32_t steps = rest / kStep;
    if (steps > kMaxSteps) steps = kMaxSteps;
    V lanes[4] = {Vec::Zero(), Vec::Zero(), Vec::Zero(), Vec::Zero()};
    for (std::uint32_t s = 0; s < steps; ++s, p += kStep) {
      TERN_UNROLL
      for (int v = 0; v < 4; ++v) {
        lanes[v] = Vec::CountEqual(lanes[v], Vec::Equal(Vec::Load(p + v * S::kLanes), needle, T()),
                                   T());
      }
    }
    for (int v = 0; v < 4; ++v) total += Vec::Sum(lanes[v], T());
    rest -= steps * kStep;
  }
  total += CountShort<Vec>(p, rest, delimiter).count;
  return LineCount{total, last + 1};
}

// KernelSet::find_high. Four vectors at a time are ORed and tested at once: text without such
// code units costs one OR per vector.
template <typename Vec>
std::uint32_t FindHigh(const wchar_t* p, std::uint32_t count) {
  using S = Shape<Vec, wchar_t>;
  const typename Vec::V high_byte = Vec::Splat(static_cast<wchar_t>(0xFF00));
  auto low_lanes = [&](typename Vec::V chars) {
    return static_cast<typename S::Mask>(
        Vec::Bits(Vec::Equal(Vec::And(chars, high_byte), Vec::Zero(), wchar_t()), wchar_t()));
  };
  std::uint32_t i = 0;
  for (; i + 4 * S::kLanes <= count; i += 4 * S::kLanes) {
    const typename Vec::V any =
        Vec::Or(Vec::Or(Vec::Load(p + i), Vec::Load(p + i + S::kLanes)),
                Vec::Or(Vec::Load(p + i + 2 * S::kLanes), Vec::Load(p + i + 3 * S::kLanes)));
    if (low_lanes(any) != S::kVectorAll) break;
  }
  for (; i + S::kLanes <= count; i += S::kLanes) {
    const typename S::Mask high = ~low_lanes(Vec::Load(p + i)) & S::kVectorAll;
    if (high != 0) return i + internal::LowestBit(high) / S::kLaneBits;
  }
  while (i < count && p[i] < 256) ++i;
  return i;
}

// The kernel set of one Vec.
template <typename Vec>
constexpr KernelSet MakeKernelSet(const char* name) {
  return KernelSet{name,
                   {&Find<Vec, char>, &CountLines<Vec, char>},
                   {&Find<Vec, wchar_t>, &CountLines<Vec, wchar_t>},
                   &FindHigh<Vec>};
}

}  // namespace vector_kernels
}  // namespace search_internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_SEARCH_VECTOR_KERNELS_H_
