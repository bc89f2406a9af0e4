// The buffer search, its results and the scan beneath it.
#include "buffer/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "buffer/search_query.h"
#include "buffer/internal/search_needle.h"
#include "buffer/internal/search_scan.h"
#include "buffer/search_test_util.h"
#include "foundation/internal/scoped_handle.h"
#include "foundation/win.h"

namespace {

using KVT::CBuffer;
using KVT::CSearchQuery;
using KVT::internal::ScopedHandle;
using KVT::internal::KernelSet;
using KVT::internal::Needle;
using KVT::internal::ScanTuning;
using search_test::Result;
using search_test::Results;
using search_test::Scan;
using LineList = std::vector<std::pair<int, int>>;

template <typename T>
CSearchQuery<T> Query(const T* term, bool caseless = false) {
  CSearchQuery<T> query;
  query.SetTerm(term, 0, caseless);
  return query;
}

// Line number and offset of every result, read back through GetResult.
template <typename T>
LineList Lines(CBuffer<T>& buffer) {
  LineList out;
  for (int i = 0; i < buffer.GetResultCount(); ++i) {
    int line = -1;
    const T* start = buffer.GetResult(i, line);
    out.emplace_back(line, start != nullptr ? static_cast<int>(start - buffer.GetBuffer()) : -1);
  }
  return out;
}

template <typename T>
void Fill(CBuffer<T>& buffer, const std::basic_string<T>& text) {
  buffer.Reset();
  buffer.Add(text.data(), static_cast<int>(text.size()));
}

template <typename T>
unsigned long SearchAll(CBuffer<T>& buffer, unsigned long flags, CSearchQuery<T>& query,
                        T delimiter, bool (*stop)(void*) = nullptr, void* stop_arg = nullptr) {
  return buffer.Search(buffer.GetBuffer(), buffer.length, flags, query, stop, stop_arg, delimiter);
}

// The scan with the routes that have set-up costs taken at any text length, with `set`'s kernels
// and (if not 0) stretches of `stretch` characters.
ScanTuning Forced(const KernelSet& set, std::uint32_t stretch = 0) {
  ScanTuning tuning;
  tuning.chars_per_set_up_call = 0;
  tuning.kernels = &set;
  tuning.stretch = stretch;
  return tuning;
}

bool NeverStop(void*) { return false; }
bool StopAtOnce(void*) { return true; }

// Counts the polls of the stop callback and answers true at poll `stop_at` (-1: never).
struct PollCounter {
  int polls = 0;
  int stop_at = -1;
  static bool Poll(void* arg) {
    auto* counter = static_cast<PollCounter*>(arg);
    return ++counter->polls == counter->stop_at;
  }
};

TEST(BufferSearchTest, WorkedExamples) {
  struct Row {
    std::string text;
    const char* term;
    bool caseless;
    unsigned long flags;
    char delimiter;
    LineList expected;
  };
  const Row rows[] = {
      {"abc\nabc abc\nzabc", "abc", false, 0, '\n', {{1, 0}, {2, 4}, {2, 4}, {3, 12}}},
      {"abc\nabc abc\nzabc", "abc", false, 2, '\n', {{1, 0}, {2, 4}, {2, 4}}},
      // Moves by the whole length behind an occurrence: no overlaps.
      {"aaaa", "aa", false, 0, '\n', {{1, 0}, {1, 0}}},
      {"aaa", "aa", false, 0, '\n', {{1, 0}}},
      // The last place matches at 0, the leading ones fail; b's shift 1 leads to the match at 1.
      {"aaabbz", "aabb", false, 0, '\n', {{1, 0}}},
      {std::string("abc\0abc\0\0zabc", 13), "abc", false, 0, '\0', {{1, 0}, {2, 4}, {4, 9}}},
      // Zero characters are text like any other under another delimiter.
      {std::string("abc\0abc", 7), "abc", false, 0, '\n', {{1, 0}, {1, 0}}},
      {"xABC abc aBc", "Abc", true, 1, '\n', {{1, 0}, {1, 0}, {1, 0}}},
      {"xABC abc aBc", "Abc", true, 3, '\n', {{1, 0}, {1, 0}}},
      {"xABC abc aBc", "Abc", true, 0, '\n', {}},  // Prepared caseless, searched exactly.
      {"abc", "abc", false, 2, '\n', {{1, 0}}},
      {"say abc", "abc", false, 2, '\n', {{1, 0}}},
      {"abc_abc", "abc", false, 2, '\n', {{1, 0}, {1, 0}}},
      {"abcx", "abc", false, 2, '\n', {}},
      {"xabc", "abc", false, 2, '\n', {}},
      {"\xE9" "abc\xFF", "abc", false, 2, '\n', {{1, 0}}},
      // A rejected word costs the same move as a recorded one: "abab" at 0 hides the one at 2.
      {"ababab ", "abab", false, 2, '\n', {}},
      // An occurrence that spans a delimiter belongs to the line where it begins.
      {"x\nab\ncd", "b\nc", false, 0, '\n', {{2, 2}}},
      {"ab ab", "ab", false, 0xFFFFFFF0ul, '\n', {{1, 0}, {1, 0}}},  // Other flag bits: ignored.
      // Line lengths end at CR, LF or zero whatever the delimiter (checked below).
      {"ab;cd\r\nef;ab", "ab", false, 0, ';', {{1, 0}, {3, 10}}},
  };
  CBuffer<char> buffer;
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "text \"" << row.text << "\" term " << row.term
                                    << " flags " << row.flags);
    CSearchQuery<char> query = Query(row.term, row.caseless);
    Fill(buffer, row.text);
    for (bool (*stop)(void*) : {static_cast<bool (*)(void*)>(nullptr), &NeverStop}) {
      EXPECT_EQ(row.expected.size(), SearchAll(buffer, row.flags, query, row.delimiter, stop));
      EXPECT_EQ(row.expected, Lines(buffer));
    }
  }
  EXPECT_EQ(5, buffer.GetResultLength(0));  // "ab;cd", cut at the CR.
  EXPECT_EQ(2, buffer.GetResultLength(1));  // Cut at the text's end.
  buffer = "abc\nabc abc\nzabc";
  CSearchQuery<char> query = Query("abc");
  ASSERT_EQ(4u, SearchAll(buffer, 0, query, '\n'));
  int line = 0;
  EXPECT_STREQ("abc abc\nzabc", buffer.GetResult(1, line));
  EXPECT_EQ(7, buffer.GetResultLength(1));
}

