// Counted blocks: alignment per allocator, the last release against a reference count, and
// holds taken and ended on several threads at once.
#include "foundation/internal/counted_block.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <vector>

#include "foundation/internal/counted_heap_block.h"
#include "sync/test_thread.h"

namespace {

using KVT::internal::CountedBlock;
using KVT::internal::HeapMemory;
using KVT::internal::MallocMemory;
using KVT::internal::ObjectMemory;

// What the allocators give in either architecture: 8 bytes in 32-bit processes, 16 in 64-bit.
constexpr std::uintptr_t kAllocatorAlignment = 2 * sizeof(void*);

struct ThreePointers {
  void* a;
  void* b;
  void* c;
};

bool Aligned(const void* p) {
  return reinterpret_cast<std::uintptr_t>(p) % kAllocatorAlignment == 0;
}

// Allocates blocks of several sizes, checks each payload's alignment, writes it whole, resizes it
// where the allocator can, and checks that contents, count and Extra came along.
template <typename Memory, typename Extra, bool kCanResize>
void CheckAlignment(const char* name) {
  SCOPED_TRACE(name);
  using Block = CountedBlock<Memory, Extra>;
  for (std::size_t bytes : {1, 3, 8, 17, 100, 4096}) {
    SCOPED_TRACE(bytes);
    void* payload = Block::Allocate(bytes);
    ASSERT_NE(nullptr, payload);
    EXPECT_TRUE(Aligned(payload));
    EXPECT_EQ(1, Block::Holders(payload));
    std::memset(payload, 0x5A, bytes);
    if constexpr (kCanResize) {
      std::memset(&Block::ExtraOf(payload), 0x33, sizeof(Extra));
      void* grown = Block::Reallocate(payload, bytes * 300);
      ASSERT_NE(nullptr, grown);
      payload = grown;
      EXPECT_TRUE(Aligned(payload));
      EXPECT_EQ(1, Block::Holders(payload));
      const auto* bytes_in = static_cast<unsigned char*>(payload);
      for (std::size_t i = 0; i < bytes; ++i) ASSERT_EQ(0x5A, bytes_in[i]) << i;
      const auto* extra = reinterpret_cast<unsigned char*>(&Block::ExtraOf(payload));
      for (std::size_t i = 0; i < sizeof(Extra); ++i) ASSERT_EQ(0x33, extra[i]) << i;
    }
    EXPECT_TRUE(Block::Release(payload));
    Block::Free(payload);
  }
}

TEST(CountedBlock, PayloadKeepsTheAllocatorsAlignment) {
  CheckAlignment<MallocMemory, KVT::internal::NoExtra, true>("malloc");
  CheckAlignment<MallocMemory, ThreePointers, true>("malloc, three pointers");
  CheckAlignment<HeapMemory, KVT::internal::NoExtra, true>("heap");
  CheckAlignment<HeapMemory, ThreePointers, true>("heap, three pointers");
  CheckAlignment<ObjectMemory, KVT::internal::NoExtra, false>("new");
  CheckAlignment<ObjectMemory, ThreePointers, false>("new, three pointers");
  // Sizes that cannot be had give null, and null payloads are no holders.
  EXPECT_EQ(nullptr, CountedBlock<MallocMemory>::Allocate(SIZE_MAX - 4));
  using HeapBlock = CountedBlock<HeapMemory>;
  EXPECT_EQ(nullptr, HeapBlock::Allocate(SIZE_MAX - 4));
  if (sizeof(void*) == 8) {  // Beyond what the heap functions take.
    EXPECT_EQ(nullptr, HeapBlock::Allocate(static_cast<std::size_t>(UINT32_MAX) + 1));
  }
  HeapBlock::Retain(nullptr);
  HeapBlock::Drop(nullptr);
  EXPECT_FALSE(HeapBlock::Release(nullptr));
  EXPECT_EQ(0, HeapBlock::Holders(nullptr));
}

// Random holds on a few blocks against a count kept beside them, fixed seed: Release answers true
// exactly at the last hold, the deleter runs then and only then, Drop never frees.
TEST(CountedBlock, LastReleaseAgainstAReferenceCount) {
  using Block = CountedBlock<MallocMemory, int>;
  std::mt19937 random(13);
  struct Tracked {
    void* payload;
    long holds;
    int deleted;
  };
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    std::vector<Tracked> blocks;
    for (int i = 0; i < 3; ++i) blocks.push_back({Block::Allocate(16), 1, 0});
    for (const Tracked& b : blocks) ASSERT_NE(nullptr, b.payload);
    for (int step = 0; step < 40; ++step) {
      Tracked& b = blocks[random() % blocks.size()];
      if (b.holds == 0) continue;
      switch (random() % 3) {
        case 0:
          Block::Retain(b.payload);
          ++b.holds;
          break;
        case 1:
          Block::Release(b.payload, [&b](void* p) {
            EXPECT_EQ(b.payload, p);
            ++b.deleted;
          });
          if (--b.holds == 0) b.payload = nullptr;
          break;
        default:
          if (b.holds == 1) continue;  // A drop of the last hold would leak the block.
          Block::Drop(b.payload);
          --b.holds;
      }
      ASSERT_EQ(b.holds, Block::Holders(b.payload));
      ASSERT_EQ(b.holds == 0 ? 1 : 0, b.deleted);
    }
    for (Tracked& b : blocks) {
      for (; b.holds > 1; --b.holds) ASSERT_FALSE(Block::Release(b.payload));
      if (b.holds == 1) {
        ASSERT_TRUE(Block::Release(b.payload));
        Block::Free(b.payload);
      }
    }
  }
}

