#ifndef TERNCORELIB_FOUNDATION_INTERNAL_URL_UNESCAPE_STEPS_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_URL_UNESCAPE_STEPS_H_

// The steps of KVTUrlUnescape over any function of UrlUnescapeW's signature. Internal to the
// library; tests give it stand-ins that ask for a bigger buffer, which the real call never does.

#include <cstdint>

#include "foundation/string_util.h"
#include "foundation/temp_string.h"
#include "foundation/wide_string.h"
#include "foundation/win.h"

namespace KVT {
namespace internal {

template <typename Unescape>
wchar_t const* UrlUnescapeWith(wchar_t const* url, Unescape unescape) {
  const std::uint32_t length = StrLength(url);
  if (length == 0) return nullptr;
  // The call's first argument isn't const: it gets a copy of its own. Should the copy have no
  // block, the call refuses the null argument and the result stays empty.
  String copy(url);

  wchar_t* result = nullptr;
  DWORD size = length + 1;
  KVTGetTmpString(result, size);  // Leaves it null on failure.
  // The first guess is always enough for UrlUnescapeW itself, as unescaping only shortens the
  // text; the second round serves an implementation that asks for more. It has one try, and
  // whatever it leaves is the result.
  if (result != nullptr && unescape(copy, result, &size, 0) == E_POINTER && size > 0) {
    ++size;
    wchar_t* bigger = nullptr;
    result = KVTGetTmpString(bigger, size) ? bigger : nullptr;
    if (result != nullptr) unescape(copy, result, &size, 0);
  }
  return result;
}

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_URL_UNESCAPE_STEPS_H_
