#include "buffer/internal/search_scan.h"

#include <cstring>

#include "buffer/internal/search_chars.h"
#include "buffer/internal/search_literal.h"
#include "buffer/internal/search_needle.h"
#include "foundation/internal/cpu_features.h"

namespace KVT {
namespace internal {
namespace {

// The stretches of a scan, in characters.
struct Stretches {
  std::uint32_t census;
  std::uint32_t cached;
};

// Positions taken from the kernel per call; their results fit in a ResultBatch at once.
constexpr std::uint32_t kBatch = LineCounter<char>::kBatch;
static_assert(kBatch <= ResultBatch::kSize, "a batch of results goes into one reservation");

// For routes that need no guard: every text character is known to the needle and the table.
struct NoGuard {
  static constexpr bool kActive = false;
  void Known(std::uint32_t, std::uint32_t) {}
  bool Clear(std::uint32_t) { return true; }
  template <typename T>
  std::uint32_t Finish(std::uint32_t, LineCounter<T>&, ResultBatch&) { return 0; }
};

// Keeps the greedy route of a wide caseless search exact. Its class sets are complete below 256,
// but above 255 they know only the case forms that towupper and towlower give. So before the
// route examines a stretch of text, the guard checks the stretch: each code unit above 255 must
// be plain (CaselessClassSets::Plain). Then the sets are exact for every position the route
// examines, and, as Prepare found the table sound for every member, the table moves the term past
// no occurrence in the text: the route records what the defining scan records.
// A code unit that is not plain (a locale whose comparison folds more than the case forms), or a
// stretch so full of code units above 255 that checking them costs more than the defining scan,
// makes the guard refuse. Finish then runs the defining scan from the start, recording only from
// the first position that the route has not examined: up to there both have the same results, as
// the table was sound for every character the defining scan looked at on its way there.
class WideCaselessGuard {
 public:
  static constexpr bool kActive = true;

  WideCaselessGuard(const wchar_t* text, std::uint32_t n, const CSearchQuery<wchar_t>& query,
                    bool whole_words, const CaselessClassSets<wchar_t>& sets,
                    std::uint32_t (*find_high)(const wchar_t*, std::uint32_t))
      : text_(text), n_(n), query_(query), whole_words_(whole_words), sets_(sets),
        find_high_(find_high) {
    std::memset(plain_, 0, sizeof(plain_));
  }

  // Takes text[from .. end - 1] as holding no code unit above 255 (which the find kernel saw),
  // where it follows on what is checked.
  void Known(std::uint32_t from, std::uint32_t end) {
    if (cleared_ >= from && cleared_ < end) cleared_ = end;
  }

  // Checks the text up to `reach` (and somewhat beyond); false if the route must end.
  bool Clear(std::uint32_t reach) {
    while (cleared_ < reach) {
      const std::uint32_t end = n_ - cleared_ > kStretch ? cleared_ + kStretch : n_;
      std::uint32_t high = 0;
      for (std::uint32_t i = cleared_ + find_high_(text_ + cleared_, end - cleared_); i < end;
           i += 1 + find_high_(text_ + i + 1, end - i - 1)) {
        if (++high > kMaxHighPerStretch || !Plain(text_[i])) return false;
      }
      cleared_ = end;
    }
    return true;
  }

  std::uint32_t Finish(std::uint32_t from, LineCounter<wchar_t>& lines, ResultBatch& out) {
    return CaselessScan(text_, n_, query_, whole_words_, lines, from, out);
  }

 private:
  static constexpr std::uint32_t kStretch = 4096;
  static constexpr std::uint32_t kMaxHighPerStretch = kStretch / 8;

  bool Plain(wchar_t ch) {
    std::uint32_t& word = plain_[ch >> 5];
    const std::uint32_t bit = 1u << (ch & 31);
    if (word & bit) return true;
    if (!sets_.Plain(ch)) return false;
    word |= bit;
    return true;
  }

