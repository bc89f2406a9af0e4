#ifndef TERNCORELIB_SYNC_LOCK_H_
#define TERNCORELIB_SYNC_LOCK_H_

#include "foundation/export.h"
#include "foundation/win.h"

namespace KVT {

// The library's lock: a recursive critical section that also remembers the thread that took it
// last (`owner`) and how often it is held at the moment (`count`).
//
// The lock forgives unbalanced calls instead of reporting them:
// - Unlock by any thread but `owner` is ignored.
// - `owner` is never cleared, so after its last Unlock the thread that held the lock still sees
//   HaveLock() true, until another thread takes the lock. An extra Unlock by that thread puts
//   `count` back to 0 and does not leave the section.
// - Lock on a lock without a section (destroyed, or whose section could not be allocated) does
//   nothing.
//
// Copies share the section: assignment (and copying) takes the other lock's three fields as they
// are, `count` and `owner` included, and creates no section. The section is deleted once, by the
// last lock that uses it.
class TERN_API CLock {
 public:
  CLock();
  // Shares `other`'s section, as assignment does.
  CLock(const CLock& other);
  // If the calling thread is `owner`, does what Unlock does (once, whatever `count` is); then lets
  // go of the section, which is deleted when no other copy uses it.
  ~CLock();

  // Takes `other`'s fields. This lock's own section is let go of first, as the destructor does.
  CLock& operator=(const CLock& other);

  // Enters the section, then records the calling thread as `owner` and adds 1 to `count`.
  void Lock();
  // Leaves the section once if the calling thread is `owner` and holds the lock; see above.
  void Unlock();
  // Whether the calling thread is `owner`: the last thread that took the lock, held or not.
  bool HaveLock() const;

  // Times the lock is held at the moment, 0 when free; changed by interlocked operations only.
  long count;
  // Id of the thread that took the lock last; kept when the lock is released.
  unsigned long owner;
  // The recursive critical section; null after destruction.
  CRITICAL_SECTION* section;
};

}  // namespace KVT

#endif  // TERNCORELIB_SYNC_LOCK_H_
