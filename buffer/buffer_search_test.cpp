#include "buffer/buffer.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "buffer/search_query.h"
#include "buffer/search_scan_internal.h"
#include "buffer/search_test_util.h"
#include "foundation/scoped_handle.h"
#include "foundation/win.h"

namespace {

using KVT::CBuffer;
using KVT::CSearchQuery;
using KVT::ScopedHandle;

template <typename T>
CSearchQuery<T> Query(const T* term, bool caseless = false) {
  CSearchQuery<T> query;
  query.SetTerm(term, 0, caseless);
  return query;
}

// Line number and offset of every result, read back through GetResult.
template <typename T>
std::vector<std::pair<int, int>> Lines(CBuffer<T>& buffer) {
  std::vector<std::pair<int, int>> out;
  for (int i = 0; i < buffer.GetResultCount(); ++i) {
    int line = -1;
    const T* start = buffer.GetResult(i, line);
    out.emplace_back(line, start != nullptr ? static_cast<int>(start - buffer.GetBuffer()) : -1);
  }
  return out;
}

using LineList = std::vector<std::pair<int, int>>;

// The raw values in the result table.
template <typename T>
search_test::Results StoredResults(const CBuffer<T>& buffer) {
  search_test::Results out;
  for (int i = 0; buffer.results != nullptr && i < buffer.results->count; ++i) {
    out.push_back((*buffer.results)[i]);
  }
  return out;
}

bool NeverStop(void*) { return false; }

// The scan's routes with set-up costs taken at any text length; with AVX2 or with SSE2 only.
constexpr KVT::search_internal::ScanTuning kEager{0, true};
constexpr KVT::search_internal::ScanTuning kEagerSse2{0, false};

template <typename T>
void Fill(CBuffer<T>& buffer, const std::basic_string<T>& text) {
  buffer.Reset();
  buffer.Add(text.data(), static_cast<int>(text.size()));
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

 private:
  wchar_t path_[MAX_PATH] = {};
};

std::string WideBytes(const std::wstring& text) {
  return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
}

TEST(BufferSearchTest, LongFormRecordsLinesOfOccurrences) {
  CBuffer<char> buffer;
  buffer = "abc\nabc abc\nzabc";
  CSearchQuery<char> query = Query("abc");
  EXPECT_EQ(4u, buffer.Search(buffer.GetBuffer(), 16, 0, query, nullptr, nullptr, '\n'));
  EXPECT_EQ((LineList{{1, 0}, {2, 4}, {2, 4}, {3, 12}}), Lines(buffer));
  int line = 0;
  EXPECT_STREQ("abc abc\nzabc", buffer.GetResult(1, line));
  EXPECT_EQ(2, line);
  EXPECT_EQ(7, buffer.GetResultLength(1));
  EXPECT_EQ(4, buffer.GetResultLength(3));

  EXPECT_EQ(3u, buffer.Search(buffer.GetBuffer(), 16, 2, query, nullptr, nullptr, '\n'));
  EXPECT_EQ(3, buffer.GetResultCount());
}

TEST(BufferSearchTest, ShortFormCountsZeroEndedLines) {
  CBuffer<char> buffer;
  Fill(buffer, std::string("abc\0abc\0\0zabc", 13));
  CSearchQuery<char> query = Query("abc");
  EXPECT_EQ(3u, buffer.Search(0, query));
  EXPECT_EQ((LineList{{1, 0}, {2, 4}, {4, 9}}), Lines(buffer));

  // Cut by ToLines the same way; uncut text is a single line.
  buffer = "abc\nx abc";
  ASSERT_TRUE(buffer.ToLines());
  EXPECT_EQ(2u, buffer.Search(0, query));
  EXPECT_EQ((LineList{{1, 0}, {2, 4}}), Lines(buffer));
  buffer = "abc\nx abc";
  EXPECT_EQ(2u, buffer.Search(0, query));
  EXPECT_EQ((LineList{{1, 0}, {1, 0}}), Lines(buffer));
}

TEST(BufferSearchTest, RefusedSearchesKeepTheResults) {
  CBuffer<wchar_t> buffer;
  buffer = L"ab ab";
  CSearchQuery<wchar_t> query = Query(L"ab");
  CSearchQuery<wchar_t> empty = Query(L"");
  ASSERT_EQ(2u, buffer.Search(0, query));

  EXPECT_EQ(0u, buffer.Search(nullptr, 5, 0, query, nullptr, nullptr, L'\n'));
  EXPECT_EQ(0u, buffer.Search(buffer.GetBuffer(), 0, 0, query, nullptr, nullptr, L'\n'));
  EXPECT_EQ(0u, buffer.Search(buffer.GetBuffer(), -1, 0, query, nullptr, nullptr, L'\n'));
  EXPECT_EQ(0u, buffer.Search(buffer.GetBuffer(), 5, 0, empty, nullptr, nullptr, L'\n'));
  CBuffer<wchar_t> blockless;
  EXPECT_EQ(0u, blockless.Search(0, query));
  EXPECT_EQ(0, blockless.GetResultCount());
  EXPECT_EQ(2, buffer.GetResultCount());

  // A term longer than the text is no refusal: the table is emptied.
  CSearchQuery<wchar_t> longer = Query(L"ab ab ab");
  EXPECT_EQ(0u, buffer.Search(0, longer));
  EXPECT_EQ(0, buffer.GetResultCount());
}

bool StopAtOnce(void*) { return true; }

TEST(BufferSearchTest, StopAtTheFirstPollLeavesAnEmptyTable) {
  CBuffer<char> buffer;
  buffer = "abc abc";
  CSearchQuery<char> query = Query("abc");
  ASSERT_EQ(2u, buffer.Search(0, query));
  EXPECT_EQ(0u, buffer.Search(buffer.GetBuffer(), 7, 0, query, &StopAtOnce, nullptr, ' '));
  EXPECT_EQ(0, buffer.GetResultCount());

  CBuffer<char> fresh;
  fresh = "abc";
  EXPECT_EQ(0u, fresh.Search(fresh.GetBuffer(), 3, 0, query, &StopAtOnce, nullptr, '\n'));
  ASSERT_NE(nullptr, fresh.results);
  EXPECT_EQ(0, fresh.GetResultCount());
}

TEST(BufferSearchTest, ResultReadsOutsideTheTable) {
  CBuffer<char> buffer;
  buffer = "one\ntwo one";
  int line = 42;
  EXPECT_EQ(nullptr, buffer.GetResult(0, line));
  EXPECT_EQ(42, line);
  EXPECT_EQ(0, buffer.GetResultLength(0));
  EXPECT_EQ(0, buffer.GetResultCount());

  CSearchQuery<char> query = Query("one");
  ASSERT_EQ(2u, buffer.Search(buffer.GetBuffer(), 11, 0, query, nullptr, nullptr, '\n'));
  EXPECT_EQ(nullptr, buffer.GetResult(2, line));
  EXPECT_EQ(42, line);
  EXPECT_EQ(0, buffer.GetResultLength(2));
  // A negative index reads the table's zero default: offset 0, line 0.
  EXPECT_EQ(buffer.GetBuffer(), buffer.GetResult(-1, line));
  EXPECT_EQ(0, line);
  EXPECT_EQ(3, buffer.GetResultLength(-1));
}

TEST(BufferSearchTest, LineLengthStopsAtLineEndsWhateverTheDelimiter) {
  CBuffer<char> buffer;
  buffer = "ab;cd\r\nef;ab";
  CSearchQuery<char> query = Query("ab");
  ASSERT_EQ(2u, buffer.Search(buffer.GetBuffer(), 12, 0, query, nullptr, nullptr, ';'));
  EXPECT_EQ((LineList{{1, 0}, {3, 10}}), Lines(buffer));
  EXPECT_EQ(5, buffer.GetResultLength(0));  // "ab;cd", cut at the CR.
  EXPECT_EQ(2, buffer.GetResultLength(1));  // Cut at the text's end.
}

TEST(BufferSearchTest, ForeignMemoryResultsHaveNoLineHere) {
  CBuffer<char> buffer;
  buffer = "x";
  const std::string other = "far away\nthe term";
  CSearchQuery<char> query = Query("term");
  EXPECT_EQ(1u, buffer.Search(other.data(), static_cast<int>(other.size()), 0, query, nullptr,
                              nullptr, '\n'));
  EXPECT_EQ(1, buffer.GetResultCount());
  int line = 7;
  EXPECT_EQ(nullptr, buffer.GetResult(0, line));  // Offset 9 lies beyond this text.
  EXPECT_EQ(7, line);
  EXPECT_EQ(0, buffer.GetResultLength(0));
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
    const search_test::Results expected =
        search_test::NaiveSearch(part, std::string("ab"), 0, '\n');
    ASSERT_EQ(expected.size(), buffer.Search(part.data(), static_cast<int>(size), 0, query,
                                             nullptr, nullptr, '\n'));
    ASSERT_EQ(expected, StoredResults(buffer));
  }
  EXPECT_EQ((buffer.results->count / 1000 + 1) * 1000, buffer.results->capacity);
  EXPECT_GT(buffer.results->count, 40000);
}

