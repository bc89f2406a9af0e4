#ifndef TERNCORELIB_BUFFER_INTERNAL_SEARCH_VECTOR_KERNELS_H_
#define TERNCORELIB_BUFFER_INTERNAL_SEARCH_VECTOR_KERNELS_H_

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
//   Prefetch(p)          asks for the cache line at p, which need not be readable
//
// A round of `find` fills one Mask: two vectors where a vector gives half its bits (SSE2 and
// AVX2, one bit per byte), one where it gives all (AVX-512, one bit per lane, narrow).

#include <cstdint>
#include <type_traits>

#include "buffer/internal/search_kernels.h"
#include "foundation/internal/compiler.h"

namespace KVT {
namespace internal {
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

// A candidate that fails costs a verification, a round without one a few instructions. The rarest
// filter place alone makes the lightest rounds; where it lets through more than kFreeMisses false
// candidates and more than one in kPositionsPerMiss positions (or a round with more than
// kDenseRound), the rest of the call takes every filter place.
constexpr std::uint32_t kFreeMisses = 8;
constexpr std::uint32_t kPositionsPerMiss = 512;
// A round with more candidates than this by the rarest place goes to every filter place at once.
constexpr std::uint32_t kDenseRound = 3;

// How far ahead of the round being filtered `find` asks for the text (a hint: the processor may
// ignore it, and it reads nothing that the program sees, past the text's end included). Rare
// terms over 64 MiB, AVX2, runs interleaved, as a share of memchr's speed: x86_64 0.77 without the
// hint, 0.89 at 1 KiB ahead, 0.92 at 2 KiB, no better at 4 KiB; i686 0.80 at 1 KiB, 0.91 at 2 KiB.
constexpr std::uint32_t kPrefetchBytes = 2048;

template <typename Vec, typename T>
TERN_ALWAYS_INLINE LineCount CountShort(const T* p, std::uint32_t count, T delimiter);

// What find may be asked to count of its stretch (search_kernels.h's Census), counted a round at
// a time inside find's loop, as the filter's loads bring the text in (and just behind them), so
// that the text crosses the memory bus once. Finish counts the rest. With kHigh it also ORs the
// code units together, to tell whether any is above 255.
// A loop keeps the counters in locals of its own (Resume, Step, Pause), which the compiler holds in
// registers; it would keep an aggregate, or members reached through a pointer, in memory.
template <typename Vec, typename T, bool kHigh>
class Tally {
 public:
  using S = Shape<Vec, T>;
  using V = typename Vec::V;
  static constexpr bool kActive = true;
  static constexpr bool kTwoVectors = S::kMaskBits / S::kVectorBits == 2;

  Tally(const T* text, std::uint32_t from, std::uint32_t end, T delimiter)
      : text_(text), counted_(from), end_(end), delimiter_(delimiter), ored_(Vec::Zero()) {}

  // Where a loop's counting begins (`at`), the last round it may count, and the vector of
  // delimiters to compare with; the loop keeps them in locals too.
  struct Cursor {
    const T* at;
    const T* last;
    V delimiters;
  };
  // The rounds are counted from an aligned address on (loads that cross no cache line); the
  // characters before it are counted here.
  Cursor Resume() {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(text_ + counted_);
    const std::uint32_t head =
        static_cast<std::uint32_t>((Vec::kBytes - address % Vec::kBytes) % Vec::kBytes);
    if (head % sizeof(T) == 0 && head / sizeof(T) <= end_ - counted_) {
      const T* from = text_ + counted_;
      total_ += CountShort<Vec>(from, head / sizeof(T), delimiter_).count;
      if constexpr (kHigh) {
        for (std::uint32_t i = 0; i < head / sizeof(T); ++i) {
          if (from[i] > 255) ored_ = Vec::Splat(static_cast<T>(0xFF00));
        }
      }
      counted_ += head / sizeof(T);
    }
    const T* last =
        end_ - counted_ >= S::kRound ? text_ + end_ - S::kRound : text_ + counted_ - 1;
    return Cursor{text_ + counted_, last, Vec::Splat(delimiter_)};
  }

