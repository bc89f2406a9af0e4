#ifndef TERNCORELIB_FOUNDATION_STRING_UTIL_H_
#define TERNCORELIB_FOUNDATION_STRING_UTIL_H_

#include <cstdint>

#include "foundation/export.h"

namespace KVT {

// Functions on zero-terminated text, each in a narrow (char) and a wide (wchar_t, one 16-bit code
// unit) form of the same name and behaviour. Lengths, counts, limits and indexes are in characters
// of the form's width.
//
// Unlike the runtime's functions these tolerate bad pointers. A pointer is good when
// IsBadStringPtrA/W with a limit of one character accepts it; null is never good. The guard
// reads the first character only and says nothing about where the text ends. Bad input gives
// the neutral result of each function (0, null or false) and leaves any output alone, except
// where a comment below says otherwise. The comparisons are the exception: they test for null
// only.
//
// StrFormat and StrConvert return temporary strings (see temp_string.h): the caller frees
// nothing, and the text lives until 256 further takes from the same ring.
//
// Everything here is reentrant and keeps no state of its own.

// --- Character classes ---------------------------------------------------------------------------
//
// Only ASCII counts: a character outside 1..127 (a negative char, a wide character above 127)
// is never a digit or a letter, whatever the locale says.

// Nonzero for '0'..'9', else 0. The nonzero value is whatever isdigit/iswdigit returned, so
// test it against 0 only.
TERN_API std::uint32_t IsNumeric(char c);
TERN_API std::uint32_t IsNumeric(wchar_t c);

// Nonzero for an ASCII letter, else 0. As above, the nonzero value is the runtime's.
TERN_API std::uint32_t IsAlpha(char c);
TERN_API std::uint32_t IsAlpha(wchar_t c);

// Exactly 1 for an ASCII letter or digit, else 0.
TERN_API std::uint32_t IsAlphaNum(char c);
TERN_API std::uint32_t IsAlphaNum(wchar_t c);

// --- Numbers -------------------------------------------------------------------------------------

// Decimal value of the text's leading digits. One '-' or '+' may come first; no white space is
// skipped, and there is no prefix or base. Reading stops at the first non-digit, and what follows
// is ignored. The value is built in unsigned 32-bit arithmetic and wraps silently on overflow
// ("4294967297" gives 1). Null, bad text, or text without leading digits gives 0.
TERN_API int StrToIntA(char const* text);
TERN_API int StrToIntW(wchar_t const* text);

// --- Copying and length --------------------------------------------------------------------------

// Copies `source` with its terminator into `destination`, which is not bounded and must be large
// enough. A bad destination or a bad source writes nothing.
TERN_API void StrCopy(char* destination, char const* source);
TERN_API void StrCopy(wchar_t* destination, wchar_t const* source);

// Copies at most `maximum` characters of `source` into `destination` and terminates them; the
// destination needs room for `maximum` + 1 characters. True when the whole source fit.
//   - bad destination: false, destination untouched;
//   - bad source: false, destination emptied;
//   - maximum of 0 or below: false, destination emptied;
//   - source longer than maximum: false, the first `maximum` characters with the terminator at
//     index `maximum`. The truncated copy is still valid text; false says something is missing.
// An empty source with a positive maximum gives true and an empty destination.
TERN_API bool StrSafeCopy(char* destination, char const* source, int maximum);
TERN_API bool StrSafeCopy(wchar_t* destination, wchar_t const* source, int maximum);

// Number of characters before the terminator; bad text gives 0.
TERN_API std::uint32_t StrLength(char const* text);
TERN_API std::uint32_t StrLength(wchar_t const* text);

// Pointer to the text's terminator. Bad text gives null, and so does empty text: callers use a
// null result to mean "nothing there".
TERN_API char const* EndOfString(char const* text);
TERN_API wchar_t const* EndOfString(wchar_t const* text);

// --- Replacing -----------------------------------------------------------------------------------

// Replaces every `from` in `text`, in place, by `to`, and returns how many were replaced. The
// scan covers the text as it was on entry, so a `to` of 0 is written like any other character
// and cuts the text without ending the scan. A `from` of 0 matches nothing. Bad or empty text
// gives 0.
TERN_API std::uint32_t StrReplace(char* text, char from, char to);
TERN_API std::uint32_t StrReplace(wchar_t* text, wchar_t from, wchar_t to);

// A copy of `text` in which each occurrence of `find`, left to right and without overlap, is
// replaced by `replacement`; replaced text isn't searched again. The result is always a fresh
// block of the process heap, also when nothing matched, owned by the caller and released with
// MemFree. An empty replacement removes the matches; empty text gives a new empty text.
// Null when `text`, `find` or `replacement` is bad, when `find` is empty, or when the heap
// fails (nothing is leaked then).
TERN_API char const* StrReplace(char const* text, char const* find, char const* replacement);
TERN_API wchar_t const* StrReplace(wchar_t const* text, wchar_t const* find,
                                   wchar_t const* replacement);

// --- Searching -----------------------------------------------------------------------------------
//
// All searches are case-sensitive plain scans and return a pointer into the searched text, or
// null.

// The same as StrSearch(text, find, 0).
TERN_API char const* StrFind(char const* text, char const* find);
TERN_API wchar_t const* StrFind(wchar_t const* text, wchar_t const* find);

// First occurrence of `c`. Bad or empty text gives null; a `c` of 0 is never found, as the scan
// ends before the terminator.
TERN_API char const* StrFind(char const* text, char c);
TERN_API wchar_t const* StrFind(wchar_t const* text, wchar_t c);

// First occurrence of `find` lying wholly inside the first `limit` characters of `text`; a limit
// of 0, or one beyond the text's length, means the whole text. Bad or empty text gives null.
// A bad or empty `find` counts as found at the end: the result is the text's terminator.
TERN_API char const* StrSearch(char const* text, char const* find, std::uint32_t limit);
TERN_API wchar_t const* StrSearch(wchar_t const* text, wchar_t const* find,
                                  std::uint32_t limit);

// Exactly StrFind(text, c): the two names are one function. `limit` is accepted for symmetry
// with the string form but ignored, and the whole text is scanned; honouring it would make the
// two names disagree, which callers of either may rely on not happening.
TERN_API char const* StrSearch(char const* text, char c, std::uint32_t limit);
TERN_API wchar_t const* StrSearch(wchar_t const* text, wchar_t c, std::uint32_t limit);

// Last occurrence of `find` that starts between `start` and `position`, both included; the match
// may run on past `position` up to the terminator. In order:
//   - a null `start` or `position` gives null;
//   - a bad or empty `find` gives EndOfString(position) (null when that text is bad or empty);
//   - a `position` before `start` gives null;
//   - a bad `start` or `position` gives null.
TERN_API char const* StrRevFind(char const* start, char const* position, char const* find);
TERN_API wchar_t const* StrRevFind(wchar_t const* start, wchar_t const* position,
                                   wchar_t const* find);

// Highest address from `position` down to `start`, both included, that holds `c`. The character
// at `position` is tested first, so a `c` of 0 is found when `position` is at a terminator.
// Null when `start` or `position` is null or bad, or `position` lies before `start`.
TERN_API char const* StrRevFind(char const* start, char const* position, char c);
TERN_API wchar_t const* StrRevFind(wchar_t const* start, wchar_t const* position, wchar_t c);

// --- Comparing -----------------------------------------------------------------------------------
//
// Null is a value here, not an error, and is tested for without the pointer guard: two nulls are
// equal, and null sorts before any text, empty text included. With `caseSensitive` true,
// characters compare by their unsigned codes; with false, through the runtime's _stricmp family.

// True when both are null or both hold equal text.
TERN_API bool StrEqual(char const* a, char const* b, bool caseSensitive);
TERN_API bool StrEqual(wchar_t const* a, wchar_t const* b, bool caseSensitive);

// Case-sensitive: exactly -1, 0 or 1. Otherwise what _stricmp/_wcsicmp returns. Null as above:
// -1 when only `a` is null, 1 when only `b` is.
TERN_API int StrCompare(char const* a, char const* b, bool caseSensitive);
TERN_API int StrCompare(wchar_t const* a, wchar_t const* b, bool caseSensitive);

// The first `count` characters at most, with the value of strncmp/wcsncmp or
// _strnicmp/_wcsnicmp as it is. Null as for StrCompare.
TERN_API int StrCompareN(char const* a, char const* b, std::uint32_t count, bool caseSensitive);
TERN_API int StrCompareN(wchar_t const* a, wchar_t const* b, std::uint32_t count,
                         bool caseSensitive);

// --- Formatting and converting -------------------------------------------------------------------

// printf-style formatting (the Microsoft runtime's rules: in the wide form %s takes a wide text)
// into a temporary string of the same width. Null when the output would be empty, the format is
// bad or can't be measured, or the output needs more than 512000 characters with its terminator.
TERN_API char const* StrFormat(char const* format, ...);
TERN_API wchar_t const* StrFormat(wchar_t const* format, ...);

// `text` converted from `codePage` (0 is the system's ANSI code page) to a temporary string of
// the wide ring. `codePage` is handed to MultiByteToWideChar unchanged; it is no length. Null for
// bad or empty text (empty text doesn't convert to empty text), when the platform can't measure
// or convert the text, or when the result needs more than 512000 characters.
// The result is always terminated, behind the characters that the converting call reports: a
// platform that leaves the terminator out of its counts (Wine does for UTF-8 that ends inside a
// sequence: "\xF1" measures and converts as 1 unit) gets one more character in the same slot.
TERN_API wchar_t const* StrConvert(char const* text, std::uint32_t codePage);

// The reverse, through WideCharToMultiByte without a default character, into a temporary string
// of the narrow ring. Null in the same cases.
TERN_API char const* StrConvert(wchar_t const* text, std::uint32_t codePage);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_STRING_UTIL_H_
