#include "foundation/x_array.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

// An owned object that counts its destructions.
struct Tracked {
  explicit Tracked(int* destroyed) : destroyed(destroyed) {}
  ~Tracked() { ++*destroyed; }
  int* destroyed;
};

TEST(XArrayTest, GrowsByFixedStepsAndReadsOutsideAsZero) {
  XArray<std::uint64_t> array(100);
  EXPECT_EQ(nullptr, array.entries);
  EXPECT_TRUE(array.sorted);
  EXPECT_EQ(0u, array[0]) << "no table yet";
  EXPECT_EQ(0, array.Add(7));
  EXPECT_EQ(100, array.capacity);
  EXPECT_FALSE(array.sorted);
  for (int i = 1; i < 99; ++i) array.Add(i);
  EXPECT_EQ(100, array.capacity) << "99 entries still leave a spare slot";
  EXPECT_EQ(99, array.Add(99));
  EXPECT_EQ(200, array.capacity);
  for (int i = 100; i < 200; ++i) ASSERT_EQ(nullptr, array.entries[i]) << i;
  EXPECT_EQ(7u, array[0]);
  EXPECT_EQ(0u, array[-1]);
  EXPECT_EQ(0u, array[100]);
  EXPECT_EQ(&XArray<std::uint64_t>::defaultValue, &array[100]);
  array.RemoveAll();
  array.RemoveAll();
  EXPECT_EQ(nullptr, array.entries);
  EXPECT_EQ(0, array.capacity);
  EXPECT_EQ(100, array.growStep);
}

TEST(XArrayTest, ResetKeepsOwnedValuesUntilReuseOrRemoveAll) {
  int destroyed = 0;
  Tracked held(&destroyed);
  XArray<Tracked*> array;
  for (int i = 0; i < 3; ++i) array.Add(new Tracked(&destroyed), true);
  array.Add(&held, false);
  array.Reset();
  EXPECT_EQ(0, destroyed);
  array.Add(new Tracked(&destroyed), true);
  EXPECT_EQ(1, destroyed) << "only the reused record's value goes";
  array.RemoveAll();
  EXPECT_EQ(4, destroyed) << "records behind count go too; the held value stays";
  EXPECT_EQ(0, array.Add(nullptr));
  EXPECT_EQ(100, array.capacity) << "a fresh table";
}

// Growth by steps across many doublings of the block behind the table: after every Add the
// capacity is the next step above the count, each growth's new slots are null, values read back,
// and a refill after Reset reuses every record in place.
TEST(XArrayTest, StepsStayExactAcrossManyGrowths) {
  constexpr int kStep = 7;
  constexpr int kValues = 20000;
  XArray<std::uint64_t> array(kStep);
  for (int i = 0; i < kValues; ++i) {
    const int grown_from = array.capacity;
    ASSERT_EQ(i, array.Add(0x100000000ull * i + 3));
    ASSERT_EQ((array.count / kStep + 1) * kStep, array.capacity) << i;
    for (int k = grown_from > i + 1 ? grown_from : i + 1; k < array.capacity; ++k) {
      ASSERT_EQ(nullptr, array.entries[k]) << i;
    }
  }
  std::vector<XArrayEntry<std::uint64_t>*> records(array.entries, array.entries + kValues);
  array.Reset();
  for (int i = 0; i < kValues; ++i) array.Add(i);
  for (int i = 0; i < kValues; ++i) {
    ASSERT_EQ(records[i], array.entries[i]) << i;
    ASSERT_EQ(static_cast<std::uint64_t>(i), array[i]);
  }
  EXPECT_EQ(0u, array[kValues]);
}

// Random Add, Reset and RemoveAll of owned texts (empty ones among them, and changed by the
// caller after the Add) against std::vector, with a fixed seed.
TEST(XArrayTest, MatchesAVectorUnderRandomUse) {
  std::mt19937 random(20240611);
  XArray<char*> array(3);
  std::vector<std::string> oracle;
  for (int step = 0; step < 3000; ++step) {
    const unsigned action = random() % 20;
    if (action < 2) {
      action == 0 ? array.Reset() : array.RemoveAll();
      oracle.clear();
    } else {
      std::string text(random() % 5, static_cast<char>('a' + random() % 26));
      ASSERT_EQ(static_cast<int>(oracle.size()), array.Add(text.data(), true));
      oracle.push_back(text);
      text.assign("junk");
    }
    ASSERT_EQ(static_cast<int>(oracle.size()), array.count);
    const int probe = static_cast<int>(random() % (oracle.size() + 3)) - 1;
    SCOPED_TRACE(testing::Message() << "step " << step << " probe " << probe);
    if (probe >= 0 && probe < static_cast<int>(oracle.size())) {
      ASSERT_STREQ(oracle[probe].c_str(), array[probe]);
    } else {
      ASSERT_EQ(nullptr, array[probe]);
    }
  }
}

TEST(XArrayTest, CopiesShareOneTableAndReleaseItOnce) {
  int destroyed = 0;
  auto* original = new XArray<Tracked*>(2);
  Tracked* first = new Tracked(&destroyed);
  original->Add(first, true);
  XArray<Tracked*> copy(*original);
  XArray<Tracked*> grown;
  grown = *original;
  EXPECT_EQ(original->entries, copy.entries);

  // Growing a shared table gives that copy a table of its own, holding what it had.
  grown.Add(new Tracked(&destroyed), true);
  EXPECT_NE(original->entries, grown.entries);
  EXPECT_EQ(first, grown[0]);

  delete original;
  EXPECT_EQ(0, destroyed) << "the copies still hold the table";
  EXPECT_EQ(first, copy[0]);
  grown.RemoveAll();
  EXPECT_EQ(1, destroyed) << "the shared table keeps owning what the grown copy took along";
  copy.RemoveAll();
  EXPECT_EQ(2, destroyed);
}

}  // namespace
