#ifndef TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_
#define TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_

// The scan behind CBuffer<T>::Search, kept apart from the buffer so that it can be tested and
// measured on its own. Not part of the installed interface.
//
// The scan's outcome is defined by a Horspool scan over the query's shift table (see ScanText).
// That scan runs literally when a stop callback is given, since the callback is polled once per
// alignment and so sees every one of them. Without a callback the same results come from faster
// routes, and the differential tests hold them to the literal scan.

#include <cctype>
#include <cstdint>
#include <cstring>
#include <cwctype>
#include <string.h>
#include <wchar.h>

#if defined(__i386__) || defined(__x86_64__)
#include <emmintrin.h>
#define TERN_SEARCH_SSE2 1
// SSE2 is used unconditionally, in the i686 build as well, without changing the flags of the
// files that include this header.
#define TERN_SEARCH_SSE2_FN __attribute__((target("sse2")))
#else
#define TERN_SEARCH_SSE2_FN
#endif

#include "buffer/search_query.h"

namespace KVT {
namespace search_internal {

// A result: the offset of the line start in the high half, the line number (from 1) in the low.
inline std::uint64_t MakeResult(std::uint32_t line_start, std::uint32_t line) {
  return (static_cast<std::uint64_t>(line_start) << 32) | line;
}

// --- Character tests shared by the scan and CBuffer's static members. ---

// 1 if the characters at `a` and `b` have one value, or, with `caseless`, if _strnicmp /
// _wcsnicmp of one character calls them equal (which follows the C runtime's locale); 0 if not
// or if either pointer is null.
inline int CharEqual(const char* a, const char* b, bool caseless) {
  if (a == nullptr || b == nullptr) return 0;
  if (*a == *b) return 1;
  return caseless && _strnicmp(a, b, 1) == 0 ? 1 : 0;
}
inline int CharEqual(const wchar_t* a, const wchar_t* b, bool caseless) {
  if (a == nullptr || b == nullptr) return 0;
  if (*a == *b) return 1;
  return caseless && _wcsnicmp(a, b, 1) == 0 ? 1 : 0;
}

// Characters below 33 and spaces separate words, alphanumerics don't, everything else (the
// underscore among it) does. A narrow char is tested as signed, so every byte above 127 separates
// words whatever the locale says of it; the wide form asks iswalnum.
inline int IsWordDelimeter(char ch) {
  if (ch < 33) return 1;
  if (std::isspace(ch)) return 1;
  return std::isalnum(ch) ? 0 : 1;
}
inline int IsWordDelimeter(wchar_t ch) {
  if (ch < 33) return 1;
  if (std::iswspace(ch)) return 1;
  return std::iswalnum(ch) ? 0 : 1;
}

// Whether isprint / iswprint accepts the character; false for null. A narrow character is handed
// over as its unsigned byte value, the only range isprint is defined for.
inline bool IsPrintable(const char* ch) {
  return ch != nullptr && std::isprint(static_cast<unsigned char>(*ch)) != 0;
}
inline bool IsPrintable(const wchar_t* ch) {
  return ch != nullptr && std::iswprint(*ch) != 0;
}

// CSearchQuery::ToBase, inline for the scan's inner loop.
inline unsigned BaseOf(char ch) {
  const int value = static_cast<signed char>(ch);
  return static_cast<unsigned>(value < 0 ? -value : value);
}
inline unsigned BaseOf(wchar_t ch) { return static_cast<unsigned>(ch); }

// --- Counting lines. ---

#if defined(TERN_SEARCH_SSE2)
TERN_SEARCH_SSE2_FN inline __m128i SplatChar(char ch) { return _mm_set1_epi8(ch); }
TERN_SEARCH_SSE2_FN inline __m128i SplatChar(wchar_t ch) {
  return _mm_set1_epi16(static_cast<short>(ch));
}
TERN_SEARCH_SSE2_FN inline __m128i EqualMask(__m128i a, __m128i b, char) {
  return _mm_cmpeq_epi8(a, b);
}
TERN_SEARCH_SSE2_FN inline __m128i EqualMask(__m128i a, __m128i b, wchar_t) {
  return _mm_cmpeq_epi16(a, b);
}
TERN_SEARCH_SSE2_FN inline __m128i Load(const void* p) {
  return _mm_loadu_si128(static_cast<const __m128i*>(p));
}

// Characters equal to `ch` in [p, p + count).
TERN_SEARCH_SSE2_FN inline std::uint32_t CountChar(const char* p, std::uint32_t count, char ch) {
  std::uint32_t total = 0;
  const __m128i needle = _mm_set1_epi8(ch);
  const __m128i zero = _mm_setzero_si128();
  while (count >= 16) {
    // Each lane counts up to 255 hits, then the lanes are summed.
    std::uint32_t blocks = count / 16;
    if (blocks > 255) blocks = 255;
    __m128i lanes = zero;
    for (std::uint32_t i = 0; i < blocks; ++i, p += 16) {
      lanes = _mm_sub_epi8(lanes, _mm_cmpeq_epi8(Load(p), needle));
    }
    const __m128i sums = _mm_sad_epu8(lanes, zero);
    total += static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums)) +
             static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
    count -= blocks * 16;
  }
  for (; count > 0; --count, ++p) total += *p == ch;
  return total;
}

