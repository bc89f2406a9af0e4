// The recursive lock, the bit mask and the synchronisation table.
#include "sync/lock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "sync/bit_mask.h"
#include "sync/sync_table.h"
#include "sync/test_thread.h"

namespace {

using KVT::CBitMask;
using KVT::CLock;
using KVT::CTWSync;
using KVT::internal::ScopedHandle;
using tern_test::kGrace;
using tern_test::kPatience;
using tern_test::OnOtherThread;
using tern_test::TestThread;

// Whether another thread finds the section free: it enters without waiting and leaves again.
bool SectionFreeElsewhere(CRITICAL_SECTION* section) {
  bool entered = false;
  EXPECT_TRUE(OnOtherThread([&] {
    entered = ::TryEnterCriticalSection(section) != FALSE;
    if (entered) ::LeaveCriticalSection(section);
  }));
  return entered;
}

TEST(CLock, SecondThreadWaitsUntilOwnerHasUnlockedAsOftenAsItLocked) {
  CLock lock;
  lock.Lock();
  lock.Lock();
  EXPECT_EQ(lock.count, 2);
  EXPECT_EQ(lock.owner, ::GetCurrentThreadId());

  KVT::internal::ScopedHandle entered(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  KVT::internal::ScopedHandle leave(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  DWORD second_id = 0;
  TestThread second([&] {
    lock.Lock();
    second_id = ::GetCurrentThreadId();
    ::SetEvent(entered.Get());
    ::WaitForSingleObject(leave.Get(), kPatience);
    lock.Unlock();
  });
  EXPECT_EQ(::WaitForSingleObject(entered.Get(), kGrace), static_cast<DWORD>(WAIT_TIMEOUT));
  lock.Unlock();
  EXPECT_EQ(lock.count, 1);
  EXPECT_EQ(::WaitForSingleObject(entered.Get(), kGrace), static_cast<DWORD>(WAIT_TIMEOUT));
  lock.Unlock();
  ASSERT_EQ(::WaitForSingleObject(entered.Get(), kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(lock.owner, second_id);
  EXPECT_EQ(lock.count, 1);
  EXPECT_FALSE(lock.HaveLock());
  ::SetEvent(leave.Get());
  ASSERT_TRUE(second.Join());
  EXPECT_EQ(lock.count, 0);
  EXPECT_TRUE(SectionFreeElsewhere(lock.section));
}

TEST(CLock, UnlockElsewhereIsIgnoredAndTheLastOwnerKeepsHaveLock) {
  CLock lock;
  EXPECT_FALSE(lock.HaveLock());
  lock.Lock();
  EXPECT_TRUE(OnOtherThread([&] {
    EXPECT_FALSE(lock.HaveLock());
    lock.Unlock();
  }));
  EXPECT_EQ(lock.count, 1);
  EXPECT_FALSE(SectionFreeElsewhere(lock.section));
  lock.Unlock();
  EXPECT_TRUE(lock.HaveLock());
  EXPECT_TRUE(OnOtherThread([&] { EXPECT_FALSE(lock.HaveLock()); }));
  // An extra Unlock must not leave the section: a bare entry beside the lock would go with it.
  ::EnterCriticalSection(lock.section);
  lock.Unlock();
  EXPECT_EQ(lock.count, 0);
  EXPECT_FALSE(SectionFreeElsewhere(lock.section));
  ::LeaveCriticalSection(lock.section);
  EXPECT_TRUE(SectionFreeElsewhere(lock.section));
}

// A copy keeps the shared section alive, so that what a destructor did to it can be seen.
TEST(CLock, DestructorLeavesTheSectionForTheOwnerAndCopiesDeleteItOnce) {
  CLock survivor;
  CRITICAL_SECTION* const own_section = survivor.section;
  {
    auto held = std::make_unique<CLock>();
    survivor = *held;
    EXPECT_EQ(survivor.section, held->section);  // Assignment makes no section of its own.
    EXPECT_NE(survivor.section, own_section);
    held->Lock();
    held.reset();  // Held once by its owner: left.
  }
  EXPECT_TRUE(SectionFreeElsewhere(survivor.section));
  {
    CLock released(survivor);
    EXPECT_EQ(released.section, survivor.section);
    ::EnterCriticalSection(released.section);
    released.Lock();
    released.Unlock();
  }  // Taken and released: the destructor must not leave the bare entry.
  EXPECT_FALSE(SectionFreeElsewhere(survivor.section));
  ::LeaveCriticalSection(survivor.section);

  // The section that all the copies shared still works as a lock.
  survivor.Lock();
  EXPECT_FALSE(SectionFreeElsewhere(survivor.section));
  survivor.Unlock();
  EXPECT_TRUE(SectionFreeElsewhere(survivor.section));
}

using Words = std::vector<std::uint32_t>;

Words WordsOf(const CBitMask& mask) { return Words(mask.words, mask.words + mask.wordCount); }

// `count` words of 0 with the given ones set.
Words Zeros(std::size_t count, std::initializer_list<std::pair<std::size_t, std::uint32_t>> set) {
  Words words(count, 0);
  for (const auto& [index, value] : set) words[index] = value;
  return words;
}

void ExpectMask(const CBitMask& mask, unsigned int bit_count, const Words& words) {
  EXPECT_EQ(mask.bitCount, bit_count);
  EXPECT_EQ(mask.wordCount, words.size());
  EXPECT_EQ(mask.byteCount, 4 * words.size());
  EXPECT_EQ(WordsOf(mask), words);
}

// The odd rules at work; the property test below checks them all against a model.
TEST(CBitMask, WorkedExamplesOfGrowthAndFill) {
  CBitMask mask(0x8);
  ExpectMask(mask, 32, {8, 0});  // 32 bits in 2 words.
  EXPECT_FALSE(mask.IsSet(63));  // In the second word: no growth.
  EXPECT_TRUE(mask.Set(64, true));  // Word 2 is missing: SetSize(320, false).
  EXPECT_TRUE(mask.Set(351, true));  // Bits at and above bitCount are usable.
  ExpectMask(mask, 320, Zeros(11, {{0, 0x8}, {2, 1}, {10, 0x80000000}}));
  mask.SetSize(330, false);  // Still 11 words: the bits are lost all the same.
  ExpectMask(mask, 330, Words(11, 0));
  mask.SetSize(0, true);  // Falls to 1 word, all ones.
  ExpectMask(mask, 0, {0xFFFFFFFF});
  CBitMask filled(1);
  filled.SetSize(100, true);  // Gains 2 words: the old ones stay, the new ones are filled.
  ExpectMask(filled, 100, {1, 0, 0xFFFFFFFF, 0xFFFFFFFF});
  CBitMask inverted;
  EXPECT_FALSE(!~inverted);  // All 64 bits, not 32.
  ExpectMask(inverted, 32, {0xFFFFFFFF, 0xFFFFFFFF});
  // operator& asks for overlap in every word compared, not in some word.
  CBitMask a(1), b(1);
  EXPECT_FALSE(a & b);  // Their second words share nothing.
  a.Set(32, true);
  b.Set(32, true);
  b.Set(320, true);  // 11 words against 2: only the first 2 are compared.
  EXPECT_TRUE(a & b && b & a);
}

// The rules written out plainly, for the property test.
struct ModelMask {
  Words words = Words(2, 0);
  unsigned int bit_count = 32;

  void SetSize(unsigned int bits, bool fill) {
    Words fresh(bits / 32 + 1, fill ? 0xFFFFFFFF : 0);
    if (words.size() < fresh.size()) std::copy(words.begin(), words.end(), fresh.begin());
    words = fresh;
    bit_count = bits;
  }
  std::uint32_t& Word(unsigned int bit) {
    if (bit / 32 >= words.size()) SetSize(bit + 256, false);
    return words[bit / 32];
  }
};

TEST(CBitMask, RandomOperationsMatchAModel) {
  std::mt19937 random(20240611);
  CBitMask masks[2];
  ModelMask models[2];
  for (int step = 0; step < 3000; ++step) {
    SCOPED_TRACE(step);
    const int i = random() % 2;
    const unsigned int bit = random() % 1200;
    const std::uint32_t flag = 1u << (bit % 32);
    const bool value = random() % 2;
    switch (random() % 6) {
      case 0: {
        EXPECT_TRUE(masks[i].Set(bit, value));
        std::uint32_t& word = models[i].Word(bit);
        word = value ? word | flag : word & ~flag;
        break;
      }
      case 1:
        EXPECT_EQ(value ? masks[i].IsSet(bit) : !masks[i].IsClear(bit),
                  (models[i].Word(bit) & flag) != 0);
        break;
      case 2:
        masks[i].SetSize(bit, value);
        models[i].SetSize(bit, value);
        break;
      case 3:
        ~masks[i];
        for (auto& word : models[i].words) word = ~word;
        break;
      case 4: {
        bool overlap = true;
        for (std::size_t w = 0; w < std::min(models[0].words.size(), models[1].words.size()); ++w) {
          overlap = overlap && (models[0].words[w] & models[1].words[w]) != 0;
        }
        EXPECT_EQ(masks[i] & masks[1 - i], overlap);
        break;
      }
      default: {
        const int j = random() % 2;  // Self-assignment included: it must change nothing.
        masks[i] = masks[j];
        models[i] = models[j];
        CBitMask copy(masks[i]);
        ExpectMask(copy, models[i].bit_count, models[i].words);
        break;
      }
    }
    ExpectMask(masks[i], models[i].bit_count, models[i].words);
    EXPECT_EQ(masks[i].IsEmpty(), models[i].words == Words(models[i].words.size(), 0));
  }
}

const unsigned int kBad = static_cast<unsigned int>(CTWSync::BadSyncId);
const unsigned int kTimeout = static_cast<unsigned int>(CTWSync::SyncTimeout);

// What a zero-time wait on `mutex` gives on another thread, which gives back what it got.
DWORD TakeElsewhere(HANDLE mutex) {
  DWORD result = WAIT_FAILED;
  EXPECT_TRUE(OnOtherThread([&] {
    result = ::WaitForSingleObject(mutex, 0);
    if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) ::ReleaseMutex(mutex);
  }));
  return result;
}

// A second handle to the same object, which outlives the table's.
ScopedHandle Duplicate(HANDLE handle) {
  HANDLE copy = nullptr;
  ::DuplicateHandle(::GetCurrentProcess(), handle, ::GetCurrentProcess(), &copy, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
  return ScopedHandle(copy);
}

bool IsOpen(HANDLE handle) {
  DWORD flags = 0;
  return ::GetHandleInformation(handle, &flags) != FALSE;
}

TEST(CTWSync, NewTableFullTableAndIdsOutOfRange) {
  const ScopedHandle survivor(CTWSync().CreateEventW(0, 5, nullptr, true));
  EXPECT_TRUE(IsOpen(survivor.Get())) << "destruction closes nothing";
  CTWSync table;
  EXPECT_EQ(table.GetID(nullptr), 0u);
  EXPECT_TRUE(table.ValidateHandles());
  for (unsigned long mask : {0x0ul, 0x8001ul, 0xFFFF0000ul}) EXPECT_EQ(table.Wait(mask, 0), kBad);
  // Ids from 16 on are refused, and nothing is created for them.
  EXPECT_EQ(table.CreateEventW(0, 16, L"TernSyncTestRefusedEvent", true), nullptr);
  EXPECT_EQ(::OpenEventW(SYNCHRONIZE, FALSE, L"TernSyncTestRefusedEvent"), nullptr);
  EXPECT_EQ(table.CreateMutexW(0, 0xFFFFFFFF, nullptr), nullptr);
  EXPECT_EQ(table.SetHandle(::GetCurrentProcess(), 16, KVT::SyncEvent), 0);
  EXPECT_EQ(table.handleCount, 0);

  for (unsigned int id = 0; id < 16; ++id) {
    void* handle =
        id % 2 ? table.CreateMutexW(7, id, nullptr) : table.CreateEventW(7, id, nullptr, false);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(table[id], handle);
    EXPECT_EQ(table.GetID(handle), id);
  }
  EXPECT_EQ(table.GetID(nullptr), 0xFFFFFFFFu);
  EXPECT_EQ(table.handleCount, 16);
  // A taken id creates nothing: the name stays unknown to the system.
  EXPECT_EQ(table.CreateEventW(0, 3, L"TernSyncTestTakenEvent", true), nullptr);
  EXPECT_EQ(::OpenEventW(SYNCHRONIZE, FALSE, L"TernSyncTestTakenEvent"), nullptr);

  const int before = table.handleCount;
  EXPECT_TRUE(table.Close(6));
  EXPECT_NE(table.CreateEventW(0, 6, nullptr, true), nullptr);
  EXPECT_EQ(table.handleCount, before);
  table.CloseAll();
  EXPECT_TRUE(table.handleCount == 0 && table.GetID(nullptr) == 0);
}

TEST(CTWSync, EachTypeAllowsItsOwnOperations) {
  CTWSync table;
  HANDLE mutex = table.CreateMutexW(0, 1, nullptr);
  HANDLE plain = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);  // Auto-reset, of a type of 7.
  ASSERT_TRUE(table.CreateEventW(0, 0, nullptr, true) && mutex && plain);
  ASSERT_EQ(table.SetHandle(plain, 2, static_cast<KVT::TSyncType>(7)), 1);
  EXPECT_FALSE(table.Signal(1) || table.Signal(2));
  EXPECT_EQ(table.Acquire(0, 0) + table.Release(0) + table.Acquire(2, 0) + table.Release(2), 0);

  EXPECT_EQ(table.Acquire(1, kPatience), 1);
  EXPECT_EQ(TakeElsewhere(mutex), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_TRUE(table.Clear(1));  // Releases the mutex.
  EXPECT_EQ(TakeElsewhere(mutex), WAIT_OBJECT_0);
  EXPECT_TRUE(table.IsSignalled(1));  // A real wait: now this thread owns the mutex.
  EXPECT_EQ(TakeElsewhere(mutex), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_NE(table.Release(1), 0);

  ::SetEvent(plain);
  EXPECT_TRUE(table.Clear(2));        // No ResetEvent for a plain entry...
  EXPECT_EQ(table.Wait(0x4, 0), 2u);  // ...which Wait treats like any handle.
  EXPECT_TRUE(table.Close(2));
  EXPECT_TRUE(IsOpen(plain));  // Close made no call for it.
  table.CloseAll();
  ::CloseHandle(plain);
}

TEST(CTWSync, WaitGivesTheLowestSignalledSelectedIdAndNeverWaitsOnAFreeOne) {
  CTWSync table;
  for (unsigned int id = 0; id < 16; ++id)
    ASSERT_NE(table.CreateEventW(0, id, nullptr, true), nullptr);
  std::mt19937 random(16);
  for (int round = 0; round < 300; ++round) {
    const unsigned long mask = random();
    const unsigned int signalled = random() & random() & 0xFFFF;  // Sparse, so timeouts occur.
    for (unsigned int id = 0; id < 16; ++id)
      signalled >> id & 1 ? table.Signal(id) : table.Clear(id);
    unsigned int expected = (mask & 0xFFFF) ? kTimeout : kBad;
    for (unsigned int id = 16; id-- > 0;) {
      if (mask >> id & signalled >> id & 1) expected = id;
    }
    SCOPED_TRACE(testing::Message() << "mask " << mask << " signalled " << signalled);
    EXPECT_EQ(table.Wait(mask, 0), expected);
  }

  table.ClearAll();
  EXPECT_EQ(table.Wait(0x88, 50), kTimeout);
  TestThread signaller([&] { ::SetEvent(table[7]); });
  EXPECT_EQ(table.Wait(0x88, kPatience), 7u);
  EXPECT_TRUE(signaller.Join());
  table.CloseAll();

  // A free id among those selected gives BadSyncId at once: had Wait waited, it would have taken
  // the auto-reset event's signal.
  HANDLE event = table.CreateEventW(0, 0, nullptr, false);
  ASSERT_TRUE(table.Signal(0));
  EXPECT_EQ(table.Wait(0x3, kPatience), kBad);
  EXPECT_EQ(::WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  table.CloseAll();
}

// Relies on Wine reporting an abandoned mutex as Windows does, with WAIT_ABANDONED.
TEST(CTWSync, AbandonedMutexCountsForAcquireButNotForWaitOrIsSignalled) {
  CTWSync table;
  ASSERT_NE(table.CreateMutexW(0, 4, nullptr), nullptr);
  auto abandon = [&] { EXPECT_TRUE(OnOtherThread([&] { EXPECT_EQ(table.Acquire(4, 0), 1); })); };
  abandon();
  EXPECT_EQ(table.Wait(0x10, kPatience), kBad);
  EXPECT_NE(table.Release(4), 0);  // All the same, the wait made this thread the owner.
  abandon();
  EXPECT_FALSE(table.IsSignalled(4));
  EXPECT_NE(table.Release(4), 0);
  abandon();
  EXPECT_EQ(table.Acquire(4, kPatience), 1);
  EXPECT_NE(table.Release(4), 0);
  table.CloseAll();
}

TEST(CTWSync, CloseAndSetHandleReleaseAMutexFirstButCloseAllDoesNot) {
  for (const std::string how : {"Close", "SetHandle", "CloseAll"}) {
    SCOPED_TRACE(how);
    CTWSync table;
    HANDLE mutex = table.CreateMutexW(0, 9, nullptr);
    ScopedHandle kept = Duplicate(mutex);  // Keeps the mutex alive to look at.
    ASSERT_TRUE(kept.IsValid());
    ASSERT_EQ(table.Acquire(9, kPatience), 1);
    if (how == "Close") {
      EXPECT_TRUE(table.Close(9));
    } else if (how == "SetHandle") {
      EXPECT_EQ(table.SetHandle(nullptr, 9, KVT::SyncEvent), 1);
      EXPECT_EQ(table.handleCount, 1);  // Still counts the old handle.
      EXPECT_FALSE(table.ValidateHandles());
    } else {
      table.CloseAll();
    }
    EXPECT_FALSE(IsOpen(mutex));
    EXPECT_EQ(table.GetHandle(9), nullptr);
    EXPECT_EQ(table.SetHandle(nullptr, 9, KVT::SyncMutex), 0);  // Null on a free id.
    if (how == "CloseAll") {
      // Closing a handle does not release the mutex: this thread still owns it.
      EXPECT_EQ(TakeElsewhere(kept.Get()), static_cast<DWORD>(WAIT_TIMEOUT));
      EXPECT_NE(::ReleaseMutex(kept.Get()), FALSE);
    } else {
      EXPECT_EQ(TakeElsewhere(kept.Get()), WAIT_OBJECT_0);
    }
  }
}


}  // namespace
