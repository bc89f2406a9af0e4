#ifndef TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_
#define TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_

// The scan behind CBuffer<T>::Search, kept apart from the buffer so that it can be tested and
// measured on its own. Not part of the installed interface.
//
// The scan's outcome is defined by a Horspool scan over the query's shift table (see ScanText).
// That scan runs literally when a stop callback is given, since the callback is polled once per
// alignment and so sees every one of them. Without a callback the same results come from faster
// routes, and the differential tests hold them to the literal scan.
//
// The vector code is in search_vector_internal.inc, compiled for SSE2 (used unconditionally, the
// i686 build included, without changing the flags of the files that include this header) and
// for AVX2 (used when the processor and the system support it). Files that include this header
// are assembled with -muse-unaligned-vector-move (see buffer/CMakeLists.txt): GCC cannot align
// the x86_64 Windows stack to 32 bytes, so any AVX2 spill must not need it.

#if !defined(__i386__) && !defined(__x86_64__)
#error "The search scan is written for x86 processors (SSE2)."
#endif

#include <cpuid.h>
#include <immintrin.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <cwctype>
#include <string.h>
#include <wchar.h>

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

// With whole words only: the characters on both sides of an occurrence must be word delimiters;
// the start and the end of the text count as such.
template <typename T>
inline bool IsWholeWord(const T* text, std::uint32_t n, std::uint32_t pos, std::uint32_t m) {
  if (pos > 0 && !IsWordDelimeter(text[pos - 1])) return false;
  return pos + m >= n || IsWordDelimeter(text[pos + m]) != 0;
}

// What the vector route looks for: positions p where, for every place i, text[p + place[i]] is
// one of member[i][0 .. kMembers - 1].
template <typename T, int kPlaces, int kMembers>
struct Filter {
  std::uint32_t place[kPlaces];
  T member[kPlaces][kMembers];

  bool Check(const T* p) const {
    for (int i = 0; i < kPlaces; ++i) {
      bool any = false;
      for (int j = 0; j < kMembers; ++j) any = any || p[place[i]] == member[i][j];
      if (!any) return false;
    }
    return true;
  }
};

inline unsigned PopCount32(std::uint32_t x) {
  x = x - ((x >> 1) & 0x55555555u);
  x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
  x = (x + (x >> 4)) & 0x0F0F0F0Fu;
  return (x * 0x01010101u) >> 24;
}

// --- The vector code, once per instruction set. ---

namespace sse2 {
#pragma GCC push_options
#pragma GCC target("sse2")

struct Vec {
  using V = __m128i;
  using Mask = std::uint32_t;
  static constexpr std::uint32_t kBytes = 16;
  static V Load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
  static V Zero() { return _mm_setzero_si128(); }
  static V Splat(char ch) { return _mm_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm_set1_epi16(static_cast<short>(ch)); }
  static V Equal(V a, V b, char) { return _mm_cmpeq_epi8(a, b); }
  static V Equal(V a, V b, wchar_t) { return _mm_cmpeq_epi16(a, b); }
  static V And(V a, V b) { return _mm_and_si128(a, b); }
  static V Or(V a, V b) { return _mm_or_si128(a, b); }
  static V Add(V a, V b, char) { return _mm_add_epi8(a, b); }
  static V Add(V a, V b, wchar_t) { return _mm_add_epi16(a, b); }
  static V Sub(V a, V b, char) { return _mm_sub_epi8(a, b); }
  static V Sub(V a, V b, wchar_t) { return _mm_sub_epi16(a, b); }
  static std::uint32_t Bits(V v) { return static_cast<std::uint32_t>(_mm_movemask_epi8(v)); }
  static std::uint32_t SumBytes(V v) {
    const __m128i sums = _mm_sad_epu8(v, _mm_setzero_si128());
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums)) +
           static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(sums, 8)));
  }
  static std::uint32_t SumWords(V v) {
    __m128i sums = _mm_madd_epi16(v, _mm_set1_epi16(1));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 8));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 4));
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
  }
};

#include "buffer/search_vector_internal.inc"

#pragma GCC pop_options
}  // namespace sse2

