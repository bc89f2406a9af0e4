#include "buffer/search_query.h"

#include <cctype>
#include <cstddef>
#include <cstring>
#include <cwctype>
#include <new>

#include "foundation/internal/counted_block.h"

namespace KVT {
namespace {

// Copies of a query share its arrays (the assignment must not copy them), and the class has no
// room for an owner flag, so each array is a counted block of the object allocator. The count is
// atomic because two queries sharing arrays may live on different threads.
using SharedArray = internal::CountedBlock<internal::ObjectMemory>;

template <typename E>
E* NewShared(std::size_t count) {
  static_assert(alignof(E) <= internal::ObjectMemory::kAlignment, "the array must stay aligned");
  return static_cast<E*>(SharedArray::Allocate(count * sizeof(E)));
}

void Share(void* array) { SharedArray::Retain(array); }

// Drops one share; the last one frees the array.
void Unshare(void* array) {
  if (SharedArray::Release(array)) SharedArray::Free(array);
}

char UpperOf(char ch) { return static_cast<char>(std::toupper(static_cast<unsigned char>(ch))); }
char LowerOf(char ch) { return static_cast<char>(std::tolower(static_cast<unsigned char>(ch))); }
wchar_t UpperOf(wchar_t ch) { return static_cast<wchar_t>(std::towupper(ch)); }
wchar_t LowerOf(wchar_t ch) { return static_cast<wchar_t>(std::towlower(ch)); }

template <typename C>
int Length(const C* text) {
  if (text == nullptr) return 0;
  int n = 0;
  while (text[n] != 0) ++n;
  return n;
}

template <typename C, C (*Convert)(C)>
C* Converted(const C* text) {
  if (text == nullptr) return nullptr;
  const int n = Length(text);
  C* out = new (std::nothrow) C[static_cast<std::size_t>(n) + 1];
  if (out == nullptr) return nullptr;
  for (int i = 0; i < n; ++i) out[i] = Convert(text[i]);
  out[n] = 0;
  return out;
}

// The largest base value a table may index: tableSize, one more, must fit 16 bits.
constexpr unsigned kMaxBase = 0xFFFE;
// Entries are 16 bits; longer distances are capped, which only ever shortens a move.
constexpr unsigned kMaxShift = 0xFFFF;

unsigned short CappedShift(unsigned distance) {
  return static_cast<unsigned short>(distance < kMaxShift ? distance : kMaxShift);
}

}  // namespace

template <typename T>
CSearchQuery<T>::CSearchQuery() : term(nullptr), termLength(0), shiftTable(nullptr), tableSize(0) {}

template <typename T>
CSearchQuery<T>::CSearchQuery(const CSearchQuery& other)
    : term(other.term),
      termLength(other.termLength),
      shiftTable(other.shiftTable),
      tableSize(other.tableSize) {
  Share(term);
  Share(shiftTable);
}

template <typename T>
CSearchQuery<T>::~CSearchQuery() {
  Unshare(term);
  Unshare(shiftTable);
  term = nullptr;
  shiftTable = nullptr;
}

template <typename T>
CSearchQuery<T>& CSearchQuery<T>::operator=(const CSearchQuery& other) {
  if (this == &other) return *this;
  Share(other.term);
  Share(other.shiftTable);
  // This query's share of its old arrays ends, but they are not freed even when it was the last
  // one, a leak by contract (see the header).
  SharedArray::Drop(term);
  SharedArray::Drop(shiftTable);
  term = other.term;
  termLength = other.termLength;
  shiftTable = other.shiftTable;
  tableSize = other.tableSize;
  return *this;
}

template <typename T>
void CSearchQuery<T>::SetTerm(const T* new_term, unsigned int /*length*/, bool caseless) {
  static const T kEmpty[1] = {0};
  if (new_term == nullptr) new_term = kEmpty;

  int length = StringLength(new_term);
  // The largest base value over the characters (and their case forms) that enter the table.
  unsigned max_base = 0;
  for (int i = 0; i < length; ++i) {
    const T ch = new_term[i];
    if (caseless) {
      const unsigned upper = ToBase(UpperOf(ch));
      const unsigned lower = ToBase(LowerOf(ch));
      if (upper > max_base) max_base = upper;
      if (lower > max_base) max_base = lower;
    } else if (ToBase(ch) > max_base) {
      max_base = ToBase(ch);
    }
  }
  if (max_base > kMaxBase) {  // Only a wide term can get here: see the header.
    length = 0;
    max_base = 0;
    new_term = kEmpty;
  }

  // The new arrays are built before the old ones go, as `new_term` may point into the old copy.
  const unsigned size = max_base + 1;
  T* copy = NewShared<T>(static_cast<std::size_t>(length) + 1);
  unsigned short* table = NewShared<unsigned short>(size);
  if (copy == nullptr || table == nullptr) length = 0;
  if (copy != nullptr) {
    std::memcpy(copy, new_term, static_cast<std::size_t>(length) * sizeof(T));
    copy[length] = 0;
  }
  if (table != nullptr) {
    const unsigned short whole = CappedShift(static_cast<unsigned>(length));
    for (unsigned b = 0; b < size; ++b) table[b] = whole;
    // From the right end leftwards, so that the rightmost occurrence of a character keeps the
    // smallest distance; min() also settles the narrow entries that two bytes share.
    auto enter = [table](T ch, unsigned short shift) {
      unsigned short& entry = table[ToBase(ch)];
      if (entry > shift) entry = shift;
    };
    for (int i = length; i >= 1; --i) {
      const unsigned short shift = CappedShift(static_cast<unsigned>(length - i));
      const T ch = copy[i - 1];
      if (caseless) {
        enter(UpperOf(ch), shift);
        enter(LowerOf(ch), shift);
      } else {
        enter(ch, shift);
      }
    }
    if (length > 0) {
      const T last = copy[length - 1];
      if (caseless) {
        table[ToBase(LowerOf(last))] = 1;
        table[ToBase(UpperOf(last))] = 1;
      } else {
        table[ToBase(last)] = 1;
      }
    }
  }

  Unshare(term);
  Unshare(shiftTable);
  if (copy == nullptr || table == nullptr) {  // Out of memory: an empty query, refused by Search.
    Unshare(copy);
    Unshare(table);
    copy = nullptr;
    table = nullptr;
  }
  term = copy;
  termLength = length;
  shiftTable = table;
  tableSize = table != nullptr ? static_cast<unsigned short>(size) : 0;
}

template <typename T>
unsigned short CSearchQuery<T>::ToBase(T ch) {
  if constexpr (sizeof(T) == 1) {
    const int value = static_cast<signed char>(ch);
    return static_cast<unsigned short>(value < 0 ? -value : value);
  } else {
    return static_cast<unsigned short>(ch);
  }
}

template <typename T>
char* CSearchQuery<T>::MakeUpper(const char* text) {
  return Converted<char, UpperOf>(text);
}

template <typename T>
wchar_t* CSearchQuery<T>::MakeUpper(const wchar_t* text) {
  return Converted<wchar_t, UpperOf>(text);
}

template <typename T>
char* CSearchQuery<T>::MakeLower(const char* text) {
  return Converted<char, LowerOf>(text);
}

template <typename T>
wchar_t* CSearchQuery<T>::MakeLower(const wchar_t* text) {
  return Converted<wchar_t, LowerOf>(text);
}

template <typename T>
int CSearchQuery<T>::StringLength(const char* text) {
  return Length(text);
}

template <typename T>
int CSearchQuery<T>::StringLength(const wchar_t* text) {
  return Length(text);
}

// The export: see foundation/export.h.
template class TERN_TEMPLATE_EXPORT CSearchQuery<char>;
template class TERN_TEMPLATE_EXPORT CSearchQuery<wchar_t>;

}  // namespace KVT
