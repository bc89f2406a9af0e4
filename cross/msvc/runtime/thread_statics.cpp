// Thread-safe initialization of function-local statics, in the scheme the compiler emits for the
// MSVC ABI. Each such static has a guard: 0 before its initialization, -1 while one thread runs
// it, and afterwards the value of a global epoch, which grows with every completed one. Each
// thread keeps in _Init_thread_epoch the epoch it last saw under the lock; a guard at or below it
// is known complete, and the compiled code reads it without calling here. Otherwise
// _Init_thread_header decides under the lock: it claims the guard (-1, the caller initializes and
// then calls _Init_thread_footer, or _Init_thread_abort if the initializer throws), or waits
// while another thread holds it.
//
// Also the module's TLS directory, which _Init_thread_epoch (thread-local) needs, as every other
// __declspec(thread) variable does: the loader gives each thread a copy of the .tls section.

#include <limits.h>
#include <windows.h>

// TLS: the loader fills _tls_index and copies [_tls_start, _tls_end) for every thread; the
// callbacks between __xl_a and __xl_z (none here) run on thread start and end.
#pragma section(".tls", long, read, write)
#pragma section(".tls$ZZZ", long, read, write)
#pragma section(".CRT$XLA", long, read)
#pragma section(".CRT$XLZ", long, read)

extern "C" {
unsigned long _tls_index = 0;
__declspec(allocate(".tls")) char _tls_start = 0;
__declspec(allocate(".tls$ZZZ")) char _tls_end = 0;
__declspec(allocate(".CRT$XLA")) PIMAGE_TLS_CALLBACK __xl_a = nullptr;
__declspec(allocate(".CRT$XLZ")) PIMAGE_TLS_CALLBACK __xl_z = nullptr;
extern const IMAGE_TLS_DIRECTORY _tls_used = {
    reinterpret_cast<ULONG_PTR>(&_tls_start), reinterpret_cast<ULONG_PTR>(&_tls_end),
    reinterpret_cast<ULONG_PTR>(&_tls_index), reinterpret_cast<ULONG_PTR>(&__xl_a + 1), 0, 0};
}

#if defined(_M_IX86)
// The offset of the TLS array in the 32-bit thread environment block, which the compiler reads
// through FS as a symbol.
__asm__(".globl __tls_array\n.set __tls_array, 44\n");
#endif

namespace {
SRWLOCK lock = SRWLOCK_INIT;
CONDITION_VARIABLE completed = CONDITION_VARIABLE_INIT;
int global_epoch = INT_MIN;
}  // namespace

extern "C" {

__declspec(thread) int _Init_thread_epoch = INT_MIN;

void __cdecl _Init_thread_header(int* guard) {
  AcquireSRWLockExclusive(&lock);
  if (*guard == 0) {
    *guard = -1;
  } else {
    while (*guard == -1) {
      SleepConditionVariableSRW(&completed, &lock, INFINITE, 0);
      if (*guard == 0) {  // The other thread's initializer threw: this one tries.
        *guard = -1;
        ReleaseSRWLockExclusive(&lock);
        return;
      }
    }
    _Init_thread_epoch = global_epoch;
  }
  ReleaseSRWLockExclusive(&lock);
}

void __cdecl _Init_thread_footer(int* guard) {
  AcquireSRWLockExclusive(&lock);
  ++global_epoch;
  *guard = global_epoch;
  _Init_thread_epoch = global_epoch;
  ReleaseSRWLockExclusive(&lock);
  WakeAllConditionVariable(&completed);
}

void __cdecl _Init_thread_abort(int* guard) {
  AcquireSRWLockExclusive(&lock);
  *guard = 0;
  ReleaseSRWLockExclusive(&lock);
  WakeAllConditionVariable(&completed);
}

}  // extern "C"
