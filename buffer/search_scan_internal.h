#ifndef TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_
#define TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_

// The scan behind CBuffer<T>::Search, kept apart from the buffer so that it can be tested and
// measured on its own. Not part of the installed interface.
//
// The scan's outcome is defined by a Horspool scan over the query's shift table (see ScanText and
// search_literal_internal.h). That scan runs literally when a stop callback is given, since the
// callback is polled once per alignment and so sees every one of them. Without a callback the
// same results come from faster routes, and the differential tests hold them to the literal scan.
// The loops that vectors speed up are kernels (search_kernels.h), compiled once per instruction
// set and chosen per search by what the processor has.

#include <cstdint>
#include <cstring>
#include <cwctype>

#include "buffer/search_chars_internal.h"
#include "buffer/search_kernels.h"
#include "buffer/search_literal_internal.h"
#include "buffer/search_query.h"
#include "foundation/cpu_features.h"

namespace KVT {
namespace search_internal {

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

// The greedy route's query for a search by value: the term's three rarest places (see
// Commonness) as the filter, the third from four characters on.
template <typename T>
GreedyQuery<T> ValueQuery(const T* text, std::uint32_t n, const T* term, std::uint32_t m) {
  GreedyQuery<T> query{};
  query.text = text;
  query.n = n;
  query.m = m;
  query.places = 3;
  query.members = 1;
  PickThreePlaces(term, m, [term](std::uint32_t k) { return Commonness(CodeOf(term[k])); }, 4,
                  query.place);
  for (int i = 0; i < 3; ++i) query.member[i][0] = query.member[i][1] = term[query.place[i]];
  query.first = query.second = term;
  return query;
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
    PickThreePlaces(term, m, rank, 3, place_);
    three_places_ = m >= 3 && rank(place_[0]) + rank(place_[1]) >= kCommonPair;
    m_ = m;
    return true;
  }

  // The greedy route's query over `text`, after Prepare: the two or three places chosen, with
  // the members of their sets.
  GreedyQuery<T> Query(const T* text, std::uint32_t n) const {
    GreedyQuery<T> query{};
    query.text = text;
    query.n = n;
    query.m = m_;
    query.places = three_places_ ? 3 : 2;
    query.members = 2;
    for (int i = 0; i < 3; ++i) {
      query.place[i] = place_[i];
      for (int f = 0; f < 2; ++f) query.member[i][f] = forms_[f][place_[i]];
    }
    query.first = forms_[0];
    query.second = forms_[1];
    return query;
  }

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
  std::uint32_t m_ = 0;
  std::uint32_t place_[3] = {};  // The filter places, the third one only where three_places_.
  bool three_places_ = false;
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
                    const ScanKernels<wchar_t>& kernels)
      : text_(text), n_(n), query_(query), whole_words_(whole_words), sets_(sets),
        kernels_(kernels) {
    std::memset(plain_, 0, sizeof(plain_));
  }

  // Text characters below this index are checked.
  std::uint32_t cleared() const { return cleared_; }

