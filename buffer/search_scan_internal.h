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

inline unsigned PopCount32(std::uint32_t x) {
  x = x - ((x >> 1) & 0x55555555u);
  x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
  x = (x + (x >> 4)) & 0x0F0F0F0Fu;
  return (x * 0x01010101u) >> 24;
}

// One forward pass over a short stretch: how many `ch` it holds, and where the last one stands
// (-1 for none).
template <typename T>
TERN_SEARCH_SSE2_FN inline std::uint32_t CountShort(const T* p, std::uint32_t count, T ch,
                                                    std::int32_t* last) {
  constexpr std::uint32_t kLanes = 16 / sizeof(T);
  const __m128i needle = SplatChar(ch);
  std::uint32_t total = 0;
  std::uint32_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    const auto mask =
        static_cast<std::uint32_t>(_mm_movemask_epi8(EqualMask(Load(p + i), needle, T())));
    if (mask != 0) {
      total += PopCount32(mask) / sizeof(T);
      *last = static_cast<std::int32_t>(i + (31u - static_cast<unsigned>(__builtin_clz(mask))) /
                                                sizeof(T));
    }
  }
  if (i < count && count >= kLanes) {
    // The rest as one vector ending at the stretch's end, without the lanes already counted.
    const std::uint32_t start = count - kLanes;
    auto mask =
        static_cast<std::uint32_t>(_mm_movemask_epi8(EqualMask(Load(p + start), needle, T())));
    mask &= 0xFFFFu << ((i - start) * sizeof(T));
    if (mask != 0) {
      total += PopCount32(mask) / sizeof(T);
      *last = static_cast<std::int32_t>(start + (31u - static_cast<unsigned>(__builtin_clz(mask))) /
                                                    sizeof(T));
    }
    return total;
  }
  for (; i < count; ++i) {
    if (p[i] == ch) {
      ++total;
      *last = static_cast<std::int32_t>(i);
    }
  }
  return total;
}
// Characters equal to `ch` in [p, p + count). Four vectors per step go into one lane counter
// (one dependent subtraction per 64 bytes); the lanes are summed before they can overflow.
TERN_SEARCH_SSE2_FN inline std::uint32_t CountChar(const char* p, std::uint32_t count, char ch) {
  std::uint32_t total = 0;
  const __m128i needle = _mm_set1_epi8(ch);
  const __m128i zero = _mm_setzero_si128();
  while (count >= 64) {
    // A step adds at most 4 to a lane, which holds 255.
    std::uint32_t steps = count / 64;
    if (steps > 63) steps = 63;
    __m128i lanes = zero;
    for (std::uint32_t i = 0; i < steps; ++i, p += 64) {
      const __m128i a = _mm_add_epi8(_mm_cmpeq_epi8(Load(p), needle),
                                     _mm_cmpeq_epi8(Load(p + 16), needle));
      const __m128i b = _mm_add_epi8(_mm_cmpeq_epi8(Load(p + 32), needle),
                                     _mm_cmpeq_epi8(Load(p + 48), needle));
      lanes = _mm_sub_epi8(lanes, _mm_add_epi8(a, b));
    }
    const __m128i sums = _mm_sad_epu8(lanes, zero);
    total += static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums)) +
             static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
    count -= steps * 64;
  }
  std::int32_t unused = -1;
  return total + CountShort(p, count, ch, &unused);
}

TERN_SEARCH_SSE2_FN inline std::uint32_t CountChar(const wchar_t* p, std::uint32_t count,
                                                   wchar_t ch) {
  std::uint32_t total = 0;
  const __m128i needle = _mm_set1_epi16(static_cast<short>(ch));
  const __m128i ones = _mm_set1_epi16(1);
  while (count >= 32) {
    // A step adds at most 4 to a lane, which must stay below 32768 (madd reads lanes as signed).
    std::uint32_t steps = count / 32;
    if (steps > 8191) steps = 8191;
    __m128i lanes = _mm_setzero_si128();
    for (std::uint32_t i = 0; i < steps; ++i, p += 32) {
      const __m128i a = _mm_add_epi16(_mm_cmpeq_epi16(Load(p), needle),
                                      _mm_cmpeq_epi16(Load(p + 8), needle));
      const __m128i b = _mm_add_epi16(_mm_cmpeq_epi16(Load(p + 16), needle),
                                      _mm_cmpeq_epi16(Load(p + 24), needle));
      lanes = _mm_sub_epi16(lanes, _mm_add_epi16(a, b));
    }
    __m128i sums = _mm_madd_epi16(lanes, ones);
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 8));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 4));
    total += static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
    count -= steps * 32;
  }
  std::int32_t unused = -1;
  return total + CountShort(p, count, ch, &unused);
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

