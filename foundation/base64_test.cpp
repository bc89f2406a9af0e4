// Base64 and URL unescaping.
#include "foundation/base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/internal/base64_codec.h"
#include "foundation/memory.h"
#include "foundation/url_unescape.h"
#include "foundation/internal/url_unescape_steps.h"
#include "foundation/win.h"
#include "tests/random/random_test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kJunk = 0xCD;
Bytes BytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string TextOf(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// The references, shared with the random-input suites: ReferenceEncode gives the library's form
// (a last group's final symbol that carries only zero bits is a pad), ReferenceDecode follows the
// format's steps group by group.
using random_test::ReferenceDecode;
using random_test::ReferenceEncode;

using KVT::internal::Base64Route;

// How a test reaches the codec: through the library's interface (the fastest route of this
// processor), or through one route of the kernels directly.
enum class Via { kLibrary, kScalar, kSsse3 };

std::vector<Via> AllWays() {
  std::vector<Via> ways = {Via::kLibrary, Via::kScalar};
  if (KVT::internal::CpuHas(KVT::internal::kCpuSsse3)) ways.push_back(Via::kSsse3);
  return ways;
}

Base64Route RouteOf(Via via) {
  return via == Via::kSsse3 ? Base64Route::kSsse3 : Base64Route::kScalar;
}

std::string Encode(Bytes bytes, Via via = Via::kLibrary) {
  const int count = static_cast<int>(bytes.size());
  std::string text(KVT::Base64CalcEncodedSize(count) + 8, kJunk);
  auto* out = reinterpret_cast<unsigned char*>(&text[0]);
  int length = KVT::Base64CalcEncodedSize(count);
  if (via == Via::kLibrary) {
    length = -1;
    EXPECT_EQ(out, KVT::Base64Encode(bytes.data(), out, count, &length));
  } else if (count > 0) {
    KVT::internal::EncodeBase64(bytes.data(), out, count, RouteOf(via));
  }
  EXPECT_EQ(static_cast<std::size_t>(length), text.size() - 8);
  for (std::size_t i = length; i < text.size(); ++i) {
    EXPECT_EQ(kJunk, static_cast<unsigned char>(text[i])) << "written past the text at " << i;
  }
  text.resize(length);
  return text;
}

// Decodes into a destination of Base64CalcDecodedSize bytes and a few more, pre-filled with junk
// that must stay behind the bytes written.
Bytes Decode(std::string text, Via via = Via::kLibrary) {
  const int length = static_cast<int>(text.size());
  const int room = KVT::Base64CalcDecodedSize(length);
  Bytes out(room + 8, kJunk);
  auto* source = reinterpret_cast<unsigned char*>(&text[0]);
  const int given = via == Via::kLibrary
                        ? KVT::Base64Decode(source, out.data(), length, nullptr)
                        : KVT::internal::DecodeBase64(source, out.data(), length, RouteOf(via));
  EXPECT_LE(given, room);
  for (std::size_t i = given; i < out.size(); ++i) {
    EXPECT_EQ(kJunk, out[i]) << "written past the bytes at " << i;
  }
  out.resize(given);
  return out;
}

Bytes RandomBytes(std::mt19937& rng, std::size_t max_length) {
  Bytes bytes(rng() % (max_length + 1));
  for (auto& b : bytes) b = static_cast<unsigned char>(rng());
  return bytes;
}

TEST(Base64Size, EncodedAndDecodedSizes) {
  const struct { int n, encoded, decoded; } kCases[] = {
      {-5, 0, 0}, {0, 0, 0}, {1, 4, 1}, {2, 4, 2}, {3, 4, 3}, {4, 8, 3}, {5, 8, 4},
      {8, 12, 6}, {1610612733, 2147483644, 1207959550}, {1610612734, 0, 1207959551},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.n);
    EXPECT_EQ(row.encoded, KVT::Base64CalcEncodedSize(row.n));
    EXPECT_EQ(row.decoded, KVT::Base64CalcDecodedSize(row.n));
  }
}