TERN_SEARCH_SSE2_FN inline std::uint32_t CountChar(const wchar_t* p, std::uint32_t count,
                                                   wchar_t ch) {
  std::uint32_t total = 0;
  const __m128i needle = _mm_set1_epi16(static_cast<short>(ch));
  const __m128i ones = _mm_set1_epi16(1);
  while (count >= 8) {
    // Each lane counts up to 32767 hits (madd reads lanes as signed), then the lanes are summed.
    std::uint32_t blocks = count / 8;
    if (blocks > 32767) blocks = 32767;
    __m128i lanes = _mm_setzero_si128();
    for (std::uint32_t i = 0; i < blocks; ++i, p += 8) {
      lanes = _mm_sub_epi16(lanes, _mm_cmpeq_epi16(Load(p), needle));
    }
    __m128i sums = _mm_madd_epi16(lanes, ones);
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 8));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 4));
    total += static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
    count -= blocks * 8;
  }
  for (; count > 0; --count, ++p) total += *p == ch;
  return total;
}

// The index of the last `ch` in [p, p + count), or -1.
template <typename T>
TERN_SEARCH_SSE2_FN inline std::int32_t FindLastChar(const T* p, std::uint32_t count, T ch) {
  constexpr std::uint32_t kLanes = 16 / sizeof(T);
  const __m128i needle = SplatChar(ch);
  std::uint32_t end = count;
  while (end >= kLanes) {
    const unsigned mask =
        static_cast<unsigned>(_mm_movemask_epi8(EqualMask(Load(p + end - kLanes), needle, T())));
    if (mask != 0) {
      const unsigned top_byte = 31u - static_cast<unsigned>(__builtin_clz(mask));
      return static_cast<std::int32_t>(end - kLanes + top_byte / sizeof(T));
    }
    end -= kLanes;
  }
  while (end > 0) {
    --end;
    if (p[end] == ch) return static_cast<std::int32_t>(end);
  }
  return -1;
}
#else
template <typename T>
inline std::uint32_t CountChar(const T* p, std::uint32_t count, T ch) {
  std::uint32_t total = 0;
  for (; count > 0; --count, ++p) total += *p == ch;
  return total;
}

template <typename T>
inline std::int32_t FindLastChar(const T* p, std::uint32_t count, T ch) {
  while (count > 0) {
    --count;
    if (p[count] == ch) return static_cast<std::int32_t>(count);
  }
  return -1;
}
#endif

// Line number and line start of a position, counted lazily: only when a result needs them, and
// only over the stretch since the last result, so that each character is looked at once or
// twice in all however the scan moves.
template <typename T>
class LineCounter {
 public:
  LineCounter(const T* text, T delimiter) : text_(text), delimiter_(delimiter) {}

  // The result for an occurrence at `pos`, which is never below the previous call's.
  std::uint64_t ResultAt(std::uint32_t pos) {
    const std::uint32_t count = pos - scanned_;
    const std::int32_t last = FindLastChar(text_ + scanned_, count, delimiter_);
    if (last >= 0) {
      const std::uint32_t end = scanned_ + static_cast<std::uint32_t>(last);  // The delimiter.
      line_ += CountChar(text_ + scanned_, end - scanned_, delimiter_) + 1;
      line_start_ = end + 1;
    }
    scanned_ = pos;
    return MakeResult(line_start_, line_);
  }

