#include "foundation/temp_string.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "foundation/temp_string_ring.h"

namespace {

using KVT::KVTGetTmpString;
using KVT::internal::TempStringRing;

template <typename CharT = char>
CharT* Take(std::uint32_t chars = 8) {
  CharT* text = nullptr;
  EXPECT_EQ(1u, KVTGetTmpString(text, chars));
  return text;
}

TEST(TempStringRingTest, HandsOutSlotsInOrderAndWrapsAfter256) {
  TempStringRing<char> ring;
  for (std::uint32_t take = 0; take < 3 * 256; ++take) ASSERT_EQ(take % 256, ring.TakeSlot());
  for (std::uint32_t slot = 0; slot < 256; ++slot) ring.ReleaseSlot(slot);
}

TEST(TempStringRingTest, KeepsLargerBlockAndEmptiesItsText) {
  TempStringRing<wchar_t> ring;
  wchar_t* big = ring.Ensure(7, 100);
  ASSERT_NE(nullptr, big);
  std::wmemset(big, L'q', 99);
  wchar_t* small = ring.Ensure(7, 10);
  EXPECT_EQ(big, small);
  EXPECT_EQ(100u, ring.SlotCapacity(7));
  EXPECT_EQ(L'\0', small[0]);
  EXPECT_EQ(L'q', small[1]) << "reuse clears only the first character";
  wchar_t* bigger = ring.Ensure(7, 5000);
  ASSERT_NE(nullptr, bigger);
  EXPECT_EQ(5000u, ring.SlotCapacity(7));
  EXPECT_EQ(L'\0', bigger[0]);
  bigger[4999] = L'z';  // The whole asked-for range is writable.
  ring.ReleaseSlot(7);
  EXPECT_EQ(0u, ring.SlotCapacity(7));
}

// A text stays until 255 further takes, refused ones don't count, and the 256th gets its block
// back, emptied; a whole round repeats the same blocks when the size stays.
TEST(TempStringTest, The257thTakeGetsTheFirstBlockAgain) {
  char* kept = Take(16);
  std::strcpy(kept, "keep me");
  std::vector<char*> first_round = {kept};
  char* unused = nullptr;
  ASSERT_EQ(0u, KVTGetTmpString(unused, 512001));
  ASSERT_EQ(0u, KVTGetTmpString(unused, 0));
  for (int i = 0; i < 255; ++i) {
    first_round.push_back(Take(16));
    std::strcpy(first_round.back(), "scratch");
  }
  EXPECT_EQ(256u, std::set<char*>(first_round.begin(), first_round.end()).size());
  EXPECT_STREQ("keep me", kept);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(first_round[i], Take(16)) << "take " << 257 + i;
  EXPECT_STREQ("", kept);
}

TEST(TempStringTest, LimitIs512000Characters) {
  char* narrow = Take(512000);
  ASSERT_NE(nullptr, narrow);
  narrow[511999] = 'x';
  EXPECT_EQ('\0', narrow[0]);
  wchar_t* wide = Take<wchar_t>(KVT::kMaxTempStringChars);
  ASSERT_NE(nullptr, wide);
  wide[511999] = L'x';

  char* const kSentinel = reinterpret_cast<char*>(0x1234);
  for (std::uint32_t chars : {512001u, 0u, 0xFFFFFFFFu}) {
    char* text = kSentinel;
    EXPECT_EQ(0u, KVTGetTmpString(text, chars)) << chars;
    EXPECT_EQ(kSentinel, text);
  }
}

TEST(TempStringTest, RingsDoNotDisturbEachOther) {
  wchar_t* wide = Take<wchar_t>(32);
  std::wcscpy(wide, L"wide text");
  for (int i = 0; i < 1000; ++i) std::strcpy(Take(32), "narrow text overwriting");
  EXPECT_STREQ(L"wide text", wide);
  // The narrow takes did not advance the wide ring either.
  for (int i = 0; i < 255; ++i) Take<wchar_t>(32);
  EXPECT_EQ(wide, Take<wchar_t>(32));
}

// Several threads take together, in rounds of exactly 256 takes between barriers. Within a round
// no two takes may share a slot, whoever made them; a cursor that is not advanced atomically, or
// a reset that skips or repeats a slot, shows up as a repeated pointer.
TEST(TempStringTest, ConcurrentTakersNeverShareASlot) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 100;
  std::mutex mutex;
  std::condition_variable changed;
  int started = 0;  // The round the takers may run.
  int finished = 0;
  std::vector<std::vector<char*>> taken(kThreads, std::vector<char*>(256 / kThreads));
  const auto wait = [&](std::unique_lock<std::mutex>& lock, const auto& ready) {
    return changed.wait_for(lock, std::chrono::seconds(30), ready);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 1; round <= kRounds; ++round) {
        {
          std::unique_lock<std::mutex> lock(mutex);
          if (!wait(lock, [&] { return started >= round; })) return;
        }
        for (char*& text : taken[t]) KVTGetTmpString(text, 4);
        std::lock_guard<std::mutex> lock(mutex);
        ++finished;
        changed.notify_all();
      }
    });
  }
  bool all_rounds_ran = true;
  for (int round = 1; round <= kRounds; ++round) {
    std::unique_lock<std::mutex> lock(mutex);
    finished = 0;
    started = round;
    changed.notify_all();
    all_rounds_ran = wait(lock, [&] { return finished == kThreads; });
    if (!all_rounds_ran) break;
    std::set<char*> distinct;
    for (const auto& takes : taken) distinct.insert(takes.begin(), takes.end());
    EXPECT_EQ(256u, distinct.size()) << "round " << round;
    // An odd number of single takes between rounds moves where the rounds start in the ring.
    for (int i = 0; i < round % 7; ++i) Take(4);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    started = kRounds + 1;  // Releases any taker still waiting after a failure.
    changed.notify_all();
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(all_rounds_ran) << "a round did not finish within 30 s";
}

}  // namespace
