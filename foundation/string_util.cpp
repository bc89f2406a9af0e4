#include "foundation/string_util.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "foundation/memory.h"
#include "foundation/temp_string.h"
#include "foundation/internal/temp_string_ring.h"
#include "foundation/win.h"

namespace KVT {
namespace {

// --- The runtime and platform calls, chosen by character width -----------------------------------

// Null is tested here rather than left to the platform, so that it counts as bad even where the
// platform's guard is missing or lenient.
bool IsGood(char const* text) { return text != nullptr && !::IsBadStringPtrA(text, 1); }
bool IsGood(wchar_t const* text) { return text != nullptr && !::IsBadStringPtrW(text, 1); }

int IsDigitCode(unsigned code) { return std::isdigit(static_cast<int>(code)); }
int IsAlphaCode(unsigned code) { return std::isalpha(static_cast<int>(code)); }
int IsWideDigitCode(unsigned code) { return std::iswdigit(static_cast<wint_t>(code)); }
int IsWideAlphaCode(unsigned code) { return std::iswalpha(static_cast<wint_t>(code)); }

std::size_t Length(char const* text) { return std::strlen(text); }
std::size_t Length(wchar_t const* text) { return std::wcslen(text); }

void CopyBounded(char* destination, std::size_t size, char const* source) {
  ::strcpy_s(destination, size, source);
}
void CopyBounded(wchar_t* destination, std::size_t size, wchar_t const* source) {
  ::wcscpy_s(destination, size, source);
}

int CompareNoCase(char const* a, char const* b) { return ::_stricmp(a, b); }
int CompareNoCase(wchar_t const* a, wchar_t const* b) { return ::_wcsicmp(a, b); }

int CompareN(char const* a, char const* b, std::size_t count) {
  return std::strncmp(a, b, count);
}
int CompareN(wchar_t const* a, wchar_t const* b, std::size_t count) {
  return std::wcsncmp(a, b, count);
}
int CompareNNoCase(char const* a, char const* b, std::size_t count) {
  return ::_strnicmp(a, b, count);
}
int CompareNNoCase(wchar_t const* a, wchar_t const* b, std::size_t count) {
  return ::_wcsnicmp(a, b, count);
}

int MeasureFormat(char const* format, va_list args) { return ::_vscprintf(format, args); }
int MeasureFormat(wchar_t const* format, va_list args) { return ::_vscwprintf(format, args); }

void FormatInto(char* output, std::size_t size, char const* format, va_list args) {
  ::vsprintf_s(output, size, format, args);
}
void FormatInto(wchar_t* output, std::size_t size, wchar_t const* format, va_list args) {
  ::vswprintf_s(output, size, format, args);
}

// Converts `text` (terminator included) into `output` of `size` characters, or measures the
// result with its terminator when `output` is null. 0 on failure.
int ConvertText(char const* text, UINT codePage, wchar_t* output, int size) {
  return ::MultiByteToWideChar(codePage, 0, text, -1, output, size);
}
int ConvertText(wchar_t const* text, UINT codePage, char* output, int size) {
  return ::WideCharToMultiByte(codePage, 0, text, -1, output, size, nullptr, nullptr);
}

// Code of a character as an unsigned number: bytes 0..255, wide characters 0..65535.
unsigned CodeOf(char c) { return static_cast<unsigned char>(c); }
unsigned CodeOf(wchar_t c) { return static_cast<std::uint16_t>(c); }

// Only 1..127 reaches the runtime's classifier, so that neither a locale nor a negative char can
// make anything else a digit or a letter.
constexpr bool IsAsciiCode(unsigned code) { return code >= 1 && code <= 127; }

// --- The algorithms, written once ----------------------------------------------------------------

// True when `find` (not empty) stands at `at`. A mismatch at `at`'s terminator stops the loop, so
// a match never runs past the end of the text.
template <typename CharT>
bool MatchesAt(CharT const* at, CharT const* find) {
  for (; *find != CharT(); ++at, ++find) {
    if (*at != *find) return false;
  }
  return true;
}

template <typename CharT>
int StrToInt(CharT const* text) {
  if (!IsGood(text)) return 0;
  bool negative = false;
  if (*text == CharT('-')) {
    negative = true;
    ++text;
  } else if (*text == CharT('+')) {
    ++text;
  }
  std::uint32_t value = 0;
  for (; IsNumeric(*text); ++text) value = value * 10 + (CodeOf(*text) - '0');
  if (negative) value = 0u - value;
  return static_cast<int>(value);
}

template <typename CharT>
void Copy(CharT* destination, CharT const* source) {
  if (!IsGood(destination) || !IsGood(source)) return;
  CopyBounded(destination, Length(source) + 1, source);
}

template <typename CharT>
bool SafeCopy(CharT* destination, CharT const* source, int maximum) {
  if (!IsGood(destination)) return false;
  if (!IsGood(source) || maximum <= 0) {
    destination[0] = CharT();
    return false;
  }
  const std::size_t limit = static_cast<std::size_t>(maximum);
  std::size_t i = 0;
  for (; i < limit && source[i] != CharT(); ++i) destination[i] = source[i];
  destination[i] = CharT();
  return source[i] == CharT();
}

template <typename CharT>
CharT const* EndOf(CharT const* text) {
  if (!IsGood(text) || *text == CharT()) return nullptr;
  return text + Length(text);
}

template <typename CharT>
std::uint32_t ReplaceChar(CharT* text, CharT from, CharT to) {
  if (!IsGood(text)) return 0;
  // Measured first: a `to` of 0 must not end the scan early.
  const std::size_t length = Length(text);
  std::uint32_t count = 0;
  for (std::size_t i = 0; i < length; ++i) {
    if (text[i] == from) {
      text[i] = to;
      ++count;
    }
  }
  return count;
}

// Grows `block` to `capacity` characters. On failure the old block is released and null returned,
// so the caller never writes through null and leaks nothing.
template <typename CharT>
CharT* GrowReplaceBlock(CharT* block, std::uint32_t capacity) {
  void* grown = MemRealloc(block, capacity * static_cast<std::uint32_t>(sizeof(CharT)));
  if (grown == nullptr) MemFree(block);
  return static_cast<CharT*>(grown);
}

template <typename CharT>
CharT const* ReplaceText(CharT const* text, CharT const* find, CharT const* replacement) {
  if (!IsGood(text) || !IsGood(replacement) || !IsGood(find) || *find == CharT()) {
    return nullptr;
  }
  const std::uint32_t find_length = static_cast<std::uint32_t>(Length(find));
  const std::uint32_t replacement_length = static_cast<std::uint32_t>(Length(replacement));

  // The block starts as long as `find` and grows in steps of 256 characters; nothing is measured
  // in advance. Zero-filled, so an empty source already reads as an empty text.
  std::uint32_t capacity = find_length;
  CharT* output =
      static_cast<CharT*>(MemAlloc(capacity * static_cast<std::uint32_t>(sizeof(CharT))));
  if (output == nullptr) return nullptr;

  std::uint32_t used = 0;
  while (*text != CharT()) {
    if (MatchesAt(text, find)) {
      const std::uint32_t need = used + replacement_length + 1;
      if (capacity <= need) {
        // At least 256 more, plus the shortfall rounded down to whole steps: this always leaves
        // room for the replacement and a terminator.
        capacity += 256 + ((need - capacity) & ~0xFFu);
        output = GrowReplaceBlock(output, capacity);
        if (output == nullptr) return nullptr;
      }
      std::memcpy(output + used, replacement, replacement_length * sizeof(CharT));
      used += replacement_length;
      text += find_length;
    } else {
      if (capacity <= used + 1) {
        capacity += 256;
        output = GrowReplaceBlock(output, capacity);
        if (output == nullptr) return nullptr;
      }
      output[used++] = *text++;
    }
  }
  output[used] = CharT();
  return output;
}

template <typename CharT>
CharT const* FindChar(CharT const* text, CharT c) {
  if (!IsGood(text)) return nullptr;
  for (; *text != CharT(); ++text) {
    if (*text == c) return text;
  }
  return nullptr;
}

template <typename CharT>
CharT const* Search(CharT const* text, CharT const* find, std::uint32_t limit) {
  if (!IsGood(text) || *text == CharT()) return nullptr;
  if (!IsGood(find) || *find == CharT()) return EndOf(text);
  const std::size_t length = Length(text);
  const std::size_t end = (limit == 0 || limit > length) ? length : limit;
  const std::size_t find_length = Length(find);
  for (std::size_t pos = 0; end - pos >= find_length; ++pos) {
    if (std::memcmp(text + pos, find, find_length * sizeof(CharT)) == 0) return text + pos;
  }
  return nullptr;
}

template <typename CharT>
CharT const* RevFind(CharT const* start, CharT const* position, CharT const* find) {
  if (start == nullptr || position == nullptr) return nullptr;
  if (!IsGood(find) || *find == CharT()) return EndOf(position);
  if (position < start) return nullptr;
  // Checked only now, so that the answers above hold whatever `start` points at.
  if (!IsGood(start) || !IsGood(position)) return nullptr;
  // By index, so that no pointer is ever formed before `start`.
  for (std::size_t i = static_cast<std::size_t>(position - start) + 1; i-- > 0;) {
    if (MatchesAt(start + i, find)) return start + i;
  }
  return nullptr;
}

template <typename CharT>
CharT const* RevFindChar(CharT const* start, CharT const* position, CharT c) {
  if (start == nullptr || position == nullptr || position < start) return nullptr;
  if (!IsGood(start) || !IsGood(position)) return nullptr;
  for (std::size_t i = static_cast<std::size_t>(position - start) + 1; i-- > 0;) {
    if (start[i] == c) return start + i;
  }
  return nullptr;
}

// The rule for null shared by all comparisons: true with `*result` set when it decides.
template <typename CharT>
bool CompareNulls(CharT const* a, CharT const* b, int* result) {
  if (a != nullptr && b != nullptr) return false;
  *result = a == b ? 0 : (a == nullptr ? -1 : 1);
  return true;
}

template <typename CharT>
int CompareCodes(CharT const* a, CharT const* b) {
  for (;; ++a, ++b) {
    const unsigned ca = CodeOf(*a);
    const unsigned cb = CodeOf(*b);
    if (ca != cb) return ca < cb ? -1 : 1;
    if (ca == 0) return 0;
  }
}

template <typename CharT>
int Compare(CharT const* a, CharT const* b, bool case_sensitive) {
  int result;
  if (CompareNulls(a, b, &result)) return result;
  return case_sensitive ? CompareCodes(a, b) : CompareNoCase(a, b);
}

template <typename CharT>
int CompareCount(CharT const* a, CharT const* b, std::uint32_t count, bool case_sensitive) {
  int result;
  if (CompareNulls(a, b, &result)) return result;
  return case_sensitive ? CompareN(a, b, count) : CompareNNoCase(a, b, count);
}

template <typename CharT>
CharT const* FormatV(CharT const* format, va_list args) {
  if (!IsGood(format)) return nullptr;
  // The measuring call consumes its own copy: `args` is needed again for the real one.
  va_list measure_args;
  va_copy(measure_args, args);
  const int measured = MeasureFormat(format, measure_args);
  va_end(measure_args);
  // An empty output, or a failed measurement (-1), gives null rather than an empty text.
  if (measured < 1) return nullptr;
  const std::uint32_t chars = static_cast<std::uint32_t>(measured) + 1;
  CharT* output = nullptr;
  if (!KVTGetTmpString(output, chars)) return nullptr;
  FormatInto(output, chars, format, args);
  return output;
}

template <typename ToCharT, typename FromCharT>
ToCharT const* Convert(FromCharT const* text, std::uint32_t code_page) {
  if (!IsGood(text) || *text == FromCharT()) return nullptr;
  const int measured = ConvertText(text, code_page, static_cast<ToCharT*>(nullptr), 0);
  if (measured <= 0 || static_cast<std::uint32_t>(measured) > kMaxTempStringChars) return nullptr;
  auto& ring = internal::RingFor(static_cast<ToCharT*>(nullptr));
  const std::uint32_t slot = ring.TakeSlot();
  ToCharT* output = ring.Ensure(slot, static_cast<std::uint32_t>(measured));
  if (output == nullptr) return nullptr;
  // The output ends where the converting call says, not where a terminator is assumed to be.
  const int written = ConvertText(text, code_page, output, measured);
  if (written <= 0 || written > measured) return nullptr;
  if (output[written - 1] == ToCharT()) return output;
  // The platform left the terminator out of both counts (Wine's UTF-8 conversion of a text that
  // ends inside a sequence does): the same slot grows by the one character that holds it, so the
  // conversion still costs one take.
  const auto with_terminator = static_cast<std::uint32_t>(written) + 1;
  if (with_terminator > kMaxTempStringChars) return nullptr;
  output = ring.Grow(slot, with_terminator);
  if (output == nullptr) return nullptr;
  output[written] = ToCharT();
  return output;
}

}  // namespace

// --- Exported forms ------------------------------------------------------------------------------

std::uint32_t IsNumeric(char c) {
  const unsigned code = CodeOf(c);
  return IsAsciiCode(code) ? static_cast<std::uint32_t>(IsDigitCode(code)) : 0;
}
std::uint32_t IsNumeric(wchar_t c) {
  const unsigned code = CodeOf(c);
  return IsAsciiCode(code) ? static_cast<std::uint32_t>(IsWideDigitCode(code)) : 0;
}

std::uint32_t IsAlpha(char c) {
  const unsigned code = CodeOf(c);
  return IsAsciiCode(code) ? static_cast<std::uint32_t>(IsAlphaCode(code)) : 0;
}
std::uint32_t IsAlpha(wchar_t c) {
  const unsigned code = CodeOf(c);
  return IsAsciiCode(code) ? static_cast<std::uint32_t>(IsWideAlphaCode(code)) : 0;
}

std::uint32_t IsAlphaNum(char c) { return (IsAlpha(c) || IsNumeric(c)) ? 1 : 0; }
std::uint32_t IsAlphaNum(wchar_t c) { return (IsAlpha(c) || IsNumeric(c)) ? 1 : 0; }

int StrToIntA(char const* text) { return StrToInt(text); }
int StrToIntW(wchar_t const* text) { return StrToInt(text); }

void StrCopy(char* destination, char const* source) { Copy(destination, source); }
void StrCopy(wchar_t* destination, wchar_t const* source) { Copy(destination, source); }

bool StrSafeCopy(char* destination, char const* source, int maximum) {
  return SafeCopy(destination, source, maximum);
}
bool StrSafeCopy(wchar_t* destination, wchar_t const* source, int maximum) {
  return SafeCopy(destination, source, maximum);
}

std::uint32_t StrLength(char const* text) {
  return IsGood(text) ? static_cast<std::uint32_t>(Length(text)) : 0;
}
std::uint32_t StrLength(wchar_t const* text) {
  return IsGood(text) ? static_cast<std::uint32_t>(Length(text)) : 0;
}

char const* EndOfString(char const* text) { return EndOf(text); }
wchar_t const* EndOfString(wchar_t const* text) { return EndOf(text); }

std::uint32_t StrReplace(char* text, char from, char to) { return ReplaceChar(text, from, to); }
std::uint32_t StrReplace(wchar_t* text, wchar_t from, wchar_t to) {
  return ReplaceChar(text, from, to);
}

char const* StrReplace(char const* text, char const* find, char const* replacement) {
  return ReplaceText(text, find, replacement);
}
wchar_t const* StrReplace(wchar_t const* text, wchar_t const* find, wchar_t const* replacement) {
  return ReplaceText(text, find, replacement);
}

char const* StrFind(char const* text, char const* find) { return Search(text, find, 0); }
wchar_t const* StrFind(wchar_t const* text, wchar_t const* find) { return Search(text, find, 0); }

char const* StrFind(char const* text, char c) { return FindChar(text, c); }
wchar_t const* StrFind(wchar_t const* text, wchar_t c) { return FindChar(text, c); }

char const* StrSearch(char const* text, char const* find, std::uint32_t limit) {
  return Search(text, find, limit);
}
wchar_t const* StrSearch(wchar_t const* text, wchar_t const* find, std::uint32_t limit) {
  return Search(text, find, limit);
}

char const* StrSearch(char const* text, char c, std::uint32_t /*limit*/) {
  return FindChar(text, c);
}
wchar_t const* StrSearch(wchar_t const* text, wchar_t c, std::uint32_t /*limit*/) {
  return FindChar(text, c);
}

char const* StrRevFind(char const* start, char const* position, char const* find) {
  return RevFind(start, position, find);
}
wchar_t const* StrRevFind(wchar_t const* start, wchar_t const* position, wchar_t const* find) {
  return RevFind(start, position, find);
}

char const* StrRevFind(char const* start, char const* position, char c) {
  return RevFindChar(start, position, c);
}
wchar_t const* StrRevFind(wchar_t const* start, wchar_t const* position, wchar_t c) {
  return RevFindChar(start, position, c);
}

bool StrEqual(char const* a, char const* b, bool caseSensitive) {
  return Compare(a, b, caseSensitive) == 0;
}
bool StrEqual(wchar_t const* a, wchar_t const* b, bool caseSensitive) {
  return Compare(a, b, caseSensitive) == 0;
}

int StrCompare(char const* a, char const* b, bool caseSensitive) {
  return Compare(a, b, caseSensitive);
}
int StrCompare(wchar_t const* a, wchar_t const* b, bool caseSensitive) {
  return Compare(a, b, caseSensitive);
}

int StrCompareN(char const* a, char const* b, std::uint32_t count, bool caseSensitive) {
  return CompareCount(a, b, count, caseSensitive);
}
int StrCompareN(wchar_t const* a, wchar_t const* b, std::uint32_t count, bool caseSensitive) {
  return CompareCount(a, b, count, caseSensitive);
}

char const* StrFormat(char const* format, ...) {
  va_list args;
  va_start(args, format);
  char const* result = FormatV(format, args);
  va_end(args);
  return result;
}
wchar_t const* StrFormat(wchar_t const* format, ...) {
  va_list args;
  va_start(args, format);
  wchar_t const* result = FormatV(format, args);
  va_end(args);
  return result;
}

wchar_t const* StrConvert(char const* text, std::uint32_t codePage) {
  return Convert<wchar_t>(text, codePage);
}
char const* StrConvert(wchar_t const* text, std::uint32_t codePage) {
  return Convert<char>(text, codePage);
}

}  // namespace KVT
