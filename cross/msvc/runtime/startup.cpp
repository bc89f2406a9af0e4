// The module's initializer tables and its own atexit table, the part of Microsoft's static runtime
// that every DLL and program links.
//
// The compiler puts a pointer to each initializer into a section .CRT$XCU (C++ constructors) or
// .CRT$XI* (C); the linker sorts the sections of one name by what follows the '$', so the
// markers in .CRT$XIA/.CRT$XIZ and .CRT$XCA/.CRT$XCZ enclose them. The linker may pad between
// the pieces: _initterm skips null entries.
//
// Static destructors and atexit() go to a table of this module's own, so that a DLL's run when
// it is unloaded rather than at the end of the process; a program hands the table to the
// process's exit through _crt_atexit.

#include "startup.h"

#pragma section(".CRT$XIA", long, read)
#pragma section(".CRT$XIZ", long, read)
#pragma section(".CRT$XCA", long, read)
#pragma section(".CRT$XCZ", long, read)

extern "C" {
__declspec(allocate(".CRT$XIA")) _PIFV __xi_a[] = {nullptr};
__declspec(allocate(".CRT$XIZ")) _PIFV __xi_z[] = {nullptr};
__declspec(allocate(".CRT$XCA")) _PVFV __xc_a[] = {nullptr};
__declspec(allocate(".CRT$XCZ")) _PVFV __xc_z[] = {nullptr};
}

// The linker merges .CRT into the read-only data, as Microsoft's runtime asks it to, and links the
// DLLs of the C runtime; i686 code also calls ntdll's helpers for 64-bit arithmetic and stack
// probes (_alldiv, _chkstk), which Microsoft's static runtime carries.
#pragma comment(linker, "/merge:.CRT=.rdata")
#pragma comment(lib, "vcruntime140")
#pragma comment(lib, "ucrtbase")
#pragma comment(lib, "kernel32")
#if defined(_M_IX86)
#pragma comment(lib, "ntdll")
#endif

namespace {
_onexit_table_t module_table;
volatile long terminated = 0;
}  // namespace

// Wine's <stdlib.h> declares these two as imports of ucrtbase.dll, which has neither (Microsoft's
// headers declare them as the static runtime's). So stdlib.h is not included here, and the import
// pointers that code compiled against that header calls through are defined beside them.
extern "C" {
int __cdecl atexit(_PVFV function);
_onexit_t __cdecl _onexit(_onexit_t function);
}

extern "C" int __cdecl atexit(_PVFV function) {
  return _register_onexit_function(&module_table, reinterpret_cast<_onexit_t>(function)) == 0
             ? 0
             : -1;
}

extern "C" _onexit_t __cdecl _onexit(_onexit_t function) {
  return _register_onexit_function(&module_table, function) == 0 ? function : nullptr;
}

extern "C" {
#if defined(_M_IX86)
extern const void* const tern_import_atexit __asm__("__imp__atexit");
extern const void* const tern_import_onexit __asm__("__imp___onexit");
#else
extern const void* const tern_import_atexit __asm__("__imp_atexit");
extern const void* const tern_import_onexit __asm__("__imp__onexit");
#endif
const void* const tern_import_atexit = reinterpret_cast<const void*>(&atexit);
const void* const tern_import_onexit = reinterpret_cast<const void*>(&_onexit);
}

namespace tern_crt {

bool InitializeModule() {
  __security_init_cookie();
  _initialize_onexit_table(&module_table);
  if (_initterm_e(__xi_a, __xi_z) != 0) return false;
  _initterm(__xc_a, __xc_z);
  return true;
}

void TerminateModule() {
  if (_InterlockedExchange(&terminated, 1) == 0) _execute_onexit_table(&module_table);
}

}  // namespace tern_crt