namespace avx2 {
#pragma GCC push_options
#pragma GCC target("avx2")

struct Vec {
  using V = __m256i;
  using Mask = std::uint64_t;
  static constexpr std::uint32_t kBytes = 32;
  static V Load(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
  static V Zero() { return _mm256_setzero_si256(); }
  static V Splat(char ch) { return _mm256_set1_epi8(ch); }
  static V Splat(wchar_t ch) { return _mm256_set1_epi16(static_cast<short>(ch)); }
  static V Equal(V a, V b, char) { return _mm256_cmpeq_epi8(a, b); }
  static V Equal(V a, V b, wchar_t) { return _mm256_cmpeq_epi16(a, b); }
  static V And(V a, V b) { return _mm256_and_si256(a, b); }
  static V Or(V a, V b) { return _mm256_or_si256(a, b); }
  static V Add(V a, V b, char) { return _mm256_add_epi8(a, b); }
  static V Add(V a, V b, wchar_t) { return _mm256_add_epi16(a, b); }
  static V Sub(V a, V b, char) { return _mm256_sub_epi8(a, b); }
  static V Sub(V a, V b, wchar_t) { return _mm256_sub_epi16(a, b); }
  static std::uint32_t Bits(V v) { return static_cast<std::uint32_t>(_mm256_movemask_epi8(v)); }
  static std::uint32_t SumBytes(V v) {
    const __m256i sums = _mm256_sad_epu8(v, _mm256_setzero_si256());
    const __m128i half = _mm_add_epi64(_mm256_castsi256_si128(sums),
                                       _mm256_extracti128_si256(sums, 1));
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(half)) +
           static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(half, 8)));
  }
  static std::uint32_t SumWords(V v) {
    const __m256i pairs = _mm256_madd_epi16(v, _mm256_set1_epi16(1));
    __m128i sums = _mm_add_epi32(_mm256_castsi256_si128(pairs), _mm256_extracti128_si256(pairs, 1));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 8));
    sums = _mm_add_epi32(sums, _mm_srli_si128(sums, 4));
    return static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums));
  }
};

#include "buffer/search_vector_internal.inc"

#pragma GCC pop_options
}  // namespace avx2

