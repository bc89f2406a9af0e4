// The DllMain of a DLL that defines none; the linker takes it from the library only then.

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }
