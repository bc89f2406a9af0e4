#include "sync/lock.h"

#include "foundation/internal/counted_block.h"
#include "sync/internal/lock_share.h"

namespace KVT {
namespace {

// The block behind CLock::section, of the object allocator. Copies of a lock share one section,
// and each must be able to let go of it without deleting it under the others, so the block also
// counts the locks that use it.
using SectionBlock = internal::CountedBlock<internal::ObjectMemory>;
static_assert(alignof(CRITICAL_SECTION) <= internal::ObjectMemory::kAlignment,
              "the section keeps its alignment behind the count");

void DeleteSection(void* section) {
  ::DeleteCriticalSection(static_cast<CRITICAL_SECTION*>(section));
}

// `owner` is written under the section and read without it; a thread only ever compares it with
// its own id. Relaxed atomic accesses keep that well defined and cost a plain load or store.
unsigned long ReadOwner(const unsigned long& owner) {
  return __atomic_load_n(&owner, __ATOMIC_RELAXED);
}
void WriteOwner(unsigned long& owner, unsigned long id) {
  __atomic_store_n(&owner, id, __ATOMIC_RELAXED);
}

// Lets go of `lock`'s section the way the destructor describes: the owner first does what Unlock
// does, then the section is deleted if no other copy uses it. `section` is null afterwards.
void LetGo(CLock& lock) {
  lock.Unlock();  // Only does something for the owner.
  CRITICAL_SECTION* section = lock.section;
  lock.section = nullptr;
  SectionBlock::Release(section, DeleteSection);
}

}  // namespace

CLock::CLock() : count(0), owner(0), section(nullptr) {
  // If the block cannot be allocated, the lock is left without a section and behaves like a
  // destroyed one: Lock does nothing, and so Unlock has nothing to undo. There is no way to
  // report the failure, and a lock that blocks forever or crashes would be worse.
  void* block = SectionBlock::Allocate(sizeof(CRITICAL_SECTION));
  if (block == nullptr) return;
  section = static_cast<CRITICAL_SECTION*>(block);
  ::InitializeCriticalSection(section);  // Recursive by nature.
}

CLock::CLock(const CLock& other) : count(other.count), owner(other.owner), section(other.section) {
  SectionBlock::Retain(section);
}

CLock::~CLock() { LetGo(*this); }

CLock& CLock::operator=(const CLock& other) {
  if (other.section != section) {
    // Join the other section before leaving our own, then let go of ours the way the destructor
    // does: a copy of the lock that still holds it keeps it alive.
    SectionBlock::Retain(other.section);
    CRITICAL_SECTION* joined = other.section;
    LetGo(*this);
    section = joined;
  }
  ::InterlockedExchange(&count, other.count);
  WriteOwner(owner, ReadOwner(other.owner));
  return *this;
}

void CLock::Lock() {
  if (section == nullptr) return;
  ::EnterCriticalSection(section);
  WriteOwner(owner, ::GetCurrentThreadId());
  ::InterlockedIncrement(&count);
}

void CLock::Unlock() {
  if (ReadOwner(owner) != ::GetCurrentThreadId()) return;
  if (::InterlockedDecrement(&count) >= 0) {
    // Without a section there was nothing entered to leave.
    if (section != nullptr) ::LeaveCriticalSection(section);
    return;
  }
  // The owner did not hold the lock any more: put the count back, and leave nothing.
  ::InterlockedExchange(&count, 0);
}

bool CLock::HaveLock() const { return ReadOwner(owner) == ::GetCurrentThreadId(); }

namespace internal {

long LockShareCount(const CLock& lock) {
  return SectionBlock::Holders(lock.section);
}

}  // namespace internal

}  // namespace KVT
