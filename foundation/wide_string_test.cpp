#include "foundation/wide_string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "foundation/win.h"

namespace {

using KVT::String;
constexpr std::uint32_t npos = String::npos;

// Takes the object's block away, as a failed allocation does.
void DropBlock(String& s) {
  std::free(s.data);
  s.data = nullptr;
}

TEST(StringCapacity, NewObjectsHaveRoomFor260) {
  String empty;
  EXPECT_EQ(260u, empty.capacity);
  EXPECT_EQ(0u, empty.GetLength());
  EXPECT_TRUE(empty.IsEmpty());
  EXPECT_FALSE(empty == nullptr);  // Empty text is not null.
  EXPECT_TRUE(empty == L"");
  EXPECT_EQ(260u, String(L'x').capacity);
  EXPECT_EQ(0u, String(L'\0').GetLength());
  EXPECT_TRUE(String(static_cast<const wchar_t*>(nullptr)) == L"");
  const std::wstring long_text(300, L'a');
  String copied(long_text.c_str());
  EXPECT_EQ(300u, copied.capacity);
  String copy(copied);
  EXPECT_NE(copied.data, copy.data);
  EXPECT_STREQ(long_text.c_str(), copy.data);
}

// Assign grows to the sum of both lengths, Append exactly; neither ever shrinks.
TEST(StringCapacity, AssignAndAppendGrowth) {
  String s(std::wstring(100, L'a').c_str());
  s.Assign(std::wstring(200, L'b').c_str());
  EXPECT_EQ(300u, s.capacity);  // 200 alone would have fit in 260.
  EXPECT_EQ(200u, s.GetLength());
  s.Assign(L"short");
  EXPECT_EQ(300u, s.capacity);
  String other(L"xyz");
  s = other;
  EXPECT_EQ(300u, s.capacity);
  EXPECT_STREQ(L"xyz", s.data);

  String t(std::wstring(250, L'a').c_str());
  t.Append(std::wstring(20, L'b').c_str());
  EXPECT_EQ(270u, t.capacity);
  t += L'c';
  EXPECT_EQ(271u, t.capacity);
  t += L"de";
  EXPECT_EQ(273u, t.capacity);
  EXPECT_EQ(273u, t.GetLength());
  EXPECT_EQ(L'e', t[272u]);
}

TEST(StringCapacity, SetSizeReservesAndEmptiesWhenItGrows) {
  String s(L"abcde");
  s.SetSize(10);
  EXPECT_STREQ(L"abcde", s.data);
  EXPECT_EQ(260u, s.capacity);
  s.SetSize(1000);
  EXPECT_EQ(1000u, s.capacity);
  EXPECT_STREQ(L"", s.data);
  s.Assign(std::wstring(900, L'x').c_str());
  EXPECT_EQ(1000u, s.capacity);  // Reserved room takes the text without growing.
  s.Clear();
  EXPECT_EQ(1000u, s.capacity);
  EXPECT_EQ(0u, s.GetLength());
}

TEST(StringNullData, NoBlockMeansNoText) {
  String s(L"abc");
  DropBlock(s);
  EXPECT_EQ(0u, s.GetLength());
  EXPECT_TRUE(s.IsEmpty());
  EXPECT_EQ(L'\0', s[0u]);
  EXPECT_EQ(npos, s.Find(L'a'));
  EXPECT_EQ(npos, s.RFind(L"a"));
  EXPECT_FALSE(s.Contains(L""));
  EXPECT_EQ(0u, s.Trim(L"a"));
  EXPECT_EQ(0, s.CountOf(L'a'));
  EXPECT_STREQ(L"", s.SubStr(0, npos).data);  // A new object, with a block.
  EXPECT_TRUE(s == nullptr);
  EXPECT_FALSE(s == L"");
  s.Append(L"x");  // Append brings no block back...
  EXPECT_EQ(nullptr, s.data);
  s.Assign(L"back");  // ...Assign does.
  EXPECT_STREQ(L"back", s.data);

  String t;
  DropBlock(t);
  t.SetSize(500);
  ASSERT_NE(nullptr, t.data);
  EXPECT_EQ(500u, t.capacity);
  EXPECT_STREQ(L"", t.data);
}

TEST(StringChange, AssignmentCornerCasesAndPlusChangesItsLeftOperand) {
  String left(L"left");
  String right(L"right");
  EXPECT_EQ(&left, &(left + right));
  EXPECT_STREQ(L"leftright", left.data);
  EXPECT_STREQ(L"right", right.data);
  String s(L"abc");
  s = s.data;  // Its own text: nothing happens.
  EXPECT_STREQ(L"abc", s.data);
  s = s;
  EXPECT_STREQ(L"abc", s.data);
  s = L'z';
  EXPECT_STREQ(L"z", s.data);
  s = static_cast<const wchar_t*>(nullptr);
  EXPECT_STREQ(L"", s.data);
  s.Assign(L"abc");
  s.Append(s.data + 1);  // Text from the block itself is copied before the block changes.
  EXPECT_STREQ(L"abcbc", s.data);
}

TEST(StringAccess, SetAtAndIndexStopAtTheLength) {
  String s(L"abcd");
  s.SetAt(4, L'x');
  s.SetAt(100, L'x');
  EXPECT_STREQ(L"abcd", s.data);
  EXPECT_EQ(L'd', s[3u]);
  EXPECT_EQ(L'\0', s[4u]);
  EXPECT_EQ(L'\0', s[1000u]);
  s.SetAt(2, L'\0');
  EXPECT_EQ(2u, s.GetLength());
  EXPECT_EQ(L'\0', s[3u]);  // Past the new end, though the block still holds 'd'.
}

TEST(StringCompare, NullIsAValueThatSortsFirst) {
  String text(L"b");
  String none;
  DropBlock(none);
  const struct {
    String* s;
    const wchar_t* other;
    bool equal, less, greater;
  } kCases[] = {
      {&text, L"b", true, false, false},   {&text, L"c", false, true, false},
      {&text, L"a", false, false, true},   {&text, L"", false, false, true},
      {&text, nullptr, false, false, true}, {&none, nullptr, true, false, false},
      {&none, L"", false, true, false},    {&text, L"\xFFFF", false, true, false},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.other == nullptr ? L"(null)" : row.other);
    EXPECT_EQ(row.equal, *row.s == row.other);
    EXPECT_EQ(!row.equal, *row.s != row.other);
    EXPECT_EQ(row.less, *row.s < row.other);
    EXPECT_EQ(row.greater, *row.s > row.other);
  }
  String upper(L"B");
  EXPECT_EQ(0, text.Compare(text, true));
  EXPECT_EQ(1, text.Compare(upper, true));
  EXPECT_EQ(0, text.Compare(upper, false));
  EXPECT_TRUE(text.Equal(L"B", false));
  EXPECT_FALSE(text.Equal(L"B", true));
  EXPECT_TRUE(upper < text);
}

