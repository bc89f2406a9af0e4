#include "foundation/base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/base64_codec.h"
#include "foundation/memory.h"
#include "foundation/win.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kJunk = 0xCD;

Bytes BytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

// A plain RFC 4648 encoder, symbol by symbol, with the RFC's padding.
std::string StandardEncode(const Bytes& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t left = bytes.size() - i;
    const unsigned b0 = bytes[i];
    const unsigned b1 = left > 1 ? bytes[i + 1] : 0;
    const unsigned b2 = left > 2 ? bytes[i + 2] : 0;
    text += kAlphabet[b0 >> 2];
    text += kAlphabet[(b0 & 3) << 4 | b1 >> 4];
    text += left > 1 ? kAlphabet[(b1 & 15) << 2 | b2 >> 6] : '=';
    text += left > 2 ? kAlphabet[b2 & 63] : '=';
  }
  return text;
}

// The RFC's text in this library's form: in a padded last group, a final symbol that carries
// only zero bits ('A'), other than the second one of a pair, turns into a pad.
std::string ShortenedEncode(const Bytes& bytes) {
  std::string text = StandardEncode(bytes);
  const std::size_t n = text.size();
  if (bytes.size() % 3 == 1 && text[n - 3] == 'A') text[n - 3] = '=';
  if (bytes.size() % 3 == 2 && text[n - 2] == 'A') text[n - 2] = '=';
  return text;
}

// The decoding steps one by one, on 8-bit values, as the format's description gives them.
int PlainDecodeGroup(const unsigned char* c, unsigned char* out) {
  auto value = [](unsigned char ch) -> std::uint8_t {
    if (ch >= 'A' && ch <= 'Z') return ch - 'A';
    if (ch >= 'a' && ch <= 'z') return ch - 'a' + 26;
    if (ch >= '0' && ch <= '9') return ch - '0' + 52;
    if (ch == '+') return 62;
    if (ch == '/') return 63;
    return 0xFF;
  };
  if (c[0] == '=') return 0;
  std::uint8_t o0 = static_cast<std::uint8_t>(value(c[0]) << 2);
  if (c[1] == '=') {
    out[0] = o0;
    return 1;
  }
  const std::uint8_t s1 = value(c[1]);
  o0 |= s1 >> 4;
  out[0] = o0;
  int count = 1;
  std::uint8_t o1 = 0;
  if ((s1 & 15) != 0 || c[2] != '=') {
    count = 2;
    o1 = static_cast<std::uint8_t>(s1 << 4);
  }
  if (c[2] == '=') {
    if (count == 2) out[1] = o1;
    return count;
  }
  const std::uint8_t s2 = value(c[2]);
  o1 |= s2 >> 2;
  out[1] = o1;
  std::uint8_t o2 = 0;
  if ((s2 & 3) != 0 || c[3] != '=') {
    ++count;
    o2 = static_cast<std::uint8_t>(s2 << 6);
  }
  if (c[3] == '=') {
    if (count == 3) out[2] = o2;
    return count;
  }
  out[2] = o2 | value(c[3]);
  return count;
}

Bytes PlainDecode(const std::string& text) {
  Bytes bytes;
  for (std::size_t i = 0; i + 4 <= text.size(); i += 4) {
    unsigned char out[3];
    const int given =
        PlainDecodeGroup(reinterpret_cast<const unsigned char*>(text.data() + i), out);
    if (given == 0) break;
    bytes.insert(bytes.end(), out, out + given);
  }
  return bytes;
}

using KVT::internal::Base64Route;

// How a test reaches the codec: through the library's interface (the fastest route of this
// processor), or through one route of the kernels directly.
enum class Via { kLibrary, kScalar, kSsse3 };