TEST(BufferSearchTest, FileFormReadsFromTheCurrentPosition) {
  TempFile file("abc\r\nxabc\n");
  CBuffer<char> buffer;
  CSearchQuery<char> query = Query("abc");
  {
    ScopedHandle handle = file.Open();
    EXPECT_EQ(2u, buffer.Search(handle.Get(), 0, query, nullptr, nullptr));
  }
  EXPECT_EQ(10, buffer.length);
  EXPECT_EQ((LineList{{1, 0}, {2, 5}}), Lines(buffer));
  EXPECT_EQ(3, buffer.GetResultLength(0));  // The CR stays in the text, cut off here.
  EXPECT_EQ('\r', buffer.GetBuffer()[3]);
  EXPECT_EQ(0, buffer.lines.count);

  ScopedHandle handle = file.Open();
  ::SetFilePointer(handle.Get(), 6, nullptr, FILE_BEGIN);
  EXPECT_EQ(1u, buffer.Search(handle.Get(), 0, query, nullptr, nullptr));
  EXPECT_EQ(4, buffer.length);  // "abc\n": the rest of the file.
  EXPECT_STREQ("abc\n", buffer.GetBuffer());
}

TEST(BufferSearchTest, FileFormFailuresKeepLengthAndResults) {
  CBuffer<char> buffer;
  buffer = "abc abc";
  CSearchQuery<char> query = Query("abc");
  ASSERT_EQ(2u, buffer.Search(0, query));

  TempFile empty("");
  {
    ScopedHandle handle = empty.Open();
    EXPECT_EQ(0u, buffer.Search(handle.Get(), 0, query, nullptr, nullptr));
  }
  TempFile tiny("ab");  // Fewer bytes than the term has characters.
  {
    ScopedHandle handle = tiny.Open();
    EXPECT_EQ(0u, buffer.Search(handle.Get(), 0, query, nullptr, nullptr));
  }
  EXPECT_EQ(0u, buffer.Search(INVALID_HANDLE_VALUE, 0, query, nullptr, nullptr));
  EXPECT_EQ(0u, buffer.Search(nullptr, 0, query, nullptr, nullptr));
  EXPECT_EQ(7, buffer.length);
  EXPECT_EQ(2, buffer.GetResultCount());

  // An empty file in a buffer without a block allocates nothing.
  CBuffer<char> blockless;
  ScopedHandle handle = empty.Open();
  EXPECT_EQ(0u, blockless.Search(handle.Get(), 0, query, nullptr, nullptr));
  EXPECT_EQ(nullptr, blockless.GetBuffer());
}

