// Hands the heap an address that no allocation returned, between lines of its own on both
// outputs: the fault that the Wine wrapper's heap checks must report (heap_check_test.cmake).
#include <cstdio>

#include "foundation/win.h"

int main() {
  std::printf("before\n");
  std::fflush(stdout);
  std::fprintf(stderr, "own error line\n");
  std::fflush(stderr);  // Wine's ucrtbase.dll (the MSVC-ABI builds) holds it back otherwise.
  int local = 0;
  ::HeapFree(::GetProcessHeap(), 0, &local);
  std::printf("after\n");
  return 0;
}