  const wchar_t* text_;
  std::uint32_t n_;
  const CSearchQuery<wchar_t>& query_;
  bool whole_words_;
  const CaselessClassSets<wchar_t>& sets_;
  std::uint32_t (*find_high_)(const wchar_t*, std::uint32_t);
  std::uint32_t cleared_ = 0;        // Text characters below this index are checked.
  std::uint32_t plain_[65536 / 32];  // Code units found plain so far.
};

// Leftmost occurrences, each one looked for from m places behind the last occurrence found (or
// rejected as no whole word). This is what the defining scan records whenever its table never
// moves the term past a place where it matches, which the callers check first, or, for a guard
// that is active, which the guard makes sure of as the route goes (see WideCaselessGuard): an
// occurrence at p counts only once guard.Clear(p + m) has agreed, and where it refuses,
// guard.Finish records the rest from the first position whose occurrences have not counted.
//
// The text goes by in stretches, and its lines are counted while it is in the cache, so that it
// crosses the memory bus once: by the kernel as it filters a stretch (which suits stretches with
// few results: the common case of a rare term), or else by the line kernel, up to each result and
// then over the rest of the stretch, right after the kernel has brought it in.
template <typename T, typename Guard>
std::uint32_t GreedyScan(const Needle<T>& needle, bool whole_words, Stretches stretches,
                         const ScanKernels<T>& kernels, Guard& guard, LineCounter<T>& lines,
                         ResultBatch& out) {
  // Stretches with at most this many results have their lines counted by the find kernel.
  constexpr std::uint32_t kFewResults = 4;
  const T* const text = needle.text;
  const std::uint32_t n = needle.n;
  const std::uint32_t m = needle.m;
  const std::uint32_t last_pos = n - m;
  std::uint32_t positions[kBatch];
  std::uint32_t found = 0;
  std::uint32_t next = 0;  // The first position not examined yet.
  bool kernel_counts = true;
  while (next <= last_pos) {
    const std::uint32_t stretch = kernel_counts ? stretches.census : stretches.cached;
    const std::uint32_t to = last_pos - next < stretch ? last_pos : next + stretch - 1;
    lines.CountTo(next);  // What the last occurrence of the stretch before reached past it.
    const std::uint32_t line_before = lines.line();
    Census<T> census{lines.delimiter(), Guard::kActive, 0, false};
    std::uint32_t count =
        kernels.find(needle, next, to, positions, kBatch, kernel_counts ? &census : nullptr);
    const bool counted = kernel_counts && count < kBatch;
    // The guard checks the stretch (where the kernel has not) once the kernel has brought it into
    // the cache, and before anything found in it counts.
    if (counted && !census.high) guard.Known(next, to + 1);
    if (!guard.Clear(to + m)) return found + guard.Finish(next, lines, out);
    std::uint32_t results = 0;
    for (;;) {
      if (count != 0) next = positions[count - 1] + m;
      std::uint32_t accepted = count;
      if (whole_words) {
        accepted = 0;
        for (std::uint32_t i = 0; i < count; ++i) {
          if (IsWholeWord(text, n, positions[i], m)) positions[accepted++] = positions[i];
        }
      }
      lines.ResultsAt(positions, accepted, out.Reserve(accepted));
      out.Commit(accepted);
      results += accepted;
      if (count < kBatch || next > to) break;
      count = kernels.find(needle, next, to, positions, kBatch, nullptr);
    }
    if (next <= to) next = to + 1;
    if (counted) {
      lines.Skip(to + 1, census.delimiters - (lines.line() - line_before));
    } else {
      lines.CountTo(to + 1);
    }
    found += results;
    kernel_counts = results <= kFewResults;
  }
  return found;
}

// Whether the table, used with value comparison, never moves the term past an occurrence. A
// failed alignment moves by the entry of the character under its last place; that is safe if the
// character is not in the term (entries never exceed m) or stands in it only at the last place,
// and for a character at index j < m - 1 if its entry is at most m - 1 - j. SetTerm's tables pass,
// except a caseless one whose term holds a character that is neither its own upper nor its own
// lower form (such as a wide titlecase letter): only those forms were entered.
template <typename T>
bool SafeForValueScan(const T* term, std::uint32_t m, const unsigned short* table,
                      unsigned table_size) {
  for (std::uint32_t j = 0; j + 1 < m; ++j) {
    const unsigned base = BaseOf(term[j]);
    if (base >= table_size || table[base] > m - 1 - j) return false;
  }
  return true;
}

template <typename T>
Stretches StretchesOf(const ScanTuning& tuning) {
  if (tuning.stretch != 0) return Stretches{tuning.stretch, tuning.stretch};
  return Stretches{kCensusStretchBytes / sizeof(T), kCachedStretchBytes / sizeof(T)};
}

// The greedy route of a caseless search over the sets that Prepare made for `query`, guarded
// where the text is wide.
template <typename T>
std::uint32_t ClassSetRoute(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                            const CaselessClassSets<T>& sets, bool whole_words,
                            const ScanTuning& tuning, const KernelSet& set,
                            LineCounter<T>& lines, ResultBatch& out) {
  const Needle<T> needle = sets.MakeNeedle(text, n);
  if constexpr (sizeof(T) == 1) {
    NoGuard guard;
    return GreedyScan(needle, whole_words, StretchesOf<T>(tuning), set.narrow, guard, lines, out);
  } else {
    WideCaselessGuard guard(text, n, query, whole_words, sets, set.find_high);
    return GreedyScan(needle, whole_words, StretchesOf<T>(tuning), set.wide, guard, lines, out);
  }
}

const KernelSet& KernelSetOf(const ScanTuning& tuning) {
  return tuning.kernels != nullptr ? *tuning.kernels : WidestKernels();
}

}  // namespace

bool KernelsRun(const KernelSet& set) {
  if (&set == &Avx512bwKernels()) return internal::CpuHas(internal::kCpuAvx512bw);
  if (&set == &Avx2Kernels()) return internal::CpuHas(internal::kCpuAvx2);
  if (&set == &Sse2Kernels()) return internal::CpuHas(internal::kCpuSse2);
  return &set == &PlainKernels();
}

const KernelSet* const* AllKernelSets() {
  static const KernelSet* const kSets[] = {&Avx512bwKernels(), &Avx2Kernels(), &Sse2Kernels(),
                                           &PlainKernels(), nullptr};
  return kSets;
}

const KernelSet& WidestKernels() {
  static const KernelSet& widest = [] () -> const KernelSet& {
    const KernelSet* const* set = AllKernelSets();
    while (!KernelsRun(**set)) ++set;  // The plain set, last, always runs.
    return **set;
  }();
  return widest;
}

template <typename T>
std::uint32_t ClassSetScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           const CaselessClassSets<T>& sets, bool whole_words, T delimiter,
                           ResultSink& sink, const ScanTuning& tuning) {
  const KernelSet& set = KernelSetOf(tuning);
  LineCounter<T> lines(text, delimiter, KernelsOf<T>(set));
  ResultBatch out(sink);
  return ClassSetRoute(text, n, query, sets, whole_words, tuning, set, lines, out);
}

template <typename T>
std::uint32_t ScanText(const T* text, int n, const CSearchQuery<T>& query, unsigned long flags,
                       bool (*stop)(void*), void* stop_arg, T delimiter, ResultSink& sink,
                       const ScanTuning& tuning) {
  const int m = query.termLength;
  if (text == nullptr || n <= 0 || m <= 0 || m > n || query.term == nullptr ||
      query.shiftTable == nullptr) {
    return 0;
  }
  const auto un = static_cast<std::uint32_t>(n);
  const auto um = static_cast<std::uint32_t>(m);
  const bool caseless = (flags & 1) != 0;
  const bool whole_words = (flags & 2) != 0;
  const KernelSet& set = KernelSetOf(tuning);
  const ScanKernels<T>& kernels = KernelsOf<T>(set);
  LineCounter<T> lines(text, delimiter, kernels);
  ResultBatch out(sink);

  if (stop != nullptr) {
    return HorspoolScan(text, un, query, caseless, whole_words, stop, stop_arg, lines, out);
  }
  if (caseless) {
    // A caseless table may skip characters that the C runtime's comparison calls equal to the
    // term's (it enters only toupper and tolower forms). On long texts the sets of such code
    // units are worth asking for: if the table is sound for them the greedy route gives the same
    // results (for wide text under a guard). Otherwise the scan keeps to the table's alignments.
    constexpr std::uint32_t kMaxDistinct = CaselessClassSets<T>::kMaxDistinct;
    const std::uint64_t calls = 256ull * (um < kMaxDistinct ? um : kMaxDistinct);
    if (un >= calls * tuning.chars_per_set_up_call * (sizeof(T) == 1 ? 1 : tuning.wide_factor)) {
      CaselessClassSets<T> sets;
      if (sets.Prepare(query.term, um, query.shiftTable, query.tableSize)) {
        return ClassSetRoute(text, un, query, sets, whole_words, tuning, set, lines, out);
      }
    }
    return CaselessScan(text, un, query, whole_words, lines, 0, out);
  }
  if (!SafeForValueScan(query.term, um, query.shiftTable, query.tableSize)) {
    return HorspoolScan(text, un, query, false, whole_words, nullptr, nullptr, lines, out);
  }
  const ValueNeedle<T> needle(text, un, query.term, um);
  NoGuard guard;
  return GreedyScan(needle.needle(), whole_words, StretchesOf<T>(tuning), kernels, guard, lines,
                    out);
}

template std::uint32_t ScanText(const char*, int, const CSearchQuery<char>&, unsigned long,
                                bool (*)(void*), void*, char, ResultSink&, const ScanTuning&);
template std::uint32_t ScanText(const wchar_t*, int, const CSearchQuery<wchar_t>&, unsigned long,
                                bool (*)(void*), void*, wchar_t, ResultSink&, const ScanTuning&);
template std::uint32_t ClassSetScan(const char*, std::uint32_t, const CSearchQuery<char>&,
                                    const CaselessClassSets<char>&, bool, char, ResultSink&,
                                    const ScanTuning&);
template std::uint32_t ClassSetScan(const wchar_t*, std::uint32_t, const CSearchQuery<wchar_t>&,
                                    const CaselessClassSets<wchar_t>&, bool, wchar_t, ResultSink&,
                                    const ScanTuning&);

}  // namespace internal
}  // namespace KVT
