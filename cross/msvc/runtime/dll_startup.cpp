// The entry point of a DLL (_DllMainCRTStartup): the module is set up before the DLL's DllMain
// sees DLL_PROCESS_ATTACH, and its atexit table (static destructors) runs after DllMain has seen
// DLL_PROCESS_DETACH. A DllMain that refuses the attach gets its detach at once, as Windows'
// own runtime does.

#include "startup.h"

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

extern "C" BOOL WINAPI _DllMainCRTStartup(HINSTANCE instance, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_ATTACH) {
    if (!tern_crt::InitializeModule()) return FALSE;
    if (!DllMain(instance, reason, reserved)) {
      DllMain(instance, DLL_PROCESS_DETACH, reserved);
      tern_crt::TerminateModule();
      return FALSE;
    }
    return TRUE;
  }
  const BOOL result = DllMain(instance, reason, reserved);
  if (reason == DLL_PROCESS_DETACH) {
    tern_crt::TerminateModule();
    tern_crt::DestroyTypeNames();
  }
  return result;
}