template <typename T>
inline std::uint32_t CountShort(const T* p, std::uint32_t count, T ch, std::int32_t* last) {
  std::uint32_t total = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (p[i] == ch) {
      ++total;
      *last = static_cast<std::int32_t>(i);
    }
  }
  return total;
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
    if (count < kShortStretch) {
      std::int32_t last = -1;
      line_ += CountShort(text_ + scanned_, count, delimiter_, &last);
      if (last >= 0) line_start_ = scanned_ + static_cast<std::uint32_t>(last) + 1;
    } else {
      // Long stretches: find the last delimiter from the end, then count up to it with the
      // lane counters.
      const std::int32_t last = FindLastChar(text_ + scanned_, count, delimiter_);
      if (last >= 0) {
        const std::uint32_t end = scanned_ + static_cast<std::uint32_t>(last);  // The delimiter.
        line_ += CountChar(text_ + scanned_, end - scanned_, delimiter_) + 1;
        line_start_ = end + 1;
      }
    }
    scanned_ = pos;
    return MakeResult(line_start_, line_);
  }

 private:
  static constexpr std::uint32_t kShortStretch = 192;
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

// Caches a value per text character for one search, computed on first use. The caseless scan
// keeps the answers of the C runtime's comparison in it, which would otherwise be asked again at
// nearly every alignment. Narrow: one cell per byte. Wide: a direct-mapped cache.
template <typename T>
class CharCache;

template <>
class CharCache<char> {
 public:
  CharCache() { std::memset(values_, 0xFF, sizeof(values_)); }
  template <typename Compute>
  std::uint32_t Get(char ch, Compute compute) {
    std::uint32_t& value = values_[static_cast<unsigned char>(ch)];
    if (value == kUnknown) value = compute(ch);
    return value;
  }

 private:
  static constexpr std::uint32_t kUnknown = 0xFFFFFFFF;  // Never a computed value.
  std::uint32_t values_[256];
};

template <>
class CharCache<wchar_t> {
 public:
  CharCache() { std::memset(keys_, 0, sizeof(keys_)); }
  template <typename Compute>
  std::uint32_t Get(wchar_t ch, Compute compute) {
    const std::uint32_t slot = ch & (kSlots - 1);
    const std::uint32_t key = static_cast<std::uint32_t>(ch) | kValid;
    if (keys_[slot] != key) {
      keys_[slot] = key;
      values_[slot] = compute(ch);
    }
    return values_[slot];
  }

 private:
  static constexpr std::uint32_t kSlots = 256;
  static constexpr std::uint32_t kValid = 1u << 16;
  std::uint32_t keys_[kSlots];
  std::uint32_t values_[kSlots];
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

// Caches whether text characters equal one term character caselessly. Narrow: one state per
// byte. Wide: a direct-mapped cache whose cells hold the character, a valid bit and the answer.
template <typename T>
class PlaceCache;

template <>
class PlaceCache<char> {
 public:
  PlaceCache() { std::memset(states_, 0, sizeof(states_)); }
  void Reset(char term_char) {
    if (term_char_ != term_char) std::memset(states_, 0, sizeof(states_));
    term_char_ = term_char;
  }
  bool Equal(char ch) {
    std::uint8_t& state = states_[static_cast<unsigned char>(ch)];
    if (state == 0) state = CharEqual(&ch, &term_char_, true) ? 1 : 2;
    return state == 1;
  }