  // Counts the round at `at` into counts0 (and counts1, the round's second vector) and ORs it
  // into `ored`, where the stretch holds it whole.
  static TERN_ALWAYS_INLINE void Step(const T*& at, const T* last, V delimiters, V& counts0,
                                      V& counts1, V& ored, std::uint32_t& steps,
                                      std::uint32_t& total) {
    if (at > last) return;
    const V chars0 = Vec::Load(at);
    counts0 = Vec::CountEqual(counts0, Vec::Equal(chars0, delimiters, T()), T());
    if constexpr (kHigh) ored = Vec::Or(ored, chars0);
    if constexpr (kTwoVectors) {
      const V chars1 = Vec::Load(at + S::kLanes);
      counts1 = Vec::CountEqual(counts1, Vec::Equal(chars1, delimiters, T()), T());
      if constexpr (kHigh) ored = Vec::Or(ored, chars1);
    }
    at += S::kRound;
    // A lane gains at most 1 a step, and holds 255 (bytes) or 2^15 - 1 (words, see Sum).
    if (++steps == (sizeof(T) == 1 ? 255 : 32767)) {
      total += Vec::Sum(counts0, T());
      if constexpr (kTwoVectors) total += Vec::Sum(counts1, T());
      counts0 = Vec::Zero();
      counts1 = Vec::Zero();
      steps = 0;
    }
  }

  // The end of a loop's counting, at `at`, with what it counted.
  TERN_ALWAYS_INLINE void Pause(const T* at, V counts0, V counts1, V ored, std::uint32_t total) {
    total_ += total + Vec::Sum(counts0, T());
    if constexpr (kTwoVectors) total_ += Vec::Sum(counts1, T());
    ored_ = Vec::Or(ored_, ored);
    counted_ = static_cast<std::uint32_t>(at - text_);
  }

  void Finish(Census<T>* census);