TEST(BufferSearchTest, ShortFormCountsZeroEndedLines) {
  CBuffer<char> buffer;
  CSearchQuery<char> query = Query("abc");
  buffer = "abc\nx abc";
  ASSERT_TRUE(buffer.ToLines());
  EXPECT_EQ(2u, buffer.Search(0, query));
  EXPECT_EQ((LineList{{1, 0}, {2, 4}}), Lines(buffer));
  buffer = "abc\nx abc";  // Not cut: a single line.
  EXPECT_EQ(2u, buffer.Search(0, query));
  EXPECT_EQ((LineList{{1, 0}, {1, 0}}), Lines(buffer));
}

TEST(BufferSearchTest, RefusedSearchesKeepTheResultsAndReadsOutsideTheTableGiveNothing) {
  CBuffer<wchar_t> buffer;
  buffer = L"ab\nab";
  CSearchQuery<wchar_t> query = Query(L"ab");
  CSearchQuery<wchar_t> empty = Query(L"");
  CSearchQuery<wchar_t> fresh;
  ASSERT_EQ(2u, buffer.Search(0, query));
  EXPECT_EQ(0u, buffer.Search(nullptr, 5, 0, query, nullptr, nullptr, L'\n'));
  for (int length : {0, -1}) {
    EXPECT_EQ(0u, buffer.Search(buffer.GetBuffer(), length, 0, query, nullptr, nullptr, L'\n'));
  }
  EXPECT_EQ(0u, SearchAll(buffer, 0, empty, L'\n'));
  EXPECT_EQ(0u, SearchAll(buffer, 0, fresh, L'\n'));
  CBuffer<wchar_t> blockless;
  EXPECT_EQ(0u, blockless.Search(0, query));
  EXPECT_EQ(0, blockless.GetResultCount());
  int line = 42;
  EXPECT_EQ(nullptr, blockless.GetResult(0, line));
  EXPECT_EQ(0, blockless.GetResultLength(0));
  ASSERT_EQ(2, buffer.GetResultCount());
  EXPECT_EQ(nullptr, buffer.GetResult(2, line));
  EXPECT_EQ(42, line);
  EXPECT_EQ(0, buffer.GetResultLength(2));
  // A negative index reads the table's zero default: offset 0, line 0.
  EXPECT_EQ(buffer.GetBuffer(), buffer.GetResult(-1, line));
  EXPECT_EQ(0, line);
  EXPECT_EQ(2, buffer.GetResultLength(-1));

  // A term longer than the text is no refusal: the table is emptied.
  CSearchQuery<wchar_t> longer = Query(L"ab ab ab");
  EXPECT_EQ(0u, buffer.Search(0, longer));
  EXPECT_EQ(0, buffer.GetResultCount());
  ASSERT_EQ(2u, buffer.Search(0, query));
  EXPECT_EQ(0u, SearchAll(buffer, 0, query, L'\n', &StopAtOnce));
  EXPECT_EQ(0, buffer.GetResultCount());
  CBuffer<char> stopped;
  stopped = "abc";
  CSearchQuery<char> narrow = Query("abc");
  EXPECT_EQ(0u, SearchAll(stopped, 0, narrow, '\n', &StopAtOnce));
  ASSERT_NE(nullptr, stopped.results) << "the table exists, empty";

  // Results of other memory have no line in this buffer.
  const std::string other = "far away\nthe term";
  CSearchQuery<char> term = Query("term");
  EXPECT_EQ(1u, stopped.Search(other.data(), static_cast<int>(other.size()), 0, term, nullptr,
                               nullptr, '\n'));
  line = 7;
  EXPECT_EQ(nullptr, stopped.GetResult(0, line));  // Offset 9 lies beyond this text.
  EXPECT_EQ(7, line);
  EXPECT_EQ(0, stopped.GetResultLength(0));
}

