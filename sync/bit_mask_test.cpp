#include "sync/bit_mask.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using KVT::CBitMask;
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

TEST(CBitMask, WorkedExamplesOfGrowthAndFill) {
  CBitMask fresh;
  EXPECT_TRUE(fresh.IsEmpty());
  EXPECT_FALSE(fresh.IsSet(63));  // In the second word: no growth.
  ExpectMask(fresh, 32, {0, 0});

  CBitMask five(5);
  EXPECT_TRUE(five.IsSet(0) && five.IsClear(1) && five.IsSet(2));
  ExpectMask(five, 32, {5, 0});

  CBitMask grown(0x8);
  EXPECT_TRUE(grown.Set(64, true));  // Word 2 is missing: SetSize(320, false).
  ExpectMask(grown, 320, Zeros(11, {{0, 0x8}, {2, 1}}));
  EXPECT_TRUE(grown.Set(3, false));
  EXPECT_TRUE(grown.Set(351, true));  // Bits at and above bitCount are usable.
  ExpectMask(grown, 320, Zeros(11, {{2, 1}, {10, 0x80000000}}));

  CBitMask queried;
  EXPECT_FALSE(queried.IsSet(1000));
  ExpectMask(queried, 1256, Words(40, 0));
  CBitMask cleared;
  EXPECT_TRUE(cleared.IsClear(95));
  ExpectMask(cleared, 351, Words(11, 0));

  CBitMask same_count(1);
  same_count.SetSize(40, false);  // Still 2 words: the bits are lost.
  ExpectMask(same_count, 40, {0, 0});
  same_count.SetSize(0, true);  // Falls to 1 word, all ones.
  ExpectMask(same_count, 0, {0xFFFFFFFF});

  CBitMask filled(1);
  filled.SetSize(100, true);  // Gains 2 words: the old ones stay, the new ones are filled.
  ExpectMask(filled, 100, {1, 0, 0xFFFFFFFF, 0xFFFFFFFF});

  CBitMask inverted;
  EXPECT_FALSE(!~inverted);  // All 64 bits, not 32.
  ExpectMask(inverted, 32, {0xFFFFFFFF, 0xFFFFFFFF});
  inverted.Clear();
  EXPECT_TRUE(!inverted);
  ExpectMask(inverted, 32, {0, 0});

  // operator& asks for overlap in every word compared, not in some word.
  CBitMask a(1), b(1);
  EXPECT_FALSE(a & b);  // Their second words share nothing.
  a.Set(32, true);
  b.Set(32, true);
  EXPECT_TRUE(a & b);
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

}  // namespace
