#include <cstdio>

#include "TernCoreLib.h"

int main() {
  char* text = nullptr;
  if (!KVT::KVTGetTmpString(text, 32)) return 1;
  std::snprintf(text, 32, "consumer ok");
  std::printf("%s\n", text);
  return 0;
}
