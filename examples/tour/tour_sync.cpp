#include "examples/tour/tour.h"

bool TourSync() { return true; }