 private:
  const T* text_;
  T delimiter_;
  std::uint32_t scanned_ = 0;
  std::uint32_t line_ = 1;
  std::uint32_t line_start_ = 0;
};

// With whole words only: the characters on both sides of an occurrence must be word delimiters;
// the start and the end of the text count as such.
template <typename T>
inline bool IsWholeWord(const T* text, std::uint32_t n, std::uint32_t pos, std::uint32_t m) {
  if (pos > 0 && !IsWordDelimeter(text[pos - 1])) return false;
  return pos + m >= n || IsWordDelimeter(text[pos + m]) != 0;
}

// --- The literal scan. ---

struct ValueEqual {
  template <typename T>
  bool operator()(T a, T b) const { return a == b; }
};

struct CaselessEqual {
  template <typename T>
  bool operator()(T a, T b) const { return CharEqual(&a, &b, true) != 0; }
};

struct NoStop {
  bool operator()() const { return false; }
};

struct StopCallback {
  bool (*stop)(void*);
  void* arg;
  bool operator()() const { return stop(arg); }
};

// Caches, per text character, whether it is caselessly equal to the term's last character: the
// comparison made at nearly every alignment, which otherwise calls into the C runtime whenever
// the two values differ. Narrow: one cell per byte. Wide: a direct-mapped cache.
template <typename T>
class LastPlaceMemo;

template <>
class LastPlaceMemo<char> {
 public:
  explicit LastPlaceMemo(char last) : last_(last) { std::memset(state_, 0, sizeof(state_)); }
  bool operator()(char ch, char) {
    std::uint8_t& state = state_[static_cast<unsigned char>(ch)];
    if (state == 0) state = CharEqual(&ch, &last_, true) ? 1 : 2;
    return state == 1;
  }

 private:
  char last_;
  std::uint8_t state_[256];  // 0 unknown, 1 equal, 2 not.
};

template <>
class LastPlaceMemo<wchar_t> {
 public:
  explicit LastPlaceMemo(wchar_t last) : last_(last) { std::memset(keys_, 0, sizeof(keys_)); }
  bool operator()(wchar_t ch, wchar_t) {
    // A key holds the character plus a valid bit and the answer.
    std::uint32_t& key = keys_[ch & (kSlots - 1)];
    if ((key & kValid) == 0 || static_cast<wchar_t>(key) != ch) {
      key = static_cast<std::uint32_t>(ch) | kValid | (CharEqual(&ch, &last_, true) ? kEqual : 0);
    }
    return (key & kEqual) != 0;
  }

 private:
  static constexpr std::uint32_t kSlots = 512;
  static constexpr std::uint32_t kValid = 1u << 16;
  static constexpr std::uint32_t kEqual = 1u << 17;
  wchar_t last_;
  std::uint32_t keys_[kSlots];
};

// The defining scan. The term covers text[pos .. pos + m - 1] (the alignment at pos). At each
// alignment: poll; compare the last place, then the leading places in rising order; on an
// occurrence record it (unless whole words are asked for and it is none) and move by m; otherwise
// move by the shift of the character under the last place, or by m if its base value is outside
// the table. Ends when the term would pass the end of the text. Requires 0 < m <= n.
template <typename T, typename LastEqual, typename Equal, typename Poll, typename Sink>
std::uint32_t HorspoolScan(const T* text, std::uint32_t n, const T* term, std::uint32_t m,
                           const unsigned short* table, unsigned table_size, bool whole_words,
                           T delimiter, LastEqual last_equal, Equal equal, Poll poll,
                           Sink& sink) {
  LineCounter<T> lines(text, delimiter);
  const T last = term[m - 1];
  const std::uint32_t last_pos = n - m;
  std::uint32_t found = 0;
  std::uint32_t pos = 0;
  for (;;) {
    if (poll()) break;
    const T under = text[pos + m - 1];
    bool match = last_equal(under, last);
    for (std::uint32_t k = 0; match && k + 1 < m; ++k) match = equal(text[pos + k], term[k]);
    if (match) {
      if (!whole_words || IsWholeWord(text, n, pos, m)) {
        ++found;
        sink(lines.ResultAt(pos));
      }
      pos += m;
    } else {
      const unsigned base = BaseOf(under);
      pos += base < table_size ? table[base] : m;
    }
    if (pos > last_pos) break;  // No overflow: pos <= n - m + 65535 < 2^32.
  }
  return found;
}

// --- The fast route for case-sensitive searches. ---

