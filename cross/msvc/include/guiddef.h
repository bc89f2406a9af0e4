// Wine's <guiddef.h> gives __uuidof through templates of its own when __WINE_UUID_ATTR says how
// to define their GUIDs once for all modules' objects; it sets that only for GCC. clang-cl's own
// __uuidof needs a uuid attribute on the type, which Wine's interface definitions lack. Read
// more than once on purpose (DEFINE_GUID changes with <initguid.h>), like Wine's header.
#ifndef __WINE_UUID_ATTR
#define __WINE_UUID_ATTR __declspec(selectany)
#endif
#include_next <guiddef.h>
