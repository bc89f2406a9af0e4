#ifndef TERNCORELIB_FOUNDATION_TEMP_STRING_H_
#define TERNCORELIB_FOUNDATION_TEMP_STRING_H_

#include <cstdint>

#include "foundation/export.h"

namespace KVT {

// Temporary strings: how the library returns text that the caller need not free.
//
// There are two rings of 256 slots in the process, one narrow and one wide, shared by all
// threads. A take hands out the next slot in the order 0, 1, ... 255, 0, 1, ... A pointer stays
// good, its text unchanged, until 256 further takes from the same ring by any thread; the 256th
// of them gets the same slot and may overwrite or move it. Nothing detects a holder that is too
// slow: copy the text, or finish with it, before doing anything that takes many temporary
// strings. The two rings never disturb each other.
//
// The limit counts takes by every thread, and a thread can be pre-empted while it holds a text:
// where many threads take temporary strings, each copies its text out (or finishes with it) at
// once. Past the limit two takers can be handed one slot at the same moment, and if both grow
// it, the heap is corrupted. The rings have no guard against that, by choice: a claim flag per
// slot would cover only the moment of growth, while the holder that was overrun writes into a
// block that the taker after it may have moved anyway; and it would cost every take a second
// atomic operation and the fixed order of the slots.
//
// A slot's block only grows and is never cleared: reuse sets the first character to the
// terminator and leaves the rest as the last user left it.

// Largest number of characters one take may ask for.
inline constexpr std::uint32_t kMaxTempStringChars = 512000;

// Takes a slot of the narrow ring with room for `chars` characters, terminator included (nothing
// is added to the count). On success `text` points at an empty text and the result is 1. A count
// of 0 or above 512000, or a heap that cannot grow the slot, gives 0 and leaves `text` as it
// was; the first two also leave the ring's cursor where it was.
TERN_API unsigned int KVTGetTmpString(char*& text, std::uint32_t chars);

// The same on the wide ring.
TERN_API unsigned int KVTGetTmpString(wchar_t*& text, std::uint32_t chars);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_TEMP_STRING_H_
