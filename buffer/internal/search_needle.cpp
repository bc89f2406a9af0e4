#include "buffer/internal/search_needle.h"

#include <cstring>
#include <cwctype>

#include "buffer/internal/search_chars.h"

namespace KVT {
namespace internal {
namespace {

// How common a character is in ordinary text, roughly (higher is more common). Only used to pick
// the term's rarest places as the filter; any choice gives the same results.
int Commonness(unsigned ch) {
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

unsigned CodeOf(char ch) { return static_cast<unsigned char>(ch); }
unsigned CodeOf(wchar_t ch) { return static_cast<unsigned>(ch); }

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
  *first = a;
  *second = b;
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

// Two places whose Commonness together reaches this hold common letters (such as t and h in
// either case); a rare letter and a common one stay below it.
constexpr int kCommonPair = 400;

}  // namespace

template <typename T>
ValueNeedle<T>::ValueNeedle(const T* text, std::uint32_t n, const T* term, std::uint32_t m) {
  needle_ = Needle<T>{};
  needle_.text = text;
  needle_.n = n;
  needle_.m = m;
  needle_.places = 3;
  needle_.members = 1;
  PickThreePlaces(term, m, [term](std::uint32_t k) { return Commonness(CodeOf(term[k])); }, 4,
                  needle_.place);
  for (int i = 0; i < 3; ++i) needle_.member[i][0] = needle_.member[i][1] = term[needle_.place[i]];
  const T* form = term;
  if (m < Needle<T>::kNeedlePad) {
    std::memset(padded_, 0, sizeof(padded_));
    std::memcpy(padded_, term, m * sizeof(T));
    form = padded_;
  }
  needle_.first = needle_.second = form;
}

template <typename T>
bool CaselessClassSets<T>::Prepare(const T* term, std::uint32_t m, const unsigned short* table,
                                   unsigned table_size) {
  if (m > kMaxTerm) return false;
  std::memset(forms_, 0, sizeof(forms_));
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

template <typename T>
Needle<T> CaselessClassSets<T>::MakeNeedle(const T* text, std::uint32_t n) const {
  Needle<T> needle{};
  needle.text = text;
  needle.n = n;
  needle.m = m_;
  needle.places = three_places_ ? 3 : 2;
  needle.members = 2;
  for (int i = 0; i < 3; ++i) {
    needle.place[i] = place_[i];
    for (int f = 0; f < 2; ++f) needle.member[i][f] = forms_[f][place_[i]];
  }
  needle.first = forms_[0];
  needle.second = forms_[1];
  return needle;
}

template <typename T>
bool CaselessClassSets<T>::Plain(T ch) const {
  for (std::uint32_t d = 0; d < distinct_; ++d) {
    const bool member = ch == member_[d][0] || ch == member_[d][1];
    if ((CharEqual(&ch, &char_[d], true) != 0) != member) return false;
  }
  return true;
}

template <typename T>
bool CaselessClassSets<T>::AddSet(T ch) {
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

template class ValueNeedle<char>;
template class ValueNeedle<wchar_t>;
template class CaselessClassSets<char>;
template class CaselessClassSets<wchar_t>;

}  // namespace internal
}  // namespace KVT
