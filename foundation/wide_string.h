#ifndef TERNCORELIB_FOUNDATION_WIDE_STRING_H_
#define TERNCORELIB_FOUNDATION_WIDE_STRING_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/x_array.h"

namespace KVT {

// The library's owning wide string: zero-terminated text of 16-bit code units in a block of its
// own from malloc (not the process heap: MemFree doesn't release it). Lengths, indexes and
// capacities count characters.
//
// It is thin on purpose. There is no stored length: every length is measured again by scanning
// to the first zero, so writing a 0 into the text (SetAt, or through the wchar_t* conversion)
// shortens it. Searches and comparisons are the free functions of string_util.h.
//
// Capacity. A new object has room for 260 characters (a block of 261), whatever its text.
// `capacity` never shrinks, except that the destructor sets it to 0. Growth is exact, with no
// reserve: each Assign or Append past `capacity` reallocates to what is needed. Note that Assign
// needs the new length *plus the current one*, so a text that would fit can still make the block
// grow; SetSize is the way to reserve, and it empties the text when it grows.
//
// Null `data` is a state of its own, distinct from empty text: it follows a failed allocation.
// Members then treat the object as holding no text (lengths 0, searches npos, changes ignored)
// unless their comment says otherwise; Assign and SetSize bring a block back, Append doesn't.
// No member reports a failure: when a block can't be grown, `data` becomes null (with
// `capacity` already raised) and the text is lost.
//
// Text arguments that are null, or that the pointer guard of string_util.h rejects, count as no
// text. The comparisons are the exception: like StrCompare they test for null only.
//
// One thread at a time; an object has no lock.
class TERN_API String {
 public:
  // As a result: not found. As a length: up to the end.
  static const std::uint32_t npos = 0xFFFFFFFFu;

  // Empty text in a block of 261 characters.
  String();
  // The one character `c`; a `c` of 0 gives empty text.
  String(wchar_t c);
  // A copy of `text`; null gives empty text.
  String(const wchar_t* text);
  // A copy of the other's text in a block of this object's own.
  String(const String& other);
  // Frees the block; `data` becomes null and `capacity` 0.
  ~String();

  // Replaces the text; null gives empty text. Grows the block to exactly the new length plus
  // the current one when that sum is above `capacity`. From null `data` this allocates.
  void Assign(const wchar_t* text);
  // Appends `text`, growing the block to exactly the sum of the lengths when needed. Null text
  // or null `data` does nothing.
  void Append(const wchar_t* text);

  // Assign(text), except that the object's own `data` changes nothing.
  String& operator=(const wchar_t* text);
  // Assign of the one-character text `c`.
  String& operator=(wchar_t c);
  // Assign of the other's text into this object's block. Self-assignment changes nothing.
  String& operator=(const String& other);
  // Append of the one-character text `c`.
  String& operator+=(wchar_t c);
  String& operator+=(const wchar_t* text);
  // Appends the other's text to *this* object and returns it: `a + b` changes `a` and makes no
  // new String.
  String& operator+(String& other);

  // `data`.
  const wchar_t* GetBuffer();
  // `data`. Writing through it is allowed up to `capacity` characters and a terminator.
  operator wchar_t*();

  // The character at `i`; 0 at or past the length, or with null `data`. Index with an unsigned
  // value: with an int the conversion to wchar_t* offers the built-in [] as well.
  wchar_t operator[](unsigned int i);
  // Writes `c` at `i` if `i` is below the length, otherwise nothing. A `c` of 0 cuts the text.
  void SetAt(unsigned int i, wchar_t c);
  std::uint32_t GetLength() const;
  // True for null `data` or empty text.
  bool IsEmpty() const;
  // Empties the text; the block and `capacity` stay.
  void Clear();
  // Reserves room for `n` characters. Nothing happens when `n` is not above `capacity`, and the
  // text stays. Otherwise the block grows to n + 1 characters and the text is EMPTIED.
  void SetSize(unsigned int n);

