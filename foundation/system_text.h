#ifndef TERNCORELIB_FOUNDATION_SYSTEM_TEXT_H_
#define TERNCORELIB_FOUNDATION_SYSTEM_TEXT_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/win.h"

namespace KVT {

// The system's text for an error code, as a temporary string of the wide ring with room for 1024
// characters. A code of 0 stands for the calling thread's GetLastError(). The text is exactly
// what FormatMessageW wrote, its closing line break included; a code the system has no text for
// gives an empty text. Never null: if the heap cannot give the slot its block, the result is a
// static empty text that must not be written to.
TERN_API wchar_t const* KVTGetErrorMessageW(std::uint32_t code);

// The same through FormatMessageA, on the narrow ring.
TERN_API char const* KVTGetErrorMessageA(std::uint32_t code);

// A string of `module`'s string table, as a temporary string of the wide ring, or null.
// The resource is looked up under the low 16 bits of `id` as its name, and the string loaded
// with LoadStringW under the whole `id`; so the lookup names a string-table block by the id
// itself, and gives null when no block carries that number even if LoadStringW alone would have
// found the string. The slot has room for the block's size in bytes + 2 characters.
TERN_API wchar_t const* KVTLoadResourceStringW(HMODULE module, std::uint32_t id);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_SYSTEM_TEXT_H_
