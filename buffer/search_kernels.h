#ifndef TERNCORELIB_BUFFER_SEARCH_KERNELS_H_
#define TERNCORELIB_BUFFER_SEARCH_KERNELS_H_

// The search scan's kernels: the loops that vectors speed up, behind a narrow interface, once per
// instruction set (search_scan_plain.cpp, search_scan_sse2.cpp, search_scan_avx2.cpp). The scan
// itself (search_scan_internal.h) picks one set per search and keeps everything else: the
// routes, the sinks, whole words. Internal to the library.
//
// Declarations and plain structs only: the files compiled for other instruction sets include
// this header, and an inline function defined here (a constructor too) would get a copy built
// for that set, which the linker could keep for every caller.

#include <cstdint>

namespace KVT {
namespace search_internal {

// What the greedy route looks for in `text`: positions p where each filter place holds one of
// its members (text[p + place[i]] is member[i][0] or member[i][1]), and then every place k of
// the term holds first[k] or second[k]. A search by value has three places and one member each
// (member[i][1] repeats member[i][0], and second is first, the term); a caseless one two or
// three places with two members (those of each place's set, see CaselessClassSets). The places
// are below m. `accept`, where not null, decides whether an occurrence at pos counts (whole
// words); one that doesn't is skipped all the same.
template <typename T>
struct GreedyQuery {
  const T* text;
  std::uint32_t n;
  std::uint32_t m;
  bool (*accept)(const T* text, std::uint32_t n, std::uint32_t pos, std::uint32_t m);
  std::uint32_t places;   // 2 or 3; 3 where members is 1.
  std::uint32_t members;  // 1 or 2.
  std::uint32_t place[3];
  T member[3][2];
  const T* first;
  const T* second;
};

// Where a text's lines stand: every delimiter before `scanned` is counted. line counts from 1;
// line_start is the offset behind the last delimiter (0 before the first).
template <typename T>
struct LineState {
  const T* text;
  T delimiter;
  std::uint32_t scanned;
  std::uint32_t line;
  std::uint32_t line_start;
};

template <typename T>
struct ScanKernels {
  // Leftmost occurrences of `query` at positions *next .. limit, each looked for from m places
  // behind the previous one; the results of those that query.accept takes are stored in out[] in
  // text order (see result_at, which `lines` goes through for each), at most `capacity` (at
  // least 1) of them; returns how many. Leaves *next at the first position not examined: m
  // behind the last occurrence stored when `capacity` is reached, else past `limit`. Examines
  // only positions up to `limit`: the text beyond limit + m - 1 may be read, never used.
  std::uint32_t (*find)(const GreedyQuery<T>& query, LineState<T>& lines, std::uint32_t* next,
                        std::uint32_t limit, std::uint64_t* out, std::uint32_t capacity);
  // Moves `lines` on to `pos`, which is not below lines.scanned, and returns the result for an
  // occurrence there: the line start in the high half, the line (from 1) in the low.
  std::uint64_t (*result_at)(LineState<T>& lines, std::uint32_t pos);
  // The index of the first code unit above 255 in p[0 .. count - 1], or count.
  std::uint32_t (*find_high)(const wchar_t* p, std::uint32_t count);
};

// Baseline code, for any processor.
namespace plain {
const ScanKernels<char>& Kernels(char);
const ScanKernels<wchar_t>& Kernels(wchar_t);
}  // namespace plain

// Only where CpuHas(kCpuSse2).
namespace sse2 {
const ScanKernels<char>& Kernels(char);
const ScanKernels<wchar_t>& Kernels(wchar_t);
}  // namespace sse2

// Only where CpuHas(kCpuAvx2).
namespace avx2 {
const ScanKernels<char>& Kernels(char);
const ScanKernels<wchar_t>& Kernels(wchar_t);
}  // namespace avx2

}  // namespace search_internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_SEARCH_KERNELS_H_
