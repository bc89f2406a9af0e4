#ifndef TERNCORELIB_FOUNDATION_X_ARRAY_H_
#define TERNCORELIB_FOUNDATION_X_ARRAY_H_

// XArray<T>: the library's growable array, header-only and outside the namespace, since the
// application meets it directly (String::ToTokens fills one that the caller made). Its code is
// compiled on both sides of the DLL boundary and frees, through the C runtime's free and
// operator delete, blocks that the other side allocated: the application and the DLL share one
// C runtime (an MSVC application links the shared one, /MD).

#include <climits>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>

// The one internal header that a public one includes: the table is a counted block, and the
// application compiles XArray itself.
#include "foundation/internal/counted_block.h"

// One record of an XArray: the value and whether the array must release it.
template <typename T>
struct XArrayEntry {
  T value;     // The value, or the pointer that the record holds.
  bool owned;  // Whether the array releases the value (see XArray::Add).
};

// The allocator of an XArray's records. Each record is made and destroyed one at a time, but its
// memory is carved from blocks of many records, so that a million results cost a few dozen
// allocations instead of a million, and the records of one array lie side by side. A record's
// memory is not reused when it is destroyed: it goes back with its block in ReleaseBlocks, which
// the array calls after it has destroyed every record, so that nothing can tell the records from
// ones made one by one with new, apart from fewer calls to the heap.
// Blocks start small (a small array wastes little) and double up to kMaxBlockRecords.
// Not thread-safe: it belongs to one table, which its holders use one thread at a time.
template <typename R>
class XArrayRecordPool {
 public:
  // Records in the first block; each later block holds twice its predecessor's, up to
  // kMaxBlockRecords (a megabyte or two of records: few blocks, little left unused).
  static constexpr std::size_t kFirstBlockRecords = 16;
  static constexpr std::size_t kMaxBlockRecords = std::size_t{1} << 16;

  // A record holding `value` and `owned`, or null when no block can be had.
  template <typename V>
  R* Make(const V& value, bool owned) {
    if (free_ == end_ && !AddBlock()) return nullptr;
    return new (free_++) R{value, owned};
  }

  // Ends `record`'s life; its memory stays in its block until ReleaseBlocks.
  static void Destroy(R* record) { record->~R(); }

  // Gives back every block. The records in them must have been destroyed.
  void ReleaseBlocks() {
    while (blocks_ != nullptr) {
      Block* previous = blocks_->previous;
      ::operator delete(blocks_);
      blocks_ = previous;
    }
    free_ = end_ = nullptr;
    next_records_ = kFirstBlockRecords;
  }

 private:
  struct Block {
    Block* previous;
  };
  // Records start behind the block's link, at their own alignment.
  static constexpr std::size_t kRecordsAt =
      (sizeof(Block) + alignof(R) - 1) / alignof(R) * alignof(R);

  bool AddBlock() {
    void* memory = ::operator new(kRecordsAt + next_records_ * sizeof(R), std::nothrow);
    if (memory == nullptr) return false;
    Block* block = static_cast<Block*>(memory);
    block->previous = blocks_;
    blocks_ = block;
    free_ = reinterpret_cast<R*>(static_cast<char*>(memory) + kRecordsAt);
    end_ = free_ + next_records_;
    if (next_records_ < kMaxBlockRecords) next_records_ *= 2;
    return true;
  }

  Block* blocks_ = nullptr;
  R* free_ = nullptr;  // The next record to hand out; equal to end_ when the block is used up.
  R* end_ = nullptr;
  std::size_t next_records_ = kFirstBlockRecords;
};

