// The search kernels in baseline code, for processors without SSE2 (the i686 baseline has none):
// one character at a time, the definition that the vector kernels must meet.
#include <cstdint>

#include "buffer/internal/search_kernels.h"

namespace KVT {
namespace internal {
namespace {

template <typename T>
bool OccursAt(const Needle<T>& needle, const T* p) {
  for (std::uint32_t i = 0; i < needle.places; ++i) {
    const T ch = p[needle.place[i]];
    if (ch != needle.member[i][0] && ch != needle.member[i][1]) return false;
  }
  for (std::uint32_t k = 0; k < needle.m; ++k) {
    if (p[k] != needle.first[k] && p[k] != needle.second[k]) return false;
  }
  return true;
}

template <typename T>
std::uint32_t Find(const Needle<T>& needle, std::uint32_t from, std::uint32_t to,
                   std::uint32_t* out, std::uint32_t capacity, Census<T>* census) {
  std::uint32_t count = 0;
  for (std::uint32_t next = from; next <= to && count < capacity;) {
    if (OccursAt(needle, needle.text + next)) {
      out[count++] = next;
      next += needle.m;
    } else {
      ++next;
    }
  }
  if (census != nullptr && count < capacity) {
    census->delimiters = 0;
    census->high = false;
    for (std::uint32_t i = from; i <= to; ++i) {
      census->delimiters += needle.text[i] == census->delimiter;
      census->high = census->high || static_cast<unsigned>(needle.text[i]) > 255;
    }
  }
  return count;
}

template <typename T>
LineCount CountLines(const T* p, std::uint32_t count, T delimiter) {
  LineCount lines{0, 0};
  for (std::uint32_t i = 0; i < count; ++i) {
    if (p[i] == delimiter) {
      ++lines.count;
      lines.behind_last = i + 1;
    }
  }
  return lines;
}

template <typename T>
void LinesAt(const T* text, std::uint32_t from, const std::uint32_t* positions,
             std::uint32_t count, T delimiter, LineCount* out) {
  for (std::uint32_t i = 0; i < count; ++i) {
    const LineCount lines = CountLines(text + from, positions[i] - from, delimiter);
    out[i] = LineCount{lines.count, lines.count != 0 ? from + lines.behind_last : 0};
    from = positions[i];
  }
}

std::uint32_t FindHigh(const wchar_t* p, std::uint32_t count) {
  std::uint32_t i = 0;
  while (i < count && p[i] < 256) ++i;
  return i;
}

constexpr KernelSet kSet{"plain",
                         {&Find<char>, &CountLines<char>, &LinesAt<char>},
                         {&Find<wchar_t>, &CountLines<wchar_t>, &LinesAt<wchar_t>},
                         &FindHigh};

}  // namespace

const KernelSet& PlainKernels() { return kSet; }

}  // namespace internal
}  // namespace KVT
