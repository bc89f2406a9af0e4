#ifndef TERNCORELIB_FOUNDATION_INTERNAL_TEMP_STRING_RING_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_TEMP_STRING_RING_H_

// The ring behind temporary strings. Internal to the library; tests use it to check the slot
// order directly.

#include <cstdint>
#include <cstring>

#include "foundation/memory.h"
#include "foundation/win.h"

namespace KVT {
namespace internal {

template <typename CharT>
class TempStringRing {
 public:
  static constexpr std::uint32_t kSlotCount = 256;

  // The index of the next slot. Only the taker that reads exactly 256 resets the cursor, so no
  // slot is skipped and no lock is needed; a taker that reads more than 256 stands between that
  // taker's two atomic steps and simply tries again.
  std::uint32_t TakeSlot() {
    for (;;) {
      const LONG before = ::InterlockedExchangeAdd(&cursor_, 1);
      if (before == static_cast<LONG>(kSlotCount)) {
        ::InterlockedExchange(&cursor_, 1);
        return 0;
      }
      if (before < static_cast<LONG>(kSlotCount)) return static_cast<std::uint32_t>(before);
    }
  }

  // Makes room for `chars` characters in `slot` and returns its text, emptied. A block is
  // 4 bytes of capacity followed by the characters; it grows to the exact size asked and never
  // shrinks. Null when the heap fails; the slot then keeps the block it had.
  CharT* Ensure(std::uint32_t slot, std::uint32_t chars) {
    CharT* text = Grow(slot, chars);
    if (text != nullptr) text[0] = CharT();
    return text;
  }

  // The same, but the text stays as it was: a block that moves takes its characters along.
  CharT* Grow(std::uint32_t slot, std::uint32_t chars) {
    const std::uint32_t bytes = chars * static_cast<std::uint32_t>(sizeof(CharT)) + kHeaderBytes;
    void* block = slots_[slot];
    if (block == nullptr) {
      block = MemAlloc(bytes);
      if (block == nullptr) return nullptr;
      slots_[slot] = block;
      SetCapacity(block, chars);
    } else if (Capacity(block) < chars) {
      block = MemRealloc(block, bytes);
      if (block == nullptr) return nullptr;
      slots_[slot] = block;
      SetCapacity(block, chars);
    }
    return TextOf(block);
  }

  std::uint32_t SlotCapacity(std::uint32_t slot) const {
    return slots_[slot] == nullptr ? 0 : Capacity(slots_[slot]);
  }

  void Clear() {
    for (void*& slot : slots_) slot = nullptr;
  }

  void ReleaseSlot(std::uint32_t slot) {
    MemFree(slots_[slot]);
    slots_[slot] = nullptr;
  }

 private:
  static constexpr std::uint32_t kHeaderBytes = sizeof(std::uint32_t);

  static std::uint32_t Capacity(const void* block) {
    std::uint32_t capacity;
    std::memcpy(&capacity, block, sizeof capacity);
    return capacity;
  }
  static void SetCapacity(void* block, std::uint32_t capacity) {
    std::memcpy(block, &capacity, sizeof capacity);
  }
  static CharT* TextOf(void* block) {
    return reinterpret_cast<CharT*>(static_cast<unsigned char*>(block) + kHeaderBytes);
  }

  // Zero-initialised statics: the rings need no constructor to run at load.
  void* slots_[kSlotCount] = {};
  volatile LONG cursor_ = 0;
};

TempStringRing<char>& NarrowRing();
TempStringRing<wchar_t>& WideRing();

inline TempStringRing<char>& RingFor(char*) { return NarrowRing(); }
inline TempStringRing<wchar_t>& RingFor(wchar_t*) { return WideRing(); }

// Takes the next slot of `CharT`'s ring sized for `chars` characters, with no limit check.
template <typename CharT>
CharT* TakeTempString(std::uint32_t chars) {
  auto& ring = RingFor(static_cast<CharT*>(nullptr));
  return ring.Ensure(ring.TakeSlot(), chars);
}

// Load and unload steps of the library's entry hook.
void ClearTempStringRings();
void ReleaseTempStringRings();

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_TEMP_STRING_RING_H_
