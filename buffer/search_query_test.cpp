#include "buffer/search_query.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using KVT::CSearchQuery;

using Narrow = CSearchQuery<char>;
using Wide = CSearchQuery<wchar_t>;

// The table as a list of (base value, entry) for every entry that is not `rest`, checking on the
// way that all the others are.
template <typename T>
std::vector<std::pair<int, int>> Exceptions(const CSearchQuery<T>& query, int rest) {
  std::vector<std::pair<int, int>> out;
  for (int b = 0; b < query.tableSize; ++b) {
    if (query.shiftTable[b] != rest) out.emplace_back(b, query.shiftTable[b]);
  }
  return out;
}

using Entries = std::vector<std::pair<int, int>>;

TEST(SearchQueryTest, WorkedTables) {
  struct Row { const char* term; bool caseless; int table_size; int rest; Entries entries; };
  const Row rows[] = {
      {"abca", false, 100, 4, {{'a', 1}, {'b', 2}, {'c', 1}}},
      {"Abc", true, 100, 3, {{'A', 2}, {'B', 1}, {'C', 1}, {'a', 2}, {'b', 1}, {'c', 1}}},
      {"banana", false, 111, 6, {{'a', 1}, {'b', 5}, {'n', 1}}},
      // The last place gets 1 even though it occurs nowhere else.
      {"xyz", false, 123, 3, {{'x', 2}, {'y', 1}, {'z', 1}}},
      // One character: its own entry and all others are 1.
      {"q", false, 114, 1, {}},
      // 0xE9 has the base value 23; the term's last character sets its entry to 1.
      {"\xE9t\xE9", false, 117, 3, {{23, 1}, {'t', 1}}},
      // In the C locale toupper and tolower leave bytes above 127 alone.
      {"\xE9t\xE9", true, 117, 3, {{23, 1}, {'T', 1}, {'t', 1}}},
      // 0x17 and 0xE9 share entry 23, which keeps the smaller shift (0xE9's 1, not 0x17's 2).
      {"\x17" "a\xE9" "b", false, 99, 4, {{23, 1}, {'a', 2}, {'b', 1}}},
      // A byte above 127 alone in the term can make a small table: 0xFF has base value 1.
      {"\xFF\xFF", false, 2, 2, {{1, 1}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.term);
    Narrow query;
    query.SetTerm(row.term, 0, row.caseless);
    EXPECT_STREQ(row.term, query.term);
    EXPECT_EQ(static_cast<int>(std::string(row.term).size()), query.termLength);
    EXPECT_EQ(row.table_size, query.tableSize);
    EXPECT_EQ(row.entries, Exceptions(query, row.rest));
  }
}

// Terms that leave the empty query (an empty text, one table entry of 0), and the term kept
// as given: the length argument is ignored, a second term replaces the first, and a term may
// point into the query's own copy.
TEST(SearchQueryTest, EmptyQueriesAndReplacedTerms) {
  Narrow fresh;
  EXPECT_TRUE(fresh.term == nullptr && fresh.termLength == 0 && fresh.shiftTable == nullptr &&
              fresh.tableSize == 0);
  Wide wide;
  for (const wchar_t* term : {L"", static_cast<const wchar_t*>(nullptr), L"ab\xFFFF"}) {
    wide.SetTerm(L"abc", 0, false);
    wide.SetTerm(term, 0, true);
    EXPECT_STREQ(L"", wide.term);
    EXPECT_EQ(0, wide.termLength);
    EXPECT_EQ(1, wide.tableSize);
    EXPECT_EQ(0, wide.shiftTable[0]);
  }
  Narrow query;
  query.SetTerm("zzzz", 0, false);
  query.SetTerm("abcdef", 2, false);
  EXPECT_STREQ("abcdef", query.term);
  EXPECT_EQ(6, query.termLength);
  query.SetTerm(query.term + 4, 0, false);
  EXPECT_STREQ("ef", query.term);
  EXPECT_EQ(103, query.tableSize);
  EXPECT_EQ((Entries{{'e', 1}, {'f', 1}}), Exceptions(query, 2));
}

TEST(SearchQueryTest, WideTableIsSizedByTheLargestCodeUnit) {
  Wide query;
  query.SetTerm(L"ab", 0, false);
  EXPECT_EQ(99, query.tableSize);
  query.SetTerm(L"a\x4E2D", 0, false);
  EXPECT_EQ(0x4E2D + 1, query.tableSize);
  EXPECT_EQ((Entries{{'a', 1}, {0x4E2D, 1}}), Exceptions(query, 2));
  query.SetTerm(L"\xFFFE", 0, false);  // The largest code unit a table can index.
  EXPECT_EQ(0xFFFF, query.tableSize);
  EXPECT_EQ(1, query.shiftTable[0xFFFE]);
}

TEST(SearchQueryTest, LongTermEntriesAreCappedAt65535) {
  std::string term(70000, 'a');
  term.back() = 'b';
  term[10] = 'c';  // 69,989 places from the end: more than an entry holds.
  Narrow query;
  query.SetTerm(term.c_str(), 0, false);
  EXPECT_EQ(70000, query.termLength);
  EXPECT_EQ(100, query.tableSize);
  EXPECT_EQ((Entries{{'a', 1}, {'b', 1}}), Exceptions(query, 65535));
  EXPECT_EQ(65535, query.shiftTable['c']);
}

TEST(SearchQueryTest, CopiesShareTermAndTable) {
  Narrow original;
  original.SetTerm("needle", 0, true);
  {
    Narrow assigned;
    assigned = original;
    Narrow constructed(original);
    for (const Narrow* copy : {&assigned, &constructed}) {
      EXPECT_EQ(original.term, copy->term);
      EXPECT_EQ(original.shiftTable, copy->shiftTable);
      EXPECT_EQ(original.termLength, copy->termLength);
      EXPECT_EQ(original.tableSize, copy->tableSize);
    }
    // A new term for one copy leaves the others as they were.
    assigned.SetTerm("x", 0, false);
    EXPECT_STREQ("needle", original.term);
    EXPECT_STREQ("needle", constructed.term);
  }
  // Both copies are gone; the original's arrays are still its own.
  EXPECT_STREQ("needle", original.term);
  EXPECT_EQ(1, original.shiftTable['e']);
  original = original;
  EXPECT_STREQ("needle", original.term);
}

TEST(SearchQueryTest, AssignmentLeavesTheFormerArraysReadable) {
  Narrow source;
  source.SetTerm("new", 0, false);
  Narrow target;
  target.SetTerm("old", 0, false);
  const char* old_term = target.term;
  target = source;
  EXPECT_STREQ("new", target.term);
  EXPECT_STREQ("old", old_term);
}

TEST(SearchQueryTest, ToBase) {
  const std::pair<char, int> kNarrow[] = {{'a', 97}, {'\0', 0}, {'\x7F', 127}, {'\x80', 128},
                                          {'\xE9', 23}, {'\x17', 23}, {'\xFF', 1}};
  for (const auto& [ch, base] : kNarrow) EXPECT_EQ(base, Narrow::ToBase(ch)) << int(ch);
  EXPECT_EQ(0, Wide::ToBase(L'\0'));
  EXPECT_EQ(0xE9, Wide::ToBase(L'\xE9'));
  EXPECT_EQ(0xFFFF, Wide::ToBase(L'\xFFFF'));
}

TEST(SearchQueryTest, CaseConversionAndLength) {
  std::unique_ptr<char[]> upper(Narrow::MakeUpper("aBc1-z\xE9"));
  std::unique_ptr<char[]> lower(Wide::MakeLower("aBc1-Z"));
  std::unique_ptr<wchar_t[]> wide_upper(Narrow::MakeUpper(L"a\xE9Z"));
  std::unique_ptr<wchar_t[]> wide_lower(Wide::MakeLower(L"a\xE9Z"));
  EXPECT_STREQ("ABC1-Z\xE9", upper.get());
  EXPECT_STREQ("abc1-z", lower.get());
  EXPECT_STREQ(L"A\xE9Z", wide_upper.get());  // The C locale folds ASCII only.
  EXPECT_STREQ(L"a\xE9z", wide_lower.get());

  std::unique_ptr<char[]> empty(Narrow::MakeUpper(""));
  ASSERT_NE(nullptr, empty);
  EXPECT_EQ('\0', empty[0]);
  EXPECT_EQ(nullptr, Wide::MakeUpper(static_cast<const wchar_t*>(nullptr)));
  EXPECT_EQ(nullptr, Narrow::MakeLower(static_cast<const char*>(nullptr)));

  EXPECT_EQ(3, Wide::StringLength("abc"));
  EXPECT_EQ(2, Narrow::StringLength(L"ab\0cd"));
  EXPECT_EQ(0, Narrow::StringLength(static_cast<const char*>(nullptr)));
}

// The table against its description: 1 for the last character, termLength - 1 - j for the
// rightmost other place j, termLength for the rest, the smaller value where bases coincide.
TEST(SearchQueryTest, RandomTablesMatchTheirDescription) {
  std::mt19937 rng(20240611);
  const char alphabet[] = "abcAB \x17\xE9\xC9\x80\x7F\x01\xFF";
  for (int round = 0; round < 500; ++round) {
    std::string term;
    const int length = 1 + static_cast<int>(rng() % 9);
    for (int i = 0; i < length; ++i) term += alphabet[rng() % (sizeof(alphabet) - 1)];
    const bool caseless = rng() % 2 == 0;
    SCOPED_TRACE(testing::Message() << "round " << round << " caseless " << caseless);

    std::vector<int> expected(256, -1);
    int max_base = 0;
    auto enter = [&](char ch, int shift) {
      const int b = Narrow::ToBase(ch);
      max_base = std::max(max_base, b);
      if (expected[b] < 0 || shift < expected[b]) expected[b] = shift;
    };
    for (int j = 0; j < length; ++j) {
      const int shift = j == length - 1 ? 1 : length - 1 - j;
      const char ch = term[j];
      if (caseless) {
        enter(static_cast<char>(toupper(static_cast<unsigned char>(ch))), shift);
        enter(static_cast<char>(tolower(static_cast<unsigned char>(ch))), shift);
      } else {
        enter(ch, shift);
      }
    }
    Narrow query;
    query.SetTerm(term.c_str(), 0, caseless);
    ASSERT_EQ(max_base + 1, query.tableSize);
    for (int b = 0; b <= max_base; ++b) {
      const int want = expected[b] < 0 ? length : expected[b];
      ASSERT_EQ(want, query.shiftTable[b]) << "base " << b;
    }
  }
}

}  // namespace
