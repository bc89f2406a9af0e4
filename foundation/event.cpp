#include "foundation/event.h"

#include "foundation/win.h"

namespace KVT {

bool IsEventSignalled(void* handle) {
  if (handle == nullptr) return false;
  return ::WaitForSingleObject(handle, 0) != WAIT_TIMEOUT;
}

}  // namespace KVT
