#ifndef TERNCORELIB_FOUNDATION_URL_UNESCAPE_H_
#define TERNCORELIB_FOUNDATION_URL_UNESCAPE_H_

#include "foundation/export.h"

namespace KVT {

// `url` with its %XX escapes replaced by the characters they stand for, as the shell's
// UrlUnescapeW does it with no options: every escape is unescaped, those after '?' or '#'
// included, and each gives one character of that code (no UTF-8 is assembled). The result is a
// wide temporary string (see temp_string.h). Null for a null, bad or empty URL, or for one of
// more than 511999 characters. Whatever the system call leaves in the result is returned as it
// is: its status isn't examined.
TERN_API wchar_t const* KVTUrlUnescape(wchar_t const* url);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_URL_UNESCAPE_H_