// Threads take and end holds on one block at once, each writing its mark into the payload before
// its last release: the block survives until the last hold ends, the deleter runs once, and it
// sees every thread's mark.
TEST(CountedBlock, ConcurrentHoldsReleaseOnce) {
  using Block = CountedBlock<ObjectMemory>;
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  for (int last_by_main = 0; last_by_main < 2; ++last_by_main) {
    SCOPED_TRACE(last_by_main);
    auto* marks = static_cast<std::atomic<int>*>(Block::Allocate(kThreads * sizeof(int)));
    ASSERT_NE(nullptr, marks);
    for (int t = 0; t < kThreads; ++t) new (&marks[t]) std::atomic<int>(0);
    std::atomic<int> deleted{0}, seen{0}, started{0};
    auto deleter = [&](void* p) {
      auto* m = static_cast<std::atomic<int>*>(p);
      for (int t = 0; t < kThreads; ++t) seen += m[t].load(std::memory_order_relaxed);
      ++deleted;
    };
    for (int t = 0; t < kThreads; ++t) Block::Retain(marks);  // Each thread's own hold.
    {
      std::vector<std::unique_ptr<tern_test::TestThread>> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.push_back(std::make_unique<tern_test::TestThread>([&, t] {
          ++started;
          const DWORD deadline = ::GetTickCount() + tern_test::kPatience;
          while (started < kThreads && static_cast<int>(::GetTickCount() - deadline) < 0) {
          }
          for (int i = 0; i < kRounds; ++i) {
            Block::Retain(marks);
            Block::Release(marks, deleter);
          }
          marks[t].store(1, std::memory_order_relaxed);
          Block::Release(marks, deleter);
        }));
      }
      if (!last_by_main) Block::Release(marks, deleter);
      for (auto& thread : threads) ASSERT_TRUE(thread->Join());
    }
    if (last_by_main) {
      EXPECT_EQ(0, deleted.load());
      EXPECT_EQ(1, Block::Holders(marks));
      Block::Release(marks, deleter);
    }
    EXPECT_EQ(1, deleted.load());
    EXPECT_EQ(kThreads, seen.load());
  }
}

}  // namespace
