#ifndef TERNCORELIB_EXAMPLES_TOUR_TOUR_H_
#define TERNCORELIB_EXAMPLES_TOUR_TOUR_H_

// One section of the tour per subsystem; each prints what it shows and returns false if the
// library did not behave as the section expects, so that the tour fails as a test.
bool TourFoundation();
bool TourSearch();
bool TourSync();
bool TourNet();
bool TourText();
bool TourXml();

// Prints a section heading.
void TourHeading(const char* title);

#endif  // TERNCORELIB_EXAMPLES_TOUR_TOUR_H_
