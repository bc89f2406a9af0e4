#include "foundation/temp_string.h"

#include <gtest/gtest.h>

#include <atomic>
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

char* TakeNarrow(std::uint32_t chars = 8) {
  char* text = nullptr;
  EXPECT_EQ(1u, KVTGetTmpString(text, chars));
  return text;
}

wchar_t* TakeWide(std::uint32_t chars = 8) {
  wchar_t* text = nullptr;
  EXPECT_EQ(1u, KVTGetTmpString(text, chars));
  return text;
}

TEST(TempStringRingTest, HandsOutSlotsInOrderAndWrapsAfter256) {
  TempStringRing<char> ring;
  for (std::uint32_t round = 0; round < 3; ++round) {
    for (std::uint32_t expected = 0; expected < 256; ++expected) {
      ASSERT_EQ(expected, ring.TakeSlot()) << "round " << round;
    }
  }
  for (std::uint32_t slot = 0; slot < 256; ++slot) ring.ReleaseSlot(slot);
}

TEST(TempStringRingTest, KeepsLargerBlockAndEmptiesItsText) {
  TempStringRing<wchar_t> ring;
  wchar_t* big = ring.Ensure(7, 100);
  ASSERT_NE(nullptr, big);
  std::wmemset(big, L'q', 99);
  EXPECT_EQ(100u, ring.SlotCapacity(7));

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

TEST(TempStringTest, The257thTakeGetsTheFirstBlockAgain) {
  std::vector<char*> first_round;
  for (int i = 0; i < 256; ++i) first_round.push_back(TakeNarrow());
  EXPECT_EQ(256u, std::set<char*>(first_round.begin(), first_round.end()).size());
  // Same size as before, so no slot needs to move: the next round repeats the same blocks.
  for (int i = 0; i < 256; ++i) {
    ASSERT_EQ(first_round[i], TakeNarrow()) << "take " << 257 + i;
  }
}

TEST(TempStringTest, TextStaysUntil256FurtherTakes) {
  char* kept = TakeNarrow(16);
  std::strcpy(kept, "keep me");
  for (int i = 0; i < 255; ++i) {
    char* other = TakeNarrow(16);
    std::strcpy(other, "scratch");
  }
  EXPECT_STREQ("keep me", kept);
  EXPECT_EQ(kept, TakeNarrow(16));
  EXPECT_STREQ("", kept) << "the 256th further take reuses the slot";
}

TEST(TempStringTest, LimitIs512000Characters) {
  char* narrow = nullptr;
  EXPECT_EQ(1u, KVTGetTmpString(narrow, 512000));
  ASSERT_NE(nullptr, narrow);
  narrow[511999] = 'x';
  EXPECT_EQ('\0', narrow[0]);

  wchar_t* wide = nullptr;
  EXPECT_EQ(1u, KVTGetTmpString(wide, KVT::kMaxTempStringChars));
  ASSERT_NE(nullptr, wide);
  wide[511999] = L'x';

  char* sentinel = reinterpret_cast<char*>(0x1234);
  EXPECT_EQ(0u, KVTGetTmpString(sentinel, 512001));
  EXPECT_EQ(reinterpret_cast<char*>(0x1234), sentinel);
  EXPECT_EQ(0u, KVTGetTmpString(sentinel, 0));
  EXPECT_EQ(0u, KVTGetTmpString(sentinel, 0xFFFFFFFFu));
  EXPECT_EQ(reinterpret_cast<char*>(0x1234), sentinel);
}

TEST(TempStringTest, RefusedTakeDoesNotMoveTheCursor) {
  char* before = TakeNarrow();
  char* unused = nullptr;
  ASSERT_EQ(0u, KVTGetTmpString(unused, 512001));
  ASSERT_EQ(0u, KVTGetTmpString(unused, 0));
  for (int i = 0; i < 255; ++i) ASSERT_NE(before, TakeNarrow());
  EXPECT_EQ(before, TakeNarrow());
}

TEST(TempStringTest, RingsDoNotDisturbEachOther) {
  wchar_t* wide = TakeWide(32);
  std::wcscpy(wide, L"wide text");
  wchar_t* next_wide_expected = nullptr;
  for (int i = 0; i < 1000; ++i) {
    char* narrow = TakeNarrow(32);
    std::strcpy(narrow, "narrow text overwriting");
  }
  EXPECT_STREQ(L"wide text", wide);
  // The narrow takes did not advance the wide ring either.
  std::vector<wchar_t*> takes;
  for (int i = 0; i < 256; ++i) takes.push_back(TakeWide(32));
  next_wide_expected = takes.back();
  EXPECT_EQ(wide, next_wide_expected);
}

// Several threads take together, in rounds of exactly 256 takes between barriers. Within a round
// no two takes may share a slot, whoever made them; a cursor that is not advanced atomically, or
// a reset that skips or repeats a slot, shows up as a repeated pointer.
TEST(TempStringTest, ConcurrentTakersNeverShareASlot) {
  constexpr int kThreads = 4;
  constexpr int kTakesPerThread = 256 / kThreads;
  constexpr int kRounds = 100;

  std::mutex mutex;
  std::condition_variable changed;
  int generation = 0;
  int finished = 0;
  std::vector<std::vector<char*>> taken(kThreads, std::vector<char*>(kTakesPerThread));

  auto worker = [&](int index) {
    for (int round = 0; round < kRounds; ++round) {
      {
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, std::chrono::seconds(30),
                              [&] { return generation > round; })) {
          return;
        }
      }
      for (int i = 0; i < kTakesPerThread; ++i) {
        char* text = nullptr;
        KVTGetTmpString(text, 4);
        taken[index][i] = text;
      }
      std::lock_guard<std::mutex> lock(mutex);
      ++finished;
      changed.notify_all();
    }
  };

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
  bool all_rounds_ran = true;
  for (int round = 0; round < kRounds && all_rounds_ran; ++round) {
    std::unique_lock<std::mutex> lock(mutex);
    finished = 0;
    ++generation;
    changed.notify_all();
    all_rounds_ran = changed.wait_for(lock, std::chrono::seconds(30),
                                      [&] { return finished == kThreads; });
    if (!all_rounds_ran) break;
    std::set<char*> distinct;
    for (const auto& takes : taken) distinct.insert(takes.begin(), takes.end());
    ASSERT_EQ(256u, distinct.size()) << "round " << round;
    // An odd number of single takes between rounds moves where the rounds start in the ring.
    for (int i = 0; i < round % 7; ++i) TakeNarrow(4);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    generation = kRounds + 1;  // Releases any worker still waiting after a failure.
    changed.notify_all();
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(all_rounds_ran) << "a round did not finish within 30 s";
}

}  // namespace
