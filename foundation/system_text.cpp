#include "foundation/system_text.h"

#include "foundation/temp_string.h"
#include "foundation/internal/temp_string_ring.h"

namespace KVT {
namespace {

constexpr std::uint32_t kErrorTextChars = 1024;
constexpr DWORD kFormatFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
constexpr DWORD kNeutralLanguage = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);

DWORD FormatSystemMessage(DWORD code, wchar_t* text) {
  return ::FormatMessageW(kFormatFlags, nullptr, code, kNeutralLanguage, text, kErrorTextChars,
                          nullptr);
}
DWORD FormatSystemMessage(DWORD code, char* text) {
  return ::FormatMessageA(kFormatFlags, nullptr, code, kNeutralLanguage, text, kErrorTextChars,
                          nullptr);
}

template <typename CharT>
CharT const* GetErrorMessage(std::uint32_t code) {
  if (code == 0) code = ::GetLastError();
  CharT* text = internal::TakeTempString<CharT>(kErrorTextChars);
  if (text == nullptr) {
    // The contract promises a text; with no heap left the caller gets an empty one.
    static const CharT kEmpty[1] = {};
    return kEmpty;
  }
  // The text ends where the call's count says: a call that fails, or that converts a message
  // and leaves its terminator out, still leaves a terminated text (empty on failure).
  const DWORD written = FormatSystemMessage(code, text);
  text[written < kErrorTextChars ? written : 0] = CharT();
  return text;
}

}  // namespace

wchar_t const* KVTGetErrorMessageW(std::uint32_t code) { return GetErrorMessage<wchar_t>(code); }

char const* KVTGetErrorMessageA(std::uint32_t code) { return GetErrorMessage<char>(code); }

wchar_t const* KVTLoadResourceStringW(HMODULE module, std::uint32_t id) {
  HRSRC resource = ::FindResourceW(module, MAKEINTRESOURCEW(id & 0xFFFF), MAKEINTRESOURCEW(6));
  if (resource == nullptr) return nullptr;
  const std::uint32_t chars = ::SizeofResource(module, resource) + 2;
  wchar_t* text = nullptr;
  if (!KVTGetTmpString(text, chars)) return nullptr;
  if (::LoadStringW(module, id, text, static_cast<int>(chars / 2)) <= 0) return nullptr;
  return text;
}

}  // namespace KVT