 private:
  const T* text_;
  std::uint32_t counted_;  // Characters before here are counted in total_ (and ORed in ored_).
  std::uint32_t end_;
  T delimiter_;
  V ored_;
  std::uint32_t total_ = 0;
};

// For a find that counts nothing.
struct NoTally {
  static constexpr bool kActive = false;
};

// ScanKernels::find for one shape of filter, from `next` on, adding to out[0 .. count - 1]; gives
// the new count and leaves `next` at the first position not examined. A round filters kRound
// positions at once: for each of the first kPlaces filter places a vector loaded that far from
// the round's start, compared with the place's members; a bit of the round's mask that survives
// is a candidate, which TermAt verifies. More than `max_misses` candidates that fail, and more than
// one in kPositionsPerMiss positions examined beyond those, end the call
// early, between two rounds.
template <typename Vec, int kPlaces, int kMembers, bool kFold, typename Counter, typename T>
std::uint32_t FindShaped(const Needle<T>& needle, std::uint32_t& next_io, std::uint32_t to,
                         std::uint32_t* out, std::uint32_t count, std::uint32_t capacity,
                         std::uint32_t max_misses, Counter* tally) {
  using S = Shape<Vec, T>;
  using Mask = typename S::Mask;
  using V = typename Vec::V;
  constexpr std::uint32_t kRoundVectors = S::kMaskBits / S::kVectorBits;
  const T* const text = needle.text;
  const std::uint32_t n = needle.n;
  const std::uint32_t m = needle.m;
  const T* const first = needle.first;
  const T* const second = needle.second;
  const std::uint32_t last_pos = n - m;

  // The filter in registers: fully unrolled loops over compile-time counts. With kFold each
  // place's two members differ in one bit at most (case pairs mostly do): a character ORed with
  // that bit equals the members ORed together exactly when it is one of them, one compare.
  V members[kPlaces][kMembers];
  V folds[kPlaces];
  std::uint32_t places[kPlaces];
  TERN_UNROLL
  for (int i = 0; i < kPlaces; ++i) {
    places[i] = needle.place[i];
    TERN_UNROLL
    for (int j = 0; j < kMembers; ++j) members[i][j] = Vec::Splat(needle.member[i][j]);
    if constexpr (kFold) {
      members[i][0] = Vec::Splat(static_cast<T>(needle.member[i][0] | needle.member[i][1]));
      folds[i] = Vec::Splat(static_cast<T>(needle.member[i][0] ^ needle.member[i][1]));
    }
  }
  auto hits = [&](const T* at) {
    typename Vec::Cmp all{};
    TERN_UNROLL
    for (int i = 0; i < kPlaces; ++i) {
      const V chars = Vec::Load(at + places[i]);
      typename Vec::Cmp any;
      if constexpr (kFold) {
        any = Vec::Equal(Vec::Or(chars, folds[i]), members[i][0], T());
      } else {
        any = Vec::Equal(chars, members[i][0], T());
        TERN_UNROLL
        for (int j = 1; j < kMembers; ++j) {
          any = Vec::Either(any, Vec::Equal(chars, members[i][j], T()));
        }
      }
      all = i == 0 ? any : Vec::Both(all, any);
    }
    return all;
  };
  // The candidates of the round at p. By the rarest place alone most rounds have none, which
  // one test tells; by every place (which a search takes where candidates are common) the
  // test would mostly be wasted.
  auto round_mask = [&](const T* p) -> Mask {
    typename Vec::Cmp vectors[kRoundVectors];
    TERN_UNROLL
    for (std::uint32_t v = 0; v < kRoundVectors; ++v) vectors[v] = hits(p + v * S::kLanes);
    if constexpr (kRoundVectors == 2 && kPlaces == 1) {
      if (Vec::Bits(Vec::Either(vectors[0], vectors[1]), T()) == 0) return 0;
    }
    Mask mask = 0;
    TERN_UNROLL
    for (std::uint32_t v = 0; v < kRoundVectors; ++v) {
      mask |= static_cast<Mask>(Vec::Bits(vectors[v], T())) << (v * S::kVectorBits % S::kMaskBits);
    }
    return mask;
  };

  std::uint32_t next = next_io;  // The first position not examined yet.
  const std::uint32_t start = next;
  std::uint32_t misses = 0;
  auto too_many_misses = [&] {
    return misses > max_misses && misses - max_misses > (next - start) / kPositionsPerMiss;
  };
  // Verifies the candidates in `mask` (positions block + bit / kLaneBits, none before `next`),
  // stores the occurrences and moves `next` past each; false once out[] is full. Inlined: the
  // vector registers of the loop then need not be kept in memory around a call.
  auto take = [&](std::uint32_t block, Mask mask) TERN_INLINE_LAMBDA -> bool {
    while (mask != 0) {
      const std::uint32_t at = block + internal::LowestBit(mask) / S::kLaneBits;
      if (TermAt<Vec, kMembers>(text + at, first, second, m, n - at)) {
        out[count++] = at;
        if (next < at + m) next = at + m;
        if (count == capacity) return false;
        const std::uint32_t reached = (at + m - block) * S::kLaneBits;  // Bits now behind.
        if (reached >= S::kMaskBits) break;
        mask &= ~Mask{0} << reached;
      } else {
        ++misses;
        mask &= ~(S::kLaneAll << ((at - block) * S::kLaneBits));
      }
    }
    return true;
  };

  if (last_pos >= S::kRound - 1) {
    // Rounds read up to kRound - 1 + m - 1 characters past their first position, which the
    // text holds up to last_block; positions past `to` are masked off.
    const std::uint32_t last_block = last_pos - (S::kRound - 1);
    const std::uint32_t limit = to < last_block ? to : last_block;
    // The first round starts early, where the text allows, so that the loads at the first
    // filter place are aligned in every round; the positions before `next` are masked off.
    const std::uint32_t early =
        static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(text + next + places[0]) %
                                   Vec::kBytes) / sizeof(T);
    bool full = false;   // out[] is.
    bool dense = false;  // A round of many candidates ended the loop, before it was counted.
    if (next <= limit && early <= next) {
      const std::uint32_t block = next - early;
      Mask mask = round_mask(text + block) & (~Mask{0} << (early * S::kLaneBits));
      next = block + S::kRound;
      if (mask != 0) {
        if (to < next - 1) mask &= S::Low(to + 1 - block);
        full = !take(block, mask);
      }
    }
    if (!full) {
      // The tally's counters (see Tally), in locals for the loop.
      V counts0 = Vec::Zero(), counts1 = Vec::Zero(), ored = Vec::Zero(), delimiters{};
      std::uint32_t steps = 0, total = 0;
      const T* at = nullptr;
      const T* last = nullptr;
      if constexpr (Counter::kActive) {
        const typename Counter::Cursor cursor = tally->Resume();
        at = cursor.at;
        last = cursor.last;
        delimiters = cursor.delimiters;
      }
      // The rounds go by a pointer, which leaves the 32-bit build registers for the rest.
      const T* round = text + next;
      const T* const last_round = text + limit;
      while (round <= last_round) {
        // Reads ahead: the loop alone keeps too few loads in flight to read at the memory's
        // speed.
        Vec::Prefetch(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(round) +
                                                    kPrefetchBytes));
        Mask mask = round_mask(round);
        // A round of many candidates ends a call that filters by one place at once, before
        // verifying them: the call that takes every place goes on from this round.
        if (kPlaces == 1 && mask != 0 &&
            internal::PopCount(mask) > kDenseRound * S::kLaneBits) {
          dense = true;
          break;
        }
        if constexpr (Counter::kActive) {
          Counter::Step(at, last, delimiters, counts0, counts1, ored, steps, total);
        }
        if (mask == 0) {
          round += S::kRound;
          continue;
        }
        const auto block = static_cast<std::uint32_t>(round - text);
        next = block + S::kRound;
        if (to < next - 1) mask &= S::Low(to + 1 - block);
        if (!take(block, mask)) {
          full = true;
          break;
        }
        if (too_many_misses()) break;
        round = text + next;
      }
      if (!full && !too_many_misses()) next = static_cast<std::uint32_t>(round - text);
      if constexpr (Counter::kActive) tally->Pause(at, counts0, counts1, ored, total);
    }
    if (next > to + 1) next = to + 1;
    if (!full && !dense && !too_many_misses() && next <= to) {
      // Less than a round before the text's end: the round that ends there, without the
      // positions before `next`.
      const std::uint32_t block = last_block;
      Mask mask = round_mask(text + block) & (~Mask{0} << ((next - block) * S::kLaneBits));
      if (to < last_pos) mask &= S::Low(to + 1 - block);
      next = to + 1;
      take(block, mask);
    }
    next_io = next;
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
  while (next <= to && count < capacity) {
    if (passes_filter(text + next) &&
        TermAt<Vec, kMembers>(text + next, first, second, m, n - next)) {
      out[count++] = next;
      next += m;
    } else {
      ++next;
    }
  }
  next_io = next;
  return count;
}


template <typename Vec, int kPlaces, int kMembers, bool kFold, typename Counter, typename T>
std::uint32_t FindAdaptive(const Needle<T>& needle, std::uint32_t from, std::uint32_t to,
                           std::uint32_t* out, std::uint32_t capacity, Counter* tally) {
  std::uint32_t next = from;
  std::uint32_t count =
      FindShaped<Vec, 1, kMembers, kFold>(needle, next, to, out, 0, capacity, kFreeMisses, tally);
  if (count < capacity && next <= to) {
    count = FindShaped<Vec, kPlaces, kMembers, kFold>(needle, next, to, out, count, capacity,
                                                      0xFFFFFFFF, tally);
  }
  return count;
}

template <typename Vec, typename Counter, typename T>
std::uint32_t FindCounting(const Needle<T>& needle, std::uint32_t from, std::uint32_t to,
                           std::uint32_t* out, std::uint32_t capacity, Counter* tally) {
  if (needle.members == 1) {
    if (needle.places == 3) {
      return FindAdaptive<Vec, 3, 1, false>(needle, from, to, out, capacity, tally);
    }
    return FindAdaptive<Vec, 2, 1, false>(needle, from, to, out, capacity, tally);
  }
  bool fold = true;
  for (std::uint32_t i = 0; i < needle.places; ++i) {
    using Unsigned = std::make_unsigned_t<T>;
    const auto bits = static_cast<Unsigned>(needle.member[i][0] ^ needle.member[i][1]);
    fold = fold && (bits & (bits - 1)) == 0;
  }
  if (fold) {
    if (needle.places == 3) {
      return FindAdaptive<Vec, 3, 2, true>(needle, from, to, out, capacity, tally);
    }
    return FindAdaptive<Vec, 2, 2, true>(needle, from, to, out, capacity, tally);
  }
  if (needle.places == 3) {
    return FindAdaptive<Vec, 3, 2, false>(needle, from, to, out, capacity, tally);
  }
  return FindAdaptive<Vec, 2, 2, false>(needle, from, to, out, capacity, tally);
}

template <typename Vec, typename T>
std::uint32_t Find(const Needle<T>& needle, std::uint32_t from, std::uint32_t to,
                   std::uint32_t* out, std::uint32_t capacity, Census<T>* census) {
  if (census == nullptr) {
    NoTally none;
    return FindCounting<Vec>(needle, from, to, out, capacity, &none);
  }
  if constexpr (sizeof(T) > 1) {
    if (census->look_for_high) {
      Tally<Vec, T, true> tally(needle.text, from, to + 1, census->delimiter);
      const std::uint32_t count = FindCounting<Vec>(needle, from, to, out, capacity, &tally);
      if (count < capacity) tally.Finish(census);
      return count;
    }
  }
  Tally<Vec, T, false> tally(needle.text, from, to + 1, census->delimiter);
  const std::uint32_t count = FindCounting<Vec>(needle, from, to, out, capacity, &tally);
  if (count < capacity) tally.Finish(census);
  return count;
}

// The delimiters in p[0 .. count - 1] (count below sixteen vectors' worth, else slower than
// CountLines' bulk loop), in one forward pass that also notes the last.
template <typename Vec, typename T>
TERN_ALWAYS_INLINE LineCount CountShort(const T* p, std::uint32_t count, T delimiter) {
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
  // Up to a few steps one pass with a count per vector beats finding the last from the end and
  // then counting.
  if (count < 4 * kStep) return CountShort<Vec>(p, count, delimiter);
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
// code units costs one OR per vector. The text is asked for ahead, as in find.
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
    Vec::Prefetch(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(p + i) +
                                                kPrefetchBytes));
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

// ScanKernels::lines_at: the short gaps between results of common terms in one call, with
// CountShort inlined.
// A gap shorter than a vector is one vector that ends where the gap does (the text before the gap
// is read, not counted), where the text has room for it.
template <typename Vec, typename T>
void LinesAt(const T* text, std::uint32_t from, const std::uint32_t* positions,
             std::uint32_t count, T delimiter, LineCount* out) {
  using S = Shape<Vec, T>;
  using Mask = typename S::Mask;
  const typename Vec::V needle = Vec::Splat(delimiter);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t to = positions[i];
    const std::uint32_t gap = to - from;
    LineCount lines;
    if (gap == 0) {
      lines = LineCount{0, 0};
    } else if (gap < S::kLanes && to >= S::kLanes) {
      const Mask bits =
          static_cast<Mask>(Vec::Bits(Vec::Equal(Vec::Load(text + to - S::kLanes), needle, T()),
                                      T())) &
          ~S::Low(S::kLanes - gap);
      lines.count = internal::PopCount(bits) / S::kLaneBits;
      lines.behind_last = lines.count != 0 ? to - S::kLanes + 1 +
                                                 internal::HighestBit(bits) / S::kLaneBits
                                           : 0;
    } else {
      lines = gap < 16 * S::kLanes ? CountShort<Vec>(text + from, gap, delimiter)
                                   : CountLines<Vec>(text + from, gap, delimiter);
      if (lines.count != 0) lines.behind_last += from;
    }
    out[i] = lines;
    from = to;
  }
}

template <typename Vec, typename T, bool kHigh>
void Tally<Vec, T, kHigh>::Finish(Census<T>* census) {
  const std::uint32_t rest = end_ - counted_;
  census->delimiters = total_ + CountLines<Vec>(text_ + counted_, rest, delimiter_).count;
  if constexpr (kHigh) {
    const typename Vec::V high_byte = Vec::Splat(static_cast<T>(0xFF00));
    census->high = Vec::Bits(Vec::Equal(Vec::And(ored_, high_byte), Vec::Zero(), T()), T()) !=
                       Shape<Vec, T>::kVectorAll ||
                   FindHigh<Vec>(text_ + counted_, rest) < rest;
  }
}

// The kernel set of one Vec.
template <typename Vec>
constexpr KernelSet MakeKernelSet(const char* name) {
  return KernelSet{name,
                   {&Find<Vec, char>, &CountLines<Vec, char>, &LinesAt<Vec, char>},
                   {&Find<Vec, wchar_t>, &CountLines<Vec, wchar_t>, &LinesAt<Vec, wchar_t>},
                   &FindHigh<Vec>};
}

}  // namespace vector_kernels
}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_INTERNAL_SEARCH_VECTOR_KERNELS_H_
