#ifndef TERNCORELIB_BUFFER_SEARCH_QUERY_H_
#define TERNCORELIB_BUFFER_SEARCH_QUERY_H_

#include "foundation/export.h"

namespace KVT {

// A search term prepared once for any number of CBuffer<T>::Search calls: a private copy of the
// term and a Horspool shift table. T is char or wchar_t (one UTF-16 code unit).
//
// The table is indexed by ToBase(ch) and holds, for a base value b: 1 if the term ends with a
// character of base b; termLength - 1 - j if such a character stands rightmost at index j
// elsewhere; termLength if the term holds none. tableSize is one more than the term's largest base
// value, so a text character at or above it is known not to be in the term and moves the term by
// its whole length. Unlike the textbook table the last place always gets 1.
//
// Narrow base values fold the bytes 128..255 onto 128..1 (a negative char is negated), so a byte b
// above 127 shares its entry with the byte 256 - b (0xE9 and 0x17 both land on 23). A shared entry
// keeps the smaller of the two shifts: the scan may then move less far than it could, never too
// far. The narrow table therefore has at most 129 entries.
//
// A caseless query enters both the toupper and the tolower form of every term character (the
// character as written only through those forms) and stores the term unfolded; the search then
// compares case-insensitively. A query prepared with caseless false serves only case-sensitive
// searches; one prepared caseless serves both.
//
// Copies (construction and assignment) share the term and the table instead of copying them: the
// two queries then read the same arrays, which go when the last query sharing them lets go of
// them. Not thread-safe: SetTerm and destruction must not overlap a search that reads the query.
template <typename T>
class CSearchQuery {
 public:
  // An empty query: every field 0 or null, nothing allocated. A search refuses it.
  CSearchQuery();
  // Shares `other`'s term and table, as operator= does.
  CSearchQuery(const CSearchQuery& other);
  // Lets go of the term and the table (freed unless a copy still shares them) and nulls them.
  ~CSearchQuery();

  // Takes the four fields of `other`, sharing its arrays. What this query held before is not
  // freed, so pointers an application took into it stay valid; if no other copy shares those
  // arrays they are never reclaimed. Assigning a query to itself changes nothing.
  CSearchQuery& operator=(const CSearchQuery& other);

  // Prepares the query for the zero-terminated `term`, replacing (and releasing) what an earlier
  // call prepared. `length` is ignored: the terminator decides. With `caseless` the table also
  // enters both case forms of every character.
  //
  // A null `term` prepares the empty query (termLength 0, term "", tableSize 1, its one entry 0),
  // which every search refuses.
  // Shift entries are 16 bits wide. A term of 65,536 or more characters still works: its entries
  // are capped at 65,535, a smaller but never too long move, so searches find exactly what they
  // would with wider entries.
  // tableSize is 16 bits wide too, so a wide term whose base values (its own or, when caseless,
  // a case form's) reach 0xFFFF has no representable table. Rather than build a table that lets
  // the scan jump over the term's own characters, such a term also prepares the empty query.
  // When memory runs out the query is left with termLength 0 and both arrays null (tableSize 0),
  // which searches refuse as well; nothing is thrown.
  void SetTerm(const T* term, unsigned int length, bool caseless);

  // The table index of `ch`: a positive char or any wchar_t as its value, a negative char negated.
  static unsigned short ToBase(T ch);

  // A new array (release it with delete[]) holding `text` with each character passed through
  // toupper / towupper (tolower / towlower), zero-terminated; an empty text gives a single zero.
  // Narrow characters are handed over as unsigned char values. Null when `text` is null or memory
  // runs out.
  static char* MakeUpper(const char* text);
  static wchar_t* MakeUpper(const wchar_t* text);
  static char* MakeLower(const char* text);
  static wchar_t* MakeLower(const wchar_t* text);

  // Characters before the first zero character; 0 for null.
  static int StringLength(const char* text);
  static int StringLength(const wchar_t* text);

  T* term;                       // Zero-terminated copy of the term, never case-folded.
  int termLength;                // Characters in `term`, the terminator not counted.
  unsigned short* shiftTable;    // The shift of each base value, `tableSize` entries.
  unsigned short tableSize;      // One more than the largest base value entered.
};

TERN_EXTERN_TEMPLATE(CSearchQuery<char>)
TERN_EXTERN_TEMPLATE(CSearchQuery<wchar_t>)

}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_SEARCH_QUERY_H_
