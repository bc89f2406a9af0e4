#include "sync/lock.h"

#include <gtest/gtest.h>

#include <memory>

#include "sync/test_thread.h"

namespace {

using KVT::CLock;
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

  KVT::ScopedHandle entered(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  KVT::ScopedHandle leave(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
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

}  // namespace
