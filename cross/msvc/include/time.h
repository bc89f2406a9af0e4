// Wine's <time.h> lacks C11's struct timespec, which libc++'s thread support names.
#include_next <time.h>
#ifndef _TIMESPEC_DEFINED
#define _TIMESPEC_DEFINED
struct timespec {
  time_t tv_sec;
  long tv_nsec;
};
#endif
