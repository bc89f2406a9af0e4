#ifndef TERNCORELIB_BUFFER_INTERNAL_SEARCH_SCAN_H_
#define TERNCORELIB_BUFFER_INTERNAL_SEARCH_SCAN_H_

// The scan behind CBuffer<T>::Search (search_scan.cpp), kept apart from the buffer so that it can
// be tested and measured on its own. Not part of the installed interface.
//
// The scan's outcome is defined by a Horspool scan over the query's shift table (see
// search_literal_internal.h). That scan runs literally when a stop callback is given, since the
// callback is polled once per alignment and so sees every one of them. Without a callback the
// same results come from faster routes, and the differential tests hold them to the literal scan.
// The routes find occurrences with the kernels of one instruction set (search_kernels.h), chosen
// per search by what the processor has; the scan alone turns the positions the kernels return into
// results: it decides whole words, counts lines with the line kernel and packs each result.

#include <cstdint>

#include "buffer/internal/search_kernels.h"
#include "buffer/search_query.h"

namespace KVT {
namespace internal {

// A result: the offset of its line's first character in the high 32 bits, the line number (from
// 1) in the low 32. Packed here and nowhere else; CBuffer reads results back with UnpackResult.
inline std::uint64_t PackResult(std::uint32_t line_start, std::uint32_t line) {
  return static_cast<std::uint64_t>(line_start) << 32 | line;
}
inline void UnpackResult(std::uint64_t result, std::uint32_t* line_start, std::uint32_t* line) {
  *line_start = static_cast<std::uint32_t>(result >> 32);
  *line = static_cast<std::uint32_t>(result);
}

// Receives a scan's results in text order, a batch at a time.
class ResultSink {
 public:
  virtual void Put(const std::uint64_t* results, std::uint32_t count) = 0;

 protected:
  ~ResultSink() = default;
};

// Whether the processor, and the system for the registers it must save, run `set`.
bool KernelsRun(const KernelSet& set);
// The widest kernel set that runs here.
const KernelSet& WidestKernels();
// Every kernel set, widest first, followed by null; whether each runs here is KernelsRun's to say.
const KernelSet* const* AllKernelSets();

template <typename T>
const ScanKernels<T>& KernelsOf(const KernelSet& set);
template <>
inline const ScanKernels<char>& KernelsOf(const KernelSet& set) { return set.narrow; }
template <>
inline const ScanKernels<wchar_t>& KernelsOf(const KernelSet& set) { return set.wide; }

// The text goes by in stretches (see GreedyScan in search_scan.cpp). Where the find kernel counts
// a stretch's lines as it filters it, a stretch is long, so that the calls cost little; where the
// lines are counted behind the kernel, a stretch stays in the first-level cache until they are.
constexpr std::uint32_t kCensusStretchBytes = 256 * 1024;
constexpr std::uint32_t kCachedStretchBytes = 16 * 1024;

// What a search may be told besides its arguments, for the tests and the benchmarks.
struct ScanTuning {
  // The caseless routes ask the C runtime 256 times per distinct term character before they
  // scan; they are taken when the text has at least this many characters per question. The wide
  // question costs far more (Wine's _wcsnicmp takes about 15 times as long as its _strnicmp),
  // and the factor makes up for it. Tests lower the count to reach those routes with small texts.
  std::uint32_t chars_per_set_up_call = 32;
  std::uint32_t wide_factor = 16;
  // The kernel set; null for the widest that runs here. Tests force each in turn.
  const KernelSet* kernels = nullptr;
  // Characters filtered at a time (see GreedyScan in search_scan.cpp); 0 for the scan's own
  // stretches. Tests shorten them to put many stretch boundaries into short texts.
  std::uint32_t stretch = 0;
};

// Runs the search of `query` over text[0 .. n - 1] and hands its results, in text order, to
// `sink`; returns how many it handed over.
//
// flags: 1 compares case-insensitively (CharEqual), 2 takes whole words only; other bits are
// ignored. `stop`, if not null, is called with `stop_arg` once per alignment, before it is
// examined, and a true answer ends the scan with the results so far. Lines begin at the start of
// the text and behind each `delimiter`; a result holds the line on which its occurrence begins.
// Occurrences never overlap: after each one, recorded or rejected as no whole word, the scan
// moves on by the term's length.
//
// A null text, n <= 0, an empty query (termLength 0 or no arrays) or a term longer than the text
// give 0 and no results.
template <typename T>
std::uint32_t ScanText(const T* text, int n, const CSearchQuery<T>& query, unsigned long flags,
                       bool (*stop)(void*), void* stop_arg, T delimiter, ResultSink& sink,
                       const ScanTuning& tuning = ScanTuning());

template <typename T>
class CaselessClassSets;

// The caseless greedy route of ScanText over `sets`, which Prepare made for `query` (perhaps
// under another locale, which the tests use to reach the wide route's guard).
template <typename T>
std::uint32_t ClassSetScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           const CaselessClassSets<T>& sets, bool whole_words, T delimiter,
                           ResultSink& sink, const ScanTuning& tuning);

// The pieces that the scan's routes share (search_scan.cpp, search_literal.cpp).

// Line number and line start for results at rising positions, counted by a line kernel over
// the text between one position and the next, so that each character is counted once.
template <typename T>
class LineCounter {
 public:
  LineCounter(const T* text, T delimiter, const ScanKernels<T>& kernels)
      : text_(text), count_lines_(kernels.count_lines), lines_at_(kernels.lines_at),
        delimiter_(delimiter) {}

