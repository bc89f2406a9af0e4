#include "foundation/wide_string.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "foundation/win.h"

namespace KVT {
namespace {

constexpr std::uint32_t kFirstCapacity = 260;

// The most characters a block may be asked for, so that its size in bytes can't wrap.
constexpr std::uint32_t kMaxCapacity = 0x3FFFFFFEu;

bool IsGood(const wchar_t* text) { return text != nullptr && !::IsBadStringPtrW(text, 1); }

std::uint32_t LengthOf(const wchar_t* text) {
  return text == nullptr ? 0 : static_cast<std::uint32_t>(std::wcslen(text));
}

// The capacity asked for by a sum of two lengths, which can't wrap in 64 bits.
std::uint32_t CapacityFor(std::uint64_t need) {
  return need > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<std::uint32_t>(need);
}

// Resizes `block` to `chars` characters and a terminator. On failure the old block is released
// and the result is null: the owner's text is lost, as its contract says.
wchar_t* Resize(wchar_t* block, std::uint32_t chars) {
  void* resized = nullptr;
  if (chars <= kMaxCapacity) {
    resized = std::realloc(block, (std::size_t{chars} + 1) * sizeof(wchar_t));
  }
  if (resized == nullptr) std::free(block);
  return static_cast<wchar_t*>(resized);
}

// A text that lies in the block about to change is copied out of it first, so that a caller who
// breaks the rule gets a defined result. Null when no copy is needed or none could be made.
wchar_t* CopyIfInside(const wchar_t* text, std::uint32_t length, const wchar_t* block,
                      std::uint32_t capacity) {
  const auto at = reinterpret_cast<std::uintptr_t>(text);
  const auto begin = reinterpret_cast<std::uintptr_t>(block);
  if (block == nullptr || at < begin || at > begin + capacity * sizeof(wchar_t)) return nullptr;
  auto* copy = static_cast<wchar_t*>(std::malloc((std::size_t{length} + 1) * sizeof(wchar_t)));
  if (copy != nullptr) std::memcpy(copy, text, (std::size_t{length} + 1) * sizeof(wchar_t));
  return copy;
}

}  // namespace

const std::uint32_t String::npos;

void String::Construct() {
  capacity = kFirstCapacity;
  data = static_cast<wchar_t*>(std::malloc((kFirstCapacity + 1) * sizeof(wchar_t)));
  if (data != nullptr) data[0] = L'\0';
}

String::String() { Construct(); }

String::String(wchar_t c) {
  Construct();
  const wchar_t text[2] = {c, L'\0'};
  Assign(text);
}

String::String(const wchar_t* text) {
  Construct();
  Assign(text);
}

String::String(const String& other) {
  Construct();
  Assign(other.data);
}

String::~String() {
  std::free(data);
  data = nullptr;
  capacity = 0;
}

void String::Assign(const wchar_t* text) {
  if (!IsGood(text)) text = L"";
  const std::uint32_t length = LengthOf(text);
  wchar_t* copy = CopyIfInside(text, length, data, capacity);
  if (copy != nullptr) text = copy;
  // The sum of both lengths, not the new length alone, decides on growth.
  const std::uint64_t need = std::uint64_t{length} + LengthOf(data);
  // A block-less object gets a block even when the text would fit in its `capacity`.
  if (need > capacity || data == nullptr) {
    if (need > capacity) capacity = CapacityFor(need);
    data = Resize(data, capacity);
  }
  if (data != nullptr) std::memmove(data, text, (std::size_t{length} + 1) * sizeof(wchar_t));
  std::free(copy);
}

void String::Append(const wchar_t* text) {
  if (!IsGood(text) || data == nullptr) return;
  const std::uint32_t length = LengthOf(text);
  wchar_t* copy = CopyIfInside(text, length, data, capacity);
  if (copy != nullptr) text = copy;
  const std::uint32_t own = LengthOf(data);
  const std::uint64_t need = std::uint64_t{length} + own;
  if (need > capacity) {
    capacity = CapacityFor(need);
    data = Resize(data, capacity);
  }
  if (data != nullptr) {
    std::memcpy(data + own, text, (std::size_t{length} + 1) * sizeof(wchar_t));
  }
  std::free(copy);
}

String& String::operator=(const wchar_t* text) {
  if (text != data) Assign(text);
  return *this;
}

String& String::operator=(wchar_t c) {
  const wchar_t text[2] = {c, L'\0'};
  Assign(text);
  return *this;
}

String& String::operator=(const String& other) {
  // Into the block this object has: `capacity` never shrinks.
  if (&other != this) Assign(other.data);
  return *this;
}

String& String::operator+=(wchar_t c) {
  const wchar_t text[2] = {c, L'\0'};
  Append(text);
  return *this;
}

String& String::operator+=(const wchar_t* text) {
  Append(text);
  return *this;
}

String& String::operator+(String& other) {
  Append(other.data);
  return *this;
}

const wchar_t* String::GetBuffer() { return data; }

String::operator wchar_t*() { return data; }

wchar_t String::operator[](unsigned int i) { return i < GetLength() ? data[i] : L'\0'; }

void String::SetAt(unsigned int i, wchar_t c) {
  if (i < GetLength()) data[i] = c;
}

std::uint32_t String::GetLength() const { return LengthOf(data); }

bool String::IsEmpty() const { return data == nullptr || data[0] == L'\0'; }

void String::Clear() {
  if (data != nullptr) data[0] = L'\0';
}

void String::SetSize(unsigned int n) {
  if (n <= capacity) return;
  capacity = n;
  data = Resize(data, n);
  if (data != nullptr) data[0] = L'\0';
}

bool String::operator==(const wchar_t* text) { return StrCompare(data, text, true) == 0; }

bool String::operator!=(const wchar_t* text) { return !(*this == text); }

// StrCompare sorts null first and treats two nulls as equal, which is each rule of < and >.
bool String::operator<(const wchar_t* text) const { return StrCompare(data, text, true) < 0; }

bool String::operator<(const String& other) const { return *this < other.data; }

bool String::operator>(const wchar_t* text) const { return StrCompare(data, text, true) > 0; }

int String::Compare(const String& other, bool caseSensitive) {
  return &other == this ? 0 : StrCompare(data, other.data, caseSensitive);
}

bool String::Equal(const wchar_t* text, bool caseSensitive) {
  return StrCompare(data, text, caseSensitive) == 0;
}

// A position past the text is the caller's mistake; it reads nothing and finds nothing.
std::uint32_t String::Find(wchar_t c, unsigned int pos) {
  if (pos >= GetLength()) return npos;
  const wchar_t* found = StrFind(data + pos, c);
  return found == nullptr ? npos : static_cast<std::uint32_t>(found - data);
}

std::uint32_t String::Find(const wchar_t* text, unsigned int pos) {
  if (pos >= GetLength()) return npos;
  const wchar_t* found = StrSearch(data + pos, text, 0);
  return found == nullptr ? npos : static_cast<std::uint32_t>(found - data);
}

std::uint32_t String::RFind(wchar_t c, unsigned int pos) {
  const std::uint32_t length = GetLength();
  if (pos >= length) return npos;
  const wchar_t* found = StrRevFind(data, data + (length - pos), c);
  return found == nullptr ? npos : static_cast<std::uint32_t>(found - data);
}

std::uint32_t String::RFind(const wchar_t* text, unsigned int pos) {
  const std::uint32_t length = GetLength();
  if (pos >= length) return npos;
  const wchar_t* found = StrRevFind(data, data + (length - pos), text);
  return found == nullptr ? npos : static_cast<std::uint32_t>(found - data);
}

bool String::Contains(const wchar_t* text) { return StrSearch(data, text, 0) != nullptr; }

bool String::Beginswith(const wchar_t* text) {
  return data != nullptr && StrSearch(data, text, 0) == data;
}

// Every character of the text counts, the first included, and the terminator doesn't. (An older
// rule skipped the first character and counted the terminator; nothing in the library relies on
// either, and a count that ignores the first match is no use to a caller.)
int String::CountOf(wchar_t c) {
  if (data == nullptr || c == L'\0') return 0;
  int count = 0;
  for (const wchar_t* p = data; *p != L'\0'; ++p) count += *p == c ? 1 : 0;
  return count;
}

String String::SubStr(unsigned int start, unsigned int length) {
  String result;
  const std::uint32_t own = GetLength();
  // A start past the text gives empty text rather than reading or allocating on its strength.
  if (data == nullptr || start >= own) return result;
  // Compared as a difference, so that start + length can't wrap into a small value.
  if (length == npos || length > own - start) length = own - start;
  if (length > result.capacity) result.SetSize(length);
  if (result.data != nullptr) {
    std::memcpy(result.data, data + start, std::size_t{length} * sizeof(wchar_t));
    result.data[length] = L'\0';
  }
  return result;
}

// What remains is moved to the front of the block the object has, so `capacity` stays and the
// call can't fail: nothing depends on Trim giving the object a new block.
std::uint32_t String::Trim(const wchar_t* set) {
  if (data == nullptr) return 0;
  const std::uint32_t length = GetLength();
  if (!IsGood(set) || set[0] == L'\0' || length == 0) return 0;
  auto in_set = [set](wchar_t c) { return std::wcschr(set, c) != nullptr; };
  std::uint32_t first = 0;
  while (first < length && in_set(data[first])) ++first;
  std::uint32_t end = length;
  while (end > first && in_set(data[end - 1])) --end;
  const std::uint32_t remaining = end - first;
  std::memmove(data, data + first, std::size_t{remaining} * sizeof(wchar_t));
  data[remaining] = L'\0';
  return length - remaining;
}

// Only A to Z are both ASCII and upper case, whatever the locale.
void String::MakeLower() {
  if (data == nullptr) return;
  for (wchar_t* p = data; *p != L'\0'; ++p) {
    if (*p >= L'A' && *p <= L'Z') *p = static_cast<wchar_t>(*p + (L'a' - L'A'));
  }
}

std::uint32_t String::Replace(wchar_t from, wchar_t to) { return StrReplace(data, from, to); }

std::uint32_t String::Replace(const wchar_t* find, const wchar_t* replacement) {
  if (StrSearch(data, find, 0) != nullptr) {
    const wchar_t* replaced = StrReplace(data, find, replacement);
    if (replaced != nullptr) {
      Assign(replaced);
      MemFree(const_cast<wchar_t*>(replaced));
    }
  }
  return GetLength();
}

int String::ToTokens(wchar_t separator, XArray<wchar_t*>& tokens) {
  tokens.Reset();
  if (data == nullptr) return 0;
  wchar_t* token = data;
  for (wchar_t* p = data;; ++p) {
    const wchar_t c = *p;
    if (c != separator && c != L'\0') continue;
    *p = L'\0';
    tokens.Add(token, true);
    *p = c;
    if (c == L'\0') break;
    token = p + 1;
  }
  return tokens.count;
}

bool GetEnvironmentVar(wchar_t const* name, String& value) {
  if (!IsGood(name)) return false;
  constexpr DWORD kFirstGuess = 1024;
  auto* buffer = static_cast<wchar_t*>(std::malloc(kFirstGuess * sizeof(wchar_t)));
  if (buffer == nullptr) return false;
  // A successful call leaves the thread's last error alone: clear it, so that an old 203 isn't
  // taken for a missing variable.
  ::SetLastError(ERROR_SUCCESS);
  DWORD needed = ::GetEnvironmentVariableW(name, buffer, kFirstGuess);
  if (needed > kFirstGuess) {
    // Too small: `needed` counts the terminator.
    std::free(buffer);
    buffer = static_cast<wchar_t*>(std::malloc((std::size_t{needed} + 1) * sizeof(wchar_t)));
    if (buffer == nullptr) return false;
    if (::GetEnvironmentVariableW(name, buffer, needed) > needed) {
      std::free(buffer);  // The value grew in between.
      return false;
    }
  }
  if (::GetLastError() == ERROR_ENVVAR_NOT_FOUND) {
    std::free(buffer);
    return false;
  }
  value.Assign(buffer);
  std::free(buffer);
  return true;
}

}  // namespace KVT
