#ifndef TERNCORELIB_FOUNDATION_EVENT_H_
#define TERNCORELIB_FOUNDATION_EVENT_H_

#include "foundation/export.h"

namespace KVT {

// Tests an event (or any waitable handle) without waiting. Null gives false. Every answer of the
// zero-time wait but WAIT_TIMEOUT counts as signalled, so a closed or otherwise bad handle, whose
// wait fails, reads as true.
TERN_API bool IsEventSignalled(void* handle);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_EVENT_H_
