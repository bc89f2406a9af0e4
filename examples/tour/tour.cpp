// A tour of TernCoreLib: each section shows one thing the library does.
#include "examples/tour/tour.h"

#include <cstdio>

void TourHeading(const char* title) { std::printf("\n== %s\n", title); }

int main() {
  std::printf("TernCoreLib tour\n");
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