TEST(Base64Encode, Rfc4648VectorsAndShortenedLastGroups) {
  // Section 10 of RFC 4648: none of its last groups has a symbol of zero bits to drop.
  const struct { std::string bytes; std::string text; } kCases[] = {
      {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {"abc", "YWJj"}, {"ab", "YWI="},
      {"a", "YQ=="}, {std::string("\x40", 1), "Q==="}, {"AP", "QV=="}, {"A", "QQ=="},
      {std::string("A\0", 2), "QQ=="}, {std::string("\0", 1), "A==="},
      {std::string("\0\x01", 2), "AAE="}, {"abc@", "YWJjQ==="},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(row.text, Encode(BytesOf(row.bytes)));
  }
}

TEST(Base64, BadArgumentsWriteNothing) {
  unsigned char source[] = "YWJj";
  unsigned char out[4] = {kJunk, kJunk, kJunk, kJunk};
  for (int count : {0, -1}) {
    int length = -1;
    EXPECT_EQ(out, KVT::Base64Encode(source, out, count, &length));
    EXPECT_EQ(0, length);
  }
  int length = -1;
  EXPECT_EQ(out, KVT::Base64Encode(nullptr, out, 3, &length));
  EXPECT_EQ(0, length);
  EXPECT_EQ(nullptr, KVT::Base64Encode(source, nullptr, 3, &length));
  EXPECT_EQ(0, KVT::Base64Decode(nullptr, out, 4, nullptr));
  EXPECT_EQ(0, KVT::Base64Decode(source, nullptr, 4, nullptr));
  EXPECT_EQ(0, KVT::Base64Decode(source, out, -4, nullptr));
  EXPECT_EQ(0, KVT::Base64Decode(source, out, 3, nullptr));
  EXPECT_EQ(kJunk, out[0]);
  EXPECT_EQ(out, KVT::Base64Encode(source, out, 3, nullptr));  // No length wanted.
  EXPECT_EQ("WVdK", std::string(out, out + 4));
}

// Every byte string of one or two bytes. (Random ones, also several encoded texts one after the
// other, are the random-input suites'.)
TEST(Base64Decode, EveryInputSurvivesButATrailingZeroOfAPair) {
  for (unsigned b0 = 0; b0 < 256; ++b0) {
    const Bytes one = {static_cast<unsigned char>(b0)};
    ASSERT_EQ(one, Decode(Encode(one))) << b0;
    for (unsigned b1 = 0; b1 < 256; ++b1) {
      const Bytes pair = {static_cast<unsigned char>(b0), static_cast<unsigned char>(b1)};
      ASSERT_EQ(b1 == 0 ? one : pair, Decode(Encode(pair))) << b0 << " " << b1;
    }
  }
}

// The standard's forms; pads end a group and a group that starts with one ends the text; a
// character outside the alphabet counts as 0xFF, its bits spilling over.
TEST(Base64Decode, WorkedExamples) {
  const struct { std::string text; std::string bytes; } kCases[] = {
      {"QVA=", "AP"}, {"QA==", "@"}, {"QQ==", "A"}, {"QR==", "A\x10"}, {"Zm9vYmE=", "fooba"},
      {"AA==", std::string("\0", 1)}, {"====", ""}, {"YWJj====YWJj", "abc"}, {"QQ==QQ==", "AA"},
      {"Q===YWJj", "@abc"}, {"YWI=YWJj", "ababc"}, {"=AAA", ""}, {"Q=AA", "@"}, {"QQ=A", "A"},
      {"YWJj", "abc"}, {"YWJjQQ", "abc"}, {"QQ", ""}, {"Q", ""}, {"", ""},
      {"Q A=", "\x4F\xF0"}, {"YWJj\nYWJ", "abc\xFD\x85\x89"},
      {std::string("\0\0\0\0", 4), "\xFF\xFF\xFF"}, {"Q\xFF==", "\x4F\xF0"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(BytesOf(row.bytes), Decode(row.text));
  }
}

// Random text that is mostly symbols, with pads and foreign bytes mixed in at `odd_per_mille`.
std::string RandomText(std::mt19937& rng, std::size_t max_length, unsigned odd_per_mille) {
  static const char kOdd[] = {'=', '=', '=', '\xFF', ' ', '\n', '\0', '\x80', '-', '_'};
  std::string text(rng() % (max_length + 1), 'A');
  for (char& c : text) {
    const bool odd = rng() % 1000 < odd_per_mille;
    c = odd ? kOdd[rng() % sizeof kOdd] : random_test::kBase64Symbols[rng() % 64];
  }
  return text;
}

// Every route against the references: encoding short inputs and long ones that cross every
// route's blocks; decoding texts of every length in which runs of whole groups keep meeting
// groups that need the exact rules, and each byte value in each place of a block of symbols long
// enough for every route's widest step.
TEST(Base64, EveryRouteMatchesTheReferences) {
  const std::string symbols = "QUJDREVGR0hJSktMTU5PUFFSU1RVVldY";
  for (Via via : AllWays()) {
    SCOPED_TRACE(static_cast<int>(via));
    std::mt19937 rng(1234);
    for (int round = 0; round < 3000; ++round) {
      const Bytes bytes = RandomBytes(rng, round < 2000 ? 40 : 3000);
      const std::string text = ReferenceEncode(TextOf(bytes));
      ASSERT_EQ(text, Encode(bytes, via)) << round;
      ASSERT_EQ(BytesOf(ReferenceDecode(text)), Decode(text, via)) << round;
    }
    for (int round = 0; round < 6000; ++round) {
      const unsigned kOddPerMille[] = {300, 30, 3, 0};
      const std::string text = RandomText(rng, 200, kOddPerMille[round % 4]);
      ASSERT_EQ(BytesOf(ReferenceDecode(text)), Decode(text, via)) << round;
    }
    for (unsigned byte = 0; byte < 256; ++byte) {
      for (std::size_t place = 0; place < symbols.size(); ++place) {
        std::string text = symbols;
        text[place] = static_cast<char>(byte);
        ASSERT_EQ(BytesOf(ReferenceDecode(text)), Decode(text, via)) << byte << " at " << place;
      }
    }
  }
}

std::size_t HeapBlockSize(const void* block) {
  return ::HeapSize(::GetProcessHeap(), 0, block);
}

TEST(Base64Allocating, EncodeGivesAnExactHeapBlock) {
  unsigned char bytes[] = {'a', 'b', 'c', 0x40};
  int length = -1;
  unsigned char* text = KVT::Base64Encode(bytes, 4, &length);
  ASSERT_NE(nullptr, text);
  EXPECT_EQ(8u, HeapBlockSize(text));  // No room for a terminator: the length is the end.
  EXPECT_EQ("YWJjQ===", std::string(text, text + length));
  KVT::MemFree(text);
  text = KVT::Base64EncodeString("ab", &length);  // The text without its terminator.
  ASSERT_NE(nullptr, text);
  EXPECT_EQ("YWI=", std::string(text, text + length));
  KVT::MemFree(text);
  for (int count : {0, 4, -1}) {
    length = -1;
    unsigned char* none = count < 0 ? KVT::Base64EncodeString("", &length)
                          : KVT::Base64Encode(count == 0 ? bytes : nullptr, count, &length);
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(0, length);
  }
  length = -1;
  EXPECT_EQ(nullptr, KVT::Base64EncodeString(nullptr, &length));
  EXPECT_EQ(-1, length);  // Untouched.
}

TEST(Base64Allocating, DecodeTerminatesTheBytesInAHeapBlock) {
  const struct { std::string text; std::string bytes; } kCases[] = {
      {"YWJjYWI=", "abcab"}, {"YWJ", ""}, {"", ""},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    std::string text = row.text;
    int length = -1;
    unsigned char* block = KVT::Base64Decode(reinterpret_cast<unsigned char*>(&text[0]),
                                             static_cast<int>(text.size()), nullptr, &length);
    ASSERT_NE(nullptr, block);
    ASSERT_EQ(static_cast<int>(row.bytes.size()), length);
    EXPECT_EQ(row.bytes, std::string(block, block + length));
    EXPECT_EQ(0, block[length]);
    const int room = KVT::Base64CalcDecodedSize(static_cast<int>(row.text.size()) + 1);
    EXPECT_GE(HeapBlockSize(block), static_cast<std::size_t>(room));
    KVT::MemFree(block);
  }
  int length = -1;
  unsigned char* block = KVT::Base64Decode(nullptr, 8, nullptr, &length);
  ASSERT_NE(nullptr, block);  // Nothing to decode: just the zero byte.
  EXPECT_EQ(0, length);
  EXPECT_EQ(0, block[0]);
  KVT::MemFree(block);
}

// Both widths end at a zero byte ("YWIAY2Q=" is "ab\0cd"); the wide one converts through the
// code page, the narrow one ignores it.
TEST(Base64DecodeString, BothWidths) {
  EXPECT_STREQ("abc", KVT::Base64DecodeString("YWJj", 0));
  EXPECT_STREQ("ab", KVT::Base64DecodeString("YWIAY2Q=", 0));
  EXPECT_STREQ("", KVT::Base64DecodeString("====", 0));
  EXPECT_STREQ("", KVT::Base64DecodeString("A===", 0));
  EXPECT_STREQ("ab", KVT::Base64DecodeString("YWI=", 12345));
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(static_cast<char const*>(nullptr), 0));
  EXPECT_EQ(nullptr, KVT::Base64DecodeString("", 0));
  EXPECT_STREQ(L"abc", KVT::Base64DecodeString(L"YWJj", 0));
  EXPECT_STREQ(L"ab", KVT::Base64DecodeString(L"YWIAY2Q=", 0));
  // "\xC3\xA9\xE2\x82\xAC" is e-acute and the euro sign in UTF-8.
  EXPECT_STREQ(L"\u00E9\u20AC", KVT::Base64DecodeString(L"w6nigqw=", CP_UTF8));
  EXPECT_STREQ(L"\u00C3\u00A9", KVT::Base64DecodeString(L"w6k=", 1252));
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(L"====", 0));  // No bytes: no wide text.
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(static_cast<wchar_t const*>(nullptr), 0));
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(L"", 0));
}

