#include "sync/lock.h"

#include <cstddef>
#include <new>

namespace KVT {
namespace {

// The block behind CLock::section. Copies of a lock share one section, and each must be able to
// let go of it without deleting it under the others, so the block also counts the locks that use
// it. The section comes first, so that `section` points at the start of the block.
struct SharedSection {
  CRITICAL_SECTION section;
  LONG users;
};
static_assert(offsetof(SharedSection, section) == 0, "CLock::section must point at the block");

SharedSection* BlockOf(CRITICAL_SECTION* section) {
  return reinterpret_cast<SharedSection*>(section);
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
  if (lock.section == nullptr) return;
  SharedSection* block = BlockOf(lock.section);
  lock.section = nullptr;
  if (::InterlockedDecrement(&block->users) == 0) {
    ::DeleteCriticalSection(&block->section);
    delete block;
  }
}

}  // namespace

CLock::CLock() : count(0), owner(0), section(nullptr) {
  // If the block cannot be allocated, the lock is left without a section and behaves like a
  // destroyed one: Lock does nothing, and so Unlock has nothing to undo. There is no way to
  // report the failure, and a lock that blocks forever or crashes would be worse.
  SharedSection* block = new (std::nothrow) SharedSection;
  if (block == nullptr) return;
  ::InitializeCriticalSection(&block->section);  // Recursive by nature.
  block->users = 1;
  section = &block->section;
}

CLock::CLock(const CLock& other) : count(other.count), owner(other.owner), section(other.section) {
  if (section != nullptr) ::InterlockedIncrement(&BlockOf(section)->users);
}

CLock::~CLock() { LetGo(*this); }

CLock& CLock::operator=(const CLock& other) {
  if (other.section != section) {
    // Join the other section before leaving our own, then let go of ours the way the destructor
    // does: a copy of the lock that still holds it keeps it alive.
    if (other.section != nullptr) ::InterlockedIncrement(&BlockOf(other.section)->users);
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

}  // namespace KVT
