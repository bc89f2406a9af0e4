#include "buffer/buffer.h"

#include <process.h>

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
using buffer_test::Text;
using KVT::CBuffer;

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
  struct Row {
    const char* text;
    int length;
    char delimiter;
    bool result;
    Lines<char> lines;
  };
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