// The stop callback is asked once per alignment of the Horspool scan, before it is examined.
TEST(BufferSearchTest, StopIsPolledOncePerAlignment) {
  const struct { const char* text; int stop_at; unsigned long found; int polls; } kCases[] = {
      // Alignments: 0 (match, on by 3), 3 (" ab": b's shift 1), 4 (match).
      {"abc abc", 1, 0, 1}, {"abc abc", 2, 1, 2}, {"abc abc", 3, 1, 3}, {"abc abc", -1, 2, 3},
      // Alignments 0 and 3 end on z, which moves by the whole term: a plain scan would take 7.
      {"xyzxyzabc", -1, 1, 3},
  };
  CBuffer<char> buffer;
  CSearchQuery<char> query = Query("abc");
  for (const auto& row : kCases) {
    SCOPED_TRACE(testing::Message() << row.text << " stop at " << row.stop_at);
    buffer = row.text;
    PollCounter counter{0, row.stop_at};
    EXPECT_EQ(row.found, SearchAll(buffer, 0, query, '\n', &PollCounter::Poll, &counter));
    EXPECT_EQ(row.polls, counter.polls);
  }
}

// A table that moves the term too far (here edited by hand) is followed all the same: the scan
// is the defining one, not a plain search.
TEST(BufferSearchTest, UnsoundTableIsFollowedExactly) {
  CSearchQuery<char> query = Query("abc");
  query.shiftTable['a'] = 3;  // Sound would be 2.
  const std::string text = "xxabc";
  EXPECT_EQ(1u, search_test::NaiveSearch(text, std::string("abc"), 0, '\n').size());
  EXPECT_EQ(Results{}, Scan(text, query, 0, '\n'));
  CSearchQuery<char> caseless = Query("abc", true);
  caseless.shiftTable['a'] = 3;
  caseless.shiftTable['A'] = 3;
  const std::string mixed = "xXaBc";
  const ScanTuning eager = Forced(KVT::internal::WidestKernels());
  EXPECT_EQ(Results{}, Scan(mixed, caseless, 1, '\n'));
  EXPECT_EQ(Results{}, Scan(mixed, caseless, 1, '\n', eager));
  EXPECT_EQ((Results{Result(1, 0)}), Scan(mixed, Query("abc", true), 1, '\n', eager));
}

// Tens of thousands of results, across many growth steps of the table and doublings of the
// block behind it: on a fresh buffer, again on the filled one, after a smaller search and after a
// larger one, the table holds the reference's results, and its capacity keeps to steps of 1000.
TEST(BufferSearchTest, ManyResultsAcrossGrowthStepsMatchTheReference) {
  std::mt19937 rng(11);
  std::string text;
  while (text.size() < 150000) text += rng() % 3 == 0 ? "ab\n" : rng() % 2 ? "xab ab" : "q ";
  CSearchQuery<char> query = Query("ab");
  CBuffer<char> buffer;
  for (std::size_t size : {text.size(), text.size(), text.size() / 7, text.size()}) {
    SCOPED_TRACE(size);
    const std::string part = text.substr(0, size);
    const Results expected = search_test::NaiveSearch(part, std::string("ab"), 0, '\n');
    ASSERT_EQ(expected.size(), buffer.Search(part.data(), static_cast<int>(size), 0, query,
                                             nullptr, nullptr, '\n'));
    Results stored;
    for (int i = 0; i < buffer.results->count; ++i) stored.push_back((*buffer.results)[i]);
    ASSERT_EQ(expected, stored);
  }
  EXPECT_EQ((buffer.results->count / 1000 + 1) * 1000, buffer.results->capacity);
  EXPECT_GT(buffer.results->count, 40000);
}