TEST(StringSearch, WorkedExamples) {
  String s(L"abcabc");
  EXPECT_EQ(4u, s.Find(L'b', 2));  // Counted from the start, not from pos.
  EXPECT_EQ(npos, s.Find(L'b', 6));
  EXPECT_EQ(npos, s.Find(L'b', 1000));  // Past the text: nothing read.
  EXPECT_EQ(3u, s.Find(L"abc", 1));
  EXPECT_EQ(6u, s.Find(L"", 2));  // Empty text is found at the end...
  EXPECT_EQ(6u, s.Find(nullptr, 0));
  EXPECT_EQ(npos, s.Find(L"", 6));  // ...unless nothing is left.
  EXPECT_EQ(3u, s.RFind(L'a', 0));
  EXPECT_EQ(0u, s.RFind(L'a', 4));  // pos counts from the end: starts at index 2.
  EXPECT_EQ(npos, s.RFind(L'a', 6));
  EXPECT_EQ(6u, s.RFind(L'\0', 0));  // pos 0 starts at the terminator.
  EXPECT_EQ(4u, s.RFind(L"bc", 2));  // A match that runs past the start index.
  EXPECT_EQ(npos, s.RFind(L"", 0));
  EXPECT_EQ(6u, s.RFind(L"", 1));
  EXPECT_EQ(npos, String(L"").RFind(L'a', 0));
  EXPECT_TRUE(s.Contains(L"ca"));
  EXPECT_TRUE(s.Contains(L""));
  EXPECT_FALSE(String(L"").Contains(L""));
  String t(L"abcbc");
  EXPECT_FALSE(t.Beginswith(L"bc"));
  EXPECT_TRUE(t.Beginswith(L"ab"));
  EXPECT_FALSE(t.Beginswith(L""));
  EXPECT_EQ(2, s.CountOf(L'a'));  // The first character counts.
  EXPECT_EQ(0, s.CountOf(L'\0'));
}