TEST(BufferSearchTest, WideFileFormCountsBytesAgainstTheTerm) {
  CSearchQuery<wchar_t> query = Query(L"abc");
  CBuffer<wchar_t> buffer;
  buffer = L"abc";
  ASSERT_EQ(1u, buffer.Search(0, query));

  // Two bytes, one unit: fewer bytes than the term's three characters, refused.
  TempFile one_unit(WideBytes(L"a"));
  {
    ScopedHandle handle = one_unit.Open();
    EXPECT_EQ(0u, buffer.Search(handle.Get(), 0, query, nullptr, nullptr));
    EXPECT_EQ(1, buffer.GetResultCount());
  }
  // Four bytes pass that test though they hold two units: searched, and the table emptied.
  TempFile two_units(WideBytes(L"ab"));
  {
    ScopedHandle handle = two_units.Open();
    EXPECT_EQ(0u, buffer.Search(handle.Get(), 0, query, nullptr, nullptr));
    EXPECT_EQ(0, buffer.GetResultCount());
    EXPECT_EQ(2, buffer.length);
  }
  // Units in machine order, lines at LF, an odd last byte dropped.
  TempFile text(WideBytes(L"\xFEFFx\nabc\nabc") + "!");
  ScopedHandle handle = text.Open();
  EXPECT_EQ(2u, buffer.Search(handle.Get(), 0, query, nullptr, nullptr));
  EXPECT_EQ(10, buffer.length);
  EXPECT_EQ((LineList{{2, 3}, {3, 7}}), Lines(buffer));
  EXPECT_EQ(L'\xFEFF', buffer.GetBuffer()[0]);
}

