// The library's entry hook. COM is started on every thread of the process, so that the XML
// classes can use the DOM on any thread without setting it up; the temporary-string rings are
// cleared at load and their blocks released at unload. Loading never fails on account of this:
// CoInitialize's results are not looked at.

#include "foundation/internal/temp_string_ring.h"
#include "foundation/win.h"

#include <objbase.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      ::CoInitialize(nullptr);
      KVT::internal::ClearTempStringRings();
      break;
    case DLL_THREAD_ATTACH:
      ::CoInitialize(nullptr);
      break;
    case DLL_THREAD_DETACH:
      ::CoUninitialize();
      break;
    case DLL_PROCESS_DETACH:
      // COM is left as it is: the process is going, and other modules may still use it.
      KVT::internal::ReleaseTempStringRings();
      break;
    default:
      break;
  }
  return TRUE;
}
