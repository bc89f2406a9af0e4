#include "foundation/event.h"

#include <gtest/gtest.h>

#include "foundation/scoped_handle.h"
#include "foundation/win.h"

namespace {

using KVT::IsEventSignalled;
using KVT::ScopedHandle;

TEST(IsEventSignalledTest, FollowsTheEventState) {
  ScopedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  ASSERT_TRUE(event.IsValid());
  EXPECT_FALSE(IsEventSignalled(event.Get()));
  ::SetEvent(event.Get());
  EXPECT_TRUE(IsEventSignalled(event.Get()));
  EXPECT_TRUE(IsEventSignalled(event.Get())) << "a manual-reset event stays set";
  ::ResetEvent(event.Get());
  EXPECT_FALSE(IsEventSignalled(event.Get()));
}

TEST(IsEventSignalledTest, NullIsFalse) { EXPECT_FALSE(IsEventSignalled(nullptr)); }

// A failed wait reads as signalled. Relies on the wait failing for a closed handle, which Wine
// and Windows both do.
TEST(IsEventSignalledTest, ClosedHandleReadsAsSignalled) {
  HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ASSERT_NE(nullptr, event);
  ::CloseHandle(event);
  EXPECT_TRUE(IsEventSignalled(event));
}

}  // namespace
