#include "buffer/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>

#include "buffer/buffer_test_util.h"

namespace {

using buffer_test::Contents;
using buffer_test::Text;
using KVT::CBuffer;

template <typename T>
void CheckNewBuffer() {
  CBuffer<T> buffer;
  EXPECT_EQ(nullptr, buffer.GetBuffer());
  EXPECT_EQ(nullptr, static_cast<T*>(buffer));
  EXPECT_EQ(nullptr, buffer.results);
  EXPECT_EQ(nullptr, buffer.lines.entries);
  EXPECT_EQ(100, buffer.lines.growStep);
  EXPECT_EQ(nullptr, buffer.Realloc(0));
  EXPECT_EQ(0, buffer.capacity);
  EXPECT_EQ(1, buffer == nullptr);
  const T empty[] = {0};
  EXPECT_EQ(0, buffer == empty) << "a buffer that never held anything is not an empty text";
  CBuffer<T> other;
  EXPECT_EQ(0, buffer.Compare(other));
}

TEST(BufferTest, NewBufferHoldsNothing) {
  CheckNewBuffer<char>();
  CheckNewBuffer<wchar_t>();
}

template <typename T>
void CheckAssignShorterText() {
  CBuffer<T> buffer;
  buffer = Text<T>("hello").c_str();
  T* block = buffer.GetBuffer();
  buffer = Text<T>("hi").c_str();
  EXPECT_EQ(2, buffer.length);
  EXPECT_EQ(Text<T>("hi"), buffer.GetBuffer());
  EXPECT_EQ(1, buffer == Text<T>("hi").c_str());
  EXPECT_EQ(0, buffer == Text<T>("hello").c_str());
  EXPECT_EQ(static_cast<int>(5 * sizeof(T)), buffer.capacity) << "a block never shrinks";
  EXPECT_EQ(block, buffer.GetBuffer());

  buffer.Reset();
  EXPECT_EQ(block, buffer.GetBuffer());
  EXPECT_EQ(0, buffer.length);
  EXPECT_EQ(T(0), buffer.GetBuffer()[0]);
  EXPECT_EQ(1, buffer == Text<T>("").c_str());
}

TEST(BufferTest, AssigningKeepsTheBlock) {
  CheckAssignShorterText<char>();
  CheckAssignShorterText<wchar_t>();
}

template <typename T>
void CheckNothingToAppend() {
  CBuffer<T> buffer(nullptr);
  buffer = static_cast<const T*>(nullptr);
  buffer = Text<T>("").c_str();
  buffer.Add(Text<T>("abc").c_str(), 0);
  buffer.Add(Text<T>("abc").c_str(), -3);
  buffer.Add(nullptr, 5);
  buffer.Add(static_cast<const T*>(nullptr));
  buffer += static_cast<const T*>(nullptr);
  CBuffer<T> from_empty(Text<T>("").c_str());
  EXPECT_EQ(nullptr, buffer.GetBuffer());
  EXPECT_EQ(nullptr, from_empty.GetBuffer());
  EXPECT_EQ(0, buffer.capacity);
  EXPECT_EQ(0, buffer.length);
}

TEST(BufferTest, NullEmptyAndZeroCountAllocateNothing) {
  CheckNothingToAppend<char>();
  CheckNothingToAppend<wchar_t>();
}

TEST(BufferTest, SizeCountsBytesAndLengthCharacters) {
  CBuffer<wchar_t> wide;
  wide.SetSize(10);
  EXPECT_EQ(10, wide.capacity) << "room for 5 characters";
  EXPECT_EQ(0, wide.length);
  CBuffer<wchar_t> wide2;
  wide2.SetLength(10);
  EXPECT_EQ(20, wide2.capacity);
  EXPECT_EQ(0, wide2.length);
  wide2.SetLength(0x7FFFFFFF);  // Its byte size does not fit an int.
  EXPECT_EQ(20, wide2.capacity);

  CBuffer<char> narrow;
  narrow.SetLength(10);
  EXPECT_EQ(10, narrow.capacity);
  narrow.SetSize(-4);
  EXPECT_EQ(10, narrow.capacity);
}

// Growth is exact and zero-fills what it adds, whatever the block held before.
template <typename T>
void CheckGrowth() {
  CBuffer<T> buffer;
  buffer.Add(T('a'));
  EXPECT_EQ(static_cast<int>(sizeof(T)), buffer.capacity);
  buffer.Add(Text<T>("bc").c_str());
  EXPECT_EQ(static_cast<int>(3 * sizeof(T)), buffer.capacity);

  buffer.SetSize(8 * sizeof(T));
  std::memset(buffer.data, 0x5A, 9 * sizeof(T));  // Junk up to the terminator's room.
  T* grown = buffer.Realloc(20 * sizeof(T));
  ASSERT_EQ(grown, buffer.data);
  EXPECT_EQ(static_cast<int>(20 * sizeof(T)), buffer.capacity);
  const unsigned char* bytes = reinterpret_cast<unsigned char*>(grown);
  for (std::size_t i = 0; i < 8 * sizeof(T); ++i) ASSERT_EQ(0x5A, bytes[i]) << i;
  for (std::size_t i = 8 * sizeof(T); i < 21 * sizeof(T); ++i) ASSERT_EQ(0, bytes[i]) << i;
  EXPECT_EQ(grown, buffer.Realloc(4));
  EXPECT_EQ(grown, buffer.Realloc(-1));
}

TEST(BufferTest, GrowsExactlyAndZeroFills) {
  CheckGrowth<char>();
  CheckGrowth<wchar_t>();
}

template <typename T>
void CheckZeroCharacter() {
  CBuffer<T> buffer(Text<T>("ab").c_str());
  buffer.Add(T(0));
  buffer += Text<T>("cd").c_str();
  EXPECT_EQ(5, buffer.length);
  EXPECT_EQ(Text<T>("ab\0cd", 5), Contents(buffer));
  EXPECT_EQ(1, buffer == Text<T>("ab").c_str()) << "comparison stops at the zero";
  CBuffer<T> plain(Text<T>("ab").c_str());
  EXPECT_EQ(0, buffer.Compare(plain));
}

TEST(BufferTest, ZeroCharacterLengthensButEndsComparison) {
  CheckZeroCharacter<char>();
  CheckZeroCharacter<wchar_t>();
}

template <typename T>
void CheckFreeAndRegrow() {
  CBuffer<T> buffer(Text<T>("text").c_str());
  buffer.results = new XArray<std::uint64_t>(CBuffer<T>::kResultGrowStep);
  buffer.results->Add(42);
  buffer.lines.Add(buffer.data);
  buffer.Free();
  EXPECT_EQ(nullptr, buffer.data);
  EXPECT_EQ(nullptr, buffer.results);
  EXPECT_EQ(0, buffer.capacity);
  EXPECT_EQ(0, buffer.length);
  EXPECT_EQ(0, buffer.lines.count);
  EXPECT_NE(nullptr, buffer.lines.entries) << "the line table stays for reuse";
  buffer.Add(T('z'));
  ASSERT_NE(nullptr, buffer.data);
  EXPECT_EQ(static_cast<int>(sizeof(T)), buffer.capacity);
  EXPECT_EQ(1, buffer.length);
  EXPECT_EQ(1, buffer == Text<T>("z").c_str());
}

TEST(BufferTest, FreeGivesBackAndStaysUsable) {
  CheckFreeAndRegrow<char>();
  CheckFreeAndRegrow<wchar_t>();
}

TEST(BufferTest, ResetEmptiesTheResultsButKeepsTheirCells) {
  CBuffer<char> buffer("a\nb");
  buffer.lines.Add(buffer.data);
  buffer.results = new XArray<std::uint64_t>(CBuffer<char>::kResultGrowStep);
  buffer.results->Add(1);
  buffer.SetSize(4);
  EXPECT_EQ(0, buffer.results->count);
  EXPECT_NE(nullptr, buffer.results->entries);
  EXPECT_EQ(0, buffer.lines.count);
  EXPECT_EQ(0, buffer.length);
}

TEST(BufferTest, AppendsItsOwnText) {
  CBuffer<wchar_t> buffer(L"abc");
  buffer.Add(buffer.GetBuffer());  // The block must grow (and may move) before the copy.
  EXPECT_EQ(std::wstring(L"abcabc"), Contents(buffer));
  buffer.Add(buffer.GetBuffer() + 4, 2);
  EXPECT_EQ(std::wstring(L"abcabcbc"), Contents(buffer));
}

// Unsigned character order, stopping at the first zero; one table for both widths.
TEST(BufferTest, CompareOrdersByUnsignedCharacters) {
  struct Row {
    const char* a;
    int a_length;
    const char* b;
    int b_length;
    int expected;
  };
  const Row rows[] = {
      {"abc", 3, "abc", 3, 0},     {"abc", 3, "abd", 3, -1},   {"abd", 3, "abc", 3, 1},
      {"ab", 2, "abc", 3, -1},     {"abc", 3, "ab", 2, 1},     {"", 0, "a", 1, -1},
      {"\xE9", 1, "a", 1, 1},      {"a", 1, "\xE9", 1, -1},    {"ab\0x", 4, "ab\0y", 4, 0},
      {"ab\0x", 4, "ab", 2, 0},    {"", 0, "", 0, 0},          {"B", 1, "a", 1, -1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << '"' << row.a << "\" vs \"" << row.b << '"');
    CBuffer<char> a;
    CBuffer<char> b;
    a.Add(row.a, row.a_length);
    b.Add(row.b, row.b_length);
    a.Add('\0');  // Even an empty text gets a block.
    b.Add('\0');
    EXPECT_EQ(row.expected, a.Compare(b));
    EXPECT_EQ(row.expected == 0 ? 1 : 0, a == b.data);

    CBuffer<wchar_t> wa;
    CBuffer<wchar_t> wb;
    wa.Add(Text<wchar_t>(row.a, row.a_length).c_str(), row.a_length);
    wb.Add(Text<wchar_t>(row.b, row.b_length).c_str(), row.b_length);
    wa.Add(L'\0');
    wb.Add(L'\0');
    // Widened bytes above 127 become negative wchar_t values in Text(), i.e. 0xFFxx: still
    // above every ASCII unit, so the order is the same.
    EXPECT_EQ(row.expected, wa.Compare(wb));
  }
  CBuffer<char> none;
  CBuffer<char> empty;
  empty.Add('\0');
  EXPECT_EQ(-1, none.Compare(empty));
  EXPECT_EQ(1, empty.Compare(none));
  EXPECT_EQ(0, empty == nullptr);
  CBuffer<wchar_t> high(L"\xFFFF");
  CBuffer<wchar_t> low(L"\x7FFF");
  EXPECT_EQ(1, high.Compare(low));
}

// The sign of comparing two texts up to their first zero, by unsigned character values.
template <typename T>
int OracleCompare(const T* a, const T* b) {
  using U = std::make_unsigned_t<T>;
  const std::basic_string<T> left(a);
  const std::basic_string<T> right(b);
  const int order = std::basic_string<U>(left.begin(), left.end())
                        .compare(std::basic_string<U>(right.begin(), right.end()));
  return (order > 0) - (order < 0);
}

// Random appends, assignments, resets and sizes against std::basic_string as the oracle.
template <typename T>
void CheckAgainstString(unsigned seed) {
  std::mt19937 random(seed);
  CBuffer<T> buffer;
  std::basic_string<T> oracle;
  int last_capacity = 0;
  for (int step = 0; step < 2000; ++step) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
    std::basic_string<T> piece;
    const int piece_length = static_cast<int>(random() % 6);
    for (int i = 0; i < piece_length; ++i) piece.push_back(static_cast<T>("ab\0\xE9"[random() % 4]));
    switch (random() % 8) {
      case 0:
      case 1:
        buffer.Add(piece.data(), piece_length);
        oracle += piece;
        break;
      case 2:
        buffer.Add(piece[0]);
        oracle.push_back(piece[0]);
        break;
      case 3:
        buffer += piece.c_str();
        oracle += piece.c_str();
        break;
      case 4:
        buffer = piece.c_str();
        oracle = piece.c_str();
        break;
      case 5:
        if (random() % 4 == 0) {
          buffer.Reset();
          oracle.clear();
        }
        break;
      case 6: {
        const int size = static_cast<int>(random() % 40);
        buffer.SetSize(size);
        oracle.clear();
        last_capacity = std::max(last_capacity, size);
        break;
      }
      default: {
        CBuffer<T> other(piece.c_str());
        if (other.data == nullptr) {
          ASSERT_EQ(buffer.data != nullptr ? 1 : 0, buffer.Compare(other));
        } else if (buffer.data != nullptr) {
          ASSERT_EQ(OracleCompare(oracle.c_str(), piece.c_str()), buffer.Compare(other));
        }
        break;
      }
    }
    ASSERT_EQ(static_cast<int>(oracle.size()), buffer.length);
    ASSERT_EQ(oracle, Contents(buffer));
    if (buffer.data != nullptr) {
      ASSERT_EQ(T(0), buffer.data[buffer.length]);
    }
    ASSERT_GE(buffer.capacity, last_capacity) << "a block never shrinks";
    ASSERT_LE(buffer.length * static_cast<int>(sizeof(T)), buffer.capacity);
    last_capacity = buffer.capacity;
  }
}

