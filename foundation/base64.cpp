#include "foundation/base64.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

#include "foundation/internal/base64_codec.h"
#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "foundation/temp_string.h"
#include "foundation/win.h"

namespace KVT {
namespace {

// The largest count whose text length, 4 x ceiling(count / 3), still fits in an int.
constexpr int kMaxEncodableCount = 1610612733;

internal::Base64Route Route() { return internal::FastestBase64Route(); }

bool IsGoodText(char const* text) { return text != nullptr && !::IsBadStringPtrA(text, 1); }
bool IsGoodText(wchar_t const* text) { return text != nullptr && !::IsBadStringPtrW(text, 1); }

void StoreLength(int* length, int value) {
  if (length != nullptr) *length = value;
}

}  // namespace

int Base64CalcEncodedSize(int count) {
  if (count <= 0 || count > kMaxEncodableCount) return 0;
  return 4 * (count / 3 + (count % 3 != 0 ? 1 : 0));
}

int Base64CalcDecodedSize(int length) { return length <= 0 ? 0 : length - length / 4; }

unsigned char* Base64Encode(unsigned char* source, unsigned char* destination, int count,
                            int* length) {
  const int encoded = Base64CalcEncodedSize(count);
  if (encoded == 0 || source == nullptr || destination == nullptr) {
    StoreLength(length, 0);
    return destination;
  }
  internal::EncodeBase64(source, destination, count, Route());
  StoreLength(length, encoded);
  return destination;
}

unsigned char* Base64Encode(unsigned char* source, int count, int* length) {
  const int encoded = Base64CalcEncodedSize(count);
  unsigned char* block = nullptr;
  if (encoded != 0 && source != nullptr) {
    block = static_cast<unsigned char*>(MemAlloc(static_cast<std::uint32_t>(encoded)));
  }
  if (block == nullptr) {
    StoreLength(length, 0);
    return nullptr;
  }
  return Base64Encode(source, block, count, length);
}

unsigned char* Base64EncodeString(char const* text, int* length) {
  if (!IsGoodText(text)) return nullptr;
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(text));
  return Base64Encode(bytes, static_cast<int>(std::strlen(text)), length);
}

int Base64Decode(unsigned char* source, unsigned char* destination, int length,
                 unsigned char** /*unused*/) {
  if (source == nullptr || destination == nullptr) return 0;
  return internal::DecodeBase64(source, destination, length, Route());
}

unsigned char* Base64Decode(unsigned char* source, int length, unsigned char** /*unused*/,
                            int* decodedLength) {
  if (source == nullptr || length < 0) length = 0;
  // Base64CalcDecodedSize(length + 1), without the int overflow at the top of the range. It is
  // at least one byte more than the bytes of the whole groups.
  const std::int64_t room = std::int64_t{length} + 1 - (std::int64_t{length} + 1) / 4;
  auto* block = static_cast<unsigned char*>(MemAlloc(static_cast<std::uint32_t>(room)));
  if (block == nullptr) {
    StoreLength(decodedLength, 0);
    return nullptr;
  }
  const int decoded = internal::DecodeBase64(source, block, length, Route());
  block[decoded] = 0;
  StoreLength(decodedLength, decoded);
  return block;
}

char const* Base64DecodeString(char const* text, std::uint32_t /*codePage*/) {
  if (!IsGoodText(text) || *text == '\0') return nullptr;
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(text));
  int decoded = 0;
  unsigned char* block =
      Base64Decode(bytes, static_cast<int>(std::strlen(text)), nullptr, &decoded);
  if (block == nullptr) return nullptr;
  char* result = nullptr;
  if (KVTGetTmpString(result, static_cast<std::uint32_t>(decoded) + 1)) {
    // Stops at the first zero byte. A count of 0 empties the result.
    StrSafeCopy(result, reinterpret_cast<char const*>(block), decoded);
  }
  MemFree(block);
  return result;
}

wchar_t const* Base64DecodeString(wchar_t const* text, std::uint32_t codePage) {
  if (!IsGoodText(text) || *text == L'\0') return nullptr;
  char const* narrow = StrConvert(text, codePage);
  if (narrow == nullptr) return nullptr;
  // The wide length is the one to decode over; the narrow text can only be shorter when the code
  // page made one character of two, and its terminator must bound the read.
  const std::size_t length = std::min(std::wcslen(text), std::strlen(narrow));
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(narrow));
  unsigned char* block = Base64Decode(bytes, static_cast<int>(length), nullptr, nullptr);
  if (block == nullptr) return nullptr;
  wchar_t const* result = StrConvert(reinterpret_cast<char const*>(block), codePage);
  MemFree(block);
  return result;
}

}  // namespace KVT
