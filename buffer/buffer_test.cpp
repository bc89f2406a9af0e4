#include "buffer/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "buffer/buffer_test_util.h"

namespace {

using buffer_test::Contents;
using buffer_test::Text;
using KVT::CBuffer;

template <typename T>
void CheckWorkedExamples() {
  const int width = static_cast<int>(sizeof(T));
  CBuffer<T> buffer(nullptr);
  buffer = Text<T>("").c_str();
  buffer.Add(Text<T>("abc").c_str(), 0);
  buffer.Add(nullptr, 5);
  EXPECT_EQ(nullptr, buffer.Realloc(0)) << "nothing so far allocates";
  EXPECT_EQ(1, buffer == nullptr);
  EXPECT_EQ(0, buffer == Text<T>("").c_str()) << "never held anything: not an empty text";
  EXPECT_EQ(0, buffer.Compare(CBuffer<T>()));

  buffer = Text<T>("hello").c_str();
  T* block = buffer.GetBuffer();
  buffer = Text<T>("hi").c_str();
  EXPECT_EQ(2, buffer.length);
  EXPECT_EQ(1, buffer == Text<T>("hi").c_str());
  EXPECT_EQ(5 * width, buffer.capacity) << "a block never shrinks";
  buffer.Reset();
  EXPECT_EQ(block, buffer.GetBuffer());
  EXPECT_EQ(1, buffer == Text<T>("").c_str());

  buffer.Add(T('a'));
  buffer.Add(T(0));
  buffer += Text<T>("b").c_str();
  EXPECT_EQ(Text<T>("a\0b", 3), Contents(buffer));
  EXPECT_EQ(1, buffer == Text<T>("a").c_str()) << "comparison stops at the zero";

  buffer.Free();
  EXPECT_EQ(nullptr, buffer.data);
  buffer.Add(T('z'));
  EXPECT_EQ(width, buffer.capacity);
  EXPECT_EQ(1, buffer.length);

  // Exact growth that zero-fills what it adds, whatever the block held before.
  buffer.SetSize(8 * width);
  std::memset(buffer.data, 0x5A, 9 * width);
  const auto* bytes = reinterpret_cast<unsigned char*>(buffer.Realloc(20 * width));
  EXPECT_EQ(20 * width, buffer.capacity);
  for (int i = 0; i < 21 * width; ++i) ASSERT_EQ(i < 8 * width ? 0x5A : 0, bytes[i]) << i;
}

TEST(BufferTest, WorkedExamples) {
  CheckWorkedExamples<char>();
  CheckWorkedExamples<wchar_t>();
  CBuffer<wchar_t> wide;
  wide.SetSize(10);
  EXPECT_EQ(10, wide.capacity);
  wide.SetLength(10);
  EXPECT_EQ(20, wide.capacity);
  EXPECT_EQ(0, wide.length);
}

// The sign of comparing two texts up to their first zero, by unsigned character values.
template <typename T>
int OracleCompare(const std::basic_string<T>& a, const std::basic_string<T>& b) {
  using U = std::make_unsigned_t<T>;
  const std::basic_string<T> left(a.c_str()), right(b.c_str());
  const int order = std::basic_string<U>(left.begin(), left.end())
                        .compare(std::basic_string<U>(right.begin(), right.end()));
  return (order > 0) - (order < 0);
}

// Random appends, assignments, resets, sizes and comparisons against std::basic_string.
template <typename T>
void CheckAgainstString(unsigned seed) {
  std::mt19937 random(seed);
  CBuffer<T> buffer;
  std::basic_string<T> oracle;
  int last_capacity = 0;
  for (int step = 0; step < 2000; ++step) {
    SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
    std::basic_string<T> piece;
    for (int i = random() % 6; i > 0; --i) piece.push_back(T("ab\0\xE9"[random() % 4]));
    const unsigned action = random() % 8;
    if (action < 2) {
      buffer.Add(piece.data(), static_cast<int>(piece.size()));
      oracle += piece;
    } else if (action == 2 && !piece.empty()) {
      buffer.Add(piece[0]);
      oracle += piece[0];
    } else if (action == 3) {
      buffer += piece.c_str();
      oracle += piece.c_str();
    } else if (action == 4) {
      buffer = piece.c_str();
      oracle = piece.c_str();
    } else if (action == 5) {
      buffer.SetSize(static_cast<int>(random() % 40));
      oracle.clear();
    } else if (action == 6 && buffer.data != nullptr && !piece.empty()) {
      CBuffer<T> other;
      other.Add(piece.data(), static_cast<int>(piece.size()));
      ASSERT_EQ(OracleCompare(oracle, piece), buffer.Compare(other));
      ASSERT_EQ(OracleCompare(oracle, piece) == 0 ? 1 : 0, buffer == piece.c_str());
    }
    ASSERT_EQ(oracle, Contents(buffer));
    if (buffer.data != nullptr) {
      ASSERT_EQ(T(0), buffer.data[buffer.length]);
    }
    ASSERT_GE(buffer.capacity, std::max<int>(last_capacity, buffer.length * sizeof(T)));
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
  CBuffer<T> copy(Text<T>("former").c_str());
  const T* former = copy.GetBuffer();
  copy = *original;
  CBuffer<T> second(copy);
  EXPECT_EQ(original->data, second.data) << "no text is copied";
  EXPECT_EQ(original->lines.entries, second.lines.entries);
  EXPECT_EQ(original->results->entries, second.results->entries);
  EXPECT_EQ(Text<T>("former"), former) << "assignment releases nothing";

  delete original;
  EXPECT_EQ(Text<T>("shared"), copy.lines[0]);
  EXPECT_EQ(7u, (*second.results)[0]);

  // A copy that grows takes a block of its own and leaves the other's text alone.
  copy += Text<T>("+").c_str();
  EXPECT_EQ(Text<T>("shared+"), copy.GetBuffer());
  EXPECT_EQ(Text<T>("shared"), second.GetBuffer());
  copy.Add(copy.GetBuffer(), 2);  // Its own text, read after the block has moved.
  EXPECT_EQ(Text<T>("shared+sh"), copy.GetBuffer());
}

TEST(BufferTest, CopiesShareTheBlockAndReleaseItOnce) {
  CheckSharedCopies<char>();
  CheckSharedCopies<wchar_t>();
}

}  // namespace
