// The wide string class and the growable array behind its tokens.
#include "foundation/wide_string.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "foundation/win.h"
#include "foundation/x_array.h"

namespace {

using KVT::String;
constexpr std::uint32_t npos = String::npos;

// An owned object that counts its destructions.
struct Tracked {
  explicit Tracked(int* destroyed) : destroyed(destroyed) {}
  ~Tracked() { ++*destroyed; }
  int* destroyed;
};

TEST(XArrayTest, ResetKeepsOwnedValuesUntilReuseOrRemoveAll) {
  int destroyed = 0;
  Tracked held(&destroyed);
  XArray<Tracked*> array;
  for (int i = 0; i < 3; ++i) array.Add(new Tracked(&destroyed), true);
  array.Add(&held, false);
  array.Reset();
  EXPECT_EQ(0, destroyed);
  array.Add(new Tracked(&destroyed), true);
  EXPECT_EQ(1, destroyed) << "only the reused record's value goes";
  array.RemoveAll();
  EXPECT_EQ(4, destroyed) << "records behind count go too; the held value stays";
  EXPECT_EQ(0, array.Add(nullptr));
  EXPECT_EQ(100, array.capacity) << "a fresh table";
}

// Growth by steps across many doublings of the block behind the table: after every Add the
// capacity is the next step above the count (so a full step still leaves a spare slot), each
// growth's new slots are null, values read back, reads outside give the shared zero default, and
// a refill after Reset reuses every record in place.
TEST(XArrayTest, GrowsByFixedStepsAndReadsOutsideAsZero) {
  constexpr int kStep = 7;
  constexpr int kValues = 20000;
  XArray<std::uint64_t> array(kStep);
  EXPECT_TRUE(array.sorted);
  EXPECT_EQ(0u, array[0]) << "no table yet";
  for (int i = 0; i < kValues; ++i) {
    const int grown_from = array.capacity;
    ASSERT_EQ(i, array.Add(0x100000000ull * i + 3));
    ASSERT_EQ((array.count / kStep + 1) * kStep, array.capacity) << i;
    for (int k = grown_from > i + 1 ? grown_from : i + 1; k < array.capacity; ++k) {
      ASSERT_EQ(nullptr, array.entries[k]) << i;
    }
  }
  EXPECT_FALSE(array.sorted);
  EXPECT_EQ(&XArray<std::uint64_t>::defaultValue, &array[-1]);
  EXPECT_EQ(&XArray<std::uint64_t>::defaultValue, &array[kValues]);
  std::vector<XArrayEntry<std::uint64_t>*> records(array.entries, array.entries + kValues);
  array.Reset();
  for (int i = 0; i < kValues; ++i) array.Add(i);
  for (int i = 0; i < kValues; ++i) {
    ASSERT_EQ(records[i], array.entries[i]) << i;
    ASSERT_EQ(static_cast<std::uint64_t>(i), array[i]);
  }
  array.RemoveAll();
  array.RemoveAll();
  EXPECT_EQ(nullptr, array.entries);
  EXPECT_EQ(0, array.capacity);
}

// Random Add, Reset and RemoveAll of owned texts (empty ones among them, and changed by the
// caller after the Add) against std::vector, with a fixed seed.
TEST(XArrayTest, MatchesAVectorUnderRandomUse) {
  std::mt19937 random(20240611);
  XArray<char*> array(3);
  std::vector<std::string> oracle;
  for (int step = 0; step < 3000; ++step) {
    const unsigned action = random() % 20;
    if (action < 2) {
      action == 0 ? array.Reset() : array.RemoveAll();
      oracle.clear();
    } else {
      std::string text(random() % 5, static_cast<char>('a' + random() % 26));
      ASSERT_EQ(static_cast<int>(oracle.size()), array.Add(text.data(), true));
      oracle.push_back(text);
      text.assign("junk");
    }
    ASSERT_EQ(static_cast<int>(oracle.size()), array.count);
    const int probe = static_cast<int>(random() % (oracle.size() + 3)) - 1;
    SCOPED_TRACE(testing::Message() << "step " << step << " probe " << probe);
    const bool inside = probe >= 0 && probe < static_cast<int>(oracle.size());
    ASSERT_EQ(inside ? oracle[probe] : "<null>", array[probe] ? array[probe] : "<null>");
  }
}

TEST(XArrayTest, CopiesShareOneTableAndReleaseItOnce) {
  int destroyed = 0;
  auto* original = new XArray<Tracked*>(2);
  Tracked* first = new Tracked(&destroyed);
  original->Add(first, true);
  XArray<Tracked*> copy(*original);
  XArray<Tracked*> grown;
  grown = *original;
  EXPECT_EQ(original->entries, copy.entries);
  // Growing a shared table gives that copy a table of its own, holding what it had.
  grown.Add(new Tracked(&destroyed), true);
  EXPECT_NE(original->entries, grown.entries);
  EXPECT_EQ(first, grown[0]);
  delete original;
  EXPECT_EQ(0, destroyed) << "the copies still hold the table";
  EXPECT_EQ(first, copy[0]);
  grown.RemoveAll();
  EXPECT_EQ(1, destroyed) << "the shared table keeps owning what the grown copy took along";
  copy.RemoveAll();
  EXPECT_EQ(2, destroyed);
}

// Takes the object's block away, as a failed allocation does.
void DropBlock(String& s) {
  std::free(s.data);
  s.data = nullptr;
}

TEST(StringTest, CapacityAndTheBlockLessState) {
  String fresh;
  EXPECT_EQ(0u, fresh.GetLength());
  EXPECT_FALSE(fresh == nullptr);  // Empty text is not null.
  EXPECT_TRUE(fresh == L"");
  EXPECT_TRUE(String(static_cast<const wchar_t*>(nullptr)) == L"");
  String s(std::wstring(100, L'a').c_str());
  s.Assign(std::wstring(200, L'b').c_str());
  EXPECT_EQ(300u, s.capacity);  // Both lengths, though 200 alone would fit in 260.
  s.Assign(L"abcde");
  s.SetSize(10);
  EXPECT_STREQ(L"abcde", s.data);
  s.SetSize(1000);
  EXPECT_EQ(1000u, s.capacity);
  EXPECT_STREQ(L"", s.data);

  DropBlock(s);
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
  DropBlock(s);
  s.SetSize(5000);  // Above `capacity`: a new block.
  ASSERT_NE(nullptr, s.data);
  EXPECT_STREQ(L"", s.data);
}

TEST(StringTest, AssignmentPlusAndSetAt) {
  String left(L"left");
  String right(L"right");
  EXPECT_EQ(&left, &(left + right));
  EXPECT_STREQ(L"leftright", left.data);
  String s(L"abc");
  s = s.data;  // Its own text: nothing happens.
  s = s;
  EXPECT_STREQ(L"abc", s.data);
  s = L'z';
  EXPECT_STREQ(L"z", s.data);
  s = static_cast<const wchar_t*>(nullptr);
  EXPECT_STREQ(L"", s.data);
  s.Assign(L"abcd");
  s.SetAt(4, L'x');
  s.SetAt(100, L'x');
  EXPECT_STREQ(L"abcd", s.data);
  EXPECT_EQ(L'\0', s[1000u]);
  s.SetAt(2, L'\0');
  EXPECT_EQ(2u, s.GetLength());
  EXPECT_EQ(L'\0', s[3u]);  // Past the new end, though the block still holds 'd'.
}

TEST(StringTest, NullIsAValueThatSortsFirst) {
  String text(L"b");
  String none;
  DropBlock(none);
  const struct { String* s; const wchar_t* other; bool equal, less, greater; } kCases[] = {
      {&text, L"b", true, false, false},    {&text, L"c", false, true, false},
      {&text, L"a", false, false, true},    {&text, L"", false, false, true},
      {&text, nullptr, false, false, true}, {&none, nullptr, true, false, false},
      {&none, L"", false, true, false},     {&text, L"\xFFFF", false, true, false},
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
  EXPECT_TRUE(text.Equal(L"B", false) && !text.Equal(L"B", true));
}

TEST(StringTest, SearchWorkedExamples) {
  String s(L"abcabc");
  const struct { std::uint32_t found, expected; } kCases[] = {
      {s.Find(L'b', 2), 4},  // Counted from the start, not from pos.
      {s.Find(L'b', 1000), npos},
      {s.Find(L"abc", 1), 3},
      {s.Find(L"", 2), 6},  // Empty text is found at the end...
      {s.Find(nullptr, 0), 6},
      {s.Find(L"", 6), npos},  // ...unless nothing is left.
      {s.RFind(L'a', 0), 3},
      {s.RFind(L'a', 4), 0},  // pos counts from the end: starts at index 2.
      {s.RFind(L'a', 6), npos},
      {s.RFind(L'\0', 0), 6},  // pos 0 starts at the terminator.
      {s.RFind(L"bc", 2), 4},  // A match that runs past the start index.
      {s.RFind(L"", 0), npos},
      {s.RFind(L"", 1), 6},
      {String(L"").RFind(L'a', 0), npos},
      {static_cast<std::uint32_t>(s.CountOf(L'a')), 2},  // The first character counts.
      {static_cast<std::uint32_t>(s.CountOf(L'\0')), 0},
  };
  for (std::size_t i = 0; i < std::size(kCases); ++i) {
    EXPECT_EQ(kCases[i].expected, kCases[i].found) << "row " << i;
  }
  EXPECT_TRUE(s.Contains(L"ca") && s.Contains(L""));
  EXPECT_FALSE(String(L"").Contains(L""));
  String t(L"abcbc");
  EXPECT_TRUE(t.Beginswith(L"ab"));
  EXPECT_FALSE(t.Beginswith(L"bc") || t.Beginswith(L""));
}

std::wstring RandomText(std::mt19937& rng, std::size_t max_length) {
  std::wstring text(rng() % (max_length + 1), L'a');
  for (wchar_t& c : text) c = L"aab"[rng() % 3];
  return text;
}

// Where the rules agree with std::wstring: positions inside the text, nonempty texts to find,
// and RFind's pos turned into a position from the start.
TEST(StringTest, SearchAndReplaceAgreeWithStdWstring) {
  std::mt19937 rng(260);
  for (int round = 0; round < 1500; ++round) {
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
    std::wstring replaced = text;
    for (std::size_t at = replaced.find(find); at != std::wstring::npos;
         at = replaced.find(find, at + with.size())) {
      replaced.replace(at, find.size(), with);
    }
    ASSERT_EQ(replaced.size(), s.Replace(find.c_str(), with.c_str()));
    ASSERT_EQ(replaced, s.data);
  }
}

TEST(StringTest, SubStrTrimReplaceAndMakeLower) {
  String s(L"abcde");
  const struct { unsigned start, length; const wchar_t* expected; } kSubStr[] = {
      {2, npos, L"cde"}, {2, 100, L"cde"}, {5, 1, L""}, {0, 0, L""},
      {1, 3, L"bcd"},    {2, 0xFFFFFFFEu, L"cde"}, {9, 2, L""},
  };
  for (const auto& row : kSubStr) {
    EXPECT_STREQ(row.expected, s.SubStr(row.start, row.length).data) << row.start;
  }

  const struct { const wchar_t* text; const wchar_t* set; unsigned removed; const wchar_t* left; }
      kTrim[] = {
          {L" \ta b\t ", L" \t", 4, L"a b"}, {L"  ", L" ", 2, L""},  {L"xaxx", L"x", 3, L"a"},
          {L"abc", L"", 0, L"abc"},          {L"abc", nullptr, 0, L"abc"}, {L"", L" ", 0, L""},
      };
  for (const auto& row : kTrim) {
    SCOPED_TRACE(row.text);
    String t(row.text);
    EXPECT_EQ(row.removed, t.Trim(row.set));
    EXPECT_STREQ(row.left, t.data);
    t += L"!";  // Still fully usable.
    EXPECT_EQ(std::wstring(row.left) + L"!", t.data);
  }

  String r(L"aaa");
  EXPECT_EQ(2u, r.Replace(L"aa", L"b"));  // The new length.
  EXPECT_STREQ(L"ba", r.data);
  EXPECT_EQ(2u, r.Replace(L"", L"x"));
  EXPECT_EQ(2u, r.Replace(nullptr, L"x"));
  EXPECT_EQ(1u, r.Replace(L'a', L'c'));
  EXPECT_STREQ(L"bc", r.data);
  String mixed(L"AbC\u00C4\u0130z");
  mixed.MakeLower();
  EXPECT_STREQ(L"abc\u00C4\u0130z", mixed.data);
}

TEST(StringTest, EveryCharacterBetweenSeparatorsIsAToken) {
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