  // Counts the delimiters before `pos`, which is not below the last position counted to.
  void CountTo(std::uint32_t pos) {
    const LineCount found = count_lines_(text_ + scanned_, pos - scanned_, delimiter_);
    if (found.count != 0) {
      line_ += found.count;
      line_start_ = scanned_ + found.behind_last;
    }
    scanned_ = pos;
  }

  // Moves on to `pos` past text someone else has counted: `delimiters` of them between the last
  // position counted to and `pos`. The line then starts behind the last of them, which is looked
  // for backwards from `pos`, where it usually stands near.
  void Skip(std::uint32_t pos, std::uint32_t delimiters) {
    if (delimiters != 0) {
      line_ += delimiters;
      for (std::uint32_t end = pos; end > scanned_;) {
        const std::uint32_t start = end - scanned_ > kLookBack ? end - kLookBack : scanned_;
        const LineCount tail = count_lines_(text_ + start, end - start, delimiter_);
        if (tail.count != 0) {
          line_start_ = start + tail.behind_last;
          break;
        }
        end = start;
      }
    }
    scanned_ = pos;
  }

  // The result of an occurrence at `pos`, which is not below the last position counted to.
  std::uint64_t ResultAt(std::uint32_t pos) {
    CountTo(pos);
    return PackResult(line_start_, line_);
  }

  // The results of occurrences at positions[0 .. count - 1] (at most kBatch, rising, none below
  // the last position counted to) into results[].
  static constexpr std::uint32_t kBatch = 64;
  void ResultsAt(const std::uint32_t* positions, std::uint32_t count, std::uint64_t* results) {
    if (count == 0) return;
    LineCount lines[kBatch];
    lines_at_(text_, scanned_, positions, count, delimiter_, lines);
    for (std::uint32_t i = 0; i < count; ++i) {
      if (lines[i].count != 0) {
        line_ += lines[i].count;
        line_start_ = lines[i].behind_last;
      }
      results[i] = PackResult(line_start_, line_);
    }
    scanned_ = positions[count - 1];
  }

  std::uint32_t line() const { return line_; }
  const T& delimiter() const { return delimiter_; }

 private:
  static constexpr std::uint32_t kLookBack = 256;

  const T* text_;
  LineCount (*count_lines_)(const T*, std::uint32_t, T);
  void (*lines_at_)(const T*, std::uint32_t, const std::uint32_t*, std::uint32_t, T, LineCount*);
  T delimiter_;
  std::uint32_t scanned_ = 0;     // Delimiters before here are counted.
  std::uint32_t line_ = 1;        // The line at `scanned_`.
  std::uint32_t line_start_ = 0;  // Where that line starts.
};

// Results on their way to a sink, handed over a batch at a time.
class ResultBatch {
 public:
  static constexpr std::uint32_t kSize = 64;

  explicit ResultBatch(ResultSink& sink) : sink_(sink) {}
  ResultBatch(const ResultBatch&) = delete;
  ResultBatch& operator=(const ResultBatch&) = delete;
  ~ResultBatch() { Flush(); }

  void Add(std::uint64_t result) {
    results_[count_++] = result;
    if (count_ == kSize) Flush();
  }
  // Room for `count` results (at most kSize) to be written and then committed.
  std::uint64_t* Reserve(std::uint32_t count) {
    if (count_ + count > kSize) Flush();
    return results_ + count_;
  }
  void Commit(std::uint32_t count) {
    count_ += count;
    if (count_ == kSize) Flush();
  }
  void Flush() {
    if (count_ != 0) sink_.Put(results_, count_);
    count_ = 0;
  }

 private:
  ResultSink& sink_;
  std::uint32_t count_ = 0;
  std::uint64_t results_[kSize];
};

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_INTERNAL_SEARCH_SCAN_H_
