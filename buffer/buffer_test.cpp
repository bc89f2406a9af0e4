// Buffer storage, lines and files.
#include "buffer/buffer.h"

#include <process.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

using KVT::CBuffer;

// `n` narrow characters (zeros included) in the width T, each byte as one character.
template <typename T>
std::basic_string<T> Text(const char* text, std::size_t n) {
  return std::basic_string<T>(text, text + n);
}
template <typename T>
std::basic_string<T> Text(const char* text) {
  return Text<T>(text, std::strlen(text));
}

// The buffer's `length` characters, zeros included.
template <typename T>
std::basic_string<T> Contents(const KVT::CBuffer<T>& buffer) {
  return buffer.data ? std::basic_string<T>(buffer.data, buffer.length) : std::basic_string<T>();
}

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

template <typename T>
using Lines = std::vector<std::basic_string<T>>;

template <typename T>
Lines<T> TableOf(const CBuffer<T>& buffer) {
  Lines<T> lines;
  for (int i = 0; i < buffer.lines.count; ++i) lines.emplace_back(buffer.lines[i]);
  return lines;
}

// What Load makes of a file: CR dropped, LF and zero end lines, the rest (with_last) a last line.
template <typename T>
Lines<T> ReferenceLines(const std::basic_string<T>& file, bool with_last) {
  Lines<T> lines(1);
  for (T ch : file) {
    if (ch == T('\n') || ch == T(0)) {
      lines.emplace_back();
    } else if (ch != T('\r')) {
      lines.back() += ch;
    }
  }
  if (!with_last || lines.back().empty()) lines.pop_back();
  return lines;
}

// A folder of its own under the temporary folder, removed with the files the test wrote there.
class TempDir {
 public:
  TempDir()
      : path_(std::filesystem::temp_directory_path() /
              ("tern_buffer_test_" + std::to_string(::_getpid()))) {
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  // A new file holding `text` as it lies in memory (wide units low byte first), opened to read.
  template <typename T>
  FILE* Open(const std::basic_string<T>& text) {
    const auto file = path_ / std::to_string(files_++);
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(T));
    return ::_wfopen(file.c_str(), L"rb");
  }

 private:
  std::filesystem::path path_;
  int files_ = 0;
};

template <typename T>
void CheckCutting() {
  struct Row { const char* text; int length; char delimiter; bool result; Lines<char> lines; };
  const Row rows[] = {
      {"a\n\nb", 4, '\n', true, {"a", "", "b"}},  {"a\n", 2, '\n', true, {"a"}},
      {"a\r\nb", 4, '\n', true, {"a\r", "b"}},    {"a,,b", 4, ',', true, {"a", "", "b"}},
      {"a,b,", 4, ',', true, {"a", "b"}},         {"\0x,y", 4, ',', true, {"", "y"}},
      {"\0a\nb", 4, '\n', false, {"old"}},        {"", 0, ',', false, {}},
  };
  const T old[] = {T('o'), T('l'), T('d'), T(0)};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << '"' << row.text << "\" at " << int(row.delimiter));
    CBuffer<T> buffer;
    buffer.SetSize(sizeof(T));  // A block, even for the empty text.
    buffer.Add(Text<T>(row.text, row.length).c_str(), row.length);
    buffer.lines.Add(const_cast<T*>(old));  // The table of an earlier cut, to see whether it stays.
    const bool result =
        row.delimiter == '\n' ? buffer.ToLines() : buffer.Split(static_cast<T>(row.delimiter));
    EXPECT_EQ(row.result, result);
    Lines<T> expected;
    for (const std::string& line : row.lines) expected.push_back(Text<T>(line.c_str()));
    EXPECT_EQ(expected, TableOf(buffer));
  }
  CBuffer<T> twice(Text<T>("a\nb").c_str());
  twice.ToLines();
  EXPECT_TRUE(twice.ToLines()) << "the second finds the text up to its first zero";
  EXPECT_EQ(Lines<T>{Text<T>("a")}, TableOf(twice));
  EXPECT_EQ(3, twice.length);
}

TEST(BufferLinesTest, ToLinesAndSplitCutInPlace) {
  CheckCutting<char>();
  CheckCutting<wchar_t>();
}

