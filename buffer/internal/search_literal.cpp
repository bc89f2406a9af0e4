#include "buffer/internal/search_literal.h"

#include <cstring>

#include "buffer/internal/search_chars.h"

namespace KVT {
namespace internal {
namespace {

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

template <typename T, typename Equal, typename Poll>
std::uint32_t Horspool(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                       bool whole_words, Equal equal, Poll poll, LineCounter<T>& lines,
                       ResultBatch& out) {
  const T* const term = query.term;
  const auto m = static_cast<std::uint32_t>(query.termLength);
  const unsigned short* const table = query.shiftTable;
  const unsigned table_size = query.tableSize;
  const T last = term[m - 1];
  const std::uint32_t last_pos = n - m;
  std::uint32_t found = 0;
  std::uint32_t pos = 0;
  for (;;) {
    if (poll()) break;
    const T under = text[pos + m - 1];
    bool match = equal(under, last);
    for (std::uint32_t k = 0; match && k + 1 < m; ++k) match = equal(text[pos + k], term[k]);
    if (match) {
      if (!whole_words || IsWholeWord(text, n, pos, m)) {
        ++found;
        out.Add(lines.ResultAt(pos));
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

}  // namespace

template <typename T>
std::uint32_t HorspoolScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           bool caseless, bool whole_words, bool (*stop)(void*), void* stop_arg,
                           LineCounter<T>& lines, ResultBatch& out) {
  if (stop != nullptr) {
    const StopCallback poll{stop, stop_arg};
    return caseless ? Horspool(text, n, query, whole_words, CaselessEqual(), poll, lines, out)
                    : Horspool(text, n, query, whole_words, ValueEqual(), poll, lines, out);
  }
  return caseless ? Horspool(text, n, query, whole_words, CaselessEqual(), NoStop(), lines, out)
                  : Horspool(text, n, query, whole_words, ValueEqual(), NoStop(), lines, out);
}

// The character under the last place maps to 0 if it equals the term's last character, else to
// its shift, so that most alignments cost one lookup. The first kCachedPlaces leading places have
// caches of their own; further ones are compared directly.
template <typename T>
std::uint32_t CaselessScan(const T* text, std::uint32_t n, const CSearchQuery<T>& query,
                           bool whole_words, LineCounter<T>& lines, std::uint32_t emit_from,
                           ResultBatch& out) {
  constexpr std::uint32_t kCachedPlaces = 6;
  const T* const term = query.term;
  const auto m = static_cast<std::uint32_t>(query.termLength);
  const unsigned short* const table = query.shiftTable;
  const unsigned table_size = query.tableSize;
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
        out.Add(lines.ResultAt(pos));
      }
      pos += m;
    } else {
      pos += shift_of(under);
    }
    if (pos > last_pos) break;
  }
  return found;
}

template std::uint32_t HorspoolScan(const char*, std::uint32_t, const CSearchQuery<char>&, bool,
                                    bool, bool (*)(void*), void*, LineCounter<char>&,
                                    ResultBatch&);
template std::uint32_t HorspoolScan(const wchar_t*, std::uint32_t, const CSearchQuery<wchar_t>&,
                                    bool, bool, bool (*)(void*), void*, LineCounter<wchar_t>&,
                                    ResultBatch&);
template std::uint32_t CaselessScan(const char*, std::uint32_t, const CSearchQuery<char>&, bool,
                                    LineCounter<char>&, std::uint32_t, ResultBatch&);
template std::uint32_t CaselessScan(const wchar_t*, std::uint32_t, const CSearchQuery<wchar_t>&,
                                    bool, LineCounter<wchar_t>&, std::uint32_t, ResultBatch&);

}  // namespace internal
}  // namespace KVT
