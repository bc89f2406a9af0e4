#include "sync/bit_mask.h"

#include <cstdlib>
#include <cstring>

namespace KVT {
namespace {

constexpr unsigned int kBytesPerWord = 4;
constexpr unsigned int kBitsPerWord = 32;
constexpr unsigned int kDefaultBits = 32;
// How far past a touched bit the mask grows, so that a run of rising bits does not grow it at
// every step.
constexpr unsigned int kGrowthMargin = 256;

}  // namespace

// A mask whose first array cannot be allocated is left with no words at all (wordCount 0). Every
// operation accepts that: it reads as empty, and the next touch of a bit tries to grow it again.
CBitMask::CBitMask()
    : words(nullptr),
      bitCount(0),
      bytesPerWord(kBytesPerWord),
      bitsPerWord(kBitsPerWord),
      wordCount(0),
      byteCount(0) {
  SetSize(kDefaultBits, false);
}

CBitMask::CBitMask(unsigned int value) : CBitMask() {
  if (words != nullptr) words[0] = value;
}

CBitMask::CBitMask(CBitMask& other)
    : words(nullptr),
      bitCount(0),
      bytesPerWord(kBytesPerWord),
      bitsPerWord(kBitsPerWord),
      wordCount(0),
      byteCount(0) {
  SetSize(other.bitCount, false);
  if (words != nullptr && other.words != nullptr) {
    std::memcpy(words, other.words, byteCount < other.byteCount ? byteCount : other.byteCount);
  }
}

CBitMask::~CBitMask() {
  std::free(words);
  words = nullptr;
}

CBitMask& CBitMask::operator=(const CBitMask& other) {
  // Resizing to its own size would wipe the mask before the copy; assigning a mask to itself
  // leaves it as it is.
  if (this == &other) return *this;
  SetSize(other.bitCount, false);
  if (words != nullptr && other.words != nullptr) {
    std::memcpy(words, other.words, byteCount < other.byteCount ? byteCount : other.byteCount);
  }
  return *this;
}

void CBitMask::SetSize(unsigned int bits, bool fill) {
  // At most 2^27 + 1 words, so the byte count cannot overflow.
  const unsigned int newWordCount = bits / kBitsPerWord + 1;
  const unsigned int newByteCount = kBytesPerWord * newWordCount;
  // If the new array cannot be allocated, the mask stays exactly as it was, size included; a
  // growing touch of a bit then finds the bit still out of reach and reports it as clear.
  auto* newWords = static_cast<unsigned int*>(std::malloc(newByteCount));
  if (newWords == nullptr) return;
  std::memset(newWords, fill ? 0xFF : 0, newByteCount);

  unsigned int* oldWords = words;
  const unsigned int oldByteCount = byteCount;
  bitCount = bits;
  wordCount = newWordCount;
  bytesPerWord = kBytesPerWord;
  bitsPerWord = kBitsPerWord;
  words = newWords;
  byteCount = newByteCount;
  if (oldWords != nullptr) {
    // Only a mask that gains words keeps its bits.
    if (oldByteCount > 0 && oldByteCount < byteCount) std::memcpy(words, oldWords, oldByteCount);
    std::free(oldWords);
  }
}

bool CBitMask::GetBitBlock(unsigned int bit, unsigned int& offset, unsigned int*& word) {
  // A bit of the first word is always there (for a mask with words at all), so only bits from
  // 32 on can make the mask grow.
  const unsigned int index = bit / bitsPerWord;
  if (index >= wordCount) {
    // A bit so high that the margin would wrap around would shrink the mask and wipe it; such a
    // bit is treated like one the mask could not grow to.
    if (bit > ~0u - kGrowthMargin) return false;
    SetSize(bit + kGrowthMargin, false);
    if (index >= wordCount) return false;  // The allocation failed.
  }
  offset = bit - bitsPerWord * index;
  word = words + index;
  return true;
}

bool CBitMask::Set(unsigned int bit, bool value) {
  unsigned int offset = 0;
  unsigned int* word = nullptr;
  if (!GetBitBlock(bit, offset, word)) return true;  // Nowhere to put it; nothing to report.
  if (value) {
    *word |= 1u << offset;
  } else {
    *word &= ~(1u << offset);
  }
  return true;
}

bool CBitMask::IsSet(unsigned int bit) {
  unsigned int offset = 0;
  unsigned int* word = nullptr;
  if (!GetBitBlock(bit, offset, word)) return false;  // A bit the mask cannot hold reads as 0.
  return (*word >> offset) & 1u;
}

bool CBitMask::IsClear(unsigned int bit) {
  unsigned int offset = 0;
  unsigned int* word = nullptr;
  if (!GetBitBlock(bit, offset, word)) return true;
  return ((*word >> offset) & 1u) == 0;
}

bool CBitMask::IsEmpty() const {
  for (unsigned int i = 0; i < wordCount; ++i) {
    if (words[i] != 0) return false;
  }
  return true;
}

bool CBitMask::operator!() const { return IsEmpty(); }

void CBitMask::Clear() {
  if (words != nullptr) std::memset(words, 0, byteCount);
}

CBitMask& CBitMask::operator~() {
  for (unsigned int i = 0; i < wordCount; ++i) words[i] = ~words[i];
  return *this;
}

bool CBitMask::operator&(const CBitMask& other) const {
  const unsigned int compared = wordCount < other.wordCount ? wordCount : other.wordCount;
  for (unsigned int i = 0; i < compared; ++i) {
    if ((words[i] & other.words[i]) == 0) return false;
  }
  return true;
}

}  // namespace KVT
