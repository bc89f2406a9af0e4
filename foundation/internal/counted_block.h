#ifndef TERNCORELIB_FOUNDATION_INTERNAL_COUNTED_BLOCK_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_COUNTED_BLOCK_H_

// Library-internal, not part of the interface, and the one internal header that a public one
// includes: XArray (x_array.h), which applications compile themselves, keeps its table in such a
// block, so this header ships with the public ones.
//
// A counted block is one allocation with a hidden header in front of the payload: the count of
// the objects that hold the block, and an optional Extra record of the user's. Classes whose
// copies share a block (field-by-field copies of a pointer) use it so that the block is released
// once, by its last holder. The caller only ever sees the payload pointer.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace KVT {
namespace internal {

// Where a block's memory comes from. A class keeps the allocator its contract names; each source
// states the alignment it guarantees for every block in both architectures, and the header asks
// for no more than that and takes a multiple of it, so that the payload is exactly as aligned as
// a plain block of that allocator.

// What the C runtime's malloc guarantees: 8 bytes in 32-bit processes, 16 in 64-bit ones. Not
// alignof(std::max_align_t): in 32-bit MinGW builds that is 8 or 16 depending on which header
// defined the type first, and a layout that the library and the application both compile (see
// XArray) must not depend on the order of includes.
constexpr std::size_t kMallocAlignment = 2 * sizeof(void*);

// The C runtime's malloc, realloc and free.
struct MallocMemory {
  static constexpr std::size_t kAlignment = kMallocAlignment;
  static void* Allocate(std::size_t bytes) { return std::malloc(bytes); }
  static void* Reallocate(void* block, std::size_t bytes) { return std::realloc(block, bytes); }
  static void Free(void* block) { std::free(block); }
};

// The object allocator, without exceptions. It takes its blocks from malloc and so has malloc's
// alignment; the compiler's __STDCPP_DEFAULT_NEW_ALIGNMENT__ claims 16 bytes in 32-bit processes
// too, which the runtime's malloc does not give, so that figure is not trusted here. No resize.
struct ObjectMemory {
  static constexpr std::size_t kAlignment = kMallocAlignment;
  static void* Allocate(std::size_t bytes) { return ::operator new(bytes, std::nothrow); }
  static void Free(void* block) { ::operator delete(block); }
};

// The Extra of a block that needs none.
struct NoExtra {};

// Blocks of `Memory` whose header also holds an `Extra` (value-initialised by Allocate, destroyed
// by Free, moved bytewise by Reallocate: it must not point into itself).
//
// The count's memory order:
// - Retain adds with relaxed order. A new holder is only ever made from an existing one, whose
//   own hold keeps the block alive; the increment publishes nothing.
// - Release and Drop subtract with acquire-release order. The release half orders everything this
//   holder did with the payload before its hold ends; the acquire half makes the holder that takes
//   the count to 0 see all of that before it destroys and frees the block.
// - Holders reads with acquire order, so that a holder that finds itself alone (1) and goes on to
//   write or reallocate the block in place sees the other holders' last accesses as finished.
// Sharing is all that is thread-safe: the payload itself is the holders' to guard.
template <typename Memory, typename Extra = NoExtra>
class CountedBlock {
  struct Header {
    Header() : holders(1), extra() {}
    std::atomic<long> holders;
    Extra extra;
  };
  static_assert(alignof(Header) <= Memory::kAlignment,
                "the header sits at the start of the allocator's block");

 public:
  // Bytes in front of the payload: the header rounded up to the allocator's alignment.
  static constexpr std::size_t kHeaderBytes =
      (sizeof(Header) + Memory::kAlignment - 1) / Memory::kAlignment * Memory::kAlignment;

  // A payload of `bytes` bytes (contents as the allocator leaves them) with one holder, or null
  // when the allocator refuses or the size cannot be had.
  static void* Allocate(std::size_t bytes) {
    if (bytes > SIZE_MAX - kHeaderBytes) return nullptr;
    void* base = Memory::Allocate(kHeaderBytes + bytes);
    if (base == nullptr) return nullptr;
    new (base) Header();
    return static_cast<char*>(base) + kHeaderBytes;
  }

  // The payload resized to `bytes`, contents, count and Extra kept; null when the allocator
  // refuses, and `payload` is then untouched. Only for a block with one holder: the others would
  // keep a pointer to the old place.
  static void* Reallocate(void* payload, std::size_t bytes) {
    if (bytes > SIZE_MAX - kHeaderBytes) return nullptr;
    void* base = Memory::Reallocate(BaseOf(payload), kHeaderBytes + bytes);
    return base != nullptr ? static_cast<char*>(base) + kHeaderBytes : nullptr;
  }

  // One more holder. Null does nothing.
  static void Retain(const void* payload) {
    if (payload != nullptr) HeaderOf(payload)->holders.fetch_add(1, std::memory_order_relaxed);
  }

  // Ends one hold. True when it was the last: the block is then still allocated, the caller's
  // alone, to destroy what the payload holds and Free it. Null gives false.
  [[nodiscard]] static bool Release(void* payload) {
    return payload != nullptr &&
           HeaderOf(payload)->holders.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }

  // Ends one hold; the last one calls destroy(payload) and frees the block. Null does nothing.
  template <typename Destroy>
  static void Release(void* payload, Destroy destroy) {
    if (!Release(payload)) return;
    destroy(payload);
    Free(payload);
  }

  // Ends one hold and never frees, not even after the last one: for copy rules that leave the
  // old block allocated so that pointers into it stay good. Null does nothing.
  static void Drop(void* payload) {
    if (payload != nullptr) HeaderOf(payload)->holders.fetch_sub(1, std::memory_order_acq_rel);
  }

  // Destroys the Extra and gives the block back, whatever the count.
  static void Free(void* payload) {
    HeaderOf(payload)->~Header();
    Memory::Free(BaseOf(payload));
  }

  // The number of holders; 0 for null.
  static long Holders(const void* payload) {
    return payload != nullptr ? HeaderOf(payload)->holders.load(std::memory_order_acquire) : 0;
  }

  static Extra& ExtraOf(void* payload) { return HeaderOf(payload)->extra; }

 private:
  static void* BaseOf(const void* payload) {
    return const_cast<char*>(static_cast<const char*>(payload)) - kHeaderBytes;
  }
  static Header* HeaderOf(const void* payload) { return static_cast<Header*>(BaseOf(payload)); }
};

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_COUNTED_BLOCK_H_
