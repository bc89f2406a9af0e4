// Tour, foundation: temporary strings, the string functions, system error texts and string
// resources.
#include "examples/tour/tour.h"

#include <cstdio>
#include <cstring>

#include "TernCoreLib.h"
#include "foundation/win.h"

namespace {

bool Check(bool ok, const char* what) {
  if (!ok) std::printf("   !! unexpected: %s\n", what);
  return ok;
}

}  // namespace

bool TourFoundation() {
  bool ok = true;

  TourHeading("Temporary strings");
  char* first = nullptr;
  KVT::KVTGetTmpString(first, 64);
  std::strcpy(first, "a temporary string");
  // (No address printed: the tour's output is the same from run to run and in either ABI.)
  std::printf("taken from the narrow ring: \"%s\"\n", first);
  char* later = nullptr;
  for (int i = 0; i < 256; ++i) KVT::KVTGetTmpString(later, 64);
  std::printf("256 takes later the same slot comes back: %s\n", later == first ? "yes" : "no");
  ok &= Check(later == first, "the ring did not wrap after 256 takes");

  TourHeading("String functions");
  const char* formatted = KVT::StrFormat("%d apples and %s", 3, "a pear");
  std::printf("StrFormat gives \"%s\", a temporary string the caller need not free\n", formatted);
  ok &= Check(formatted && std::strcmp(formatted, "3 apples and a pear") == 0, "StrFormat");
  const wchar_t* wide = KVT::StrConvert("converted to wide", 0);
  std::printf("StrConvert to wide and back: \"%s\"\n", KVT::StrConvert(wide, 0));
  std::printf("StrToIntA(\"-12ab\") = %d, StrToIntA(\" 7\") = %d (no blanks skipped)\n",
              KVT::StrToIntA("-12ab"), KVT::StrToIntA(" 7"));
  const char* replaced = KVT::StrReplace("one two two", "two", "three");
  std::printf("StrReplace gives \"%s\" in a block released with MemFree\n", replaced);
  ok &= Check(replaced && std::strcmp(replaced, "one three three") == 0, "StrReplace");
  KVT::MemFree(const_cast<char*>(replaced));
  char copy[4];
  const bool whole = KVT::StrSafeCopy(copy, "abcdef", 3);
  std::printf("StrSafeCopy of \"abcdef\" into room for 3: \"%s\", complete: %s\n", copy,
              whole ? "true" : "false");
  std::printf("a null pointer is just bad input: StrLength(null) = %u\n",
              static_cast<unsigned>(KVT::StrLength(static_cast<const char*>(nullptr))));

  TourHeading("System texts");
  std::printf("error 2 reads: %s", KVT::KVTGetErrorMessageA(2));
  std::printf("error 10054, asked for in wide text: %s",
              KVT::StrConvert(KVT::KVTGetErrorMessageW(10054), 0));
  const wchar_t* missing = KVT::KVTLoadResourceStringW(::GetModuleHandleW(nullptr), 1);
  std::printf("the tour has no string table, so resource string 1 is %s\n",
              missing ? "there" : "null");
  ok &= Check(missing == nullptr, "a string resource appeared from nowhere");
  return ok;
}
