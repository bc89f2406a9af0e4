#include "foundation/x_array.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
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

// Throws from its destructor, as a COM wrapper may.
struct Throwing {
  ~Throwing() noexcept(false) { throw 42; }
};

int NullSlotsFrom(const XArray<char*>& array, int first) {
  int nulls = 0;
  for (int i = first; i < array.capacity; ++i) nulls += array.entries[i] == nullptr;
  return nulls;
}

TEST(XArrayTest, NewArrayAllocatesNothingAndReadsDefault) {
  XArray<char*> array(100);
  EXPECT_EQ(nullptr, array.entries);
  EXPECT_EQ(0, array.capacity);
  EXPECT_EQ(100, array.growStep);
  EXPECT_TRUE(array.sorted);
  EXPECT_EQ(0, array.count);
  EXPECT_EQ(nullptr, array[0]);
  EXPECT_EQ(nullptr, array[-1]);
  array.RemoveAll();
  array.RemoveAll();
  EXPECT_EQ(nullptr, array.entries);
}

TEST(XArrayTest, GrowsByFixedStepsKeepingASpareSlot) {
  XArray<char*> array(100);
  char text[] = "x";
  EXPECT_EQ(0, array.Add(text));
  EXPECT_EQ(100, array.capacity);
  EXPECT_EQ(1, array.count);
  EXPECT_FALSE(array.sorted);

  for (int i = 1; i < 99; ++i) ASSERT_EQ(i, array.Add(text));
  EXPECT_EQ(100, array.capacity) << "99 entries still leave one spare slot";
  EXPECT_EQ(99, array.Add(text));
  EXPECT_EQ(200, array.capacity);
  EXPECT_EQ(100, array.count);
  EXPECT_EQ(100, NullSlotsFrom(array, 100));

  // A step below 2 could not keep a spare slot.
  XArray<int> tiny(0);
  EXPECT_EQ(2, tiny.growStep);
  for (int i = 0; i < 7; ++i) {
    tiny.Add(i);
    ASSERT_LT(tiny.count, tiny.capacity);
  }
}

TEST(XArrayTest, ReadsOutsideGiveTheDefault) {
  XArray<std::uint64_t> array(1000);
  array.Add(7);
  array.Add(8);
  EXPECT_EQ(7u, array[0]);
  EXPECT_EQ(8u, array[1]);
  EXPECT_EQ(0u, array[2]);
  EXPECT_EQ(0u, array[-1]);
  EXPECT_EQ(0u, array[1 << 30]);
  EXPECT_EQ(&XArray<std::uint64_t>::defaultValue, &array[-5]);
  array.Reset();
  EXPECT_EQ(0u, array[0]) << "Reset hides the entries";
  EXPECT_EQ(0u, XArray<std::uint64_t>::defaultValue);
}

TEST(XArrayTest, OwnedTextIsAPrivateCopyAndEmptyStaysEmpty) {
  XArray<wchar_t*> array(4);
  wchar_t caller[] = L"token";
  wchar_t empty[] = L"";
  array.Add(caller, true);
  array.Add(empty, true);
  array.Add(caller, false);
  caller[0] = L'X';
  EXPECT_STREQ(L"token", array[0]);
  EXPECT_NE(caller, array[0]);
  ASSERT_NE(nullptr, array[1]);
  EXPECT_NE(empty, array[1]);
  EXPECT_STREQ(L"", array[1]);
  EXPECT_EQ(caller, array[2]) << "a value not owned is held as it is";
  EXPECT_TRUE(array.entries[0]->owned);
  EXPECT_FALSE(array.entries[2]->owned);
}

TEST(XArrayTest, ResetKeepsRecordsAndAddReusesThemOneByOne) {
  int destroyed = 0;
  XArray<Tracked*> array(100);
  for (int i = 0; i < 3; ++i) array.Add(new Tracked(&destroyed), true);
  XArrayEntry<Tracked*>* const first_record = array.entries[0];

  array.Reset();
  EXPECT_EQ(0, array.count);
  EXPECT_EQ(0, destroyed) << "Reset keeps the owned values";

  Tracked* replacement = new Tracked(&destroyed);
  EXPECT_EQ(0, array.Add(replacement, true));
  EXPECT_EQ(1, destroyed) << "only the reused record's value goes";
  EXPECT_EQ(first_record, array.entries[0]);
  EXPECT_EQ(replacement, array[0]);

  array.RemoveAll();
  EXPECT_EQ(4, destroyed) << "records behind count are released too";
  EXPECT_EQ(nullptr, array.entries);
  EXPECT_EQ(0, array.capacity);
  EXPECT_EQ(0, array.count);
  EXPECT_EQ(100, array.growStep);

  // Usable again with a fresh table.
  EXPECT_EQ(0, array.Add(nullptr, true));
  EXPECT_EQ(100, array.capacity);
}