TEST(BufferSearchTest, CharacterTests) {
  struct EqualRow {
    const char* a;
    const char* b;
    bool caseless;
    int expected;
  };
  const EqualRow rows[] = {
      {"a", "a", false, 1}, {"a", "A", false, 0}, {"a", "A", true, 1},
      {"a", "b", true, 0},  {nullptr, "a", true, 0}, {"a", nullptr, false, 0},
      // The C locale folds ASCII only.
      {"\xE9", "\xC9", true, 0},
  };
  for (const EqualRow& row : rows) {
    SCOPED_TRACE(testing::Message() << (row.a ? row.a : "null") << " / "
                                    << (row.b ? row.b : "null") << " " << row.caseless);
    EXPECT_EQ(row.expected, CBuffer<char>::CharEqual(row.a, row.b, row.caseless));
  }
  EXPECT_EQ(1, CBuffer<char>::CharEqual(L"x", L"X", true));
  EXPECT_EQ(0, CBuffer<wchar_t>::CharEqual(L"x", L"X", false));
  EXPECT_EQ(0, CBuffer<wchar_t>::CharEqual(static_cast<const wchar_t*>(nullptr), L"X", true));

  const std::pair<char, int> narrow[] = {
      {' ', 1}, {'\t', 1}, {'\0', 1}, {'_', 1}, {'-', 1}, {'!', 1}, {'a', 0}, {'Z', 0},
      {'7', 0}, {'\x7F', 1}, {'\x80', 1}, {'\xE9', 1}, {'\xFF', 1},
  };
  for (const auto& row : narrow) {
    SCOPED_TRACE(static_cast<int>(static_cast<unsigned char>(row.first)));
    EXPECT_EQ(row.second, CBuffer<char>::IsWordDelimeter(row.first));
  }
  // The wide form asks iswalnum, which knows letters beyond ASCII.
  const std::pair<wchar_t, int> wide[] = {
      {L' ', 1}, {L'_', 1}, {L'a', 0}, {L'\xE9', 0}, {L'\x3C3', 0}, {L'\x2014', 1}, {L'\xA0', 1},
  };
  for (const auto& row : wide) {
    SCOPED_TRACE(static_cast<int>(row.first));
    EXPECT_EQ(row.second, CBuffer<wchar_t>::IsWordDelimeter(row.first));
  }

  EXPECT_FALSE(CBuffer<char>::IsPrintable(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(CBuffer<char>::IsPrintable("a"));
  EXPECT_FALSE(CBuffer<char>::IsPrintable("\n"));
  EXPECT_TRUE(CBuffer<wchar_t>::IsPrintable(L"\x3C3"));
  EXPECT_FALSE(CBuffer<wchar_t>::IsPrintable(static_cast<const wchar_t*>(nullptr)));
}

// Search against the plain reference for random texts and terms: every flag combination, both
// line delimiters (zero through the short form), with a stop callback that never stops (which
// keeps to the scan's own alignments) and without one (which takes the fast routes). Each result
// is read back through GetResult and GetResultLength. The scan's routes with set-up costs are
// also taken at any text length, with AVX2 where the processor has it or with SSE2 alone, by
// turns (the wide caseless set-up asks the C runtime hundreds of times, slowly under Wine).
// Counts the cases run in `cases` (void, for the ASSERTs).
template <typename T>
void CompareWithReference(std::uint32_t seed, int texts, int* cases) {
  namespace internal = KVT::search_internal;
  std::mt19937 rng(seed);
  CBuffer<T> buffer;
  *cases = 0;
  std::size_t occurrences = 0;
  for (int round = 0; round < texts; ++round) {
    const std::basic_string<T> text = search_test::RandomText<T>(rng);
    const std::basic_string<T> term = search_test::RandomTerm(rng, text);
    if (text.empty()) continue;  // Refused by every form; see RefusedSearchesKeepTheResults.
    Fill(buffer, text);
    const int n = static_cast<int>(text.size());
    const bool prepared_caseless = rng() % 2 == 0;
    for (unsigned long flags = 0; flags < 4; ++flags) {
      CSearchQuery<T> query = Query(term.c_str(), prepared_caseless || (flags & 1) != 0);
      for (T delimiter : {static_cast<T>('\n'), static_cast<T>(0)}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " round " << round << " flags "
                                        << flags << " delimiter " << int(delimiter));
        const search_test::Results expected =
            search_test::NaiveSearch(text, term, flags, delimiter);
        ++*cases;
        occurrences += expected.size();

        const unsigned long found =
            delimiter == 0 ? buffer.Search(flags, query)
                           : buffer.Search(buffer.GetBuffer(), n, flags, query, nullptr, nullptr,
                                           delimiter);
        ASSERT_EQ(expected.size(), found);
        ASSERT_EQ(static_cast<int>(expected.size()), buffer.GetResultCount());
        for (int i = 0; i < buffer.GetResultCount(); ++i) {
          int line = 0;
          const T* start = buffer.GetResult(i, line);
          ASSERT_NE(nullptr, start);
          const int offset = static_cast<int>(start - buffer.GetBuffer());
          ASSERT_EQ(expected[i], search_test::Result(static_cast<std::uint32_t>(line),
                                                     static_cast<std::uint32_t>(offset)));
          int end = offset;
          while (end < n && text[end] != '\n' && text[end] != '\r' && text[end] != 0) ++end;
          ASSERT_EQ(end - offset, buffer.GetResultLength(i));
        }

        ASSERT_EQ(expected.size(), buffer.Search(buffer.GetBuffer(), n, flags, query, &NeverStop,
                                                 nullptr, delimiter));
        ASSERT_EQ(expected, StoredResults(buffer));

        const internal::ScanTuning& tuning = (round + delimiter) % 2 == 0 ? kEager : kEagerSse2;
        search_test::Results routed;
        auto sink = [&routed](std::uint64_t result) { routed.push_back(result); };
        internal::ScanText(text.data(), n, query, flags, nullptr, nullptr, delimiter, sink, tuning);
        ASSERT_EQ(expected, routed) << (tuning.allow_avx2 ? "avx2 allowed" : "sse2");
      }
    }
  }
  EXPECT_GT(occurrences, static_cast<std::size_t>(*cases) / 2)
      << "the texts should hold many matches";
}

TEST(BufferSearchTest, NarrowMatchesReference) {
  int cases = 0;
  CompareWithReference<char>(1, 1400, &cases);
  EXPECT_GE(cases, 10000);
}
TEST(BufferSearchTest, WideMatchesReference) {
  int cases = 0;
  CompareWithReference<wchar_t>(2, 1400, &cases);
  EXPECT_GE(cases, 10000);
}

// The same under a locale that folds beyond ASCII (0xE9 and 0xC9, U+0100 and U+0101).
class LocaleScope {
 public:
  explicit LocaleScope(const char* name) : ok_(std::setlocale(LC_ALL, name) != nullptr) {}
  ~LocaleScope() { std::setlocale(LC_ALL, "C"); }
  bool ok() const { return ok_; }

 private:
  bool ok_;
};

TEST(BufferSearchTest, MatchesReferenceUnderAFoldingLocale) {
  LocaleScope locale("English_United States.1252");
  ASSERT_TRUE(locale.ok());
  ASSERT_EQ(1, CBuffer<char>::CharEqual("\xE9", "\xC9", true));
  int cases = 0;
  CompareWithReference<char>(3, 300, &cases);
  CompareWithReference<wchar_t>(4, 300, &cases);
}

// The wide caseless route checks the text ahead of itself and gives way to the defining scan
// where its sets could be wrong or too slow: at a stretch dense with code units above 255, and at
// a code unit that the C runtime calls equal to a term character though the sets don't know it.
// Wine's runtime has no such unit for its sets, so the sets are made under the C locale, which
// folds ASCII alone, and used under one that also folds U+0100 with U+0101. Each text holds
// occurrences before and after the place where the route gives way.
TEST(BufferSearchTest, WideCaselessRouteGivesWayExactly) {
  namespace internal = KVT::search_internal;
  std::wstring lead;
  for (int i = 0; i < 1500; ++i) lead += i % 7 == 0 ? L"a \x101X\n" : L"a kyx ";
  std::wstring dense;
  for (int i = 0; i < 800; ++i) dense += L"\x4E00\x4E8C\x4E09\x101x";
  const std::wstring term = L"\x101x";
  internal::CaselessClassSets<wchar_t> stale;
  const CSearchQuery<wchar_t> c_query = Query(term.c_str(), true);
  ASSERT_TRUE(stale.Prepare(c_query.term, 2, c_query.shiftTable, c_query.tableSize));

  LocaleScope locale("English_United States.1252");
  ASSERT_TRUE(locale.ok());
  const CSearchQuery<wchar_t> query = Query(term.c_str(), true);
  const std::wstring texts[] = {lead + dense + lead, dense + lead, lead + L"\x100x " + lead,
                                lead + L"z\x100X " + lead};
  for (const std::wstring& text : texts) {
    const bool folded = text.find(L'\x100') != std::wstring::npos;
    for (unsigned long flags : {1ul, 3ul}) {
      const search_test::Results expected = search_test::NaiveSearch(text, term, flags, L'\n');
      for (bool avx2 : {true, false}) {
        SCOPED_TRACE(testing::Message() << "text " << &text - texts << " flags " << flags
                                        << (avx2 ? " avx2 allowed" : " sse2"));
        search_test::Results got;
        auto sink = [&got](std::uint64_t result) { got.push_back(result); };
        const auto n = static_cast<std::uint32_t>(text.size());
        EXPECT_EQ(expected.size(),
                  folded ? internal::ClassSetScan(text.data(), n, query, stale, flags & 2, L'\n',
                                                  sink, avx2 && internal::HasAvx2())
                         : internal::ScanText(text.data(), static_cast<int>(n), query, flags,
                                              nullptr, nullptr, L'\n', sink,
                                              avx2 ? kEager : kEagerSse2));
        EXPECT_EQ(expected, got);
      }
    }
  }
}

}  // namespace
