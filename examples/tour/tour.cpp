// A tour of TernCoreLib: each section shows one thing the library does.
#include "examples/tour/tour.h"

#include <cstdio>
#include <cstring>

void TourHeading(const char* title) { std::printf("\n== %s\n", title); }

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("tern_tour %s\n", TERN_VERSION);
    return 0;
  }
  std::printf("TernCoreLib tour %s\n", TERN_VERSION);
  bool ok = true;
  ok &= TourFoundation();
  ok &= TourText();
  ok &= TourSearch();
  ok &= TourSync();
  ok &= TourXml();
  ok &= TourNet();
  std::printf("\n%s\n", ok ? "The tour is over." : "The tour saw something go wrong.");
  return ok ? 0 : 1;
}