TEST(XArrayTest, ValuesNotOwnedSurviveRemoveAll) {
  int destroyed = 0;
  Tracked kept(&destroyed);
  {
    XArray<Tracked*> array(2);
    array.Add(&kept, false);
    array.RemoveAll();
  }
  EXPECT_EQ(0, destroyed);
}

// Differential test against std::vector: random Add, Reset and reads with a fixed seed.
TEST(XArrayTest, MatchesAVectorUnderRandomUse) {
  std::mt19937 random(20240611);
  XArray<char*> array(3);
  std::vector<std::string> oracle;
  for (int step = 0; step < 3000; ++step) {
    const int action = static_cast<int>(random() % 20);
    if (action == 0) {
      array.Reset();
      oracle.clear();
    } else if (action == 1) {
      array.RemoveAll();
      oracle.clear();
    } else {
      const std::string text(random() % 5, static_cast<char>('a' + random() % 26));
      ASSERT_EQ(static_cast<int>(oracle.size()), array.Add(const_cast<char*>(text.c_str()), true));
      oracle.push_back(text);
    }
    ASSERT_EQ(static_cast<int>(oracle.size()), array.count);
    ASSERT_LT(array.count, array.capacity + (array.entries == nullptr));
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
  original->Add(new Tracked(&destroyed), true);
  original->Add(new Tracked(&destroyed), true);

  XArray<Tracked*> copy(*original);
  EXPECT_EQ(original->entries, copy.entries);
  EXPECT_EQ(original->count, copy.count);
  EXPECT_EQ(original->capacity, copy.capacity);

  original->RemoveAll();
  EXPECT_EQ(0, destroyed) << "the copy still holds the table";
  EXPECT_EQ(nullptr, original->entries);
  ASSERT_NE(nullptr, copy[1]);
  EXPECT_EQ(&destroyed, copy[1]->destroyed);
  delete original;
  EXPECT_EQ(0, destroyed);

  copy.RemoveAll();
  EXPECT_EQ(2, destroyed);
}

TEST(XArrayTest, CopyThatGrowsTakesATableOfItsOwn) {
  int destroyed = 0;
  XArray<Tracked*> first(2);
  Tracked* a = new Tracked(&destroyed);
  first.Add(a, true);
  XArray<Tracked*> second(first);

  Tracked* b = new Tracked(&destroyed);
  second.Add(b, true);  // Needs growth: capacity 2, count 1.
  EXPECT_NE(first.entries, second.entries);
  EXPECT_EQ(4, second.capacity);
  EXPECT_EQ(a, second[0]);
  EXPECT_FALSE(second.entries[0]->owned) << "the shared table keeps owning its values";
  EXPECT_EQ(a, first[0]);
  EXPECT_EQ(1, first.count);

  second.RemoveAll();
  EXPECT_EQ(1, destroyed) << "only b belonged to the copy";
  first.RemoveAll();
  EXPECT_EQ(2, destroyed);
}

TEST(XArrayTest, AssignmentSharesAndKeepsTheFormerTable) {
  XArray<wchar_t*> source(10);
  source.Add(const_cast<wchar_t*>(L"one"), true);
  XArray<wchar_t*> target(10);
  target.Add(const_cast<wchar_t*>(L"old"), true);
  const wchar_t* old_text = target[0];

  XArray<wchar_t*> keeper(target);  // Holds the former table, as another copy would.
  target = source;
  EXPECT_EQ(source.entries, target.entries);
  EXPECT_STREQ(L"one", target[0]);
  EXPECT_STREQ(L"old", old_text) << "the former table stays while a copy holds it";
  EXPECT_EQ(old_text, keeper[0]);

  target = target;
  EXPECT_STREQ(L"one", target[0]);
}

TEST(XArrayTest, ThrowingReleaseStopsRemoveAllWhereItStands) {
  XArray<Throwing*> array(4);
  array.Add(new Throwing, true);
  array.Add(nullptr, false);
  EXPECT_NO_THROW(array.RemoveAll());
  EXPECT_NE(nullptr, array.entries) << "the release ended at the throwing value";
  EXPECT_EQ(2, array.count);
  EXPECT_EQ(nullptr, array[0]);
  array.RemoveAll();  // Finishes the release without touching the value again.
  EXPECT_EQ(nullptr, array.entries);
}

}  // namespace
