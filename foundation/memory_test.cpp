#include "foundation/memory.h"

#include <gtest/gtest.h>

#include <cstring>

#include "foundation/win.h"

namespace {

using KVT::MemAlloc;
using KVT::MemFree;
using KVT::MemRealloc;

TEST(MemoryTest, AllocZeroFillsAndUsesTheProcessHeap) {
  auto* block = static_cast<unsigned char*>(MemAlloc(1000));
  ASSERT_NE(nullptr, block);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(0, block[i]) << i;
  EXPECT_EQ(1000u, ::HeapSize(::GetProcessHeap(), 0, block));
  MemFree(block);
}

TEST(MemoryTest, AllocOfZeroIsNull) { EXPECT_EQ(nullptr, MemAlloc(0)); }

TEST(MemoryTest, ReallocKeepsContentAndZeroesTheGrowth) {
  auto* block = static_cast<unsigned char*>(MemAlloc(16));
  ASSERT_NE(nullptr, block);
  std::memset(block, 0xAB, 16);
  auto* grown = static_cast<unsigned char*>(MemRealloc(block, 4096));
  ASSERT_NE(nullptr, grown);
  for (int i = 0; i < 16; ++i) ASSERT_EQ(0xAB, grown[i]) << i;
  for (int i = 16; i < 4096; ++i) ASSERT_EQ(0, grown[i]) << i;
  MemFree(grown);
}

TEST(MemoryTest, ReallocOfNullAllocatesNothing) {
  EXPECT_EQ(nullptr, MemRealloc(nullptr, 16));
  EXPECT_EQ(nullptr, MemRealloc(nullptr, 0xFFFFFFFFu));
}

// Only a 32-bit process is sure to be refused a block of almost 4 GiB.
TEST(MemoryTest, FailedReallocLeavesTheOldBlock) {
  if (sizeof(void*) != 4) GTEST_SKIP() << "a 64-bit heap may grant the request";
  auto* block = static_cast<unsigned char*>(MemAlloc(8));
  ASSERT_NE(nullptr, block);
  block[0] = 42;
  EXPECT_EQ(nullptr, MemRealloc(block, 0xFFFFFFF0u));
  EXPECT_EQ(42, block[0]);
  MemFree(block);
}

TEST(MemoryTest, FreeOfNullDoesNothing) { MemFree(nullptr); }

}  // namespace
