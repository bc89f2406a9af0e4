// Tour, text: Base64 with its shortened last group, and URL unescaping.
#include "examples/tour/tour.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#include "TernCoreLib.h"
#include "foundation/win.h"

namespace {

bool Check(bool ok, const char* what) {
  if (!ok) std::printf("   !! unexpected: %s\n", what);
  return ok;
}

// Bytes as hex pairs, for printing.
std::string Hex(const unsigned char* bytes, int count) {
  std::string text;
  char pair[4];
  for (int i = 0; i < count; ++i) {
    std::snprintf(pair, sizeof pair, "%02X ", bytes[i]);
    text += pair;
  }
  return text.empty() ? "(none)" : text.substr(0, text.size() - 1);
}

}  // namespace

bool TourText() {
  bool ok = true;

  TourHeading("Base64");
  unsigned char bytes[] = {'T', 'e', 'r', 'n', 0x40};
  int length = 0;
  unsigned char* text = KVT::Base64Encode(bytes, static_cast<int>(sizeof bytes), &length);
  const std::string coded(reinterpret_cast<char*>(text), length);
  std::printf("bytes %s code as \"%s\" (%d characters, not terminated: the length says where "
              "the text ends)\n", Hex(bytes, sizeof bytes).c_str(), coded.c_str(), length);
  std::printf("the RFC writes VGVybkA=: a last symbol that carries only zero bits is dropped\n");
  ok &= Check(coded == "VGVybk==", "the five bytes did not code as VGVybk==");
  int decoded = 0;
  unsigned char* back = KVT::Base64Decode(text, length, nullptr, &decoded);
  std::printf("and decode back to %s\n", Hex(back, decoded).c_str());
  ok &= Check(decoded == static_cast<int>(sizeof bytes) &&
                  std::memcmp(back, bytes, sizeof bytes) == 0,
              "the round trip lost bytes");
  KVT::MemFree(back);
  KVT::MemFree(text);  // Both blocks are the caller's, released with MemFree.

  unsigned char at_sign[] = {0x40};
  unsigned char short_group[4];
  KVT::Base64Encode(at_sign, short_group, 1, &length);
  std::printf("the single byte 0x40 codes as \"%.4s\"\n", short_group);
  ok &= Check(std::memcmp(short_group, "Q===", 4) == 0, "0x40 did not code as Q===");
  const char* two = KVT::Base64DecodeString("SGk=IHRoZXJl", 0);
  std::printf("\"SGk=\" followed by \"IHRoZXJl\" decodes to \"%s\" in one call\n",
              two ? two : "(null)");
  ok &= Check(two && std::strcmp(two, "Hi there") == 0, "concatenated texts");

  TourHeading("URL unescaping");
  const wchar_t* url = L"http://example.org/a%20file%2Bname.txt?q=%C3%A9";
  const wchar_t* plain = KVT::KVTUrlUnescape(url);
  std::printf("%s\n  unescapes to\n%s\n", KVT::StrConvert(url, 0),
              plain ? KVT::StrConvert(plain, CP_UTF8) : "(null)");
  std::printf("(each escape gives one character: %%C3%%A9 stays two characters, not UTF-8's "
              "e-acute)\n");
  const wchar_t* expected = L"http://example.org/a file+name.txt?q=\u00C3\u00A9";
  ok &= Check(plain && std::wcscmp(plain, expected) == 0, "KVTUrlUnescape");
  return ok;
}
