// The library frame: the heap allocator, the event test, system texts and temporary strings.
#include "foundation/memory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "foundation/event.h"
#include "foundation/internal/scoped_handle.h"
#include "foundation/system_text.h"
#include "foundation/temp_string.h"

namespace {

using KVT::KVTGetTmpString;

template <typename CharT = char>
CharT* Take(std::uint32_t chars = 8) {
  CharT* text = nullptr;
  EXPECT_EQ(1u, KVTGetTmpString(text, chars));
  return text;
}

TEST(MemoryTest, ZeroFilledBlocksOfTheProcessHeap) {
  auto* block = static_cast<unsigned char*>(KVT::MemAlloc(16));
  ASSERT_NE(nullptr, block);
  EXPECT_EQ(16u, ::HeapSize(::GetProcessHeap(), 0, block));
  std::memset(block, 0xAB, 16);
  auto* grown = static_cast<unsigned char*>(KVT::MemRealloc(block, 4096));
  ASSERT_NE(nullptr, grown);
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(i < 16 ? 0xAB : 0, grown[i]) << i;
  EXPECT_EQ(nullptr, KVT::MemAlloc(0));
  EXPECT_EQ(nullptr, KVT::MemRealloc(nullptr, 16));
  EXPECT_EQ(nullptr, KVT::MemRealloc(nullptr, 0xFFFFFFFFu));
  // Only a 32-bit process is sure to be refused a block of almost 4 GiB; the old block stays.
  if (sizeof(void*) == 4) {
    EXPECT_EQ(nullptr, KVT::MemRealloc(grown, 0xFFFFFFF0u));
    EXPECT_EQ(0xAB, grown[0]);
  }
  KVT::MemFree(grown);
}

// A failed wait reads as signalled. Relies on the wait failing for a closed handle, which Wine
// and Windows both do.
TEST(IsEventSignalledTest, FollowsTheEventAndAFailedWaitCountsAsSignalled) {
  KVT::internal::ScopedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  EXPECT_FALSE(KVT::IsEventSignalled(event.Get()));
  ::SetEvent(event.Get());
  EXPECT_TRUE(KVT::IsEventSignalled(event.Get()));
  EXPECT_TRUE(KVT::IsEventSignalled(event.Get())) << "a manual-reset event stays set";
  EXPECT_FALSE(KVT::IsEventSignalled(nullptr));
  HANDLE stale = event.Get();
  event.Close();
  EXPECT_TRUE(KVT::IsEventSignalled(stale));
}

// The oracle: the system's own text, asked for directly.
template <typename CharT>
std::basic_string<CharT> SystemText(DWORD code) {
  CharT buffer[1024] = {};
  const DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
  const DWORD language = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);
  if constexpr (sizeof(CharT) == 1) {
    ::FormatMessageA(flags, nullptr, code, language, buffer, 1024, nullptr);
  } else {
    ::FormatMessageW(flags, nullptr, code, language, buffer, 1024, nullptr);
  }
  return buffer;
}

TEST(ErrorMessageTest, IsTheSystemTextUntrimmedAndCodeZeroIsTheLastError) {
  for (DWORD code : {2u, 5u, 10054u}) {
    SCOPED_TRACE(code);
    ASSERT_EQ(L'\n', SystemText<wchar_t>(code).back()) << "the line break stays";
    EXPECT_EQ(SystemText<wchar_t>(code), KVT::KVTGetErrorMessageW(code));
    EXPECT_EQ(SystemText<char>(code), KVT::KVTGetErrorMessageA(code));
    ::SetLastError(code);
    EXPECT_EQ(SystemText<wchar_t>(code), KVT::KVTGetErrorMessageW(0));
  }
  ::SetLastError(0);
  EXPECT_EQ(SystemText<wchar_t>(0), KVT::KVTGetErrorMessageW(0));
  EXPECT_STREQ(L"", KVT::KVTGetErrorMessageW(0x2FFFFFFF)) << "unknown: empty, not null";
  EXPECT_STREQ("", KVT::KVTGetErrorMessageA(0x2FFFFFFF));

  // The narrow text is a temporary string of the narrow ring like any other.
  const char* text = KVT::KVTGetErrorMessageA(2);
  const std::string copy = text;
  for (int i = 0; i < 255; ++i) Take(4);
  EXPECT_EQ(copy, text);
  EXPECT_EQ(text, Take(4)) << "the 256th further narrow take reuses the slot";
}

// system_text_test.rc defines ids 1, 2, 3 (block 1), 20 (block 2) and 305 (block 20). The lookup
// names the block by the id itself.
TEST(LoadResourceStringTest, LooksUpTheBlockNamedByTheId) {
  HMODULE self = ::GetModuleHandleW(nullptr);
  const struct { std::uint32_t id; const wchar_t* text; } kCases[] = {
      {1, L"first string"},  // Block 1 exists, string 1 loads.
      {2, L"second string"}, // Block 2 exists (it holds 20), string 2 loads.
      {20, L"twenty"},       // Block 20 exists (it holds 305), string 20 loads.
      {3, nullptr},          // No block 3, although LoadStringW finds string 3.
      {4, nullptr}, {17, nullptr},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.id);
    const wchar_t* text = KVT::KVTLoadResourceStringW(self, row.id);
    EXPECT_EQ(row.text == nullptr ? L"<null>" : row.text, std::wstring(text ? text : L"<null>"));
  }
  wchar_t direct[64] = {};
  EXPECT_GT(::LoadStringW(self, 3, direct, 64), 0) << "string 3 itself exists";
  EXPECT_EQ(nullptr, KVT::KVTLoadResourceStringW(::GetModuleHandleW(L"kernel32.dll"), 60000));
}

// A text stays until 255 further takes, refused ones don't count, and the 256th gets its block
// back, emptied; a whole round repeats the same blocks.
TEST(TempStringTest, The257thTakeGetsTheFirstBlockAgain) {
  char* kept = Take(16);
  std::strcpy(kept, "keep me");
  std::vector<char*> first_round = {kept};
  char* const kSentinel = reinterpret_cast<char*>(0x1234);
  for (std::uint32_t chars : {512001u, 0u, 0xFFFFFFFFu}) {
    char* refused = kSentinel;
    EXPECT_EQ(0u, KVTGetTmpString(refused, chars)) << chars;
    EXPECT_EQ(kSentinel, refused);
  }
  for (int i = 0; i < 255; ++i) std::strcpy(first_round.emplace_back(Take(16)), "scratch");
  EXPECT_EQ(256u, std::set<char*>(first_round.begin(), first_round.end()).size());
  EXPECT_STREQ("keep me", kept);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(first_round[i], Take(16)) << "take " << 257 + i;
  EXPECT_STREQ("", kept);

  // The largest take, and the rings don't disturb each other.
  wchar_t* wide = Take<wchar_t>(KVT::kMaxTempStringChars);
  ASSERT_NE(nullptr, wide);
  wide[511999] = L'x';
  std::wcscpy(wide, L"wide text");
  for (int i = 0; i < 1000; ++i) std::strcpy(Take(32), "narrow text overwriting");
  EXPECT_STREQ(L"wide text", wide);
  for (int i = 0; i < 255; ++i) Take<wchar_t>(32);
  EXPECT_EQ(wide, Take<wchar_t>(32)) << "the narrow takes did not advance the wide ring";
}

}  // namespace