// An array of records, grown by a fixed step and emptied without giving memory back.
//
// `entries` is a table of pointers, one per slot, to records that are objects of their own: a
// table that grows moves the pointers, never the records, and the records hold the values. The
// table comes from malloc/realloc; records from XArrayRecordPool (blocks from operator new);
// owned copies from new/delete.
//
// Rules that callers rely on:
// - Growth is by `growStep` slots at a time, never by a factor. The first Add allocates
//   `growStep` slots; whenever `count` + 1 reaches `capacity` the table grows by another step,
//   so after every Add at least one slot at the end is spare. New slots are null.
// - Adding costs amortised constant time, however many entries: see Grow and
//   XArrayRecordPool for how, and why no caller can tell.
// - Reset only sets `count` to 0: the table and every record stay, with the values they own,
//   and later Adds reuse them in place. An owned value behind `count` lives on until Add reuses
//   its record or RemoveAll releases it.
// - operator[] never fails: an index that is negative, at or above `count`, or whose slot holds
//   no record gives a reference to `defaultValue`, a zero T that nothing writes to.
// - What Add does with `owned`, by T:
//     narrow or wide text (char*, wchar_t*, and their const forms): owned true makes the record
//       hold a private copy (new[] of length + 1 characters, terminator included), released with
//       delete[]; the caller's text stays the caller's and later changes to it don't show here.
//     any other object pointer: owned true makes the array take over the object, released with
//       delete.
//     anything else (numbers): there is nothing to release; owned is stored as false.
//   A value with owned false belongs to somebody else and is never touched.
//
// Copies. Copy construction and copy assignment copy the five fields as they stand, so that both
// arrays refer to one table and one set of records, as the holders of arrays (CBuffer, the XML
// tags) copy themselves field by field. A hidden count of holders in front of the table makes
// sure that the table, the records and the owned values are released once: RemoveAll or
// destruction of a copy only lets go of them while another copy still holds them, and the last
// holder releases them. While shared, the copies write through: an Add that needs no growth
// writes into the common table, and `count` stays each copy's own. An Add that must grow a
// shared table cannot move it under the other holders, so that copy takes a table of its own
// whose first `count` records carry the same values, not owned (their owner stays the shared
// table). Copies that share a table are one array: use them from one thread at a time, though
// they may be destroyed on different threads.
//
// Copy assignment does not release what the assigned array held before: like a field-by-field
// copy it only drops its hold, so that whatever another copy still reads stays valid. If no
// other copy held it, it stays allocated for good; call RemoveAll first to give it back.
//
// Not thread-safe: the holder protects the array.
template <typename T>
class XArray {
 public:
  // The record type behind each slot.
  using Entry = XArrayEntry<T>;

  // The zero T that reads outside the array refer to.
  static inline const T defaultValue{};

  // No table yet: `entries` null, `capacity` and `count` 0, `sorted` true. Allocates nothing.
  // A step below 2 is taken as 2: with a step of 1 the first Add could not leave a spare slot.
  // The default of 100 is the step of the library's own line and attribute tables; for the
  // token arrays that applications make it only decides how often the table grows.
  explicit XArray(int growStep = 100)
      : entries(nullptr), capacity(0), growStep(growStep < 2 ? 2 : growStep), sorted(true),
        count(0) {}

  // Shares `other`'s table and records (see "Copies" above).
  XArray(const XArray& other)
      : entries(other.entries), capacity(other.capacity), growStep(other.growStep),
        sorted(other.sorted), count(other.count) {
    Table::Retain(entries);
  }

  // Shares `other`'s table and records; drops the hold on its own without releasing it (see
  // "Copies" above).
  XArray& operator=(const XArray& other) {
    if (this == &other) return *this;
    Table::Retain(other.entries);
    // Only the hold goes, even if it was the last one: this leaks by contract (see the class
    // comment).
    Table::Drop(entries);
    entries = other.entries;
    capacity = other.capacity;
    growStep = other.growStep;
    sorted = other.sorted;
    count = other.count;
    return *this;
  }

  ~XArray() { RemoveAll(); }