  // Checks the text up to `reach` (and somewhat beyond); false if the route must end.
  bool Clear(std::uint32_t reach) {
    while (cleared_ < reach) {
      const std::uint32_t end = n_ - cleared_ > kStretch ? cleared_ + kStretch : n_;
      std::uint32_t high = 0;
      for (std::uint32_t i = cleared_ + kernels_.find_high(text_ + cleared_, end - cleared_);
           i < end; i += 1 + kernels_.find_high(text_ + i + 1, end - i - 1)) {
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
  const ScanKernels<wchar_t>& kernels_;
  std::uint32_t cleared_ = 0;
  std::uint32_t plain_[65536 / 32];  // Code units found plain so far.
};

// Leftmost occurrences, each one looked for from m places behind the last occurrence found (or
// rejected as no whole word), found by the kernels a batch at a time with their results. This
// is what the defining scan records whenever its table never moves the term past a place where it
// matches, which the callers check first, or, for a guard that is active, which the guard makes
// sure of as the route goes (see WideCaselessGuard): a position p is examined only once
// guard.Clear(p + m) has agreed, and where it refuses, guard.Finish records the rest from the
// first position not yet examined.
template <typename T, typename Guard, typename Sink>
std::uint32_t GreedyScan(GreedyQuery<T> query, bool whole_words, T delimiter,
                         const ScanKernels<T>& kernels, Guard& guard, Sink& sink) {
  constexpr std::uint32_t kBatch = 64;
  const std::uint32_t m = query.m;
  if (whole_words) query.accept = &IsWholeWord<T>;
  LineCounter<T> lines(query.text, delimiter, kernels);
  const std::uint32_t last_pos = query.n - m;
  std::uint32_t found = 0;
  std::uint32_t next = 0;  // The first position not examined yet.
  std::uint64_t batch[kBatch];
  while (next <= last_pos) {
    std::uint32_t limit = last_pos;
    if constexpr (Guard::kActive) {
      if (guard.cleared() < next + m && !guard.Clear(next + m)) {
        return found + guard.Finish(next, lines, sink);
      }
      if (guard.cleared() - m < limit) limit = guard.cleared() - m;
    }
    const std::uint32_t count = kernels.find(query, lines.state(), &next, limit, batch, kBatch);
    for (std::uint32_t i = 0; i < count; ++i) sink(batch[i]);
    found += count;
  }
  return found;
}

// The greedy route of a caseless search over the sets that Prepare made for `query`, guarded
// where the text is wide.
template <typename T, typename Sink>
std::uint32_t ClassSetScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           const CaselessClassSets<T>& sets, bool whole_words, T delimiter,
                           Sink& sink, const ScanKernels<T>& kernels) {
  if constexpr (sizeof(T) == 1) {
    NoGuard guard;
    return GreedyScan(sets.Query(text, n), whole_words, delimiter, kernels, guard, sink);
  } else {
    WideCaselessGuard guard(text, n, query, whole_words, sets, kernels);
    return GreedyScan(sets.Query(text, n), whole_words, delimiter, kernels, guard, sink);
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
// Tests also turn off instruction sets, to reach every set's kernels on any processor.
struct ScanTuning {
  std::uint32_t chars_per_set_up_call = 32;
  bool allow_avx2 = true;
  std::uint32_t wide_factor = 16;
  bool allow_sse2 = true;
};

// The kernels of the widest instruction set that the processor has and `tuning` allows.
template <typename T>
const ScanKernels<T>& KernelsFor(const ScanTuning& tuning) {
  if (tuning.allow_avx2 && internal::CpuHas(internal::kCpuAvx2)) return avx2::Kernels(T());
  if (tuning.allow_sse2 && internal::CpuHas(internal::kCpuSse2)) return sse2::Kernels(T());
  return plain::Kernels(T());
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

  const ScanKernels<T>& kernels = KernelsFor<T>(tuning);

  if (stop != nullptr) {
    const StopCallback poll{stop, stop_arg};
    if (caseless) {
      return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter, kernels,
                          CaselessEqual(), CaselessEqual(), poll, sink);
    }
    return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter, kernels,
                        ValueEqual(), ValueEqual(), poll, sink);
  }
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
        return ClassSetScan(text, un, query, sets, whole_words, delimiter, sink, kernels);
      }
    }
    LineCounter<T> lines(text, delimiter, kernels);
    return CaselessScan(text, un, term, um, table, table_size, whole_words, lines, 0, sink);
  }
  if (!SafeForValueScan(term, um, table, table_size)) {
    return HorspoolScan(text, un, term, um, table, table_size, whole_words, delimiter, kernels,
                        ValueEqual(), ValueEqual(), NoStop(), sink);
  }
  NoGuard no_guard;
  return GreedyScan(ValueQuery(text, un, term, um), whole_words, delimiter, kernels, no_guard,
                    sink);
}

}  // namespace search_internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_SEARCH_SCAN_INTERNAL_H_
