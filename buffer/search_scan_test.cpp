#include "buffer/search_scan_internal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "buffer/search_test_util.h"

namespace {

using KVT::CSearchQuery;
using KVT::search_internal::ScanText;
using search_test::Result;
using search_test::Results;

template <typename T>
struct ScanOutcome {
  std::uint32_t found = 0;
  Results results;
};

template <typename T>
ScanOutcome<T> Scan(const std::basic_string<T>& text, const CSearchQuery<T>& query,
                    unsigned long flags, T delimiter, bool (*stop)(void*) = nullptr,
                    void* stop_arg = nullptr,
                    const KVT::search_internal::ScanTuning& tuning = {}) {
  ScanOutcome<T> out;
  auto sink = [&out](std::uint64_t result) { out.results.push_back(result); };
  out.found = ScanText(text.data(), static_cast<int>(text.size()), query, flags, stop, stop_arg,
                       delimiter, sink, tuning);
  return out;
}

template <typename T>
CSearchQuery<T> Query(const T* term, bool caseless = false) {
  CSearchQuery<T> query;
  query.SetTerm(term, 0, caseless);
  return query;
}

bool NeverStop(void*) { return false; }

// Routes with set-up costs taken at any text length; with AVX2 or with SSE2 only.
constexpr KVT::search_internal::ScanTuning kEager{0, true};
constexpr KVT::search_internal::ScanTuning kEagerSse2{0, false};

struct PollCounter {
  int polls = 0;
  int stop_at = -1;  // The poll that answers true; -1 for none.
};

bool CountPoll(void* arg) {
  auto* counter = static_cast<PollCounter*>(arg);
  ++counter->polls;
  return counter->polls == counter->stop_at;
}

TEST(SearchScanTest, WorkedExamples) {
  struct Row {
    std::string text;
    const char* term;
    bool caseless;
    unsigned long flags;
    char delimiter;
    Results expected;
  };
  const Row rows[] = {
      {"abc\nabc abc\nzabc", "abc", false, 0, '\n',
       {Result(1, 0), Result(2, 4), Result(2, 4), Result(3, 12)}},
      {"abc\nabc abc\nzabc", "abc", false, 2, '\n', {Result(1, 0), Result(2, 4), Result(2, 4)}},
      // Moves by the whole length behind an occurrence: no overlaps.
      {"aaaa", "aa", false, 0, '\n', {Result(1, 0), Result(1, 0)}},
      {"aaa", "aa", false, 0, '\n', {Result(1, 0)}},
      // The last place matches at 0, the leading ones fail; b's shift 1 leads to the match at 1.
      {"aaabbz", "aabb", false, 0, '\n', {Result(1, 0)}},
      {std::string("abc\0abc\0\0zabc", 13), "abc", false, 0, '\0',
       {Result(1, 0), Result(2, 4), Result(4, 9)}},
      // Zero characters are text like any other under another delimiter.
      {std::string("abc\0abc", 7), "abc", false, 0, '\n', {Result(1, 0), Result(1, 0)}},
      {"xABC abc aBc", "Abc", true, 1, '\n', {Result(1, 0), Result(1, 0), Result(1, 0)}},
      {"xABC abc aBc", "Abc", true, 3, '\n', {Result(1, 0), Result(1, 0)}},
      // Prepared caseless, searched case-sensitively.
      {"xABC abc aBc", "Abc", true, 0, '\n', {}},
      {"abc", "abc", false, 2, '\n', {Result(1, 0)}},
      {"say abc", "abc", false, 2, '\n', {Result(1, 0)}},
      {"abc_abc", "abc", false, 2, '\n', {Result(1, 0), Result(1, 0)}},
      {"abcx", "abc", false, 2, '\n', {}},
      {"xabc", "abc", false, 2, '\n', {}},
      {"\xE9" "abc\xFF", "abc", false, 2, '\n', {Result(1, 0)}},
      // A rejected word costs the same move as a recorded one: "abab" at 0 hides the one at 2.
      {"ababab ", "abab", false, 2, '\n', {}},
      // An occurrence that spans a delimiter belongs to the line where it begins.
      {"x\nab\ncd", "b\nc", false, 0, '\n', {Result(2, 2)}},
      // Other bits of the flags are ignored.
      {"ab ab", "ab", false, 0xFFFFFFF0ul, '\n', {Result(1, 0), Result(1, 0)}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "text \"" << row.text << "\" term " << row.term
                                    << " flags " << row.flags);
    const CSearchQuery<char> query = Query(row.term, row.caseless);
    for (bool (*stop)(void*) : {static_cast<bool (*)(void*)>(nullptr), &NeverStop}) {
      const auto got = Scan(row.text, query, row.flags, row.delimiter, stop);
      EXPECT_EQ(row.expected, got.results);
      EXPECT_EQ(row.expected.size(), got.found);
    }
  }
}

TEST(SearchScanTest, RefusedInputRecordsNothing) {
  const CSearchQuery<wchar_t> query = Query(L"ab");
  const CSearchQuery<wchar_t> empty = Query(L"");
  const CSearchQuery<wchar_t> fresh;
  const std::wstring text = L"ab ab";
  int calls = 0;
  auto sink = [&calls](std::uint64_t) { ++calls; };
  EXPECT_EQ(0u, ScanText<wchar_t>(nullptr, 5, query, 0, nullptr, nullptr, L'\n', sink));
  EXPECT_EQ(0u, ScanText(text.data(), 0, query, 0, nullptr, nullptr, L'\n', sink));
  EXPECT_EQ(0u, ScanText(text.data(), -3, query, 0, nullptr, nullptr, L'\n', sink));
  EXPECT_EQ(0u, ScanText(text.data(), 5, empty, 0, nullptr, nullptr, L'\n', sink));
  EXPECT_EQ(0u, ScanText(text.data(), 5, fresh, 0, nullptr, nullptr, L'\n', sink));
  EXPECT_EQ(0u, ScanText(text.data(), 1, query, 0, nullptr, nullptr, L'\n', sink));
  EXPECT_EQ(0, calls);
}

TEST(SearchScanTest, StopIsPolledOncePerAlignment) {
  const CSearchQuery<char> query = Query("abc");
  // Alignments: 0 (match, on by 3), 3 (" ab": b's shift 1), 4 (match).
  PollCounter counter;
  auto all = Scan(std::string("abc abc"), query, 0, '\n', &CountPoll, &counter);
  EXPECT_EQ(3, counter.polls);
  EXPECT_EQ(2u, all.found);

  for (int stop_at = 1; stop_at <= 3; ++stop_at) {
    SCOPED_TRACE(stop_at);
    PollCounter stopping{0, stop_at};
    const auto part = Scan(std::string("abc abc"), query, 0, '\n', &CountPoll, &stopping);
    EXPECT_EQ(stop_at, stopping.polls);
    const Results expected(stop_at == 1 ? 0 : 1, Result(1, 0));
    EXPECT_EQ(expected, part.results);
    EXPECT_EQ(expected.size(), part.found);
  }
}

TEST(SearchScanTest, PollsMatchTheDefiningScan) {
  std::mt19937 rng(77);
  for (int round = 0; round < 300; ++round) {
    const std::string text = search_test::RandomText<char>(rng);
    const std::string term = search_test::RandomTerm(rng, text);
    const unsigned long flags = rng() % 4;
    const CSearchQuery<char> query = Query(term.c_str(), (flags & 1) != 0);
    int expected_polls = 0;
    search_test::LiteralScan(text, query, flags, '\n', &expected_polls);
    PollCounter counter;
    Scan(text, query, flags, '\n', &CountPoll, &counter);
    ASSERT_EQ(expected_polls, counter.polls) << "round " << round;
  }
}

// A table that moves the term too far (here edited by hand) is followed all the same: the scan
// is the defining one, not a plain search.
TEST(SearchScanTest, UnsoundTableIsFollowedExactly) {
  CSearchQuery<char> query = Query("abc");
  query.shiftTable['a'] = 3;  // Sound would be 2.
  const std::string text = "xxabc";
  EXPECT_EQ(Results{}, search_test::LiteralScan(text, query, 0, '\n'));
  EXPECT_EQ(1u, search_test::NaiveSearch(text, std::string("abc"), 0, '\n').size());
  EXPECT_EQ(Results{}, Scan(text, query, 0, '\n').results);
  EXPECT_EQ(Results{}, Scan(text, query, 0, '\n', &NeverStop).results);

  CSearchQuery<char> caseless = Query("abc", true);
  caseless.shiftTable['a'] = 3;
  caseless.shiftTable['A'] = 3;
  const std::string mixed = "xXaBc";
  EXPECT_EQ(Results{}, search_test::LiteralScan(mixed, caseless, 1, '\n'));
  EXPECT_EQ(Results{}, Scan(mixed, caseless, 1, '\n').results);
  EXPECT_EQ(Results{}, Scan(mixed, caseless, 1, '\n', nullptr, nullptr, kEager).results);
  EXPECT_EQ((Results{Result(1, 0)}), Scan(mixed, Query("abc", true), 1, '\n', nullptr, nullptr,
                                          kEager).results);
}

// Line counts across long stretches: the lane counters are summed every 63 steps (narrow) and
// 8191 steps (wide) of four vectors; text made of delimiters alone fills every lane.
TEST(SearchScanTest, CountsLinesOverLongStretches) {
  std::string narrow;
  for (int i = 0; i < 5000; ++i) narrow += "ab\n";
  narrow += "needle\nneedle";
  const std::string narrow_full = std::string(100000, '\n') + "pin";
  std::wstring wide_full(600000, L'\n');
  wide_full += L"pin";
  const std::string plain = std::string(70000, 'q') + "pin";

  for (const auto& tuning : {kEager, kEagerSse2}) {
    SCOPED_TRACE(tuning.allow_avx2 ? "avx2 allowed" : "sse2");
    EXPECT_EQ((Results{Result(5001, 15000), Result(5002, 15007)}),
              Scan(narrow, Query("needle"), 0, '\n', nullptr, nullptr, tuning).results);
    EXPECT_EQ((Results{Result(100001, 100000)}),
              Scan(narrow_full, Query("pin"), 0, '\n', nullptr, nullptr, tuning).results);
    EXPECT_EQ((Results{Result(600001, 600000)}),
              Scan(wide_full, Query(L"pin"), 0, L'\n', nullptr, nullptr, tuning).results);
    EXPECT_EQ((Results{Result(1, 0)}),
              Scan(plain, Query("pin"), 0, '\0', nullptr, nullptr, tuning).results);
  }
}

TEST(SearchScanTest, LongTermWithCappedShifts) {
  std::string term(70000, 'a');
  term[0] = 'c';
  term.back() = 'b';
  const std::string text = std::string(100, 'a') + term + "x" + term;
  const auto got = Scan(text, Query(term.c_str()), 0, '\n');
  EXPECT_EQ((Results{Result(1, 0), Result(1, 0)}), got.results);
}

}  // namespace
