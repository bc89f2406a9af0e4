#include "foundation/string_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "foundation/memory.h"
#include "foundation/win.h"

namespace {

using KVT::EndOfString;
using KVT::StrCompare;
using KVT::StrReplace;
using KVT::StrRevFind;
using KVT::StrSearch;

std::wstring Wide(char const* ascii) { return std::wstring(ascii, ascii + std::strlen(ascii)); }

// A pointer into a committed page that can't be read: the guard must reject it.
template <typename CharT>
CharT const* Unreadable() {
  static void* page = ::VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_NOACCESS);
  return static_cast<CharT const*>(page);
}

// Random text over a small alphabet, so that matches and near-matches are frequent.
template <typename CharT>
std::basic_string<CharT> RandomText(std::mt19937& rng, std::size_t max_length) {
  std::basic_string<CharT> text(rng() % (max_length + 1), CharT());
  for (CharT& c : text) c = static_cast<CharT>("aab"[rng() % 3]);
  return text;
}

// Index of a result within `text`, or -1 for null.
template <typename CharT>
long IndexIn(std::basic_string<CharT> const& text, CharT const* found) {
  return found == nullptr ? -1 : static_cast<long>(found - text.c_str());
}

template <typename CharT>
void CheckCharacterClasses() {
  for (unsigned code = 0; code <= (sizeof(CharT) == 1 ? 0xFFu : 0xFFFFu); ++code) {
    const CharT c = static_cast<CharT>(code);
    const bool digit = code >= '0' && code <= '9';
    const bool letter = (code >= 'a' && code <= 'z') || (code >= 'A' && code <= 'Z');
    ASSERT_EQ(KVT::IsNumeric(c) != 0, digit) << code;
    ASSERT_EQ(KVT::IsAlpha(c) != 0, letter) << code;
    ASSERT_EQ(KVT::IsAlphaNum(c), (digit || letter) ? 1u : 0u) << code;
  }
}

TEST(StrCharacterClass, OnlyAsciiDigitsAndLettersCount) {
  CheckCharacterClasses<char>();  // 0xB2, a superscript two in some code pages, among them.
  CheckCharacterClasses<wchar_t>();
}

TEST(StrToInt, ReadsLeadingDecimalDigitsAndWraps) {
  const struct { char const* text; int value; } kCases[] = {
      {"-12ab", -12}, {"+7", 7}, {"- 7", 0}, {" 7", 0}, {"0x10", 0}, {"", 0}, {"--1", 0},
      {"4294967297", 1}, {"2147483648", -2147483647 - 1}, {"-2147483648", -2147483647 - 1},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(KVT::StrToIntA(row.text), row.value);
    EXPECT_EQ(KVT::StrToIntW(Wide(row.text).c_str()), row.value);
  }
}

// Every guarded function on one bad pointer, as source and as destination.
void CheckNeutralResults(char const* bad) {
  char* bad_out = const_cast<char*>(bad);
  char out[4] = "xyz";
  KVT::StrCopy(out, bad);
  EXPECT_STREQ(out, "xyz");
  EXPECT_FALSE(KVT::StrSafeCopy(out, bad, 3));
  EXPECT_STREQ(out, "");  // A missing source empties the destination.
  EXPECT_FALSE(KVT::StrSafeCopy(bad_out, "a", 3));
  KVT::StrCopy(bad_out, "a");
  EXPECT_EQ(KVT::StrToIntA(bad), 0);
  EXPECT_EQ(KVT::StrLength(bad), 0u);
  EXPECT_EQ(EndOfString(bad), nullptr);
  EXPECT_EQ(StrReplace(bad_out, 'a', 'b'), 0u);
  EXPECT_EQ(StrReplace(bad, "a", "b"), nullptr);
  EXPECT_EQ(StrReplace("a", bad, "b"), nullptr);
  EXPECT_EQ(StrReplace("a", "a", bad), nullptr);
  EXPECT_EQ(KVT::StrFind(bad, 'a'), nullptr);
  EXPECT_EQ(KVT::StrFind(bad, "a"), nullptr);
  EXPECT_EQ(StrRevFind(bad, bad, 'a'), nullptr);
  EXPECT_EQ(StrRevFind(bad, bad, "a"), nullptr);
  EXPECT_EQ(KVT::StrFormat(bad), nullptr);
  EXPECT_EQ(KVT::StrConvert(bad, 0), nullptr);
  // A missing text to find is found at the end of the text.
  char const* abc = "abc";
  EXPECT_EQ(StrSearch(abc, bad, 0), abc + 3);
  EXPECT_EQ(StrRevFind(abc, abc + 1, bad), abc + 3);
}

TEST(StrBadPointers, NullGivesTheNeutralResult) { CheckNeutralResults(nullptr); }