// Whether the processor has AVX2 and the system saves its registers (OSXSAVE, and XCR0 with the
// SSE and AVX state). Asked once per module.
inline bool HasAvx2() {
  static std::atomic<int> known{0};  // 0 not asked yet, 1 no, 2 yes.
  int answer = known.load(std::memory_order_relaxed);
  if (answer == 0) {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    bool yes = false;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_OSXSAVE) && (ecx & bit_AVX)) {
      unsigned xcr0_low = 0, xcr0_high = 0;
      __asm__ volatile("xgetbv" : "=a"(xcr0_low), "=d"(xcr0_high) : "c"(0));
      if ((xcr0_low & 6) == 6 && __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) {
        yes = (ebx & bit_AVX2) != 0;
      }
    }
    answer = yes ? 2 : 1;
    known.store(answer, std::memory_order_relaxed);
  }
  return answer == 2;
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
  sse2::LineCounter<T> lines(text, delimiter);
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
// Results at positions below `emit_from` are neither recorded nor counted: a route that gives up
// (WideCaselessGuard) has recorded those already, with `lines`, which carries on here.
template <typename T, typename Lines, typename Sink>
std::uint32_t CaselessScan(const T* text, std::uint32_t n, const T* term, std::uint32_t m,
                           const unsigned short* table, unsigned table_size, bool whole_words,
                           Lines& lines, std::uint32_t emit_from, Sink& sink) {
  constexpr std::uint32_t kCachedPlaces = 6;
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
      if (pos >= emit_from && (!whole_words || IsWholeWord(text, n, pos, m))) {
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

// The term's rarest places by `rank`: two as PickFilterPlaces chooses them, and a third from
// `third_from` characters on, which pays for its extra compares by far fewer false candidates in
// ordinary text. For shorter terms the third place repeats the second.
template <typename T, typename Rank>
void PickThreePlaces(const T* term, std::uint32_t m, Rank rank, std::uint32_t third_from,
                     std::uint32_t places[3]) {
  places[0] = places[1] = places[2] = 0;
  if (m < 2) return;
  PickFilterPlaces(term, m, rank, &places[0], &places[1]);
  places[2] = places[1];
  int best = 1 << 30;
  for (std::uint32_t k = 0; m >= third_from && k < m; ++k) {
    if (k != places[0] && k != places[1] && rank(k) < best) {
      best = rank(k);
      places[2] = k;
    }
  }
}

// The filter of a search by value: the term's three rarest places (see Commonness), the third
// from four characters on.
template <typename T>
Filter<T, 3, 1> ValueFilter(const T* term, std::uint32_t m) {
  Filter<T, 3, 1> filter{};
  PickThreePlaces(term, m, [term](std::uint32_t k) { return Commonness(CodeOf(term[k])); }, 4,
                  filter.place);
  for (int i = 0; i < 3; ++i) filter.member[i][0] = term[filter.place[i]];
  return filter;
}

// The code units that the C runtime calls equal to each character of a caseless term (its set),
// asked once per search: below 256 every code unit is asked (for a narrow term, every byte);
// above 255, for a wide term, only the character and its towupper and towlower forms, so that a
// set is complete there only as far as WideCaselessGuard finds. The route needs at most two
// members per set, its forms: place k of an occurrence holds form(0)[k] or form(1)[k] (one and
// the same for a set of one), which vectors compare. Prepare() declines a term too long, a set of
// more members, and a table that could move the term past a member.
template <typename T>
class CaselessClassSets {
 public:
  static constexpr std::uint32_t kMaxTerm = 64;
  static constexpr std::uint32_t kMaxDistinct = 64;

  bool Prepare(const T* term, std::uint32_t m, const unsigned short* table,
               unsigned table_size) {
    if (m > kMaxTerm) return false;
    distinct_ = 0;
    for (std::uint32_t k = 0; k < m; ++k) {
      std::uint32_t d = 0;
      while (d < distinct_ && char_[d] != term[k]) ++d;
      if (d == distinct_ && !AddSet(term[k])) return false;
      forms_[0][k] = member_[d][0];
      forms_[1][k] = member_[d][1];
    }
    // Sound if every member of the set at j < m - 1 moves by at most m - 1 - j.
    for (std::uint32_t j = 0; j + 1 < m; ++j) {
      for (int i = 0; i < 2; ++i) {
        const unsigned base = BaseOf(forms_[i][j]);
        if (base >= table_size || table[base] > m - 1 - j) return false;
      }
    }
    // A place is as common as its members together.
    auto rank = [this](std::uint32_t k) {
      const int first = Commonness(CodeOf(forms_[0][k]));
      return forms_[1][k] == forms_[0][k] ? first : first + Commonness(CodeOf(forms_[1][k]));
    };
    // A third place (from three characters on) pays only where the two rarest places are
    // common letters, which let through many false candidates in either case; rarer ones filter
    // well enough alone, and a third costs each vector more compares.
    PickThreePlaces(term, m, rank, 3, three_.place);
    three_places_ = m >= 3 && rank(three_.place[0]) + rank(three_.place[1]) >= kCommonPair;
    two_.place[0] = three_.place[0];
    two_.place[1] = three_.place[1];
    for (int i = 0; i < 3; ++i) {
      for (int f = 0; f < 2; ++f) {
        three_.member[i][f] = forms_[f][three_.place[i]];
        if (i < 2) two_.member[i][f] = forms_[f][two_.place[i]];
      }
    }
    return true;
  }

  const T* form(int i) const { return forms_[i]; }
  bool three_places() const { return three_places_; }
  const Filter<T, 3, 2>& three() const { return three_; }
  const Filter<T, 2, 2>& two() const { return two_; }

  // Whether the sets are right about `ch`, a code unit above 255: the C runtime calls it equal
  // to exactly the term characters whose sets hold it.
  bool Plain(T ch) const {
    for (std::uint32_t d = 0; d < distinct_; ++d) {
      const bool member = ch == member_[d][0] || ch == member_[d][1];
      if ((CharEqual(&ch, &char_[d], true) != 0) != member) return false;
    }
    return true;
  }

 private:
  // Two places whose Commonness together reaches this hold common letters (such as t and h in
  // either case); a rare letter and a common one stay below it.
  static constexpr int kCommonPair = 400;

  // The set of `ch`, as the next one; false if it has more than two members.
  bool AddSet(T ch) {
    const std::uint32_t d = distinct_++;
    char_[d] = ch;
    int count = 0;
    auto add = [&](T member) {
      if (count < 2) member_[d][count] = member;
      ++count;
    };
    for (unsigned code = 0; code < 256; ++code) {
      const T low = static_cast<T>(code);
      if (CharEqual(&low, &ch, true)) add(low);
    }
    if constexpr (sizeof(T) > 1) {
      const T forms[3] = {ch, static_cast<T>(std::towupper(ch)), static_cast<T>(std::towlower(ch))};
      for (int i = 0; i < 3; ++i) {
        const bool again = (i > 0 && forms[i] == forms[0]) || (i > 1 && forms[i] == forms[1]);
        if (forms[i] > 255 && !again && CharEqual(&forms[i], &ch, true)) add(forms[i]);
      }
    }
    if (count == 1) member_[d][1] = member_[d][0];
    return count <= 2;
  }

  std::uint32_t distinct_ = 0;
  T char_[kMaxDistinct];       // The term character of each set.
  T member_[kMaxDistinct][2];  // Its members (twice the one of a set of one).
  T forms_[2][kMaxTerm];       // The members of each place's set.
  bool three_places_ = false;
  Filter<T, 3, 2> three_{};
  Filter<T, 2, 2> two_{};
};

// For routes that need no guard: every text character is known to the filter and the table.
struct NoGuard {
  static constexpr bool kActive = false;
  std::uint32_t cleared() const { return 0; }
  bool Clear(std::uint32_t) { return true; }
  template <typename Lines, typename Sink>
  std::uint32_t Finish(std::uint32_t, Lines&, Sink&) { return 0; }
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

  // Text characters below this index are checked.
  std::uint32_t cleared() const { return cleared_; }

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

  template <typename Lines, typename Sink>
  std::uint32_t Finish(std::uint32_t from, Lines& lines, Sink& sink) {
    return CaselessScan(text_, n_, query_.term, static_cast<std::uint32_t>(query_.termLength),
                        query_.shiftTable, query_.tableSize, whole_words_, lines, from, sink);
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
  std::uint32_t cleared_ = 0;
  std::uint32_t plain_[65536 / 32];  // Code units found plain so far.
};

// The greedy route of a caseless search over the sets that Prepare made for `query`, guarded
// where the text is wide.
template <typename T, typename Sink>
std::uint32_t ClassSetScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           const CaselessClassSets<T>& sets, bool whole_words, T delimiter,
                           Sink& sink, bool avx2) {
  const auto m = static_cast<std::uint32_t>(query.termLength);
  auto with = [&](auto& guard, const auto& filter) -> std::uint32_t {
    if (avx2) {
      return avx2::GreedyScan(text, n, m, filter,
                              avx2::FormsVerifier<T>{sets.form(0), sets.form(1), m}, whole_words,
                              delimiter, guard, sink);
    }
    return sse2::GreedyScan(text, n, m, filter,
                            sse2::FormsVerifier<T>{sets.form(0), sets.form(1), m}, whole_words,
                            delimiter, guard, sink);
  };
  auto run = [&](auto& guard) {
    return sets.three_places() ? with(guard, sets.three()) : with(guard, sets.two());
  };
  if constexpr (sizeof(T) == 1) {
    NoGuard guard;
    return run(guard);
  } else {
    WideCaselessGuard guard(text, n, query, whole_words, sets,
                            avx2 ? &avx2::FindHigh : &sse2::FindHigh);
    return run(guard);
  }
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

// Where the routes that need set-up start to pay. The caseless routes ask the C runtime 256
// times per distinct term character before they scan; they are taken when the text has at least
// this many characters per question. The wide question costs far more (Wine's _wcsnicmp takes
// about 15 times as long as its _strnicmp), and the factor makes up for it. Tests lower the
// count to reach those routes with small texts.
struct ScanTuning {
  std::uint32_t chars_per_set_up_call = 32;
  bool allow_avx2 = true;  // Tests turn it off to reach the SSE2 code on any processor.
  std::uint32_t wide_factor = 16;
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
  const bool avx2 = tuning.allow_avx2 && HasAvx2();
  if (caseless) {
    // A caseless table may skip characters that the C runtime's comparison calls equal to the
    // term's (it enters only toupper and tolower forms). On long texts the sets of such code
    // units are worth asking for: if the table is sound for them the greedy route gives the same
    // results (for wide text under a guard). Otherwise the scan keeps to the table's alignments.
    const std::uint64_t calls = 256ull * (um < CaselessClassSets<T>::kMaxDistinct
                                              ? um
                                              : CaselessClassSets<T>::kMaxDistinct);
    if (un >= calls * tuning.chars_per_set_up_call * (sizeof(T) == 1 ? 1 : tuning.wide_factor)) {
      CaselessClassSets<T> sets;
      if (sets.Prepare(term, um, table, table_size)) {
        return ClassSetScan(text, un, query, sets, whole_words, delimiter, sink, avx2);
      }
    }
    sse2::LineCounter<T> lines(text, delimiter);
    return CaselessScan(text, un, term, um, table, table_size, whole_words, lines, 0, sink);
  }
  if (!SafeForValueScan(term, um, table, table_size)) {
    return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter,
                        ValueEqual(), ValueEqual(), NoStop(), sink);
  }
  NoGuard no_guard;
  if (avx2) {
    return avx2::GreedyScan(text, un, um, ValueFilter(term, um),
                            avx2::TermVerifier<T>{term, um}, whole_words, delimiter, no_guard,
                            sink);
  }
  return sse2::GreedyScan(text, un, um, ValueFilter(term, um), sse2::TermVerifier<T>{term, um},
                          whole_words, delimiter, no_guard, sink);
}

}  // namespace search_internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_
