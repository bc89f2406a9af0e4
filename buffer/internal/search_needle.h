#ifndef TERNCORELIB_BUFFER_INTERNAL_SEARCH_NEEDLE_H_
#define TERNCORELIB_BUFFER_INTERNAL_SEARCH_NEEDLE_H_

// What the search's kernels look for (Needle, search_kernels.h), made from a query: for a search
// by value the term's rarest places, for a caseless one the sets of code units that the C runtime
// calls equal to each term character. Not part of the installed interface.

#include <cstdint>

#include "buffer/internal/search_kernels.h"

namespace KVT {
namespace internal {

// The needle of a search by value over text[0 .. n - 1]: the term's three rarest places in
// ordinary text as the filter (the third from four characters on; shorter terms repeat one),
// the term as the form to verify, copied where it is shorter than the kernels may read.
template <typename T>
class ValueNeedle {
 public:
  ValueNeedle(const T* text, std::uint32_t n, const T* term, std::uint32_t m);
  ValueNeedle(const ValueNeedle&) = delete;
  ValueNeedle& operator=(const ValueNeedle&) = delete;

  const Needle<T>& needle() const { return needle_; }

 private:
  Needle<T> needle_;
  T padded_[Needle<T>::kNeedlePad];  // A short term, zeros behind it.
};

// The code units that the C runtime calls equal to each character of a caseless term (its set),
// asked once per search: below 256 every code unit is asked (for a narrow term, every byte);
// above 255, for a wide term, only the character and its towupper and towlower forms, so that a
// set is complete there only as far as the wide route's guard finds (search_scan.cpp). The
// kernels need at most two members per set, its forms: place k of an occurrence holds
// form(0)[k] or form(1)[k] (one and the same for a set of one). Prepare() declines a term too
// long, a set of more members, and a table that could move the term past a member.
template <typename T>
class CaselessClassSets {
 public:
  static constexpr std::uint32_t kMaxTerm = Needle<T>::kNeedlePad;
  static constexpr std::uint32_t kMaxDistinct = 64;

  // False where the sets can't serve `term`: the scan then keeps to the table's alignments.
  bool Prepare(const T* term, std::uint32_t m, const unsigned short* table, unsigned table_size);

  // The kernels' needle over text[0 .. n - 1], after Prepare: two or three of the term's rarest
  // places with the members of their sets.
  Needle<T> MakeNeedle(const T* text, std::uint32_t n) const;

  // Whether the sets are right about `ch`, a code unit above 255: the C runtime calls it equal
  // to exactly the term characters whose sets hold it.
  bool Plain(T ch) const;

 private:
  // The set of `ch`, as the next one; false if it has more than two members.
  bool AddSet(T ch);

  std::uint32_t distinct_ = 0;
  T char_[kMaxDistinct];       // The term character of each set.
  T member_[kMaxDistinct][2];  // Its members (twice the one of a set of one).
  T forms_[2][kMaxTerm];       // The members of each place's set, zeros behind the term.
  std::uint32_t m_ = 0;
  std::uint32_t place_[3] = {};  // The filter places, the third one only where three_places_.
  bool three_places_ = false;
};

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_INTERNAL_SEARCH_NEEDLE_H_