// A file in the temporary folder, deleted when it goes.
class TempFile {
 public:
  explicit TempFile(const std::string& bytes) {
    wchar_t folder[MAX_PATH];
    ::GetTempPathW(MAX_PATH, folder);
    ::GetTempFileNameW(folder, L"tsr", 0, path_);
    ScopedHandle file(::CreateFileW(path_, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!bytes.empty()) {
      ::WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    }
  }
  ~TempFile() { ::DeleteFileW(path_); }
  ScopedHandle Open() const {
    return ScopedHandle(::CreateFileW(path_, GENERIC_READ, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  }
  // Searches the file, opened afresh and read from `offset` on.
  template <typename T>
  unsigned long Search(CBuffer<T>& buffer, CSearchQuery<T>& query, LONG offset = 0) const {
    ScopedHandle handle = Open();
    ::SetFilePointer(handle.Get(), offset, nullptr, FILE_BEGIN);
    return buffer.Search(handle.Get(), 0, query, nullptr, nullptr);
  }

 private:
  wchar_t path_[MAX_PATH] = {};
};

std::string WideBytes(const std::wstring& text) {
  return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
}

TEST(BufferSearchTest, FileFormReadsFromTheCurrentPositionAndFailuresKeepTheResults) {
  TempFile file("abc\r\nxabc\n");
  CBuffer<char> buffer;
  CSearchQuery<char> query = Query("abc");
  EXPECT_EQ(2u, file.Search(buffer, query));
  EXPECT_EQ(10, buffer.length);
  EXPECT_EQ((LineList{{1, 0}, {2, 5}}), Lines(buffer));
  EXPECT_EQ(3, buffer.GetResultLength(0));  // The CR stays in the text, cut off here.
  EXPECT_EQ('\r', buffer.GetBuffer()[3]);
  EXPECT_EQ(0, buffer.lines.count);
  EXPECT_EQ(1u, file.Search(buffer, query, 6));
  EXPECT_STREQ("abc\n", buffer.GetBuffer());  // The rest of the file.

  TempFile empty(""), tiny("ab");  // Tiny: fewer bytes than the term has characters.
  EXPECT_EQ(0u, empty.Search(buffer, query));
  EXPECT_EQ(0u, tiny.Search(buffer, query));
  EXPECT_EQ(0u, buffer.Search(INVALID_HANDLE_VALUE, 0, query, nullptr, nullptr));
  EXPECT_EQ(0u, buffer.Search(nullptr, 0, query, nullptr, nullptr));
  EXPECT_EQ(4, buffer.length);
  EXPECT_EQ(1, buffer.GetResultCount());
  CBuffer<char> blockless;
  EXPECT_EQ(0u, empty.Search(blockless, query));
  EXPECT_EQ(nullptr, blockless.GetBuffer()) << "an empty file allocates nothing";

  // The wide form counts bytes against the term's characters: one unit (2 bytes) is refused,
  // two units (4 bytes) are searched and empty the table.
  CSearchQuery<wchar_t> wide_query = Query(L"abc");
  CBuffer<wchar_t> wide;
  wide = L"abc";
  ASSERT_EQ(1u, wide.Search(0, wide_query));
  TempFile one_unit(WideBytes(L"a")), two_units(WideBytes(L"ab"));
  EXPECT_EQ(0u, one_unit.Search(wide, wide_query));
  EXPECT_EQ(1, wide.GetResultCount());
  EXPECT_EQ(0u, two_units.Search(wide, wide_query));
  EXPECT_EQ(0, wide.GetResultCount());
  // Units in machine order, lines at LF, an odd last byte dropped.
  TempFile text(WideBytes(L"\xFEFFx\nabc\nabc") + "!");
  EXPECT_EQ(2u, text.Search(wide, wide_query));
  EXPECT_EQ(10, wide.length);
  EXPECT_EQ((LineList{{2, 3}, {3, 7}}), Lines(wide));
  EXPECT_EQ(L'\xFEFF', wide.GetBuffer()[0]);
}

// The character tests beside the search, which the reference comparison below meets only for
// the characters of its alphabets.
TEST(BufferSearchTest, CharacterTests) {
  EXPECT_EQ(1, CBuffer<char>::CharEqual("a", "A", true));
  EXPECT_EQ(0, CBuffer<char>::CharEqual("a", "A", false));
  EXPECT_EQ(0, CBuffer<char>::CharEqual("\xE9", "\xC9", true));  // The C locale folds ASCII only.
  EXPECT_EQ(1, CBuffer<char>::CharEqual(L"x", L"X", true));
  EXPECT_EQ(0, CBuffer<char>::CharEqual(nullptr, "a", true));
  EXPECT_EQ(0, CBuffer<wchar_t>::CharEqual(L"x", static_cast<const wchar_t*>(nullptr), false));
  for (char ch : std::string(" \t\0-!\x7F\x80\xFF", 8)) {
    EXPECT_EQ(1, CBuffer<char>::IsWordDelimeter(ch)) << int(ch);
  }
  // The wide form asks iswalnum, which knows letters beyond ASCII.
  for (wchar_t ch : {L'\x2014', L'\xA0', L'7', L'\xE9', L'\x3C3'}) {
    EXPECT_EQ(ch == L'\x2014' || ch == L'\xA0', CBuffer<wchar_t>::IsWordDelimeter(ch)) << int(ch);
  }
  EXPECT_FALSE(CBuffer<char>::IsPrintable(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(CBuffer<char>::IsPrintable("a") && !CBuffer<char>::IsPrintable("\n"));
  EXPECT_TRUE(CBuffer<wchar_t>::IsPrintable(L"\x3C3"));
}

// The wide caseless route checks the text ahead of itself and gives way to the defining scan
// where its sets could be wrong or too slow: at a stretch dense with code units above 255, and at
// a code unit that the C runtime calls equal to a term character though the sets don't know it.
// Wine's runtime has no such unit for its sets, so the sets are made under the C locale, which
// folds ASCII alone, and used under one that also folds U+0100 with U+0101. Each text holds
// occurrences before and after the place where the route gives way.
TEST(BufferSearchTest, WideCaselessRouteGivesWayExactly) {
  namespace internal = KVT::internal;
  std::wstring lead;
  for (int i = 0; i < 1500; ++i) lead += i % 7 == 0 ? L"a \x101X\n" : L"a kyx ";
  std::wstring dense;
  for (int i = 0; i < 800; ++i) dense += L"\x4E00\x4E8C\x4E09\x101x";
  const std::wstring term = L"\x101x";
  internal::CaselessClassSets<wchar_t> stale;
  const CSearchQuery<wchar_t> c_query = Query(term.c_str(), true);
  ASSERT_TRUE(stale.Prepare(c_query.term, 2, c_query.shiftTable, c_query.tableSize));

  ASSERT_NE(nullptr, std::setlocale(LC_ALL, "English_United States.1252"));
  const CSearchQuery<wchar_t> query = Query(term.c_str(), true);
  const std::wstring texts[] = {lead + dense + lead, dense + lead, lead + L"\x100x " + lead,
                                lead + L"z\x100X " + lead};
  for (const std::wstring& text : texts) {
    const bool folded = text.find(L'\x100') != std::wstring::npos;
    for (unsigned long flags : {1ul, 3ul}) {
      const search_test::Results expected = search_test::NaiveSearch(text, term, flags, L'\n');
      for (const KernelSet* set : search_test::KernelSetsUnderTest()) {
        std::string why;
        if (!search_test::Runs(*set, &why)) continue;
        SCOPED_TRACE(testing::Message() << "text " << &text - texts << " flags " << flags
                                        << " " << set->name);
        search_test::Collect got;
        const auto n = static_cast<std::uint32_t>(text.size());
        EXPECT_EQ(expected.size(),
                  folded ? internal::ClassSetScan(text.data(), n, query, stale, flags & 2, L'\n',
                                                  got, Forced(*set))
                         : internal::ScanText(text.data(), static_cast<int>(n), query, flags,
                                              nullptr, nullptr, L'\n', got, Forced(*set)));
        EXPECT_EQ(expected, got.all);
      }
    }
  }
  std::setlocale(LC_ALL, "C");
}

// Each kernel set in turn, the emulated 64-byte one among them; a set this processor can't run is
// skipped, and the skip names it.
class SearchKernelSets : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    std::string why;
    if (!search_test::Runs(set(), &why)) GTEST_SKIP() << set().name << ": " << why;
  }
  static const KernelSet& set() { return *search_test::KernelSetsUnderTest()[GetParam()]; }
};

// The positions `find` must give: every position from `from` on where the forms hold, on by m
// behind each, up to `to`, at most `capacity`.
template <typename T>
std::vector<std::uint32_t> NaiveFind(const Needle<T>& needle, std::uint32_t from,
                                     std::uint32_t to, std::uint32_t capacity) {
  std::vector<std::uint32_t> out;
  for (std::uint32_t p = from; p <= to && out.size() < capacity;) {
    const T* at = needle.text + p;
    bool hit = true;
    for (std::uint32_t k = 0; k < needle.m; ++k) {
      hit = hit && (at[k] == needle.first[k] || at[k] == needle.second[k]);
    }
    if (hit) out.push_back(p);
    p += hit ? needle.m : 1;
  }
  return out;
}

// The kernels alone against references, on random texts placed 0 to 515 characters into their
// memory: `find` with random needles (filter places and members, one or two forms) over random
// ranges and capacities, with a census of the stretch or without, `count_lines` over random
// stretches and `lines_at` between random positions, `find_high` over wide text.
template <typename T>
void CompareKernels(const KernelSet& set, std::uint32_t seed, int cases) {
  const KVT::internal::ScanKernels<T>& kernels = KVT::internal::KernelsOf<T>(set);
  const std::basic_string<T> alphabet = search_test::AlphabetOf(T());
  std::mt19937 rng(seed);
  for (int c = 0; c < cases; ++c) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " case " << c);
    const std::basic_string<T> text = search_test::RandomText<T>(rng);
    const std::size_t pad = rng() % 516;
    const std::basic_string<T> memory = std::basic_string<T>(pad, T('J')) + text;
    const T* p = memory.data() + pad;
    const auto n = static_cast<std::uint32_t>(text.size());
    const std::uint32_t a = n > 0 ? rng() % n : 0;
    const std::uint32_t b = a + (n > a ? rng() % (n - a + 1) : 0);
    const T delimiter = alphabet[rng() % alphabet.size()];
    KVT::internal::LineCount lines{0, 0};
    for (std::uint32_t i = a; i < b; ++i) {
      if (p[i] == delimiter) lines = {lines.count + 1, i - a + 1};
    }
    const KVT::internal::LineCount got = kernels.count_lines(p + a, b - a, delimiter);
    ASSERT_EQ(lines.count, got.count) << "count_lines over " << a << " .. " << b;
    ASSERT_EQ(lines.behind_last, got.behind_last) << "count_lines over " << a << " .. " << b;
    {
      std::uint32_t positions[5];
      KVT::internal::LineCount gaps[5];
      const std::uint32_t stops = rng() % 6;
      for (std::uint32_t i = 0; i < stops; ++i) {
        const std::uint32_t previous = i == 0 ? a : positions[i - 1];
        positions[i] = previous + rng() % (b - previous + 1);
      }
      kernels.lines_at(p, a, positions, stops, delimiter, gaps);
      for (std::uint32_t i = 0; i < stops; ++i) {
        KVT::internal::LineCount gap{0, 0};
        for (std::uint32_t j = i == 0 ? a : positions[i - 1]; j < positions[i]; ++j) {
          if (p[j] == delimiter) gap = {gap.count + 1, j + 1};
        }
        ASSERT_EQ(gap.count, gaps[i].count) << "lines_at, gap " << i;
        ASSERT_EQ(gap.behind_last, gaps[i].behind_last) << "lines_at, gap " << i;
      }
    }
    if constexpr (sizeof(T) == 2) {
      std::uint32_t high = a;
      while (high < b && p[high] < 256) ++high;
      ASSERT_EQ(high - a, set.find_high(p + a, b - a));
    }
    if (n == 0) continue;

    // Forms mostly from the text, so that occurrences are common; a second form that differs
    // in some places; filter places anywhere, their members from the forms.
    const std::uint32_t m = 1 + rng() % std::min<std::uint32_t>(n, 70);
    std::basic_string<T> first(std::max<std::uint32_t>(m, Needle<T>::kNeedlePad), T());
    std::basic_string<T> second = first;
    const std::uint32_t at = rng() % (n - m + 1);
    for (std::uint32_t k = 0; k < m; ++k) {
      first[k] = rng() % 8 ? p[at + k] : alphabet[rng() % alphabet.size()];
      second[k] = rng() % 3 ? first[k] : alphabet[rng() % alphabet.size()];
    }
    Needle<T> needle{};
    needle.text = p;
    needle.n = n;
    needle.m = m;
    needle.members = 1 + rng() % 2;
    needle.places = needle.members == 1 ? 3 : 2 + rng() % 2;
    if (needle.members == 1) second = first;
    for (int i = 0; i < 3; ++i) {
      needle.place[i] = rng() % m;
      needle.member[i][0] = first[needle.place[i]];
      needle.member[i][1] = second[needle.place[i]];
    }
    needle.first = first.data();
    needle.second = second.data();
    const std::uint32_t from = rng() % (n - m + 1);
    const std::uint32_t to = from + rng() % (n - m + 1 - from);
    const std::uint32_t capacities[] = {1, 2, 3, 64};
    const std::uint32_t capacity = capacities[rng() % 4];
    std::uint32_t out[64];
    const bool census_asked = rng() % 2 == 0;
    KVT::internal::Census<T> census{delimiter, rng() % 2 == 0, ~0u, true};
    const std::uint32_t count = kernels.find(needle, from, to, out, capacity,
                                             census_asked ? &census : nullptr);
    ASSERT_EQ(NaiveFind(needle, from, to, capacity), std::vector<std::uint32_t>(out, out + count))
        << "find, m " << m << " from " << from << " to " << to << " capacity " << capacity
        << " members " << needle.members << " places " << needle.places;
    if (!census_asked || count == capacity) {
      ASSERT_EQ(~0u, census.delimiters) << "a census nobody can use is left alone";
      continue;
    }
    ASSERT_EQ(static_cast<std::uint32_t>(std::count(p + from, p + to + 1, delimiter)),
              census.delimiters)
        << "find's count of delimiters from " << from << " to " << to;
    if (sizeof(T) == 2 && census.look_for_high) {
      ASSERT_EQ(std::any_of(p + from, p + to + 1, [](T ch) { return ch > 255; }), census.high);
    }
  }
}

TEST_P(SearchKernelSets, KernelsMatchTheReference) {
  CompareKernels<char>(set(), 5, 3000);
  CompareKernels<wchar_t>(set(), 6, 3000);
}

// Search against the plain reference for random texts and terms, every flag combination with
// either line delimiter, the scan run with this set's kernels: each text between random padding
// that may hold the term too, in stretches of random lengths (or the scan's own, which texts of
// several of them cross now and then), by the fast routes and with a stop callback that never
// stops (which keeps to the scan's own alignments). With the widest set the buffer's own search
// runs too (zero as the delimiter through the short form), each result read back through
// GetResult and GetResultLength.
template <typename T>
void CompareWithReference(const KernelSet& set, std::uint32_t seed, int texts) {
  std::mt19937 rng(seed);
  const std::basic_string<T> alphabet = search_test::AlphabetOf(T());
  const bool widest = &set == &KVT::internal::WidestKernels();
  CBuffer<T> buffer;
  std::size_t cases = 0, occurrences = 0;
  for (int round = 0; round < texts; ++round) {
    std::basic_string<T> text = search_test::RandomText<T>(rng);
    if (rng() % 40 == 0) {
      while (text.size() < 40000) text += search_test::RandomText<T>(rng);
    }
    const std::basic_string<T> term = search_test::RandomTerm(rng, text);
    std::basic_string<T> memory;
    for (std::size_t i = rng() % 516; i > 0; --i)
      memory += rng() % 4 ? alphabet[rng() % 4] : T('\n');
    const std::size_t pad = memory.size();
    memory += text + (rng() % 2 ? term : std::basic_string<T>());
    for (std::size_t i = rng() % 516; i > 0; --i) memory += alphabet[rng() % alphabet.size()];
    const std::uint32_t stretch = rng() % 4 == 0 ? 0 : 1 + rng() % 200;
    const bool prepared_caseless = rng() % 2 == 0;
    const int n = static_cast<int>(text.size());
    if (widest && n > 0) Fill(buffer, text);
    for (unsigned long flags = 0; flags < 4; ++flags) {
      CSearchQuery<T> query = Query(term.c_str(), prepared_caseless || (flags & 1) != 0);
      for (T delimiter : {static_cast<T>('\n'), static_cast<T>(0)}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " round " << round << " flags "
                                        << flags << " delimiter " << int(delimiter) << " stretch "
                                        << stretch);
        const Results expected = search_test::NaiveSearch(text, term, flags, delimiter);
        ++cases;
        occurrences += expected.size();
        ASSERT_EQ(expected, Scan(memory.data() + pad, text.size(), query, flags, delimiter,
                                 Forced(set, stretch)));
        search_test::Collect polled;
        KVT::internal::ScanText(memory.data() + pad, n, query, flags, &NeverStop, nullptr,
                                       delimiter, polled, Forced(set));
        ASSERT_EQ(expected, polled.all) << "with a stop callback";
        if (!widest || n == 0) continue;  // An empty text is refused by every form.
        const unsigned long found = delimiter == 0 ? buffer.Search(flags, query)
                                                   : SearchAll(buffer, flags, query, delimiter);
        ASSERT_EQ(expected.size(), found);
        ASSERT_EQ(static_cast<int>(expected.size()), buffer.GetResultCount());
        for (int i = 0; i < buffer.GetResultCount(); ++i) {
          int line = 0;
          const T* start = buffer.GetResult(i, line);
          ASSERT_NE(nullptr, start);
          const int offset = static_cast<int>(start - buffer.GetBuffer());
          ASSERT_EQ(expected[i], Result(static_cast<std::uint32_t>(line),
                                        static_cast<std::uint32_t>(offset)));
          int end = offset;
          while (end < n && text[end] != '\n' && text[end] != '\r' && text[end] != 0) ++end;
          ASSERT_EQ(end - offset, buffer.GetResultLength(i));
        }
      }
    }
  }
  EXPECT_GT(occurrences, cases / 2) << "the texts hold few matches";
}