TEST(StringChange, SubStrCutsAtTheEnd) {
  String s(L"abcde");
  const struct { unsigned start, length; const wchar_t* expected; } kCases[] = {
      {2, npos, L"cde"}, {2, 100, L"cde"},         {5, 1, L""},  {0, 0, L""},
      {1, 3, L"bcd"},    {2, 0xFFFFFFFEu, L"cde"}, {9, 2, L""},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.start);
    EXPECT_STREQ(row.expected, s.SubStr(row.start, row.length).data);
  }
  const std::wstring long_text(1000, L'q');
  String big(long_text.c_str());
  String part = big.SubStr(100, 700);
  EXPECT_EQ(700u, part.GetLength());
  EXPECT_EQ(700u, part.capacity);
}

TEST(StringChange, TrimRemovesSetCharactersAtBothEnds) {
  const struct { const wchar_t* text; const wchar_t* set; unsigned removed; const wchar_t* left; }
      kCases[] = {
          {L" \ta b\t ", L" \t", 4, L"a b"}, {L"  ", L" ", 2, L""},
          {L"xaxx", L"x", 3, L"a"},          {L"abc", L"", 0, L"abc"},
          {L"abc", nullptr, 0, L"abc"},      {L"", L" ", 0, L""},
          {L"abc", L"  ", 0, L"abc"},
      };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    String s(row.text);
    EXPECT_EQ(row.removed, s.Trim(row.set));
    EXPECT_STREQ(row.left, s.data);
  }
  String s(L"  usable  ");
  s.Trim(L" ");
  s += L"!";
  EXPECT_STREQ(L"usable!", s.data);
  EXPECT_EQ(7u, s.GetLength());
}

TEST(StringChange, ReplaceAndMakeLower) {
  String s(L"aaa");
  EXPECT_EQ(2u, s.Replace(L"aa", L"b"));  // The new length.
  EXPECT_STREQ(L"ba", s.data);
  EXPECT_EQ(2u, s.Replace(L"", L"x"));
  EXPECT_EQ(2u, s.Replace(nullptr, L"x"));
  EXPECT_EQ(2u, s.Replace(L"zz", L"x"));
  EXPECT_STREQ(L"ba", s.data);
  EXPECT_EQ(1u, s.Replace(L'a', L'c'));
  EXPECT_STREQ(L"bc", s.data);

  String mixed(L"AbC\u00C4\u0130z");
  mixed.MakeLower();
  EXPECT_STREQ(L"abc\u00C4\u0130z", mixed.data);
}

