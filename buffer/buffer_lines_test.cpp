#include "buffer/buffer.h"

#include <fcntl.h>
#include <io.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "buffer/buffer_test_util.h"

namespace {

using buffer_test::Contents;
using buffer_test::LineAt;
using buffer_test::Text;
using KVT::CBuffer;

template <typename T>
using Lines = std::vector<std::basic_string<T>>;

template <typename T>
Lines<T> TableOf(const CBuffer<T>& buffer) {
  Lines<T> lines;
  for (int i = 0; i < buffer.lines.count; ++i) lines.push_back(LineAt(buffer, i));
  return lines;
}

template <typename T>
Lines<T> LinesOf(std::initializer_list<const char*> texts) {
  Lines<T> lines;
  for (const char* text : texts) lines.push_back(Text<T>(text));
  return lines;
}

// A folder of its own under the system's temporary folder, removed with what the test put in it.
class TempDir {
 public:
  TempDir() {
    static int serial = 0;
    path_ = std::filesystem::temp_directory_path() /
            ("tern_buffer_test_" + std::to_string(::_getpid()) + "_" + std::to_string(++serial));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  // Writes `bytes` to a new file and gives its path.
  std::filesystem::path Write(const std::string& bytes) {
    const std::filesystem::path file = path_ / ("f" + std::to_string(files_++));
    std::ofstream(file, std::ios::binary).write(bytes.data(), bytes.size());
    return file;
  }

 private:
  std::filesystem::path path_;
  int files_ = 0;
};

FILE* OpenBinary(const std::filesystem::path& file) { return ::_wfopen(file.c_str(), L"rb"); }

// The bytes of a wide text in a file: 16-bit units, low byte first.
std::string WideBytes(const std::wstring& text) {
  std::string bytes;
  for (wchar_t unit : text) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

template <typename T>
std::string FileBytes(const std::basic_string<T>& text);
template <>
std::string FileBytes(const std::string& text) {
  return text;
}
template <>
std::string FileBytes(const std::wstring& text) {
  return WideBytes(text);
}

// What Load makes of a file: CR dropped, LF and 0 end lines, the rest a last line.
template <typename T>
Lines<T> ReferenceLines(const std::basic_string<T>& file, bool with_last) {
  Lines<T> lines;
  std::basic_string<T> line;
  bool open = false;
  for (T ch : file) {
    if (ch == T('\r')) continue;
    if (ch == T('\n') || ch == T(0)) {
      lines.push_back(line);
      line.clear();
      open = false;
    } else {
      line.push_back(ch);
      open = true;
    }
  }
  if (open && with_last) lines.push_back(line);
  return lines;
}

template <typename T>
void CheckToLines() {
  struct Row {
    const char* text;
    int length;
    bool result;
    std::initializer_list<const char*> lines;
  };
  const Row rows[] = {
      {"a\n\nb", 4, true, {"a", "", "b"}},
      {"a\n", 2, true, {"a"}},
      {"\n", 1, true, {""}},
      {"a\r\nb", 4, true, {"a\r", "b"}},
      {"ab\0cd\nx", 7, true, {"ab", "x"}},
      {"\0a\nb", 4, false, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "row \"" << row.text << '"');
    CBuffer<T> buffer(Text<T>("kept").c_str());
    buffer.ToLines();
    T* kept_line = buffer.lines[0];
    buffer.Reset();
    buffer.lines.count = 1;  // The table of the former text, to see whether it is kept.
    buffer.Add(Text<T>(row.text, row.length).c_str(), row.length);
    EXPECT_EQ(row.result, buffer.ToLines());
    EXPECT_EQ(row.length, buffer.length);
    if (row.result) {
      EXPECT_EQ(LinesOf<T>(row.lines), TableOf(buffer));
    } else {
      EXPECT_EQ(1, buffer.lines.count);
      EXPECT_EQ(kept_line, buffer.lines[0]);
    }
  }
}

TEST(BufferLinesTest, ToLinesCutsAtLineFeeds) {
  CheckToLines<char>();
  CheckToLines<wchar_t>();
}

TEST(BufferLinesTest, ToLinesTwiceFindsTheTextUpToItsFirstZero) {
  CBuffer<wchar_t> buffer(L"a\nb");
  EXPECT_TRUE(buffer.ToLines());
  EXPECT_EQ(2, buffer.lines.count);
  EXPECT_TRUE(buffer.ToLines());
  EXPECT_EQ(LinesOf<wchar_t>({"a"}), TableOf(buffer));
  EXPECT_EQ(3, buffer.length);

  CBuffer<char> empty;
  EXPECT_FALSE(empty.ToLines());
  empty.SetSize(8);
  EXPECT_FALSE(empty.ToLines());
}

template <typename T>
void CheckSplit() {
  CBuffer<T> buffer(Text<T>("a,,b").c_str());
  EXPECT_TRUE(buffer.Split(T(',')));
  EXPECT_EQ(LinesOf<T>({"a", "", "b"}), TableOf(buffer));

  buffer = Text<T>("a,b,").c_str();
  EXPECT_TRUE(buffer.Split(T(',')));
  EXPECT_EQ(LinesOf<T>({"a", "b"}), TableOf(buffer)) << "no empty line behind the last comma";

  // A text that starts with zero is cut all the same.
  buffer.Reset();
  buffer.Add(Text<T>("\0x,y", 4).c_str(), 4);
  EXPECT_TRUE(buffer.Split(T(',')));
  EXPECT_EQ(LinesOf<T>({"", "y"}), TableOf(buffer));

  // A block with an empty text empties the table.
  buffer.Reset();
  buffer.lines.count = 2;
  EXPECT_FALSE(buffer.Split(T(',')));
  EXPECT_EQ(0, buffer.lines.count);

  CBuffer<T> none;
  EXPECT_FALSE(none.Split(T(',')));
}

TEST(BufferLinesTest, SplitCutsAtTheDelimiter) {
  CheckSplit<char>();
  CheckSplit<wchar_t>();
}

// Load and GetNext over a table of files, in both widths, against the reference above.
template <typename T>
void CheckLoadTable() {
  const char* const files[] = {
      "a\rb\n", "", "x\ny", "ab\r\nc\r\n", "one\0two\0", "\n\n\r\n", "no end", "\r",
      "a\n\0b",
  };
  const std::size_t sizes[] = {4, 0, 3, 7, 8, 4, 6, 1, 4};
  TempDir dir;
  for (std::size_t i = 0; i < sizeof(sizes) / sizeof(sizes[0]); ++i) {
    const std::basic_string<T> text = Text<T>(files[i], sizes[i]);
    SCOPED_TRACE(testing::Message() << "file " << i << " of width " << sizeof(T));
    const auto path = dir.Write(FileBytes(text));

    CBuffer<T> loaded;
    FILE* stream = OpenBinary(path);
    ASSERT_NE(nullptr, stream);
    const Lines<T> expected = ReferenceLines(text, true);
    EXPECT_EQ(static_cast<int>(expected.size()), loaded.Load(stream));
    std::fclose(stream);
    EXPECT_EQ(expected, TableOf(loaded));
    if (sizes[i] == 0) {
      EXPECT_EQ(nullptr, loaded.data) << "an empty file allocates nothing";
    }

    CBuffer<T> read;
    stream = OpenBinary(path);
    ASSERT_NE(nullptr, stream);
    Lines<T> delivered;
    while (T* line = read.GetNext(stream, 12345)) delivered.push_back(line);
    EXPECT_EQ(nullptr, stream);
    EXPECT_EQ(ReferenceLines(text, false), delivered);
    EXPECT_EQ(delivered, TableOf(read));
    EXPECT_EQ(loaded.length, read.length) << "an unterminated last line stays in the text";
  }
}

TEST(BufferLinesTest, LoadAndGetNextReadLines) {
  CheckLoadTable<char>();
  CheckLoadTable<wchar_t>();
}

TEST(BufferLinesTest, LoadStoresLineEndsAsZeros) {
  TempDir dir;
  const auto path = dir.Write("ab\r\nc\r\n");
  CBuffer<char> buffer("previous text that is longer");
  buffer.results = new XArray<std::uint64_t>(CBuffer<char>::kResultGrowStep);
  buffer.results->Add(5);
  FILE* stream = OpenBinary(path);
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ(2, buffer.Load(stream));
  EXPECT_EQ(std::string("ab\0c\0", 5), Contents(buffer));
  EXPECT_EQ(buffer.data, buffer.lines[0]);
  EXPECT_EQ(buffer.data + 3, buffer.lines[1]);
  EXPECT_EQ(0, buffer.results->count);
  EXPECT_EQ(0, std::fgetc(stream) + 1) << "the stream is left open, at its end";
  std::fclose(stream);

  FILE* none = nullptr;
  EXPECT_EQ(0, buffer.Load(none));
  EXPECT_EQ(0, buffer.length);
  EXPECT_EQ(0, buffer.lines.count);
}

TEST(BufferLinesTest, WideLoadEndsLinesAtAZeroUnit) {
  TempDir dir;
  const std::wstring text(L"\xFEFFw\x00E9\0\xFFFFz\r\n", 8);
  const auto path = dir.Write(WideBytes(text));
  CBuffer<wchar_t> buffer;
  FILE* stream = OpenBinary(path);
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ(2, buffer.Load(stream));
  std::fclose(stream);
  // The byte-order mark is a character like any other, and 0xFFFF is no end of input.
  EXPECT_EQ((Lines<wchar_t>{L"\xFEFFw\x00E9", L"\xFFFFz"}), TableOf(buffer));
}

TEST(BufferLinesTest, GetNextThenWalksTheStoredLines) {
  TempDir dir;
  const auto path = dir.Write("x\ny");
  CBuffer<char> buffer;
  FILE* stream = OpenBinary(path);
  ASSERT_NE(nullptr, stream);
  EXPECT_STREQ("x", buffer.GetNext(stream, 0));
  EXPECT_EQ(nullptr, buffer.GetNext(stream, 0));
  EXPECT_EQ(nullptr, stream);
  EXPECT_EQ(3, buffer.length);
  EXPECT_EQ(1, buffer.lines.count);
  EXPECT_STREQ("x", buffer.GetNext(stream, 0));
  EXPECT_EQ(nullptr, buffer.GetNext(stream, 1));
  EXPECT_EQ(nullptr, buffer.GetNext(stream, -1));

  // New lines go behind the text already there.
  CBuffer<char> appended("kept\n");
  appended.ToLines();
  stream = OpenBinary(path);
  ASSERT_NE(nullptr, stream);
  EXPECT_STREQ("x", appended.GetNext(stream, 0));
  EXPECT_EQ(std::string("kept\0x\0", 7), Contents(appended));
  EXPECT_EQ(2, appended.lines.count);
  EXPECT_STREQ("kept", appended.lines[0]);
  while (appended.GetNext(stream, 0) != nullptr) {
  }
}

// Many lines read without reserving: the block grows and moves as it reads, and the line table
// must move with it.
template <typename T>
void CheckLinesSurviveGrowth(unsigned seed) {
  std::mt19937 random(seed);
  std::basic_string<T> text;
  for (int i = 0; i < 3000; ++i) text.push_back(static_cast<T>("ab\n\r\0x"[random() % 6]));
  TempDir dir;
  const auto path = dir.Write(FileBytes(text));

  CBuffer<T> buffer;
  FILE* stream = OpenBinary(path);
  ASSERT_NE(nullptr, stream);
  while (buffer.GetNext(stream, 0) != nullptr) {
  }
  const Lines<T> expected = ReferenceLines(text, false);
  ASSERT_GT(expected.size(), 200u) << "the line table must grow too";
  EXPECT_EQ(expected, TableOf(buffer));
  for (int i = 0; i < buffer.lines.count; ++i) {
    const T* line = buffer.GetNext(stream, i);
    ASSERT_GE(line, buffer.data);
    ASSERT_LE(line, buffer.data + buffer.length);
  }
}

TEST(BufferLinesTest, LineTableFollowsTheBlockWhenReadingGrowsIt) {
  CheckLinesSurviveGrowth<char>(3);
  CheckLinesSurviveGrowth<wchar_t>(4);
}

// A pipe has no file length, so Load cannot reserve and grows as it reads.
TEST(BufferLinesTest, LoadWithoutAKnownLengthStillKeepsItsLines) {
  int ends[2];
  ASSERT_EQ(0, ::_pipe(ends, 4096, _O_BINARY));
  std::string text;
  for (int i = 0; i < 300; ++i) text += "line " + std::to_string(i) + "\r\n";
  ASSERT_LT(text.size(), 4096u);
  ASSERT_EQ(static_cast<int>(text.size()), ::_write(ends[1], text.data(), text.size()));
  ::_close(ends[1]);
  FILE* stream = ::_fdopen(ends[0], "rb");
  ASSERT_NE(nullptr, stream);

  CBuffer<char> buffer;
  EXPECT_EQ(300, buffer.Load(stream));
  std::fclose(stream);
  for (int i = 0; i < 300; ++i) ASSERT_EQ("line " + std::to_string(i), LineAt(buffer, i)) << i;
}

TEST(BufferLinesTest, ReAllocForFileReservesTheFileInCharacters) {
  TempDir dir;
  const auto path = dir.Write("0123456789");
  FILE* stream = OpenBinary(path);
  ASSERT_NE(nullptr, stream);

  CBuffer<char> narrow;
  EXPECT_EQ(10, narrow.ReAllocForFile(stream));
  EXPECT_EQ(10, narrow.capacity);
  EXPECT_EQ(0, narrow.length);
  CBuffer<wchar_t> wide(L"abc");
  EXPECT_EQ(20, wide.ReAllocForFile(stream));
  EXPECT_EQ(20, wide.capacity);
  EXPECT_EQ(std::wstring(L"abc"), Contents(wide)) << "nothing but the block changes";
  wide.Realloc(100);
  EXPECT_EQ(20, wide.ReAllocForFile(stream)) << "also when the block is larger";
  EXPECT_EQ(100, wide.capacity);
  std::fclose(stream);

  EXPECT_EQ(0, narrow.ReAllocForFile(nullptr));
}

}  // namespace