// How common a character is in ordinary text, roughly (higher is more common). Only used to pick
// the term's two rarest places as the filter of the fast route; any choice gives the same results.
inline int Commonness(unsigned ch) {
  if (ch == ' ') return 255;
  if (ch >= 'a' && ch <= 'z') {
    static const unsigned char kLower[26] = {
        220, 150, 180, 190, 230, 165, 162, 200, 212, 100, 135, 188, 170,  // a..m
        210, 215, 158, 90,  198, 205, 225, 178, 140, 168, 100, 160, 90};  // n..z
    return kLower[ch - 'a'];
  }
  if (ch >= 'A' && ch <= 'Z') return 60;
  if (ch >= '0' && ch <= '9') return 70;
  if (ch == ',' || ch == '.') return 150;
  if (ch == '\n' || ch == '\r') return 120;
  if (ch < 32) return 20;
  if (ch < 128) return 50;
  if (ch < 256) return 45;
  return 60;
}

inline unsigned CodeOf(char ch) { return static_cast<unsigned char>(ch); }
inline unsigned CodeOf(wchar_t ch) { return static_cast<unsigned>(ch); }

// Picks the filter places: the rarest place of the term, then the rarest one holding another
// character (or simply another place if all characters are the same).
template <typename T>
void PickFilterPlaces(const T* term, std::uint32_t m, std::uint32_t* first, std::uint32_t* second) {
  std::uint32_t a = m - 1;
  for (std::uint32_t i = 0; i < m; ++i) {
    if (Commonness(CodeOf(term[i])) < Commonness(CodeOf(term[a]))) a = i;
  }
  std::uint32_t b = a == 0 ? 1 : 0;
  bool b_differs = term[b] != term[a];
  for (std::uint32_t i = 0; i < m; ++i) {
    if (i == a) continue;
    const bool differs = term[i] != term[a];
    if ((differs && !b_differs) ||
        (differs == b_differs && Commonness(CodeOf(term[i])) < Commonness(CodeOf(term[b])))) {
      b = i;
      b_differs = differs;
    }
  }
  *first = a < b ? a : b;
  *second = a < b ? b : a;
}

template <typename T>
inline bool TermAt(const T* text, const T* term, std::uint32_t m) {
  return std::memcmp(text, term, m * sizeof(T)) == 0;
}

// The first occurrence at or after `from` and at or before `last_pos`, or -1. Candidates are the
// positions whose two filter places hold the term's characters, found a vector at a time.
template <typename T>
TERN_SEARCH_SSE2_FN std::int64_t FindNext(const T* text, std::uint32_t from,
                                          std::uint32_t last_pos, const T* term,
                                          std::uint32_t m, std::uint32_t i1, std::uint32_t i2) {
  std::uint32_t pos = from;
#if defined(TERN_SEARCH_SSE2)
  constexpr std::uint32_t kLanes = 16 / sizeof(T);
  const __m128i c1 = SplatChar(term[i1]);
  const __m128i c2 = SplatChar(term[i2]);
  // Two vectors per round; a round may look at positions up to pos + 2 * kLanes - 1.
  while (last_pos >= 2 * kLanes - 1 && pos <= last_pos - (2 * kLanes - 1)) {
    const T* p = text + pos;
    const __m128i lo = _mm_and_si128(EqualMask(Load(p + i1), c1, T()),
                                     EqualMask(Load(p + i2), c2, T()));
    const __m128i hi = _mm_and_si128(EqualMask(Load(p + kLanes + i1), c1, T()),
                                     EqualMask(Load(p + kLanes + i2), c2, T()));
    const __m128i any = _mm_or_si128(lo, hi);
    if (_mm_movemask_epi8(any) != 0) {
      std::uint32_t mask = static_cast<std::uint32_t>(_mm_movemask_epi8(lo)) |
                           (static_cast<std::uint32_t>(_mm_movemask_epi8(hi)) << 16);
      while (mask != 0) {
        const std::uint32_t at = pos + static_cast<std::uint32_t>(__builtin_ctz(mask)) / sizeof(T);
        if (TermAt(text + at, term, m)) return at;
        // Clear the candidate's bits (two of them in the wide form).
        mask &= ~((sizeof(T) == 1 ? 1u : 3u) << ((at - pos) * sizeof(T)));
      }
    }
    pos += 2 * kLanes;
  }
#endif
  for (; pos <= last_pos; ++pos) {
    if (text[pos + i1] == term[i1] && text[pos + i2] == term[i2] && TermAt(text + pos, term, m)) {
      return pos;
    }
  }
  return -1;
}

