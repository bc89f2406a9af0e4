#ifndef TERNCORELIB_FOUNDATION_WIN_H_
#define TERNCORELIB_FOUNDATION_WIN_H_

// The one place that includes <windows.h>. The library's own build sets the Windows version
// (Windows 7, 0x0601) on the compiler's command line, because MinGW's headers otherwise pick a
// default of their own as soon as any C header is included. An application that includes this
// first gets the same lean headers without the min and max macros.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif

#include <windows.h>

#endif  // TERNCORELIB_FOUNDATION_WIN_H_
