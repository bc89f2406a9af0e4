#include "foundation/temp_string.h"

#include "foundation/internal/temp_string_ring.h"

namespace KVT {
namespace internal {
namespace {

// Constant-initialised: nothing runs at load to build them.
TempStringRing<char> g_narrow_ring;
TempStringRing<wchar_t> g_wide_ring;

}  // namespace

TempStringRing<char>& NarrowRing() { return g_narrow_ring; }
TempStringRing<wchar_t>& WideRing() { return g_wide_ring; }

void ClearTempStringRings() {
  g_narrow_ring.Clear();
  g_wide_ring.Clear();
}

void ReleaseTempStringRings() {
  for (std::uint32_t slot = 0; slot < TempStringRing<char>::kSlotCount; ++slot) {
    g_narrow_ring.ReleaseSlot(slot);
    g_wide_ring.ReleaseSlot(slot);
  }
}

}  // namespace internal

namespace {

template <typename CharT>
unsigned int GetTmpString(CharT*& text, std::uint32_t chars) {
  if (chars == 0 || chars > kMaxTempStringChars) return 0;
  CharT* slot_text = internal::TakeTempString<CharT>(chars);
  if (slot_text == nullptr) return 0;
  text = slot_text;
  return 1;
}

}  // namespace

unsigned int KVTGetTmpString(char*& text, std::uint32_t chars) { return GetTmpString(text, chars); }

unsigned int KVTGetTmpString(wchar_t*& text, std::uint32_t chars) {
  return GetTmpString(text, chars);
}

}  // namespace KVT