std::vector<Via> AllWays() {
  std::vector<Via> ways = {Via::kLibrary, Via::kScalar};
  if (KVT::internal::ProcessorHasSsse3()) ways.push_back(Via::kSsse3);
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

TEST(Base64Encode, MatchesTheStandardButForTheLastGroup) {
  for (Via via : AllWays()) {
    SCOPED_TRACE(static_cast<int>(via));
    std::mt19937 rng(4648);
    for (int round = 0; round < 3000; ++round) {
      const Bytes bytes = RandomBytes(rng, round < 2000 ? 40 : 3000);
      SCOPED_TRACE(round);
      ASSERT_EQ(ShortenedEncode(bytes), Encode(bytes, via));
    }
  }
}

TEST(Base64Encode, NothingToEncodeWritesNothing) {
  unsigned char source[3] = {1, 2, 3};
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
  EXPECT_EQ(kJunk, out[0]);
  EXPECT_EQ(out, KVT::Base64Encode(source, out, 3, nullptr));  // No length wanted.
  EXPECT_EQ("AQID", std::string(out, out + 4));
}

TEST(Base64Decode, EveryInputSurvivesButATrailingZeroOfAPair) {
  for (unsigned b0 = 0; b0 < 256; ++b0) {
    const Bytes one = {static_cast<unsigned char>(b0)};
    ASSERT_EQ(one, Decode(Encode(one))) << b0;
    for (unsigned b1 = 0; b1 < 256; ++b1) {
      const Bytes pair = {static_cast<unsigned char>(b0), static_cast<unsigned char>(b1)};
      ASSERT_EQ(b1 == 0 ? one : pair, Decode(Encode(pair))) << b0 << " " << b1;
    }
  }
  std::mt19937 rng(17);
  for (int round = 0; round < 2000; ++round) {
    Bytes bytes = RandomBytes(rng, 500);
    const std::string text = Encode(bytes);
    if (bytes.size() % 3 == 2 && bytes.back() == 0) bytes.pop_back();
    SCOPED_TRACE(text);
    ASSERT_EQ(bytes, Decode(text));
  }
}

TEST(Base64Decode, TakesTheStandardForms) {
  const struct { std::string text; std::string bytes; } kCases[] = {
      {"QVA=", "AP"}, {"QA==", "@"}, {"QQ==", "A"}, {"QR==", "A\x10"},
      {"Zm9vYmE=", "fooba"}, {"AA==", std::string("\0", 1)},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(BytesOf(row.bytes), Decode(row.text));
  }
  std::mt19937 rng(10);
  for (int round = 0; round < 2000; ++round) {
    const Bytes bytes = RandomBytes(rng, 100);
    ASSERT_EQ(bytes, Decode(StandardEncode(bytes))) << StandardEncode(bytes);
  }
}

TEST(Base64Decode, PadsEndAGroupAndAFirstPadEndsTheText) {
  const struct { std::string text; std::string bytes; } kCases[] = {
      {"====", ""}, {"YWJj====YWJj", "abc"}, {"QQ==QQ==", "AA"}, {"Q===YWJj", "@abc"},
      {"YWI=YWJj", "ababc"}, {"=AAA", ""}, {"Q=AA", "@"}, {"QQ=A", "A"},
      {"YWJj", "abc"}, {"YWJjQQ", "abc"}, {"QQ", ""}, {"Q", ""}, {"", ""},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(BytesOf(row.bytes), Decode(row.text));
  }
}

TEST(Base64Decode, ConcatenatedTextsDecodeWithoutAGap) {
  std::mt19937 rng(99);
  for (int round = 0; round < 1000; ++round) {
    Bytes expected;
    std::string text;
    for (int part = 0; part < 4; ++part) {
      Bytes bytes = RandomBytes(rng, 20);
      text += Encode(bytes);
      if (bytes.size() % 3 == 2 && bytes.back() == 0) bytes.pop_back();
      expected.insert(expected.end(), bytes.begin(), bytes.end());
    }
    ASSERT_EQ(expected, Decode(text)) << text;
  }
}

TEST(Base64Decode, ForeignBytesCountAsAllOnes) {
  // 0xFF for every character outside the alphabet, its bits spilling over: " " in place of a
  // symbol, and a line break.
  const struct { std::string text; Bytes bytes; } kCases[] = {
      {"Q A=", {0x4F, 0xF0}}, {"YWJj\nYWJ", {'a', 'b', 'c', 0xFD, 0x85, 0x89}},
      {std::string("\0\0\0\0", 4), {0xFF, 0xFF, 0xFF}}, {"Q\xFF==", {0x4F, 0xF0}},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(row.bytes, Decode(row.text));
  }
}

// Random text that is mostly symbols, with pads and foreign bytes mixed in at `odd_per_mille`.
std::string RandomText(std::mt19937& rng, std::size_t max_length, unsigned odd_per_mille) {
  static const char kSymbols[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  static const char kOdd[] = {'=', '=', '=', '\xFF', ' ', '\n', '\0', '\x80', '-', '_'};
  std::string text(rng() % (max_length + 1), 'A');
  for (char& c : text) {
    c = rng() % 1000 >= odd_per_mille ? kSymbols[rng() % 64] : kOdd[rng() % sizeof kOdd];
  }
  return text;
}

// Every route against the plain steps, on texts of every length in which runs of whole groups
// keep meeting groups that need the exact rules.
TEST(Base64Decode, AgreesWithThePlainStepsOnAnyText) {
  for (Via via : AllWays()) {
    SCOPED_TRACE(static_cast<int>(via));
    std::mt19937 rng(1234);
    for (int round = 0; round < 20000; ++round) {
      const unsigned kOddPerMille[] = {300, 30, 3, 0};
      const std::string text = RandomText(rng, 200, kOddPerMille[round % 4]);
      SCOPED_TRACE(round);
      ASSERT_EQ(PlainDecode(text), Decode(text, via));
    }
  }
}

// Each byte value in each place of a block of symbols long enough for every route's widest step.
TEST(Base64Decode, AgreesWithThePlainStepsOnEveryByteInEveryPlace) {
  const std::string symbols = "QUJDREVGR0hJSktMTU5PUFFSU1RVVldY";
  for (Via via : AllWays()) {
    SCOPED_TRACE(static_cast<int>(via));
    for (unsigned byte = 0; byte < 256; ++byte) {
      for (std::size_t place = 0; place < symbols.size(); ++place) {
        std::string text = symbols;
        text[place] = static_cast<char>(byte);
        ASSERT_EQ(PlainDecode(text), Decode(text, via)) << byte << " at " << place;
      }
    }
  }
}

TEST(Base64Decode, BadArgumentsGiveZero) {
  unsigned char text[] = "YWJj";
  unsigned char out[4] = {kJunk, kJunk, kJunk, kJunk};
  EXPECT_EQ(0, KVT::Base64Decode(nullptr, out, 4, nullptr));
  EXPECT_EQ(0, KVT::Base64Decode(text, nullptr, 4, nullptr));
  EXPECT_EQ(0, KVT::Base64Decode(text, out, -4, nullptr));
  EXPECT_EQ(0, KVT::Base64Decode(text, out, 3, nullptr));
  EXPECT_EQ(kJunk, out[0]);
}

std::size_t HeapBlockSize(const void* block) {
  return ::HeapSize(::GetProcessHeap(), 0, block);
}

TEST(Base64Allocating, EncodeGivesAnExactHeapBlock) {
  unsigned char bytes[] = {'a', 'b', 'c', 0x40};
  int length = -1;
  unsigned char* text = KVT::Base64Encode(bytes, 4, &length);
  ASSERT_NE(nullptr, text);
  EXPECT_EQ(8, length);
  EXPECT_EQ(8u, HeapBlockSize(text));  // No room for a terminator: the length is the end.
  EXPECT_EQ("YWJjQ===", std::string(text, text + 8));
  KVT::MemFree(text);

  length = -1;
  EXPECT_EQ(nullptr, KVT::Base64Encode(bytes, 0, &length));
  EXPECT_EQ(0, length);
  length = -1;
  EXPECT_EQ(nullptr, KVT::Base64Encode(nullptr, 4, &length));
  EXPECT_EQ(0, length);
}

TEST(Base64Allocating, EncodeStringCodesTheTextWithoutItsTerminator) {
  int length = -1;
  unsigned char* text = KVT::Base64EncodeString("ab", &length);
  ASSERT_NE(nullptr, text);
  EXPECT_EQ(4, length);
  EXPECT_EQ("YWI=", std::string(text, text + 4));
  KVT::MemFree(text);

  length = -1;
  EXPECT_EQ(nullptr, KVT::Base64EncodeString("", &length));
  EXPECT_EQ(0, length);
  length = -1;
  EXPECT_EQ(nullptr, KVT::Base64EncodeString(nullptr, &length));
  EXPECT_EQ(-1, length);  // Untouched.
}

TEST(Base64Allocating, DecodeTerminatesTheBytesInAHeapBlock) {
  const struct { std::string text; std::string bytes; } kCases[] = {
      {"YWJj", "abc"}, {"YWJjYWI=", "abcab"}, {"QV==", "AP"}, {"YWJjQQ", "abc"},
      {"YWJ", ""}, {"====", ""}, {"", ""},
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

TEST(Base64DecodeString, NarrowEndsAtAZeroByte) {
  EXPECT_STREQ("abc", KVT::Base64DecodeString("YWJj", 0));
  EXPECT_STREQ("ab", KVT::Base64DecodeString("YWIAY2Q=", 0));  // "ab\0cd"
  EXPECT_STREQ("", KVT::Base64DecodeString("====", 0));
  EXPECT_STREQ("", KVT::Base64DecodeString("A===", 0));
  EXPECT_STREQ("ab", KVT::Base64DecodeString("YWI=", 12345));  // The code page isn't used.
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(static_cast<char const*>(nullptr), 0));
  EXPECT_EQ(nullptr, KVT::Base64DecodeString("", 0));
}

TEST(Base64DecodeString, WideConvertsThroughTheCodePage) {
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
  const Bytes bytes(512000, 'x');
  std::string text = Encode(bytes);
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(text.c_str(), 0));
  text.resize(text.size() - 4);
  char const* shorter = KVT::Base64DecodeString(text.c_str(), 0);
  ASSERT_NE(nullptr, shorter);
  EXPECT_EQ(511998u, std::strlen(shorter));
}

}  // namespace