// Load and GetNext over a table of files, then random ones, against ReferenceLines.
template <typename T>
void CheckReading(unsigned seed) {
  std::vector<std::basic_string<T>> files;
  for (const char* text : {"a\rb\n", "", "x\ny", "ab\r\nc\r\n", "\n\n\r\n", "no end", "\r"}) {
    files.push_back(Text<T>(text));
  }
  files.push_back(Text<T>("one\0two\0", 8));
  files.push_back({T(0xFEFF), T(0xFFFF), T('a')});  // Neither is special, not even WEOF's unit.
  std::mt19937 random(seed);
  for (int i = 0; i < 4; ++i) {
    files.emplace_back();
    for (int n = 0; n < 3000; ++n) files.back() += T("ab\n\r\0x"[random() % 6]);
  }
  TempDir dir;
  for (std::size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "file " << i << ", width " << sizeof(T));
    CBuffer<T> loaded(Text<T>("previous").c_str());
    loaded.results = new XArray<std::uint64_t>(CBuffer<T>::kResultGrowStep);
    loaded.results->Add(1);
    FILE* stream = dir.Open(files[i]);
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(static_cast<int>(ReferenceLines(files[i], true).size()), loaded.Load(stream));
    std::fclose(stream);
    EXPECT_EQ(ReferenceLines(files[i], true), TableOf(loaded));
    EXPECT_EQ(0, loaded.results->count);

    // Without ReAllocForFile the block grows (and moves) as GetNext reads.
    CBuffer<T> read;
    stream = dir.Open(files[i]);
    Lines<T> delivered;
    while (T* line = read.GetNext(stream, 12345)) delivered.emplace_back(line);
    EXPECT_EQ(nullptr, stream);
    EXPECT_EQ(ReferenceLines(files[i], false), delivered);
    EXPECT_EQ(delivered, TableOf(read));
    EXPECT_EQ(Contents(loaded), Contents(read)) << "an unterminated last line stays in the text";
  }
}

TEST(BufferLinesTest, LoadAndGetNextReadLines) {
  CheckReading<char>(3);
  CheckReading<wchar_t>(4);
}

TEST(BufferLinesTest, WorkedExamples) {
  TempDir dir;
  CBuffer<char> buffer;
  FILE* stream = dir.Open(std::string("ab\r\nc\r\n"));
  EXPECT_EQ(2, buffer.Load(stream));
  EXPECT_EQ(std::string("ab\0c\0", 5), Contents(buffer));
  EXPECT_EQ(EOF, std::fgetc(stream)) << "Load leaves the stream open";
  std::fclose(stream);
  stream = nullptr;
  EXPECT_EQ(0, buffer.Load(stream));
  EXPECT_EQ(0, buffer.length);

  CBuffer<wchar_t> fresh;
  stream = dir.Open(std::wstring());
  EXPECT_EQ(0, fresh.Load(stream));
  EXPECT_EQ(nullptr, fresh.data) << "an empty file allocates nothing";
  std::fclose(stream);

  stream = dir.Open(std::string("x\ny"));
  EXPECT_STREQ("x", buffer.GetNext(stream, 0));
  EXPECT_EQ(nullptr, buffer.GetNext(stream, 0));
  EXPECT_EQ(3, buffer.length);
  EXPECT_EQ(1, buffer.lines.count);
  EXPECT_STREQ("x", buffer.GetNext(stream, 0));
  EXPECT_EQ(nullptr, buffer.GetNext(stream, 1));
  EXPECT_EQ(nullptr, buffer.GetNext(stream, -1));

  stream = dir.Open(std::string("0123456789"));
  EXPECT_EQ(10, buffer.ReAllocForFile(stream));
  CBuffer<wchar_t> wide(L"abc");
  wide.Realloc(100);
  EXPECT_EQ(20, wide.ReAllocForFile(stream)) << "also when the block is larger";
  EXPECT_EQ(100, wide.capacity);
  EXPECT_EQ(std::wstring(L"abc"), Contents(wide));
  std::fclose(stream);
  EXPECT_EQ(0, wide.ReAllocForFile(nullptr));
}

}  // namespace
