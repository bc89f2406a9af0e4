// The stack-buffer check that the compiler adds by default (/GS): the cookie that a checked
// function keeps in its frame, its check on return, and the cookie's set-up at start-up. Also
// _fltused, which the compiler asks for wherever floating point is used.

#include <windows.h>

extern "C" {

int _fltused = 0x9875;

#if defined(_WIN64)
constexpr UINT_PTR kDefaultCookie = 0x00002B992DDFA232ull;
#else
constexpr UINT_PTR kDefaultCookie = 0xBB40E64Eu;
#endif
UINT_PTR __security_cookie = kDefaultCookie;
UINT_PTR __security_cookie_complement = ~kDefaultCookie;

// A cookie that differs from one start to the next: times, ids and an address, as Microsoft's
// runtime mixes them. Called first thing by the entry points, before any checked function.
void __cdecl __security_init_cookie() {
  if (__security_cookie != kDefaultCookie) return;
  FILETIME time = {};
  GetSystemTimeAsFileTime(&time);
  LARGE_INTEGER counter = {};
  QueryPerformanceCounter(&counter);
  UINT_PTR cookie = static_cast<UINT_PTR>(time.dwLowDateTime) ^ time.dwHighDateTime;
  cookie ^= GetCurrentThreadId();
  cookie ^= GetCurrentProcessId();
#if defined(_WIN64)
  cookie ^= static_cast<UINT_PTR>(counter.QuadPart) << 32 ^ static_cast<UINT_PTR>(counter.QuadPart);
#else
  cookie ^= static_cast<UINT_PTR>(counter.LowPart) ^ static_cast<UINT_PTR>(counter.HighPart);
#endif
  cookie ^= reinterpret_cast<UINT_PTR>(&cookie);
#if defined(_WIN64)
  cookie &= 0x0000FFFFFFFFFFFFull;  // Zero high bytes stop a string overrun, as in Microsoft's.
#endif
  if (cookie == kDefaultCookie || cookie == 0) cookie = kDefaultCookie + 1;
  __security_cookie = cookie;
  __security_cookie_complement = ~cookie;
}

// A cookie that differs on return means the frame was overwritten: the process ends at once,
// without running anything more of its own.
__declspec(noreturn) void __cdecl __report_gsfailure(UINT_PTR) {
  TerminateProcess(GetCurrentProcess(), STATUS_STACK_BUFFER_OVERRUN);
  __fastfail(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE);
}

#if defined(_M_IX86)
void __fastcall __security_check_cookie(UINT_PTR cookie) {
#else
void __cdecl __security_check_cookie(UINT_PTR cookie) {
#endif
  if (cookie != __security_cookie) __report_gsfailure(cookie);
}

}  // extern "C"