TEST(StrBadPointers, UnreadablePageGivesTheNeutralResult) {
  // 32-bit Wine may run through QEMU's user-mode emulator (see README.md), whose fault reports
  // Wine reads as illegal instructions, which IsBadStringPtr doesn't catch. 64-bit Wine and
  // Windows itself run the check.
  if (sizeof(void*) == 4 &&
      ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr) {
    GTEST_SKIP() << "access faults can't be caught in 32-bit Wine here";
  }
  CheckNeutralResults(Unreadable<char>());
  EXPECT_EQ(KVT::StrLength(Unreadable<wchar_t>()), 0u);
  EXPECT_EQ(KVT::StrConvert(Unreadable<wchar_t>(), 0), nullptr);
}

TEST(StrSafeCopy, CopiesAtMostTheMaximumAndAlwaysTerminates) {
  const struct { char const* source; int maximum; bool result; char const* copied; } kCases[] = {
      {"abc", 3, true, "abc"}, {"abcd", 3, false, "abc"}, {"", 3, true, ""},
      {"abc", 0, false, ""},   {"abc", -1, false, ""},    {"ab", 3, true, "ab"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(std::string(row.source) + " max " + std::to_string(row.maximum));
    char narrow[8];
    wchar_t wide[8];
    std::memset(narrow, '#', sizeof narrow);
    std::wmemset(wide, L'#', 8);
    EXPECT_EQ(KVT::StrSafeCopy(narrow, row.source, row.maximum), row.result);
    EXPECT_EQ(KVT::StrSafeCopy(wide, Wide(row.source).c_str(), row.maximum), row.result);
    EXPECT_STREQ(narrow, row.copied);
    EXPECT_EQ(std::wstring(wide), Wide(row.copied));
    EXPECT_EQ(narrow[std::strlen(row.copied) + 1], '#');  // Nothing written past the terminator.
  }
  // StrCopy has no bound of its own: exactly the source and its terminator are written.
  char copy[8] = "#######";
  KVT::StrCopy(copy, "ab");
  EXPECT_EQ(std::memcmp(copy, "ab\0####", 8), 0);
}

// Random texts against std::string: the random-input suites (RandomGuardedStrings).
TEST(StrSearch, WorkedExamples) {
  const std::string text = "abcd";
  const struct { char const* find; std::uint32_t limit; long index; } kCases[] = {
      {"cd", 3, -1}, {"cd", 4, 2}, {"cd", 0, 2}, {"cd", 99, 2}, {"", 0, 4}, {"abcde", 0, -1},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(std::string(row.find) + " limit " + std::to_string(row.limit));
    EXPECT_EQ(IndexIn(text, StrSearch(text.c_str(), row.find, row.limit)), row.index);
  }
  EXPECT_EQ(KVT::StrFind("", ""), nullptr);
  EXPECT_EQ(EndOfString(""), nullptr);
  // The character form ignores its limit, and never finds the terminator.
  EXPECT_EQ(IndexIn(text, StrSearch(text.c_str(), 'd', 1)), 3);
  EXPECT_EQ(KVT::StrFind(text.c_str(), '\0'), nullptr);
}

TEST(StrRevFind, SearchesBackFromThePosition) {
  const std::string text = "abcabc";
  char const* s = text.c_str();
  EXPECT_EQ(IndexIn(text, StrRevFind(s, s + 5, "abc")), 3);
  EXPECT_EQ(IndexIn(text, StrRevFind(s, s + 3, "abc")), 3);  // The match runs past the position.
  EXPECT_EQ(IndexIn(text, StrRevFind(s, s + 2, "abc")), 0);
  EXPECT_EQ(StrRevFind(s + 1, s, "abc"), nullptr);
  EXPECT_EQ(IndexIn(text, StrRevFind(s + 1, s, "")), 6);  // Decided before the order is checked.
  EXPECT_EQ(StrRevFind(s, s + 6, ""), nullptr);           // The text at the position is empty.
  EXPECT_EQ(IndexIn(text, StrRevFind(s, s + 6, '\0')), 6);
  EXPECT_EQ(IndexIn(text, StrRevFind(s, s + 4, 'c')), 2);
  EXPECT_EQ(StrRevFind(s + 3, s + 2, 'c'), nullptr);
}

// The worked examples (a source far longer than the growth steps among them, without a match),
// then random texts against a plain replace; every result is a fresh block.
TEST(StrReplace, StringFormWorkedExamplesAndAgreementWithAPlainReplace) {
  const std::string no_match(300, 'x');
  const struct { char const* text; char const* find; char const* replacement; char const* result; }
      kCases[] = {
          {"aaa", "aa", "b", "ba"}, {"abc", "b", "", "ac"}, {"", "a", "b", ""},
          {"abc", "x", "y", "abc"}, {"abab", "ab", "abab", "abababab"}, {"abc", "", "b", nullptr},
          {no_match.c_str(), "a", "b", no_match.c_str()},
      };
  for (const auto& row : kCases) {
    SCOPED_TRACE(std::string(row.text) + " / " + row.find + " / " + row.replacement);
    char const* result = StrReplace(row.text, row.find, row.replacement);
    EXPECT_EQ(row.result ? row.result : "<null>", std::string(result ? result : "<null>"));
    EXPECT_NE(result, row.text);
    KVT::MemFree(const_cast<char*>(result));
  }
  std::mt19937 rng(7);
  for (int round = 0; round < 150; ++round) {
    // Long sources and long replacements cross the 256-character growth steps many times.
    const std::wstring text = RandomText<wchar_t>(rng, 1200);
    const std::wstring find = L"a" + RandomText<wchar_t>(rng, 2);
    const std::wstring replacement = RandomText<wchar_t>(rng, round % 2 ? 3 : 600);
    std::wstring expected;
    for (std::size_t i = 0; i < text.size();) {
      const bool match = text.compare(i, find.size(), find) == 0;
      expected += match ? replacement : text.substr(i, 1);
      i += match ? find.size() : 1;
    }
    wchar_t const* result = StrReplace(text.c_str(), find.c_str(), replacement.c_str());
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(std::wstring(result), expected) << round;
    KVT::MemFree(const_cast<wchar_t*>(result));
  }
  // The character form scans the text as it was, past the zeros it writes.
  char text[] = "a.b.c";
  EXPECT_EQ(StrReplace(text, '.', '\0'), 2u);
  EXPECT_EQ(std::memcmp(text, "a\0b\0c", 6), 0);
  EXPECT_EQ(StrReplace(text, '\0', 'x'), 0u);
  wchar_t wide[] = L"banana";
  EXPECT_EQ(StrReplace(wide, L'a', L'o'), 3u);
  EXPECT_STREQ(wide, L"bonono");
}

TEST(StrCompare, NullsCaseCountAndUnsignedOrder) {
  EXPECT_TRUE(KVT::StrEqual(static_cast<char const*>(nullptr), nullptr, true));
  EXPECT_FALSE(KVT::StrEqual(L"", nullptr, false));
  EXPECT_EQ(StrCompare(nullptr, "", true), -1);
  EXPECT_EQ(StrCompare("", nullptr, false), 1);
  EXPECT_EQ(StrCompare("A", "a", true), -1);
  EXPECT_EQ(StrCompare("A", "a", false), 0);
  EXPECT_EQ(StrCompare(L"\xFFFF", L"a", true), 1);  // Wide characters are unsigned too.
  EXPECT_GT(StrCompare(L"Zebra", L"apple", false), 0);
  EXPECT_TRUE(KVT::StrEqual("Hello", "hELLO", false));
  EXPECT_FALSE(KVT::StrEqual("Hello", "hELLO", true));
  EXPECT_EQ(KVT::StrCompareN("abcX", "abcY", 3, true), 0);
  EXPECT_LT(KVT::StrCompareN("abcX", "abcY", 4, true), 0);
  EXPECT_EQ(KVT::StrCompareN(L"ABCx", L"abcy", 3, false), 0);
  EXPECT_EQ(KVT::StrCompareN(static_cast<char const*>(nullptr), "a", 0, true), -1);

  std::mt19937 rng(42);
  for (int round = 0; round < 2000; ++round) {
    std::string a(rng() % 4, '\0'), b(rng() % 4, '\0');
    for (char& c : a) c = "a\x7F\x80\xFF"[rng() % 4];
    for (char& c : b) c = "a\x7F\x80\xFF"[rng() % 4];
    const int expected = (a > b) - (a < b);  // char_traits<char> orders as unsigned char.
    ASSERT_EQ(StrCompare(a.c_str(), b.c_str(), true), expected) << round;
    ASSERT_EQ(KVT::StrEqual(a.c_str(), b.c_str(), true), expected == 0) << round;
  }
}

TEST(StrFormat, FormatsIntoATemporaryString) {
  EXPECT_STREQ(KVT::StrFormat("%d-%s-%03x", 42, "x", 255), "42-x-0ff");
  EXPECT_STREQ(KVT::StrFormat(L"%d:%ls", -5, L"w\u00e9"), L"-5:w\u00e9");
  EXPECT_EQ(KVT::StrFormat("%s", ""), nullptr);
  EXPECT_EQ(KVT::StrFormat(L""), nullptr);
  // 511999 characters and a terminator fill the largest take; one more is refused.
  char const* largest = KVT::StrFormat("%511999d", 7);
  ASSERT_NE(largest, nullptr);
  EXPECT_EQ(std::strlen(largest), 511999u);
  EXPECT_EQ(KVT::StrFormat("%512000d", 7), nullptr);
}

TEST(StrConvert, ConvertsThroughTheCodePage) {
  EXPECT_STREQ(KVT::StrConvert("h\xE9llo", 1252), L"h\u00e9llo");
  EXPECT_STREQ(KVT::StrConvert(L"h\u00e9llo", 1252), "h\xE9llo");
  EXPECT_STREQ(KVT::StrConvert("\xE2\x82\xAC", CP_UTF8), L"\u20AC");
  EXPECT_STREQ(KVT::StrConvert(L"\u20AC", CP_UTF8), "\xE2\x82\xAC");
  EXPECT_EQ(KVT::StrConvert("", 0), nullptr);
  EXPECT_EQ(KVT::StrConvert(L"", 0), nullptr);
}

}  // namespace
