#ifndef TERNCORELIB_SYNC_INTERNAL_LOCK_SHARE_H_
#define TERNCORELIB_SYNC_INTERNAL_LOCK_SHARE_H_

// Library-internal: not part of the DLL's interface.

#include "sync/lock.h"

namespace KVT {
namespace internal {

// How many CLock objects use `lock`'s section at the moment: 1 for a lock that was never copied,
// more while copies of it live, 0 for a lock without a section. Classes whose copies share their
// blocks through a shared lock use it to let the last copy release them.
long LockShareCount(const CLock& lock);

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_SYNC_INTERNAL_LOCK_SHARE_H_
