#include "examples/tour/tour.h"

bool TourFoundation() { return true; }
