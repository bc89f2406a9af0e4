#include "sync/sync_table.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "sync/test_thread.h"

namespace {

using KVT::CTWSync;
using KVT::ScopedHandle;
using tern_test::kPatience;
using tern_test::OnOtherThread;

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
    void* handle = id % 2 ? table.CreateMutexW(7, id, nullptr) : table.CreateEventW(7, id, nullptr, false);
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

TEST(CTWSync, WaitGivesTheLowestSignalledSelectedId) {
  CTWSync table;
  for (unsigned int id = 0; id < 16; ++id) ASSERT_NE(table.CreateEventW(0, id, nullptr, true), nullptr);
  std::mt19937 random(16);
  for (int round = 0; round < 300; ++round) {
    const unsigned long mask = random();
    const unsigned int signalled = random() & random() & 0xFFFF;  // Sparse, so timeouts occur.
    for (unsigned int id = 0; id < 16; ++id) signalled >> id & 1 ? table.Signal(id) : table.Clear(id);
    unsigned int expected = (mask & 0xFFFF) ? kTimeout : kBad;
    for (unsigned int id = 16; id-- > 0;) {
      if (mask >> id & signalled >> id & 1) expected = id;
    }
    SCOPED_TRACE(testing::Message() << "mask " << mask << " signalled " << signalled);
    EXPECT_EQ(table.Wait(mask, 0), expected);
  }

  table.ClearAll();
  EXPECT_EQ(table.Wait(0x88, 50), kTimeout);
  tern_test::TestThread signaller([&] { ::SetEvent(table[7]); });
  EXPECT_EQ(table.Wait(0x88, kPatience), 7u);
  EXPECT_TRUE(signaller.Join());
  table.CloseAll();
}

TEST(CTWSync, FreeSelectedIdGivesBadSyncIdWithoutWaiting) {
  CTWSync table;
  HANDLE event = table.CreateEventW(0, 0, nullptr, false);
  ASSERT_TRUE(table.Signal(0));
  EXPECT_EQ(table.Wait(0x3, kPatience), kBad);
  // Had Wait waited, it would have taken the auto-reset event's signal.
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

TEST(CTWSync, DestructionClosesNothing) {
  HANDLE event = CTWSync().CreateEventW(0, 5, nullptr, true);
  EXPECT_TRUE(IsOpen(event));
  ::CloseHandle(event);
}

}  // namespace
