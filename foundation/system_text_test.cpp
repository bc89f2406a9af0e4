#include "foundation/system_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>
#include <string>

#include "foundation/temp_string.h"

namespace {

using KVT::KVTGetErrorMessageA;
using KVT::KVTGetErrorMessageW;
using KVT::KVTLoadResourceStringW;

// The oracle: the system's own text, asked for directly.
std::wstring SystemTextW(DWORD code) {
  wchar_t buffer[1024] = {};
  ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                   MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer, 1024, nullptr);
  return buffer;
}

std::string SystemTextA(DWORD code) {
  char buffer[1024] = {};
  ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                   MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer, 1024, nullptr);
  return buffer;
}

TEST(ErrorMessageTest, IsTheSystemTextUntrimmed) {
  for (DWORD code : {2u, 5u, 10054u}) {
    SCOPED_TRACE(code);
    const std::wstring expected = SystemTextW(code);
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(expected, KVTGetErrorMessageW(code));
    EXPECT_EQ(SystemTextA(code), KVTGetErrorMessageA(code));
    EXPECT_EQ(L'\n', expected.back()) << "the line break stays";
  }
  EXPECT_NE(std::wstring(KVTGetErrorMessageW(2)), KVTGetErrorMessageW(5));
}

TEST(ErrorMessageTest, CodeZeroMeansTheLastError) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  EXPECT_EQ(SystemTextW(ERROR_ACCESS_DENIED), KVTGetErrorMessageW(0));
  ::SetLastError(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(SystemTextA(ERROR_FILE_NOT_FOUND), KVTGetErrorMessageA(0));
  ::SetLastError(0);
  EXPECT_EQ(SystemTextW(0), KVTGetErrorMessageW(0));
}

TEST(ErrorMessageTest, UnknownCodeGivesEmptyTextNotNull) {
  const wchar_t* wide = KVTGetErrorMessageW(0x2FFFFFFF);
  ASSERT_NE(nullptr, wide);
  EXPECT_STREQ(L"", wide);
  const char* narrow = KVTGetErrorMessageA(0x2FFFFFFF);
  ASSERT_NE(nullptr, narrow);
  EXPECT_STREQ("", narrow);
}

TEST(ErrorMessageTest, NarrowTextLivesInTheNarrowRing) {
  const char* text = KVTGetErrorMessageA(2);
  const std::string copy = text;
  char* take = nullptr;
  for (int i = 0; i < 255; ++i) ASSERT_EQ(1u, KVT::KVTGetTmpString(take, 4));
  EXPECT_EQ(copy, text);
  ASSERT_EQ(1u, KVT::KVTGetTmpString(take, 4));
  EXPECT_EQ(text, take) << "the 256th further narrow take reuses the slot";
}

// system_text_test.rc defines ids 1, 2, 3 (block 1), 20 (block 2) and 305 (block 20). The
// lookup names the block by the id itself.
TEST(LoadResourceStringTest, LooksUpTheBlockNamedByTheId) {
  HMODULE self = ::GetModuleHandleW(nullptr);
  struct Case {
    std::uint32_t id;
    const wchar_t* expected;  // Null: no text.
  };
  const Case cases[] = {
      {1, L"first string"},   // Block 1 exists, string 1 loads.
      {2, L"second string"},  // Block 2 exists (it holds 20), string 2 loads.
      {20, L"twenty"},        // Block 20 exists (it holds 305), string 20 loads.
      {3, nullptr},           // No block 3, although LoadStringW would find string 3.
      {4, nullptr},           // No block 4 and no string 4.
      {17, nullptr},          // No block 17.
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    const wchar_t* text = KVTLoadResourceStringW(self, c.id);
    if (c.expected == nullptr) {
      EXPECT_EQ(nullptr, text);
    } else {
      ASSERT_NE(nullptr, text);
      EXPECT_STREQ(c.expected, text);
    }
  }
  wchar_t direct[64] = {};
  EXPECT_GT(::LoadStringW(self, 3, direct, 64), 0) << "string 3 itself exists";
}

TEST(LoadResourceStringTest, ModuleWithoutStringsGivesNull) {
  EXPECT_EQ(nullptr, KVTLoadResourceStringW(::GetModuleHandleW(L"kernel32.dll"), 60000));
}

}  // namespace