// A lone character: every position that holds it is an occurrence.
template <typename T>
TERN_SEARCH_SSE2_FN std::int64_t FindChar(const T* text, std::uint32_t from, std::uint32_t n,
                                          T ch) {
  std::uint32_t pos = from;
#if defined(TERN_SEARCH_SSE2)
  constexpr std::uint32_t kLanes = 16 / sizeof(T);
  const __m128i needle = SplatChar(ch);
  while (n >= 2 * kLanes && pos <= n - 2 * kLanes) {
    const __m128i lo = EqualMask(Load(text + pos), needle, T());
    const __m128i hi = EqualMask(Load(text + pos + kLanes), needle, T());
    const std::uint32_t mask = static_cast<std::uint32_t>(_mm_movemask_epi8(lo)) |
                               (static_cast<std::uint32_t>(_mm_movemask_epi8(hi)) << 16);
    if (mask != 0) return pos + static_cast<std::uint32_t>(__builtin_ctz(mask)) / sizeof(T);
    pos += 2 * kLanes;
  }
#endif
  for (; pos < n; ++pos) {
    if (text[pos] == ch) return pos;
  }
  return -1;
}

// Leftmost occurrences, each search resuming m places behind the last occurrence found. This is
// what the defining scan records whenever its table never moves the term past a place where it
// matches, which SafeForValueScan checks.
template <typename T, typename Sink>
std::uint32_t GreedyScan(const T* text, std::uint32_t n, const T* term, std::uint32_t m,
                         bool whole_words, T delimiter, Sink& sink) {
  LineCounter<T> lines(text, delimiter);
  const std::uint32_t last_pos = n - m;
  std::uint32_t i1 = 0;
  std::uint32_t i2 = 0;
  if (m > 1) PickFilterPlaces(term, m, &i1, &i2);
  std::uint32_t found = 0;
  std::uint32_t pos = 0;
  while (pos <= last_pos) {
    const std::int64_t at = m == 1 ? FindChar(text, pos, n, term[0])
                                   : FindNext(text, pos, last_pos, term, m, i1, i2);
    if (at < 0) break;
    const auto hit = static_cast<std::uint32_t>(at);
    if (!whole_words || IsWholeWord(text, n, hit, m)) {
      ++found;
      sink(lines.ResultAt(hit));
    }
    pos = hit + m;
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

// Runs the search of `query` over text[0 .. n - 1] and hands each result, in text order, to
// `sink` (called as sink(std::uint64_t)); returns how many it handed over.
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
template <typename T, typename Sink>
std::uint32_t ScanText(const T* text, int n, const CSearchQuery<T>& query, unsigned long flags,
                       bool (*stop)(void*), void* stop_arg, T delimiter, Sink& sink) {
  const int m = query.termLength;
  if (text == nullptr || n <= 0 || m <= 0 || m > n || query.term == nullptr ||
      query.shiftTable == nullptr) {
    return 0;
  }
  const auto un = static_cast<std::uint32_t>(n);
  const auto um = static_cast<std::uint32_t>(m);
  const bool caseless = (flags & 1) != 0;
  const bool whole_words = (flags & 2) != 0;
  const T* term = query.term;
  const unsigned short* table = query.shiftTable;
  const unsigned table_size = query.tableSize;

  if (stop != nullptr) {
    const StopCallback poll{stop, stop_arg};
    if (caseless) {
      return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter,
                          CaselessEqual(), CaselessEqual(), poll, sink);
    }
    return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter,
                        ValueEqual(), ValueEqual(), poll, sink);
  }
  if (caseless) {
    // A caseless table may skip characters that the C runtime's comparison calls equal to the
    // term's (it enters only toupper and tolower forms), so the scan keeps to its alignments.
    return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter,
                        LastPlaceMemo<T>(term[um - 1]), CaselessEqual(), NoStop(), sink);
  }
  if (!SafeForValueScan(term, um, table, table_size)) {
    return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter,
                        ValueEqual(), ValueEqual(), NoStop(), sink);
  }
  return GreedyScan(text, un, term, um, whole_words, delimiter, sink);
}

}  // namespace search_internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_