TEST(StringTokens, EveryCharacterBetweenSeparatorsIsAToken) {
  const struct { const wchar_t* text; std::vector<std::wstring> tokens; } kCases[] = {
      {L"a,,b", {L"a", L"", L"b"}}, {L"a,", {L"a", L""}}, {L"", {L""}},
      {L",", {L"", L""}},           {L"abc", {L"abc"}},
  };
  XArray<wchar_t*> tokens(4);
  tokens.Add(const_cast<wchar_t*>(L"old"), false);  // Reset away by the call.
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    String s(row.text);
    ASSERT_EQ(static_cast<int>(row.tokens.size()), s.ToTokens(L',', tokens));
    ASSERT_EQ(static_cast<int>(row.tokens.size()), tokens.count);
    for (int i = 0; i < tokens.count; ++i) EXPECT_EQ(row.tokens[i], tokens[i]);
    EXPECT_STREQ(row.text, s.data);  // Restored.
  }
  {
    String gone(L"kept,after");
    gone.ToTokens(L',', tokens);
  }
  EXPECT_STREQ(L"after", tokens[1]);  // The array's own copies outlive the String.
  String none;
  DropBlock(none);
  EXPECT_EQ(0, none.ToTokens(L',', tokens));
  EXPECT_EQ(0, tokens.count);
}

std::wstring RandomText(std::mt19937& rng, std::size_t max_length) {
  std::wstring text(rng() % (max_length + 1), L'a');
  for (wchar_t& c : text) c = L"aab"[rng() % 3];
  return text;
}

std::wstring ReplaceAll(std::wstring text, const std::wstring& find, const std::wstring& with) {
  for (std::size_t at = text.find(find); at != std::wstring::npos;
       at = text.find(find, at + with.size())) {
    text.replace(at, find.size(), with);
  }
  return text;
}

// Where the rules agree with std::wstring: positions inside the text, nonempty texts to find,
// and RFind's pos turned into a position from the start.
TEST(StringSearch, AgreesWithStdWstring) {
  std::mt19937 rng(260);
  for (int round = 0; round < 3000; ++round) {
    const std::wstring text = RandomText(rng, 24);
    std::wstring find = RandomText(rng, 3);
    if (find.empty()) find = L"b";
    String s(text.c_str());
    SCOPED_TRACE(text + L" / " + find);
    for (unsigned pos = 0; pos < text.size(); ++pos) {
      const auto expect = [](std::size_t at) { return static_cast<std::uint32_t>(at); };
      ASSERT_EQ(expect(text.find(L'b', pos)), s.Find(L'b', pos)) << pos;
      ASSERT_EQ(expect(text.find(find, pos)), s.Find(find.c_str(), pos)) << pos;
      ASSERT_EQ(expect(text.rfind(L'b', text.size() - pos)), s.RFind(L'b', pos)) << pos;
      ASSERT_EQ(expect(text.rfind(find, text.size() - pos)), s.RFind(find.c_str(), pos)) << pos;
    }
    const std::wstring with = RandomText(rng, 3);
    const std::wstring replaced = ReplaceAll(text, find, with);
    ASSERT_EQ(replaced.size(), s.Replace(find.c_str(), with.c_str()));
    ASSERT_EQ(replaced, s.data);
  }
}

TEST(GetEnvironmentVar, ReadsValuesOfAnyLength) {
  const wchar_t kName[] = L"TERN_STRING_TEST_VAR";
  for (std::size_t length : {0u, 5u, 1023u, 1024u, 1025u, 5000u}) {
    SCOPED_TRACE(length);
    const std::wstring value(length, L'v');
    ASSERT_TRUE(::SetEnvironmentVariableW(kName, value.c_str()));
    String read(L"junk");
    ASSERT_TRUE(KVT::GetEnvironmentVar(kName, read));
    EXPECT_EQ(value, read.data);
  }
  ::SetEnvironmentVariableW(kName, nullptr);
  String untouched(L"junk");
  EXPECT_FALSE(KVT::GetEnvironmentVar(kName, untouched));
  EXPECT_STREQ(L"junk", untouched.data);
  EXPECT_FALSE(KVT::GetEnvironmentVar(nullptr, untouched));

  // A missing variable's error code left behind from before isn't taken for this call's.
  ::SetEnvironmentVariableW(kName, L"here");
  ::SetLastError(ERROR_ENVVAR_NOT_FOUND);
  EXPECT_TRUE(KVT::GetEnvironmentVar(kName, untouched));
  EXPECT_STREQ(L"here", untouched.data);
  ::SetEnvironmentVariableW(kName, nullptr);
}

}  // namespace
