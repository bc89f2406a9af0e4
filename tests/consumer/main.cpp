// The umbrella header first: it needs nothing before it.
#include "TernCoreLib.h"

#include <cstdio>

int main() {
  char* text = nullptr;
  if (!KVT::KVTGetTmpString(text, 32)) return 1;
  std::snprintf(text, 32, "consumer ok");
  std::printf("%s\n", text);
  return 0;
}