 private:
  char term_char_ = 0;
  std::uint8_t states_[256];  // 0 unknown, 1 equal, 2 not.
};

template <>
class PlaceCache<wchar_t> {
 public:
  PlaceCache() { std::memset(cells_, 0, sizeof(cells_)); }
  void Reset(wchar_t term_char) {
    if (term_char_ != term_char) std::memset(cells_, 0, sizeof(cells_));
    term_char_ = term_char;
  }
  bool Equal(wchar_t ch) {
    std::uint32_t& cell = cells_[ch & (kSlots - 1)];
    if ((cell & kValid) == 0 || static_cast<wchar_t>(cell) != ch) {
      cell = static_cast<std::uint32_t>(ch) | kValid |
             (CharEqual(&ch, &term_char_, true) ? kEqual : 0);
    }
    return (cell & kEqual) != 0;
  }

 private:
  static constexpr std::uint32_t kSlots = 256;
  static constexpr std::uint32_t kValid = 1u << 16;
  static constexpr std::uint32_t kEqual = 1u << 17;
  wchar_t term_char_ = 0;
  std::uint32_t cells_[kSlots];
};

// The defining scan for a caseless search without a stop callback: the same alignments, with
// the C runtime's answers cached (the comparison is a pure function during one search, so caching
// and the order of the comparisons change nothing). The character under the last place maps to 0
// if it equals the term's last character, else to its shift, so that most alignments cost one
// lookup. The first kCachedPlaces leading places have caches of their own; further ones are
// compared directly.
template <typename T, typename Sink>
std::uint32_t CaselessScan(const T* text, std::uint32_t n, const T* term, std::uint32_t m,
                           const unsigned short* table, unsigned table_size, bool whole_words,
                           T delimiter, Sink& sink) {
  constexpr std::uint32_t kCachedPlaces = 6;
  LineCounter<T> lines(text, delimiter);
  const std::uint32_t last_pos = n - m;
  auto shift_of = [table, table_size, m](T ch) -> std::uint32_t {
    const unsigned base = BaseOf(ch);
    return base < table_size ? table[base] : m;
  };
  const T last = term[m - 1];
  auto step_of = [&](T ch) -> std::uint32_t {
    return CharEqual(&ch, &last, true) ? 0 : shift_of(ch);
  };
  CharCache<T> steps;
  const std::uint32_t cached = m - 1 < kCachedPlaces ? m - 1 : kCachedPlaces;
  PlaceCache<T> places[kCachedPlaces];
  for (std::uint32_t k = 0; k < cached; ++k) places[k].Reset(term[k]);

  std::uint32_t found = 0;
  std::uint32_t pos = 0;
  for (;;) {
    const T under = text[pos + m - 1];
    const std::uint32_t step = steps.Get(under, step_of);
    if (step != 0) {
      pos += step;
      if (pos > last_pos) break;
      continue;
    }
    // The leading places are 0 .. m - 2.
    bool match = true;
    for (std::uint32_t k = 0; match && k < cached; ++k) match = places[k].Equal(text[pos + k]);
    for (std::uint32_t k = cached; match && k + 1 < m; ++k) {
      match = CharEqual(text + pos + k, term + k, true) != 0;
    }
    if (match) {
      if (!whole_words || IsWholeWord(text, n, pos, m)) {
        ++found;
        sink(lines.ResultAt(pos));
      }
      pos += m;
    } else {
      pos += shift_of(under);
    }
    if (pos > last_pos) break;
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

// Picks the filter places: the rarest place of the term by `rank` (lower is rarer), then the
// rarest one holding another character (or simply another place if all characters are the same).
// Requires m > 1.
template <typename T, typename Rank>
void PickFilterPlaces(const T* term, std::uint32_t m, Rank rank, std::uint32_t* first,
                      std::uint32_t* second) {
  std::uint32_t a = m - 1;
  for (std::uint32_t i = 0; i < m; ++i) {
    if (rank(i) < rank(a)) a = i;
  }
  std::uint32_t b = a == 0 ? 1 : 0;
  bool b_differs = term[b] != term[a];
  for (std::uint32_t i = 0; i < m; ++i) {
    if (i == a) continue;
    const bool differs = term[i] != term[a];
    if ((differs && !b_differs) || (differs == b_differs && rank(i) < rank(b))) {
      b = i;
      b_differs = differs;
    }
  }
  *first = a < b ? a : b;
  *second = a < b ? b : a;
}

// Whether the term stands at `at` (which leaves room for it).
template <typename T>
TERN_SEARCH_SSE2_FN inline bool TermAt(const T* at, const T* term, std::uint32_t m) {
  std::uint32_t k = 0;
#if defined(TERN_SEARCH_SSE2)
  constexpr std::uint32_t kLanes = 16 / sizeof(T);
  if (m >= kLanes) {
    for (; k + kLanes <= m; k += kLanes) {
      if (_mm_movemask_epi8(_mm_cmpeq_epi8(Load(at + k), Load(term + k))) != 0xFFFF) return false;
    }
    // The rest as one vector that overlaps the part already compared.
    k = m - kLanes;
    return _mm_movemask_epi8(_mm_cmpeq_epi8(Load(at + k), Load(term + k))) == 0xFFFF;
  }
#endif
  for (; k < m; ++k) {
    if (at[k] != term[k]) return false;
  }
  return true;
}

// Candidates for the greedy scan by value: positions whose filter places hold the term's
// characters there. The places are the term's rarest (see Commonness): two, and a third from
// four characters on, which pays for its extra compares by far fewer false candidates in ordinary
// text. A verified candidate is an occurrence.
template <typename T>
class ValueMatcher {
 public:
  ValueMatcher(const T* term, std::uint32_t m) : term_(term), m_(m) {
    if (m < 2) return;
    auto rank = [term](std::uint32_t k) { return Commonness(CodeOf(term[k])); };
    PickFilterPlaces(term, m, rank, &i1_, &i2_);
    i3_ = i2_;
    if (m < 4) return;
    int best = 1 << 30;
    for (std::uint32_t k = 0; k < m; ++k) {
      if (k != i1_ && k != i2_ && rank(k) < best) {
        best = rank(k);
        i3_ = k;
      }
    }
  }

#if defined(TERN_SEARCH_SSE2)
  // Candidate mask of the 32 bytes' worth of positions from `p`: bit (i * sizeof(T)) stands for
  // position p + i, and in the wide form the bit above it is set along with it.
  TERN_SEARCH_SSE2_FN std::uint32_t Candidates(const T* p) const {
    constexpr std::uint32_t kLanes = 16 / sizeof(T);
    const __m128i c1 = SplatChar(term_[i1_]);
    const __m128i c2 = SplatChar(term_[i2_]);
    const __m128i c3 = SplatChar(term_[i3_]);
    const __m128i lo = _mm_and_si128(
        _mm_and_si128(EqualMask(Load(p + i1_), c1, T()), EqualMask(Load(p + i2_), c2, T())),
        EqualMask(Load(p + i3_), c3, T()));
    const __m128i hi = _mm_and_si128(_mm_and_si128(EqualMask(Load(p + kLanes + i1_), c1, T()),
                                                   EqualMask(Load(p + kLanes + i2_), c2, T())),
                                     EqualMask(Load(p + kLanes + i3_), c3, T()));
    return static_cast<std::uint32_t>(_mm_movemask_epi8(lo)) |
           (static_cast<std::uint32_t>(_mm_movemask_epi8(hi)) << 16);
  }
#endif
  bool Candidate(const T* p) const {
    return p[i1_] == term_[i1_] && p[i2_] == term_[i2_] && p[i3_] == term_[i3_];
  }
  bool Verify(const T* p) const { return TermAt(p, term_, m_); }

 private:
  const T* term_;
  std::uint32_t m_;
  std::uint32_t i1_ = 0;
  std::uint32_t i2_ = 0;
  std::uint32_t i3_ = 0;
};

// Leftmost occurrences, each one looked for from m places behind the last occurrence found (or
// rejected as no whole word). This is what the defining scan records whenever its table never
// moves the term past a place where it matches, which the callers check first. The matcher's
// candidates are found 32 bytes at a time, and each is verified whole.
template <typename T, typename Matcher, typename Sink>
TERN_SEARCH_SSE2_FN std::uint32_t GreedyScan(const T* text, std::uint32_t n, std::uint32_t m,
                                             const Matcher& matcher, bool whole_words,
                                             T delimiter, Sink& sink) {
  LineCounter<T> lines(text, delimiter);
  const std::uint32_t last_pos = n - m;
  std::uint32_t found = 0;
  std::uint32_t next = 0;  // The first position where an occurrence may start.

  auto take = [&](std::uint32_t at) {
    if (!whole_words || IsWholeWord(text, n, at, m)) {
      ++found;
      sink(lines.ResultAt(at));
    }
    next = at + m;
  };

#if defined(TERN_SEARCH_SSE2)
  constexpr std::uint32_t kRound = 32 / sizeof(T);  // Positions per round.
  // A round looks at the positions block .. block + kRound - 1, all of them <= last_pos.
  while (last_pos >= kRound - 1 && next <= last_pos - (kRound - 1)) {
    const std::uint32_t block = next;
    std::uint32_t mask = matcher.Candidates(text + block);
    next = block + kRound;
    while (mask != 0) {
      const std::uint32_t at = block + static_cast<std::uint32_t>(__builtin_ctz(mask)) / sizeof(T);
      if (matcher.Verify(text + at)) {
        take(at);  // Moves `next` to at + m.
        const std::uint32_t skip = (next - block) * sizeof(T);  // Mask bits now out of reach.
        if (skip >= 32) break;
        mask &= ~0u << skip;
        if (next < block + kRound) next = block + kRound;
      } else {
        mask &= ~((sizeof(T) == 1 ? 1u : 3u) << ((at - block) * sizeof(T)));
      }
    }
  }
#endif
  for (std::uint32_t pos = next; pos <= last_pos; ++pos) {
    if (pos >= next && matcher.Candidate(text + pos) && matcher.Verify(text + pos)) take(pos);
  }
  return found;
}

// Candidates and verification for a caseless narrow search by the sets of bytes that the C
// runtime calls equal to each term character, asked once per search. Prepare() declines terms
// whose sets it cannot hold, and tables that could move the term past such a byte.
class NarrowClassMatcher {
 public:
  static constexpr std::uint32_t kMaxTerm = 64;
  static constexpr std::uint32_t kMaxDistinct = 64;
  static constexpr std::uint32_t kMaxMembers = 3;  // Per filter place.

  // Builds the sets; false if the term is too long, has too many distinct characters, or the
  // table is unsound for them.
  bool Prepare(const char* term, std::uint32_t m, const unsigned short* table,
               unsigned table_size) {
    if (m > kMaxTerm) return false;
    term_ = term;
    m_ = m;
    std::uint32_t distinct = 0;
    for (std::uint32_t k = 0; k < m; ++k) {
      std::uint32_t d = 0;
      while (d < distinct && term[set_char_[d]] != term[k]) ++d;
      if (d == distinct) {
        if (distinct == kMaxDistinct) return false;
        set_char_[distinct++] = static_cast<std::uint8_t>(k);
        std::memset(sets_[d], 0, sizeof(sets_[d]));
        for (unsigned byte = 0; byte < 256; ++byte) {
          const char ch = static_cast<char>(byte);
          if (CharEqual(&ch, term + k, true)) sets_[d][byte >> 5] |= 1u << (byte & 31);
        }
      }
      set_of_[k] = static_cast<std::uint8_t>(d);
    }
    // Sound if every byte equal to the character at j < m - 1 moves by at most m - 1 - j.
    for (std::uint32_t j = 0; j + 1 < m; ++j) {
      const std::uint32_t* set = sets_[set_of_[j]];
      for (unsigned byte = 0; byte < 256; ++byte) {
        if ((set[byte >> 5] & (1u << (byte & 31))) == 0) continue;
        const unsigned base = BaseOf(static_cast<char>(byte));
        if (base >= table_size || table[base] > m - 1 - j) return false;
      }
    }
    // A place is as common as the bytes its set holds together.
    auto rank = [this](std::uint32_t k) {
      int sum = 0;
      for (unsigned byte = 0; byte < 256; ++byte) {
        if (In(k, static_cast<char>(byte))) sum += Commonness(byte);
      }
      return sum;
    };
    if (m > 1) PickFilterPlaces(term, m, rank, &i1_, &i2_);
    return Members(i1_, members1_, &count1_) && Members(i2_, members2_, &count2_);
  }

#if defined(TERN_SEARCH_SSE2)
  TERN_SEARCH_SSE2_FN std::uint32_t Candidates(const char* p) const {
    const std::uint32_t lo = Hits(p + i1_, members1_, count1_) & Hits(p + i2_, members2_, count2_);
    const std::uint32_t hi =
        Hits(p + 16 + i1_, members1_, count1_) & Hits(p + 16 + i2_, members2_, count2_);
    return lo | (hi << 16);
  }
#endif
  bool Candidate(const char* p) const { return In(i1_, p[i1_]) && In(i2_, p[i2_]); }
  bool Verify(const char* p) const {
    for (std::uint32_t k = 0; k < m_; ++k) {
      if (!In(k, p[k])) return false;
    }
    return true;
  }

 private:
  bool In(std::uint32_t place, char ch) const {
    const auto byte = static_cast<unsigned char>(ch);
    return (sets_[set_of_[place]][byte >> 5] & (1u << (byte & 31))) != 0;
  }

  bool Members(std::uint32_t place, char* members, std::uint32_t* count) const {
    *count = 0;
    for (unsigned byte = 0; byte < 256; ++byte) {
      if (!In(place, static_cast<char>(byte))) continue;
      if (*count == kMaxMembers) return false;
      members[(*count)++] = static_cast<char>(byte);
    }
    return true;
  }

#if defined(TERN_SEARCH_SSE2)
  TERN_SEARCH_SSE2_FN static std::uint32_t Hits(const char* p, const char* members,
                                                std::uint32_t count) {
    const __m128i text = Load(p);
    __m128i hits = _mm_cmpeq_epi8(text, _mm_set1_epi8(members[0]));
    for (std::uint32_t i = 1; i < count; ++i) {
      hits = _mm_or_si128(hits, _mm_cmpeq_epi8(text, _mm_set1_epi8(members[i])));
    }
    return static_cast<std::uint32_t>(_mm_movemask_epi8(hits));
  }
#endif

  const char* term_ = nullptr;
  std::uint32_t m_ = 0;
  std::uint32_t i1_ = 0;
  std::uint32_t i2_ = 0;
  std::uint32_t sets_[kMaxDistinct][8];  // 256-bit sets.
  std::uint8_t set_char_[kMaxDistinct];  // A place holding the set's term character.
  std::uint8_t set_of_[kMaxTerm];        // The set of each place.
  char members1_[kMaxMembers];
  char members2_[kMaxMembers];
  std::uint32_t count1_ = 0;
  std::uint32_t count2_ = 0;
};

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

// Where the routes that need set-up start to pay. The narrow caseless route asks the C runtime
// 256 times per distinct term character before it scans; it is taken when the text has at least
// this many characters per question. Tests lower it to reach that route with small texts.
struct ScanTuning {
  std::uint32_t chars_per_set_up_call = 32;
};

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
                       bool (*stop)(void*), void* stop_arg, T delimiter, Sink& sink,
                       const ScanTuning& tuning = ScanTuning()) {
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
    // term's (it enters only toupper and tolower forms). In the narrow form, on long texts, the
    // sets of such bytes are worth asking for: if the table is sound for them the greedy route
    // gives the same results. Otherwise the scan keeps to the table's alignments.
    if constexpr (sizeof(T) == 1) {
      const std::uint64_t calls = 256ull * (um < NarrowClassMatcher::kMaxDistinct
                                                ? um
                                                : NarrowClassMatcher::kMaxDistinct);
      if (un >= calls * tuning.chars_per_set_up_call) {
        NarrowClassMatcher matcher;
        if (matcher.Prepare(term, um, table, table_size)) {
          return GreedyScan(text, un, um, matcher, whole_words, delimiter, sink);
        }
      }
    }
    return CaselessScan(text, un, term, um, table, table_size, whole_words, delimiter, sink);
  }
  if (!SafeForValueScan(term, um, table, table_size)) {
    return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter,
                        ValueEqual(), ValueEqual(), NoStop(), sink);
  }
  return GreedyScan(text, un, um, ValueMatcher<T>(term, um), whole_words, delimiter, sink);
}

}  // namespace search_internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_
