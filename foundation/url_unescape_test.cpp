#include "foundation/url_unescape.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/url_unescape_internal.h"
#include "foundation/win.h"

namespace {

using KVT::KVTUrlUnescape;

TEST(UrlUnescape, ReplacesEveryEscape) {
  const struct { wchar_t const* url; wchar_t const* unescaped; } kCases[] = {
      {L"a%20b%2Fc", L"a b/c"},
      {L"%41?x=%42#%43", L"A?x=B#C"},  // No option: the query and fragment are unescaped too.
      {L"%e9", L"\u00E9"},                // One character per escape, no UTF-8 assembled.
      {L"100%", L"100%"},
      {L"%zz%4", L"%zz%4"},
      {L"%2541", L"%41"},  // Once only.
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.url);
    EXPECT_STREQ(row.unescaped, KVTUrlUnescape(row.url));
  }
}

TEST(UrlUnescape, PlainTextComesBackInATemporaryString) {
  const wchar_t url[] = L"http://example.org/plain";
  wchar_t const* result = KVTUrlUnescape(url);
  ASSERT_NE(nullptr, result);
  EXPECT_NE(url, result);
  EXPECT_STREQ(url, result);
}

TEST(UrlUnescape, NullEmptyAndOverlongGiveNull) {
  EXPECT_EQ(nullptr, KVTUrlUnescape(nullptr));
  EXPECT_EQ(nullptr, KVTUrlUnescape(L""));
  std::wstring longest(511999, L'x');
  EXPECT_NE(nullptr, KVTUrlUnescape(longest.c_str()));
  longest += L'x';
  EXPECT_EQ(nullptr, KVTUrlUnescape(longest.c_str()));
}

// A stand-in for UrlUnescapeW that first asks for `wanted` characters, then writes `text`
// whatever size it is given, and notes the sizes it saw.
struct AsksForMore {
  DWORD wanted;
  wchar_t const* text;
  HRESULT second_result;
  std::vector<DWORD>* sizes;

  HRESULT operator()(PWSTR, PWSTR out, DWORD* size, DWORD flags) const {
    EXPECT_EQ(0u, flags);
    sizes->push_back(*size);
    if (sizes->size() == 1) {
      *size = wanted;
      return E_POINTER;
    }
    wcscpy(out, text);
    return second_result;
  }
};

TEST(UrlUnescape, AResultLongerThanTheFirstGuessGetsOneMoreTry) {
  std::vector<DWORD> sizes;
  wchar_t const* result = KVT::internal::UrlUnescapeWith(
      L"ab", AsksForMore{10, L"0123456789", S_OK, &sizes});
  EXPECT_STREQ(L"0123456789", result);
  EXPECT_EQ((std::vector<DWORD>{3, 11}), sizes);  // Length + 1, then the size asked for + 1.

  // The second call's status isn't examined: its buffer is the result.
  sizes.clear();
  result = KVT::internal::UrlUnescapeWith(L"ab", AsksForMore{10, L"xyz", E_FAIL, &sizes});
  EXPECT_STREQ(L"xyz", result);

  // A size of 0 with E_POINTER leads to no second call.
  sizes.clear();
  result = KVT::internal::UrlUnescapeWith(L"ab", AsksForMore{0, L"", S_OK, &sizes});
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(1u, sizes.size());

  // More than a temporary string can hold gives null.
  sizes.clear();
  result = KVT::internal::UrlUnescapeWith(L"ab", AsksForMore{512000, L"", S_OK, &sizes});
  EXPECT_EQ(nullptr, result);
  EXPECT_EQ(1u, sizes.size());
}

}  // namespace
