// The entry point of a console program (mainCRTStartup): the module is set up, main runs with the
// arguments and environment that ucrtbase.dll parsed, and its result goes to exit(), which runs
// the process's atexit functions, this program's table among them.

#include "startup.h"

#include <stdlib.h>

extern "C" int __cdecl main(int argc, char** argv, char** envp);

namespace {
void __cdecl RunProgramTable() { tern_crt::TerminateModule(); }
}  // namespace

extern "C" int __cdecl mainCRTStartup() {
  _set_app_type(_crt_console_app);
  _configure_narrow_argv(_crt_argv_unexpanded_arguments);
  _initialize_narrow_environment();
  _crt_atexit(RunProgramTable);
  if (!tern_crt::InitializeModule()) exit(255);
  exit(main(*__p___argc(), *__p___argv(), _get_initial_narrow_environment()));
}