  // Appends `value` at index `count` and gives that index. `owned` as the class comment says; an
  // owned null text is stored as null. Sets `sorted` to false.
  // If no record can be allocated, the slot stays null and the index is still given: reading it
  // gives `defaultValue` (an owned text is then not copied). If the table cannot be allocated or
  // grown, nothing changes and the result is -1.
  int Add(T value, bool owned = false) {
    if (count + 1 >= capacity && !Grow()) return -1;
    Entry*& slot = entries[count];
    if (slot == nullptr) slot = Records(entries).Make(T(), false);
    if (slot != nullptr) {
      const bool own = owned && kCanOwn;
      const T taken = own ? TakeValue(value) : value;
      // A record left behind by Reset may still own its former value, which goes now (unless it
      // is the very object that comes back in).
      const T former = slot->value;
      const bool former_owned = slot->owned;
      slot->value = taken;
      slot->owned = own;
      if constexpr (kCanOwn) {
        if (former_owned && former != nullptr && former != taken) ReleaseValue(former);
      }
    }
    sorted = false;
    return count++;
  }

  // The value at `index`, or `defaultValue` for an index outside 0..count-1 or an empty slot.
  const T& operator[](int index) const {
    if (index < 0 || index >= count || index >= capacity || entries == nullptr) {
      return defaultValue;
    }
    const Entry* entry = entries[index];
    return entry != nullptr ? entry->value : defaultValue;
  }

  // Sets `count` to 0 and nothing else.
  void Reset() { count = 0; }

  // Releases the table, every record in it (behind `count` too) and every owned value, then sets
  // `count` and `capacity` to 0 and `entries` to null; `growStep` and `sorted` stay, and the next
  // Add starts a fresh table. Nothing to do without a table. A copy that shares the table only
  // lets go of it and ends empty the same way.
  // If releasing an owned value raises an exception, it is caught and the release ends there:
  // the records released so far are gone from their slots, the rest stay, and `count`,
  // `capacity` and `entries` are unchanged, so that a later RemoveAll goes on where this one
  // stopped.
  void RemoveAll() {
    if (entries == nullptr) return;
    if (Table::Release(entries)) {
      for (int i = 0; i < capacity; ++i) {
        Entry* entry = entries[i];
        if (entry == nullptr) continue;
        // Disown first, so that a value whose release throws is never released twice.
        T value = entry->value;
        bool owned = entry->owned;
        entry->value = T();
        entry->owned = false;
        if (owned) {
          try {
            ReleaseValue(value);
          } catch (...) {
            Table::Retain(entries);  // Its one holder again, for the RemoveAll that goes on.
            return;
          }
        }
        Pool::Destroy(entry);
        entries[i] = nullptr;
      }
      FreeTable(entries);
    }
    entries = nullptr;
    count = 0;
    capacity = 0;
  }

  Entry** entries;  // One pointer per slot; null before the first Add and after RemoveAll.
  int capacity;     // Slots in `entries`.
  int growStep;     // Slots added by one growth.
  bool sorted;      // True until the first Add; only a sort by the holder sets it again.
  int count;        // Entries in use: slots 0 to count - 1.

 private:
  using Pool = XArrayRecordPool<Entry>;
  using Pointee = std::remove_cv_t<std::remove_pointer_t<T>>;

  static constexpr bool kIsText =
      std::is_pointer_v<T> && (std::is_same_v<Pointee, char> || std::is_same_v<Pointee, wchar_t>);
  static constexpr bool kCanOwn =
      std::is_pointer_v<T> && std::is_object_v<std::remove_pointer_t<T>>;

  // What the block under `entries` holds in front of slot 0 besides the count of arrays that
  // hold the table: the slots the block has room for, and the allocator of the table's records.
  struct TableExtra {
    int room;
    Pool records;
  };
  // The table is malloc/realloc memory, as the class comment says.
  using Table = KVT::internal::CountedBlock<KVT::internal::MallocMemory, TableExtra>;

  static Pool& Records(Entry** table) { return Table::ExtraOf(table).records; }

  static std::size_t TableBytes(int slots) {
    return static_cast<std::size_t>(slots) * sizeof(Entry*);
  }
  static bool Fits(std::size_t slots) {
    return slots <= static_cast<std::size_t>(INT_MAX) &&
           slots < (SIZE_MAX - Table::kHeaderBytes) / sizeof(Entry*);
  }