TEST_P(SearchKernelSets, MatchesTheReference) {
  CompareWithReference<char>(set(), 7, 300);
  CompareWithReference<wchar_t>(set(), 8, 300);
}

// The same under a locale that folds beyond ASCII (0xE9 and 0xC9, U+0100 and U+0101).
TEST_P(SearchKernelSets, MatchesTheReferenceUnderAFoldingLocale) {
  ASSERT_NE(nullptr, std::setlocale(LC_ALL, "English_United States.1252"));
  EXPECT_EQ(1, CBuffer<char>::CharEqual("\xE9", "\xC9", true));
  CompareWithReference<char>(set(), 3, 100);
  CompareWithReference<wchar_t>(set(), 4, 100);
  std::setlocale(LC_ALL, "C");
}

// Occurrences at every offset around a stretch boundary, with a line feed on the boundary and
// word characters or delimiters beside them, in stretches of a few characters; then, in the
// scan's own stretches, around the end of a first long one that holds many results (which the
// kernel counts lines in) and of the short one after it (where the lines are counted behind it).
template <typename T>
void CheckStretchBoundaries(const KernelSet& set) {
  const std::basic_string<T> terms[] = {search_test::Widen<T>("ab"),
                                        search_test::Widen<T>("abcab"),
                                        std::basic_string<T>(40, T('a')) + T('b')};
  auto check = [&](const std::basic_string<T>& text, const std::basic_string<T>& term,
                   std::uint32_t stretch) {
    for (unsigned long flags = 0; flags < 4; ++flags) {
      SCOPED_TRACE(testing::Message() << "stretch " << stretch << " m " << term.size()
                                      << " flags " << flags);
      ASSERT_EQ(search_test::NaiveSearch(text, term, flags, T('\n')),
                Scan(text, Query(term.c_str(), true), flags, T('\n'), Forced(set, stretch)));
    }
  };
  // Puts `term` ending d - 1 characters past `boundary`, a line feed on it, and a word character
  // or a delimiter on either side of the term.
  auto place = [](std::basic_string<T>& text, const std::basic_string<T>& term,
                  std::uint32_t boundary, std::uint32_t d) {
    const auto m = static_cast<std::uint32_t>(term.size());
    const std::uint32_t at = boundary + d - m - 1;
    text.replace(at, m, term);
    text[boundary] = T('\n');
    text[at - 1] = d % 2 ? T(' ') : T('y');
    if (at + m < text.size()) text[at + m] = d % 3 ? T('.') : T('z');
  };
  for (std::uint32_t s : {5u, 64u}) {
    for (const std::basic_string<T>& term : terms) {
      const auto m = static_cast<std::uint32_t>(term.size());
      const std::uint32_t boundary = s * ((m + 1 + s) / s);  // A stretch's end past m + 1.
      for (std::uint32_t d = 0; d <= 2 * m + 2; ++d) {
        std::basic_string<T> text(2 * boundary + s + m + 2, T('x'));
        place(text, term, boundary, d);
        text.replace(2 * boundary - m / 2, m, term);
        check(text, term, s);
        if (::testing::Test::HasFatalFailure()) return;
      }
    }
  }
  const std::uint32_t census = KVT::internal::kCensusStretchBytes / sizeof(T);
  const std::uint32_t cached = KVT::internal::kCachedStretchBytes / sizeof(T);
  for (const std::basic_string<T>& term : {terms[0], terms[1]}) {
    const auto m = static_cast<std::uint32_t>(term.size());
    for (std::uint32_t d : {0u, 1u, m, m + 1, 2 * m + 2}) {
      std::basic_string<T> text;
      while (text.size() < census + cached) text += T('q') + term + T(' ');
      text.resize(census + 2 * cached, T('x'));
      place(text, term, census, d);
      place(text, term, census + cached, d);
      check(text, term, 0);
      if (::testing::Test::HasFatalFailure()) return;
    }
  }
}