TEST(BufferTest, MatchesStringUnderRandomEdits) {
  CheckAgainstString<char>(11);
  CheckAgainstString<wchar_t>(12);
}

template <typename T>
void CheckSharedCopies() {
  auto* original = new CBuffer<T>(Text<T>("shared").c_str());
  original->lines.Add(original->data);
  original->results = new XArray<std::uint64_t>(CBuffer<T>::kResultGrowStep);
  original->results->Add(7);

  CBuffer<T> copy;
  copy = *original;
  EXPECT_EQ(original->data, copy.data) << "no text is copied";
  EXPECT_EQ(original->capacity, copy.capacity);
  EXPECT_EQ(original->length, copy.length);
  EXPECT_EQ(original->lines.entries, copy.lines.entries);
  ASSERT_NE(nullptr, copy.results);
  EXPECT_EQ(original->results->entries, copy.results->entries);
  EXPECT_EQ(7u, (*copy.results)[0]);

  CBuffer<T> second(copy);
  EXPECT_EQ(original->data, second.data);

  delete original;  // The copies keep the block and both tables alive.
  EXPECT_EQ(Text<T>("shared"), copy.GetBuffer());
  EXPECT_EQ(Text<T>("shared"), copy.lines[0]);
  EXPECT_EQ(7u, (*second.results)[0]);

  // A copy that must grow takes a block of its own and leaves the other's text alone.
  copy += Text<T>(" and more").c_str();
  EXPECT_NE(second.data, copy.data);
  EXPECT_EQ(Text<T>("shared and more"), copy.GetBuffer());
  EXPECT_EQ(Text<T>("shared"), second.GetBuffer());

  copy = copy;
  EXPECT_EQ(Text<T>("shared and more"), copy.GetBuffer());
}

TEST(BufferTest, CopiesShareTheBlockAndReleaseItOnce) {
  CheckSharedCopies<char>();
  CheckSharedCopies<wchar_t>();
}

TEST(BufferTest, AssignmentKeepsTheFormerTextReadable) {
  CBuffer<char> target("former");
  const char* former = target.GetBuffer();
  {
    CBuffer<char> source("new");
    target = source;
  }
  EXPECT_STREQ("new", target.GetBuffer());
  EXPECT_STREQ("former", former) << "nothing is released by the assignment";
}

TEST(BufferTest, MallocIsTheRuntimesMalloc) {
  void* block = CBuffer<wchar_t>::Malloc(24);
  ASSERT_NE(nullptr, block);
  std::memset(block, 1, 24);
  std::free(block);
}

}  // namespace