  // A table of `slots` null slots with one holder and no records, or null.
  static Entry** NewTable(int slots) {
    Entry** table = static_cast<Entry**>(Table::Allocate(TableBytes(slots)));
    if (table == nullptr) return nullptr;
    Table::ExtraOf(table).room = slots;
    for (int i = 0; i < slots; ++i) table[i] = nullptr;
    return table;
  }

  // Gives back the records' blocks and the table; the records are destroyed already.
  static void FreeTable(Entry** table) {
    Records(table).ReleaseBlocks();
    Table::Free(table);
  }

  // A table that can't be had or grown leaves the array as it was, and Add reports -1: nothing
  // is ever written through a null table.
  //
  // `capacity` advances by `growStep` as the rules say, but the block under it grows by
  // doubling: a growth that still fits the block's room only nulls the new slots, and only one
  // growth in a doubling calls realloc, so that adding N entries moves O(N) pointers in all
  // instead of O(N * N / growStep). Callers can't tell: the slots below `capacity`, the new null
  // ones among them, read exactly as with a table reallocated at every step; the room behind
  // `capacity` is reached by no rule and no read; the block is still malloc/realloc memory; and a
  // realloc could always have moved the table or left it in place.
  bool Grow() {
    const int step = growStep < 2 ? 2 : growStep;
    if (entries == nullptr) {
      Entry** table = NewTable(step);
      if (table == nullptr) return false;
      entries = table;
      capacity = step;
      count = 0;
      return true;
    }
    if (!Fits(static_cast<std::size_t>(capacity) + step)) return false;
    const int grown = capacity + step;
    if (Table::Holders(entries) != 1) return GrowShared(grown);
    int room = Table::ExtraOf(entries).room;
    if (grown > room) {
      const std::size_t doubled = 2 * static_cast<std::size_t>(room);
      room = Fits(doubled) && static_cast<int>(doubled) > grown ? static_cast<int>(doubled) : grown;
      void* table = Table::Reallocate(entries, TableBytes(room));
      if (table == nullptr) return false;
      entries = static_cast<Entry**>(table);
      Table::ExtraOf(entries).room = room;
    }
    for (int i = capacity; i < grown; ++i) entries[i] = nullptr;
    capacity = grown;
    return true;
  }

  // Moves this copy to a table of its own, as the class comment says.
  bool GrowShared(int grown) {
    Entry** table = NewTable(grown);
    if (table == nullptr) return false;
    const int used = count < capacity ? count : capacity;
    for (int i = 0; i < used; ++i) {
      if (entries[i] != nullptr) table[i] = Records(table).Make(entries[i]->value, false);
    }
    Entry** shared = entries;
    const int shared_capacity = capacity;
    entries = table;
    capacity = grown;
    if (Table::Release(shared)) {
      // The other holders let go meanwhile (on other threads): the old table is this copy's to
      // release, and the values that the new records carry become theirs to own.
      for (int i = 0; i < shared_capacity; ++i) {
        Entry* entry = shared[i];
        if (entry == nullptr) continue;
        if (i < used && table[i] != nullptr) {
          table[i]->owned = entry->owned;
        } else if (entry->owned) {
          ReleaseValue(entry->value);
        }
        Pool::Destroy(entry);
      }
      FreeTable(shared);
    }
    return true;
  }

  // What an owned record holds for `value`: a private copy of a text, else the value itself.
  static T TakeValue(T value) {
    if constexpr (kIsText) {
      if (value == nullptr) return nullptr;
      std::size_t length = 0;
      while (value[length] != 0) ++length;
      Pointee* copy = new (std::nothrow) Pointee[length + 1];
      if (copy == nullptr) return nullptr;
      for (std::size_t i = 0; i <= length; ++i) copy[i] = value[i];
      return copy;
    } else {
      return value;
    }
  }

  static void ReleaseValue(T value) {
    if constexpr (kIsText) {
      delete[] value;
    } else if constexpr (kCanOwn) {
      delete value;
    } else {
      (void)value;
    }
  }
};

#endif  // TERNCORELIB_FOUNDATION_X_ARRAY_H_