  // Comparisons are code by code on unsigned 16-bit values (case-insensitive ones through
  // _wcsicmp). Null text and null `data` are values: null equals only null and sorts first.
  // A String on the right of ==, != and > goes through its wchar_t* conversion.
  bool operator==(const wchar_t* text);
  bool operator!=(const wchar_t* text);
  bool operator<(const wchar_t* text) const;
  bool operator<(const String& other) const;
  bool operator>(const wchar_t* text) const;
  // StrCompare of the two texts; 0 when both are this object.
  int Compare(const String& other, bool caseSensitive);
  // StrCompare of the texts gives 0.
  bool Equal(const wchar_t* text, bool caseSensitive);

  // Searches are case-sensitive and return an index counted from the start of the whole text, or
  // npos. A `pos` beyond the length gives npos without reading past the text.

  // First `c` at or after `pos`. A `c` of 0 is never found.
  std::uint32_t Find(wchar_t c, unsigned int pos = 0);
  // First `text` at or after `pos`. Null or empty text is found at the end (the length), unless
  // nothing is left from `pos` on, which gives npos.
  std::uint32_t Find(const wchar_t* text, unsigned int pos = 0);
  // Last `c` at or before index length - pos: `pos` counts from the END. A pos of 0 starts at
  // the terminator, so a `c` of 0 is found there. npos when `pos` is at or past the length, so
  // always on empty text.
  std::uint32_t RFind(wchar_t c, unsigned int pos = 0);
  // Last `text` that starts at or before index length - pos; the match may run on past that
  // index. npos when `pos` is at or past the length. Null or empty text gives npos for a pos of
  // 0 and the length for any other pos.
  std::uint32_t RFind(const wchar_t* text, unsigned int pos = 0);
  // Whether `text` occurs. Null or empty text occurs in any text that isn't empty.
  bool Contains(const wchar_t* text);
  // Whether the first occurrence of `text` is at index 0. Found by a search, so null or empty
  // text gives false.
  bool Beginswith(const wchar_t* text);
  // How often `c` occurs in the text. A `c` of 0 gives 0: the terminator isn't part of the text.
  int CountOf(wchar_t c);

  // A new String with `length` characters from `start` (npos: up to the end), cut at the end of
  // the text. A start at or past the length gives empty text; so does null `data`.
  String SubStr(unsigned int start, unsigned int length);
  // Removes every character that occurs in `set` from both ends, never from the middle, and
  // returns how many went. `set` is a plain set of characters: there is no default and no idea
  // of white space. Null, bad or empty `set`, or empty text, changes nothing and gives 0.
  std::uint32_t Trim(const wchar_t* set);
  // A to Z become a to z; every other character, non-ASCII capitals included, stays.
  void MakeLower();
  // Replaces each `from` by `to` in place (StrReplace) and returns how many.
  std::uint32_t Replace(wchar_t from, wchar_t to);
  // Replaces every occurrence of `find`, left to right without overlap, and returns the NEW
  // LENGTH (not a count). Null or empty `find`, or no occurrence, leaves the text alone. The
  // text is assigned back, so the block grows by Assign's rule.
  std::uint32_t Replace(const wchar_t* find, const wchar_t* replacement);

  // Cuts the text at each `separator` into `tokens`, which is emptied first (Reset) and gets a
  // copy of each token that it owns, so the tokens outlive this object. Returns the array's
  // count. n separators give n + 1 tokens; empty tokens count, and empty text gives one empty
  // token. Null `data` gives 0 and an empty array. The text is cut in place while each token is
  // copied and restored before the call returns.
  int ToTokens(wchar_t separator, XArray<wchar_t*>& tokens);

  // The fields are part of the library's interface, in this order. Change them through the
  // members only.
  std::uint32_t capacity;  // Characters `data` can hold, not counting the terminator.
  wchar_t* data;           // capacity + 1 characters from malloc, or null.

 private:
  // The first step of every constructor.
  void Construct();
};

// Reads the environment variable `name` into `value` and returns true; a value of any length is
// read whole. False, with `value` untouched, when the variable doesn't exist, when `name` is null
// or bad, when memory runs out, or when the value grew between measuring and reading it.
TERN_API bool GetEnvironmentVar(wchar_t const* name, String& value);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_WIDE_STRING_H_
