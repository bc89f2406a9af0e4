#ifndef TERNCORELIB_BUFFER_INTERNAL_SEARCH_CHARS_H_
#define TERNCORELIB_BUFFER_INTERNAL_SEARCH_CHARS_H_

// The character tests of the search scan, which CBuffer's static members hand on, and the form
// of a result. Not part of the installed interface.

#include <cctype>
#include <cstdint>
#include <cwctype>
#include <string.h>
#include <wchar.h>

namespace KVT {
namespace internal {

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

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_BUFFER_INTERNAL_SEARCH_CHARS_H_