TEST_P(SearchKernelSets, StretchBoundaries) {
  CheckStretchBoundaries<char>(set());
  CheckStretchBoundaries<wchar_t>(set());
}

// Line counts across long stretches: the lane counters are summed every 255 steps (narrow) and
// 32767 steps (wide) of four vectors; text made of delimiters alone fills every lane. Long terms
// compare in many vectors.
TEST_P(SearchKernelSets, LongStretchesAndLongTerms) {
  const ScanTuning tuning = Forced(set());
  std::string narrow;
  for (int i = 0; i < 5000; ++i) narrow += "ab\n";
  narrow += "needle\nneedle";
  EXPECT_EQ((Results{Result(5001, 15000), Result(5002, 15007)}),
            Scan(narrow, Query("needle"), 0, '\n', tuning));
  const std::string narrow_full = std::string(100000, '\n') + "pin";
  EXPECT_EQ((Results{Result(100001, 100000)}), Scan(narrow_full, Query("pin"), 0, '\n', tuning));
  EXPECT_EQ(100000u, set().narrow.count_lines(narrow_full.data(), 100000, '\n').count);
  const std::wstring wide_full = std::wstring(2200000, L'\n') + L"pin";
  EXPECT_EQ(2200000u, set().wide.count_lines(wide_full.data(), 2200000, L'\n').count);
  EXPECT_EQ((Results{Result(1, 0)}), Scan(std::string(70000, 'q') + "pin", Query("pin"), 0,
                                          '\0', tuning));
  // More occurrences than the kernels hand over at once, each overlapping the next one.
  std::string runs;
  for (int i = 0; i < 40; ++i) runs += "aaAaaaa\n";
  for (unsigned long flags : {0ul, 1ul}) {
    EXPECT_EQ(search_test::NaiveSearch(runs, std::string("aa"), flags, '\n'),
              Scan(runs, Query("aa", flags != 0), flags, '\n', tuning));
  }
  std::string term(70000, 'a');
  term[0] = 'c';
  term.back() = 'b';
  const std::string text = std::string(100, 'a') + term + "x" + term;
  EXPECT_EQ((Results{Result(1, 0), Result(1, 0)}), Scan(text, Query(term.c_str()), 0, '\n',
                                                        tuning));
}

INSTANTIATE_TEST_SUITE_P(, SearchKernelSets,
                         testing::Range(0, static_cast<int>(
                                               search_test::KernelSetsUnderTest().size())),
                         [](const testing::TestParamInfo<int>& info) {
                           std::string name = search_test::KernelSetsUnderTest()[info.param]->name;
                           for (char& ch : name) {
                             if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           }
                           return name;
                         });

}  // namespace