TEST(Base64DecodeString, LongerThanATemporaryStringGivesNull) {
  // 512000 bytes need 512001 characters with the terminator.
  std::string text = Encode(Bytes(512000, 'x'));
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(text.c_str(), 0));
  text.resize(text.size() - 4);
  char const* shorter = KVT::Base64DecodeString(text.c_str(), 0);
  ASSERT_NE(nullptr, shorter);
  EXPECT_EQ(511998u, std::strlen(shorter));
}

TEST(UrlUnescape, ReplacesEveryEscapeIntoATemporaryString) {
  const std::wstring longest(511999, L'x'), longer = longest + L'x';
  const struct { wchar_t const* url; wchar_t const* unescaped; } kCases[] = {
      {L"a%20b%2Fc", L"a b/c"},
      {L"%41?x=%42#%43", L"A?x=B#C"},  // No option: the query and fragment are unescaped too.
      {L"%e9", L"\u00E9"},             // One character per escape, no UTF-8 assembled.
      {L"100%", L"100%"}, {L"%zz%4", L"%zz%4"},
      {L"%2541", L"%41"},  // Once only.
      {L"http://example.org/plain", L"http://example.org/plain"},
      {longest.c_str(), longest.c_str()}, {longer.c_str(), nullptr},
      {L"", nullptr}, {nullptr, nullptr},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.url ? std::wstring(row.url).substr(0, 30) : L"(null)");
    wchar_t const* result = KVT::KVTUrlUnescape(row.url);
    EXPECT_EQ(row.unescaped ? row.unescaped : L"<null>", std::wstring(result ? result : L"<null>"));
    EXPECT_TRUE(result == nullptr || result != row.url) << "a temporary string, not the text";
  }
}

