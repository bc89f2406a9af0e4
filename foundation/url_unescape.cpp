#include "foundation/url_unescape.h"

#include "foundation/internal/url_unescape_steps.h"
#include "foundation/win.h"

// UrlUnescapeW lives in the shell's light utility library (shlwapi.dll); the build links it.
#include <shlwapi.h>

namespace KVT {

wchar_t const* KVTUrlUnescape(wchar_t const* url) {
  return internal::UrlUnescapeWith(url, ::UrlUnescapeW);
}

}  // namespace KVT
