#ifndef TERNCORELIB_FOUNDATION_EXPORT_H_
#define TERNCORELIB_FOUNDATION_EXPORT_H_

// Marks what TernCoreLib.dll exports. The library's own sources define TERNCORELIB_BUILDING;
// applications see imports.
#if defined(TERNCORELIB_BUILDING)
#define TERN_API __declspec(dllexport)
#else
#define TERN_API __declspec(dllimport)
#endif

#endif  // TERNCORELIB_FOUNDATION_EXPORT_H_
