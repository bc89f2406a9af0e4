// The search kernels in baseline code, for processors without SSE2 (the i686 baseline has none).
// One character at a time; the vector kernels must give the same results.
#include <cstdint>

#include "buffer/search_kernels.h"

namespace KVT {
namespace search_internal {
namespace plain {
namespace {

template <typename T>
bool OccursAt(const GreedyQuery<T>& query, const T* p) {
  for (std::uint32_t i = 0; i < query.places; ++i) {
    const T ch = p[query.place[i]];
    if (ch != query.member[i][0] && ch != query.member[i][1]) return false;
  }
  for (std::uint32_t k = 0; k < query.m; ++k) {
    if (p[k] != query.first[k] && p[k] != query.second[k]) return false;
  }
  return true;
}

template <typename T>
std::uint64_t ResultAt(LineState<T>& lines, std::uint32_t pos) {
  for (std::uint32_t i = lines.scanned; i < pos; ++i) {
    if (lines.text[i] == lines.delimiter) {
      ++lines.line;
      lines.line_start = i + 1;
    }
  }
  lines.scanned = pos;
  return static_cast<std::uint64_t>(lines.line_start) << 32 | lines.line;
}

template <typename T>
std::uint32_t Find(const GreedyQuery<T>& query, LineState<T>& lines, std::uint32_t* next_io,
                   std::uint32_t limit, std::uint64_t* out, std::uint32_t capacity) {
  std::uint32_t next = *next_io;
  std::uint32_t count = 0;
  while (next <= limit && count < capacity) {
    if (OccursAt(query, query.text + next)) {
      if (query.accept == nullptr || query.accept(query.text, query.n, next, query.m)) {
        out[count++] = ResultAt(lines, next);
      }
      next += query.m;
    } else {
      ++next;
    }
  }
  *next_io = next;
  return count;
}

std::uint32_t FindHigh(const wchar_t* p, std::uint32_t count) {
  std::uint32_t i = 0;
  while (i < count && p[i] < 256) ++i;
  return i;
}

template <typename T>
constexpr ScanKernels<T> kKernels{&Find<T>, &ResultAt<T>, &FindHigh};

}  // namespace

const ScanKernels<char>& Kernels(char) { return kKernels<char>; }
const ScanKernels<wchar_t>& Kernels(wchar_t) { return kKernels<wchar_t>; }

}  // namespace plain
}  // namespace search_internal
}  // namespace KVT
