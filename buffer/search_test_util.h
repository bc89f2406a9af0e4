#ifndef TERNCORELIB_BUFFER_SEARCH_TEST_UTIL_H_
#define TERNCORELIB_BUFFER_SEARCH_TEST_UTIL_H_

// References and random material for the search tests. The references are deliberately plain and
// share no code with the library's scan.

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cwctype>
#include <random>
#include <string>
#include <string.h>
#include <vector>
#include <wchar.h>

#include "buffer/internal/search_kernels.h"
#include "buffer/search_query.h"
#include "buffer/internal/search_scan.h"
#include "foundation/internal/cpu_features.h"

namespace search_test {

using KVT::internal::KernelSet;

// The kernels of search_vector_kernels.h over an emulated AVX-512 vector (search_test_kernels.cpp),
// which runs where the processor has SSE2.
const KernelSet& EmulatedAvx512Kernels();

// The kernel sets that the tests force in turn: every set of the library, widest first, then the
// emulated one.
inline std::vector<const KernelSet*> KernelSetsUnderTest() {
  std::vector<const KernelSet*> sets;
  for (const KernelSet* const* set = KVT::internal::AllKernelSets(); *set; ++set) {
    sets.push_back(*set);
  }
  sets.push_back(&EmulatedAvx512Kernels());
  return sets;
}

// Whether `set` runs on this processor; if not, why not.
inline bool Runs(const KernelSet& set, std::string* why);

// The sets of KernelSetsUnderTest that this processor runs; each of the others is named on
// standard output as skipped, with the reason.
inline std::vector<const KernelSet*> RunningKernelSets() {
  std::vector<const KernelSet*> sets;
  for (const KernelSet* set : KernelSetsUnderTest()) {
    std::string why;
    if (Runs(*set, &why)) {
      sets.push_back(set);
    } else {
      std::printf("[ skipped  ] kernel set %s: %s\n", set->name, why.c_str());
    }
  }
  return sets;
}

inline bool Runs(const KernelSet& set, std::string* why) {
  if (&set == &EmulatedAvx512Kernels()) {
    *why = "the emulation needs SSE2";
    return KVT::internal::CpuHas(KVT::internal::kCpuSse2);
  }
  *why = std::string("this processor or system does not run the ") + set.name + " kernels";
  return KVT::internal::KernelsRun(set);
}

using Results = std::vector<std::uint64_t>;

inline std::uint64_t Result(std::uint32_t line, std::uint32_t line_start) {
  return (static_cast<std::uint64_t>(line_start) << 32) | line;
}

template <typename T>
std::basic_string<T> Widen(const std::string& text) {
  return std::basic_string<T>(text.begin(), text.end());
}

// Collects what a scan hands over.
struct Collect final : KVT::internal::ResultSink {
  void Put(const std::uint64_t* results, std::uint32_t count) override {
    all.insert(all.end(), results, results + count);
  }
  Results all;
};

// ScanText's results.
template <typename T>
Results Scan(const T* text, std::size_t n, const KVT::CSearchQuery<T>& query, unsigned long flags,
             T delimiter, const KVT::internal::ScanTuning& tuning = {}) {
  Collect sink;
  const std::uint32_t found = KVT::internal::ScanText(
      text, static_cast<int>(n), query, flags, nullptr, nullptr, delimiter, sink, tuning);
  if (found != sink.all.size()) sink.all.push_back(~0ull);  // Never a result: fails any check.
  return sink.all;
}
template <typename T>
Results Scan(const std::basic_string<T>& text, const KVT::CSearchQuery<T>& query,
             unsigned long flags, T delimiter, const KVT::internal::ScanTuning& tuning = {}) {
  return Scan(text.data(), text.size(), query, flags, delimiter, tuning);
}

inline bool SameChar(char a, char b, bool caseless) {
  return a == b || (caseless && _strnicmp(&a, &b, 1) == 0);
}
inline bool SameChar(wchar_t a, wchar_t b, bool caseless) {
  return a == b || (caseless && _wcsnicmp(&a, &b, 1) == 0);
}

inline bool Separates(char ch) {
  return static_cast<signed char>(ch) < 33 || std::isspace(ch) || !std::isalnum(ch);
}
inline bool Separates(wchar_t ch) { return ch < 33 || std::iswspace(ch) || !std::iswalnum(ch); }

template <typename T>
bool WholeWordAt(const std::basic_string<T>& text, std::size_t pos, std::size_t m) {
  const bool before = pos == 0 || Separates(text[pos - 1]);
  const bool after = pos + m == text.size() || Separates(text[pos + m]);
  return before && after;
}

// Line number and line start of `pos`: delimiters strictly before it, counted from the start.
template <typename T>
std::uint64_t LineOf(const std::basic_string<T>& text, std::size_t pos, T delimiter) {
  std::uint32_t line = 1;
  std::uint32_t start = 0;
  for (std::size_t i = 0; i < pos; ++i) {
    if (text[i] == delimiter) {
      ++line;
      start = static_cast<std::uint32_t>(i + 1);
    }
  }
  return Result(line, start);
}

// Every alignment from left to right; after an occurrence (recorded or not) on by the term's
// length. This is what the search must find whenever its shift table is sound.
template <typename T>
Results NaiveSearch(const std::basic_string<T>& text, const std::basic_string<T>& term,
                    unsigned long flags, T delimiter) {
  Results out;
  const std::size_t m = term.size();
  if (m == 0) return out;
  std::size_t pos = 0;
  std::size_t counted = 0;  // Lines are counted up to here; `line` is the result there.
  std::uint64_t line = Result(1, 0);
  while (pos + m <= text.size()) {
    bool match = true;
    for (std::size_t k = 0; k < m && match; ++k)
      match = SameChar(text[pos + k], term[k], flags & 1);
    if (!match) {
      ++pos;
      continue;
    }
    if ((flags & 2) == 0 || WholeWordAt(text, pos, m)) {
      // LineOf over the stretch since the last result, continued from there.
      const std::uint64_t more = LineOf(text.substr(counted, pos - counted), pos - counted,
                                        delimiter);
      if (static_cast<std::uint32_t>(more) > 1) {
        line = Result(static_cast<std::uint32_t>(line) + static_cast<std::uint32_t>(more) - 1,
                      static_cast<std::uint32_t>(counted + (more >> 32)));
      }
      counted = pos;
      out.push_back(line);
    }
    pos += m;
  }
  return out;
}

// Alphabets for random texts: letters in both cases, word delimiters, both line delimiters, and
// characters beyond 7 bits (narrow: bytes that share a table entry, 0xE9 and 0x17; wide: code
// units above 255, a case pair among them).
inline std::basic_string<char> AlphabetOf(char) {
  return std::string("abAB _\n\0\xE9\x17\xC9.", 13);
}
inline std::basic_string<wchar_t> AlphabetOf(wchar_t) {
  return std::wstring(L"abAB _\n\0\x100\x101\x3A3\x3C3\x4E00\xE9\x17", 15);
}

// A random text over a random part of the alphabet (small parts make matches and overlaps
// common): shorter than a vector round, several rounds (a round takes up to 64 positions), or
// many, in about equal parts.
template <typename T>
std::basic_string<T> RandomText(std::mt19937& rng) {
  const std::basic_string<T> alphabet = AlphabetOf(T());
  const std::size_t used = 2 + rng() % (alphabet.size() - 1);
  const std::size_t first = rng() % (alphabet.size() - used + 1);
  const std::size_t lengths[3] = {64, 700, 3000};
  const std::size_t length = rng() % lengths[rng() % 3];
  std::basic_string<T> text;
  for (std::size_t i = 0; i < length; ++i) text += alphabet[first + rng() % used];
  return text;
}

// A term without zero characters: often a piece of the text, at its very start or end now and
// then; otherwise random.
template <typename T>
std::basic_string<T> RandomTerm(std::mt19937& rng, const std::basic_string<T>& text) {
  std::basic_string<T> term;
  // Mostly short; now and then long enough for the vector comparison of whole terms.
  const std::size_t m = rng() % 8 == 0 ? 1 + rng() % 40 : 1 + rng() % 6;
  if (!text.empty() && rng() % 4 != 0) {
    const std::size_t len = m < text.size() ? m : text.size();
    std::size_t at = rng() % (text.size() - len + 1);
    if (rng() % 4 == 0) at = rng() % 2 == 0 ? 0 : text.size() - len;
    term = text.substr(at, len);
  } else {
    const std::basic_string<T> alphabet = AlphabetOf(T());
    for (std::size_t i = 0; i < m; ++i) term += alphabet[rng() % alphabet.size()];
  }
  for (T& ch : term) {
    if (ch == 0) ch = static_cast<T>('a');
  }
  return term;
}

}  // namespace search_test

#endif  // TERNCORELIB_BUFFER_SEARCH_TEST_UTIL_H_
