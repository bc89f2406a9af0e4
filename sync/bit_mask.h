#ifndef TERNCORELIB_SYNC_BIT_MASK_H_
#define TERNCORELIB_SYNC_BIT_MASK_H_

#include "foundation/export.h"

namespace KVT {

// A set of numbered bits that grows by itself. Bit i is bit i % 32, counted from the least
// significant, of word i / 32.
//
// The mask always has bitCount / 32 + 1 words, one more than needed when bitCount is a multiple
// of 32: the default 32 bits live in 2 words. Every bit of every word can be used; bitCount
// limits nothing by itself. Touching a bit behind the last word with Set, IsSet or IsClear first
// grows the mask to that bit + 256 bits (so bit + 256 must fit in 32 bits).
//
// A bit that the mask cannot grow to, because memory ran out or because bit + 256 does not fit,
// reads as 0 and ignores Set; the mask stays as it was. A failed SetSize changes nothing at all.
//
// The mask has no lock, and even a query may replace `words`: threads that share a mask must lock
// around reads as well as writes.
class TERN_API CBitMask {
 public:
  // 32 bits in two words of 0.
  CBitMask();
  // As the default, with `value` as the first word: 32 bits of content, not a size.
  CBitMask(unsigned int value);
  // Same size and bits as `other`.
  CBitMask(CBitMask& other);
  ~CBitMask();

  // Takes `other`'s size and bits.
  CBitMask& operator=(const CBitMask& other);

  // Sets bitCount to `bits` and makes room for bits / 32 + 1 words. When the word count grows,
  // the old words keep their bits and the new ones are all ones if `fill`, else zero. When it
  // stays or falls, every word is refilled: all old bits are lost.
  void SetSize(unsigned int bits, bool fill);

  // Sets `bit` to `value`, growing the mask if needed. Always true.
  bool Set(unsigned int bit, bool value);
  // Whether `bit` is 1 / is 0, growing the mask first if it lies behind the last word.
  bool IsSet(unsigned int bit);
  bool IsClear(unsigned int bit);

  // True if every word is 0 (the bits at and above bitCount count too).
  bool IsEmpty() const;
  bool operator!() const;
  // Zeroes every word; the size stays.
  void Clear();
  // Complements every word in place, the bits at and above bitCount included; gives this mask.
  CBitMask& operator~();
  // True if the two masks share a set bit in EVERY word that both have, not merely in one:
  // two masks that overlap in word 0 but whose second words are 0 do not pass.
  bool operator&(const CBitMask& other) const;

  // The bits: bit i is bit i % 32 of word i / 32. Owned.
  unsigned int* words;
  // The size last set, in bits.
  unsigned int bitCount;
  // Always 4 and 32.
  unsigned int bytesPerWord;
  unsigned int bitsPerWord;
  // bitCount / 32 + 1, and the bytes of `words`: bytesPerWord * wordCount.
  unsigned int wordCount;
  unsigned int byteCount;

 private:
  // The word that holds `bit` and the bit's place in it, growing the mask first if the bit lies
  // behind the last word. False only if the mask could not grow far enough.
  bool GetBitBlock(unsigned int bit, unsigned int& offset, unsigned int*& word);
};

}  // namespace KVT

#endif  // TERNCORELIB_SYNC_BIT_MASK_H_