// A stand-in for UrlUnescapeW that first asks for `wanted` characters, then writes `text`
// whatever size it is given, and notes the sizes it saw.
struct AsksForMore {
  DWORD wanted;
  wchar_t const* text;
  HRESULT second_result;
  std::vector<DWORD>* sizes;

  HRESULT operator()(PWSTR, PWSTR out, DWORD* size, DWORD flags) const {
    EXPECT_EQ(0u, flags);
    sizes->push_back(*size);
    if (sizes->size() == 1) {
      *size = wanted;
      return E_POINTER;
    }
    wcscpy(out, text);
    return second_result;
  }
};

// A result longer than the first guess gets one more try, whose status isn't examined: its
// buffer is the result. A size of 0 leads to no second call; more than a temporary string can
// hold gives null.
TEST(UrlUnescape, AResultLongerThanTheFirstGuessGetsOneMoreTry) {
  const struct { DWORD wanted; wchar_t const* text; HRESULT second; wchar_t const* result;
                 std::vector<DWORD> sizes; } kCases[] = {
      {10, L"0123456789", S_OK, L"0123456789", {3, 11}},  // Length + 1, then the size + 1.
      {10, L"xyz", E_FAIL, L"xyz", {3, 11}},
      {0, L"", S_OK, L"", {3}},
      {512000, L"", S_OK, nullptr, {3}},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.wanted);
    std::vector<DWORD> sizes;
    wchar_t const* result = KVT::internal::UrlUnescapeWith(
        L"ab", AsksForMore{row.wanted, row.text, row.second, &sizes});
    EXPECT_EQ(row.result ? row.result : L"<null>", std::wstring(result ? result : L"<null>"));
    EXPECT_EQ(row.sizes, sizes);
  }
}

}  // namespace
