#ifndef TERNCORELIB_BUFFER_INTERNAL_SEARCH_KERNELS_H_
#define TERNCORELIB_BUFFER_INTERNAL_SEARCH_KERNELS_H_

// The search scan's kernels: the loops that vectors speed up, once per instruction set. A kernel
// is a pure function over the text that returns positions or counts; it calls nothing back and
// keeps no state between calls. The scan (search_scan_internal.h) turns what they return into
// results. Internal to the library.
//
//   find         the occurrences of a needle in a stretch of positions
//   count_lines  the line delimiters in a stretch of text, and where the last one stands
//   lines_at     the same between one position and the next of a batch of them
//   find_high    the first wide code unit above 255 (the wide caseless route's guard)
//
// The sets: plain (baseline code, any processor), SSE2, AVX2 and AVX-512BW, the last three written
// once over a vector type (search_vector_kernels.h) and compiled by files of their own with their
// own flags (search_kernels_*.cpp).
//
// Declarations and plain structs only: the files compiled for other instruction sets include
// this header, and an inline function defined here (a constructor too) would get a copy built
// for that set, which the linker could keep for every caller.

#include <cstdint>

namespace KVT {
namespace internal {

// What `find` looks for in text[0 .. n - 1]: positions p where every place k of the term holds
// first[k] or second[k]. The filter places narrow the search down cheaply: a position is a
// candidate if each filter place holds one of its members (text[p + place[i]] is member[i][0] or
// member[i][1]), which are the forms' characters there (first[place[i]], second[place[i]]), so
// that every occurrence is a candidate. A search by value has three places and one member each
// (member[i][1] repeats member[i][0], and second is first, the term); a caseless one two or three
// places with two members (the case forms of each place's character). The places are below m;
// the first is the rarest, which a kernel may filter by alone while it lets through few false
// candidates.
// `first` and `second` can be read for max(m, kNeedlePad) characters, which lets a kernel compare
// a short term with one vector and ignore the lanes past m.
template <typename T>
struct Needle {
  static constexpr std::uint32_t kNeedlePad = 64;

  const T* text;
  std::uint32_t n;
  std::uint32_t m;        // 1 .. n.
  std::uint32_t places;   // 2 or 3; 3 where members is 1.
  std::uint32_t members;  // 1 or 2.
  std::uint32_t place[3];
  T member[3][2];
  const T* first;
  const T* second;
};

// What `find` may be asked to count of the stretch it filters, text[from .. to], as it reads it,
// so that nothing else need read the stretch again.
template <typename T>
struct Census {
  T delimiter;          // In: the character to count.
  bool look_for_high;   // In: wide text only, whether to look for code units above 255.
  std::uint32_t delimiters;  // Out: the characters equal to `delimiter`.
  bool high;                 // Out, where looked for: whether a code unit is above 255.
};

// Delimiters counted in a stretch: how many, and the offset just behind the last one (0 for
// none).
struct LineCount {
  std::uint32_t count;
  std::uint32_t behind_last;
};

template <typename T>
struct ScanKernels {
  // The leftmost occurrences of `needle` that start at positions from .. to (to <= n - m), where
  // after each one the next is looked for m positions on (occurrences never overlap), in text
  // order into out[], at most `capacity` (at least 1) of them; returns how many. When that is
  // `capacity` the caller goes on from out[capacity - 1] + m; otherwise every position up to `to`
  // has been examined. Reads text[0 .. n - 1] only; what lies past text[to + m - 1] never
  // changes the outcome.
  // Where `census` is not null and fewer than `capacity` occurrences are returned, its outputs
  // describe text[from .. to], counted as the filter reads the text (else they are left alone).
  std::uint32_t (*find)(const Needle<T>& needle, std::uint32_t from, std::uint32_t to,
                        std::uint32_t* out, std::uint32_t capacity, Census<T>* census);
  // The characters equal to `delimiter` in p[0 .. count - 1].
  LineCount (*count_lines)(const T* p, std::uint32_t count, T delimiter);
  // For each of positions[0 .. count - 1], which rise from `from` on: the characters equal to
  // `delimiter` in text[previous .. position - 1], `previous` being the position before (`from`
  // for the first), with behind_last taken from the start of the text (0 for none).
  void (*lines_at)(const T* text, std::uint32_t from, const std::uint32_t* positions,
                   std::uint32_t count, T delimiter, LineCount* out);
};

// One instruction set's kernels for both widths.
struct KernelSet {
  const char* name;  // "plain", "sse2", "avx2", "avx512bw".
  ScanKernels<char> narrow;
  ScanKernels<wchar_t> wide;
  // The index of the first code unit above 255 in p[0 .. count - 1], or count.
  std::uint32_t (*find_high)(const wchar_t* p, std::uint32_t count);
};

// Baseline code, for any processor.
const KernelSet& PlainKernels();
// Only where the processor and the system support the set (see KernelsRun in
// search_scan_internal.h).
const KernelSet& Sse2Kernels();
const KernelSet& Avx2Kernels();
const KernelSet& Avx512bwKernels();

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_INTERNAL_SEARCH_KERNELS_H_
