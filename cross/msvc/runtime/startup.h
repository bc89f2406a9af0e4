// What the pieces of the runtime stand-in share: the set-up and the end of a module's C and C++
// state, which the entry points call, and the functions of ucrtbase.dll they use.
#pragma once

#include <corecrt_startup.h>

extern "C" {
// ucrtbase.dll's table walkers, which Microsoft's headers leave to the runtime's own.
_ACRTIMP void __cdecl _initterm(_PVFV* first, _PVFV* last);
_ACRTIMP int __cdecl _initterm_e(_PIFV* first, _PIFV* last);
void __cdecl __security_init_cookie();
}

namespace tern_crt {

// Sets up the module: the cookie first, then the C initializers (.CRT$XI*) and the C++ ones
// (.CRT$XC*), with atexit's table ready before either runs. False if a C initializer failed.
bool InitializeModule();
// Runs the module's atexit table, last registered first: static destructors and atexit
// functions. Once; later calls do nothing.
void TerminateModule();
// Frees the names that type_info::name() made for this module (rtti.cpp).
void DestroyTypeNames();

}  // namespace tern_crt
