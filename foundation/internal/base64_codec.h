#ifndef TERNCORELIB_FOUNDATION_INTERNAL_BASE64_CODEC_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_BASE64_CODEC_H_

// The coding kernels behind base64.h. Internal to the library; tests drive each route directly,
// whatever the machine they run on supports.
//
// Two routes give identical output for every input:
//   - kScalar: two symbols per lookup to encode; four pre-shifted words OR-ed per group to
//     decode, with one flag bit that sends a group holding '=' or a foreign byte to the exact
//     rules of DecodeGroup.
//   - kSsse3: sixteen characters at a time where the processor has SSSE3 (base64_ssse3.cpp). A
//     block of sixteen symbols of the alphabet decodes in registers; any other block goes the
//     scalar way.
// Words are stored in the byte order of x86, the only one the library runs on.

#include <array>
#include <cstdint>
#include <cstring>

#include "foundation/internal/base64_kernels.h"
#include "foundation/internal/compiler.h"
#include "foundation/internal/cpu_features.h"

namespace KVT {
namespace internal {

enum class Base64Route { kScalar, kSsse3 };

inline constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
inline constexpr unsigned char kBase64Pad = '=';
inline constexpr unsigned char kNotASymbol = 0xFF;

// Symbol value 0..63 of each byte, 0xFF for every other byte ('=' and 0 included).
constexpr std::array<unsigned char, 256> MakeBase64Inverse() {
  std::array<unsigned char, 256> inverse{};
  for (auto& value : inverse) value = kNotASymbol;
  for (unsigned value = 0; value < 64; ++value) {
    inverse[static_cast<unsigned char>(kBase64Alphabet[value])] =
        static_cast<unsigned char>(value);
  }
  return inverse;
}
inline constexpr std::array<unsigned char, 256> kBase64Inverse = MakeBase64Inverse();

// Entry v holds the characters of v >> 6 and v & 63, in memory order.
constexpr std::array<std::uint16_t, 4096> MakeBase64PairTable() {
  std::array<std::uint16_t, 4096> table{};
  for (unsigned v = 0; v < 4096; ++v) {
    table[v] = static_cast<std::uint16_t>(
        static_cast<unsigned char>(kBase64Alphabet[v >> 6]) |
        static_cast<unsigned char>(kBase64Alphabet[v & 63]) << 8);
  }
  return table;
}
inline constexpr std::array<std::uint16_t, 4096> kBase64PairTable = MakeBase64PairTable();

// One table per place in the group: the symbol's bits already shifted to where they land in the
// three output bytes (bytes 0 to 2 of a word). '=' and foreign bytes carry kSlowGroup, in the
// fourth byte where no symbol's bits go.
inline constexpr std::uint32_t kSlowGroup = 0x80000000u;

constexpr std::array<std::uint32_t, 256> MakeBase64DecodeTable(int place) {
  std::array<std::uint32_t, 256> table{};
  for (unsigned c = 0; c < 256; ++c) {
    const std::uint32_t s = kBase64Inverse[c];
    if (s == kNotASymbol) {
      table[c] = kSlowGroup;
    } else if (place == 0) {
      table[c] = s << 2;
    } else if (place == 1) {
      table[c] = (s >> 4) | (s & 0x0F) << 12;
    } else if (place == 2) {
      table[c] = (s >> 2) << 8 | (s & 0x03) << 22;
    } else {
      table[c] = s << 16;
    }
  }
  return table;
}
inline constexpr std::array<std::uint32_t, 256> kBase64Decode0 = MakeBase64DecodeTable(0);
inline constexpr std::array<std::uint32_t, 256> kBase64Decode1 = MakeBase64DecodeTable(1);
inline constexpr std::array<std::uint32_t, 256> kBase64Decode2 = MakeBase64DecodeTable(2);
inline constexpr std::array<std::uint32_t, 256> kBase64Decode3 = MakeBase64DecodeTable(3);

// --- Scalar route --------------------------------------------------------------------------------

// Four characters for the 24 bits of `group`, as a word to store.
inline std::uint32_t EncodeGroupWord(std::uint32_t group) {
  return kBase64PairTable[group >> 12] | std::uint32_t{kBase64PairTable[group & 0xFFF]} << 16;
}

inline void EncodeGroupsScalar(const unsigned char* source, unsigned char* destination,
                               int groups) {
  // Two groups from one 8-byte load while a third group's bytes follow them.
  for (; groups >= 3; groups -= 2) {
    std::uint64_t loaded;
    std::memcpy(&loaded, source, sizeof loaded);
    const std::uint64_t bytes = ByteSwap(loaded);  // The first byte on top.
    const std::uint64_t text =
        EncodeGroupWord(static_cast<std::uint32_t>(bytes >> 40)) |
        std::uint64_t{EncodeGroupWord(static_cast<std::uint32_t>(bytes >> 16) & 0xFFFFFF)} << 32;
    std::memcpy(destination, &text, sizeof text);
    source += 6;
    destination += 8;
  }
  for (; groups > 0; --groups) {
    const std::uint32_t text = EncodeGroupWord(source[0] << 16 | source[1] << 8 | source[2]);
    std::memcpy(destination, &text, sizeof text);
    source += 3;
    destination += 4;
  }
}

// A last group of one or two bytes: a final symbol that would carry only zero bits gives way to
// a pad. The second symbol of a pair is always written.
inline void EncodeLastGroup(const unsigned char* source, int bytes, unsigned char* destination) {
  const unsigned b0 = source[0];
  destination[0] = kBase64Alphabet[b0 >> 2];
  destination[3] = kBase64Pad;
  if (bytes == 1) {
    const unsigned rest = (b0 & 0x03) << 4;
    destination[1] = rest != 0 ? kBase64Alphabet[rest] : kBase64Pad;
    destination[2] = kBase64Pad;
    return;
  }
  const unsigned b1 = source[1];
  destination[1] = kBase64Alphabet[(b0 & 0x03) << 4 | b1 >> 4];
  const unsigned rest = (b1 & 0x0F) << 2;
  destination[2] = rest != 0 ? kBase64Alphabet[rest] : kBase64Pad;
}

// One group by the exact rules: pads end it, a '=' in the first place ends the whole text (0),
// and a pair of pads means one byte only when the second symbol has no bits left for another.
// All arithmetic is on bytes; a foreign byte takes part with the value 0xFF. Writes exactly as
// many bytes as it returns.
inline int DecodeGroup(const unsigned char* c, unsigned char* out) {
  if (c[0] == kBase64Pad) return 0;
  const unsigned s0 = kBase64Inverse[c[0]];
  out[0] = static_cast<unsigned char>(s0 << 2);
  if (c[1] == kBase64Pad) return 1;
  const unsigned s1 = kBase64Inverse[c[1]];
  out[0] |= static_cast<unsigned char>(s1 >> 4);
  int count = 1;
  if ((s1 & 0x0F) != 0 || c[2] != kBase64Pad) {
    count = 2;
    out[1] = static_cast<unsigned char>(s1 << 4);
  }
  if (c[2] == kBase64Pad) return count;
  const unsigned s2 = kBase64Inverse[c[2]];
  out[1] |= static_cast<unsigned char>(s2 >> 2);
  if ((s2 & 0x03) != 0 || c[3] != kBase64Pad) {
    ++count;
    out[2] = static_cast<unsigned char>(s2 << 6);
  }
  if (c[3] == kBase64Pad) return count;
  out[2] |= kBase64Inverse[c[3]];
  return count;
}

inline std::uint32_t DecodeGroupWord(const unsigned char* c) {
  return kBase64Decode0[c[0]] | kBase64Decode1[c[1]] | kBase64Decode2[c[2]] |
         kBase64Decode3[c[3]];
}

// Decodes a run of groups of four symbols, for which the exact rules give the RFC's three bytes.
// It stores a whole word, one byte more than a group gives, and so only while another group
// follows that doesn't begin with '=': that group writes at least one byte, over the spare one.
// Stops before the first group that needs DecodeGroup, or before the last group. Advances the
// three arguments past what it decoded.
inline void DecodeRunScalar(const unsigned char*& source, unsigned char*& out, int& length) {
  for (; length >= 12; length -= 8) {
    const std::uint32_t first = DecodeGroupWord(source);
    const std::uint32_t second = DecodeGroupWord(source + 4);
    if (((first | second) & kSlowGroup) != 0 || source[8] == kBase64Pad) break;
    std::memcpy(out, &first, sizeof first);
    std::memcpy(out + 3, &second, sizeof second);
    source += 8;
    out += 6;
  }
  for (; length >= 8; length -= 4) {
    const std::uint32_t word = DecodeGroupWord(source);
    if ((word & kSlowGroup) != 0 || source[4] == kBase64Pad) break;
    std::memcpy(out, &word, sizeof word);
    source += 4;
    out += 3;
  }
}

inline Base64Route FastestBase64Route() {
  return CpuHas(kCpuSsse3) ? Base64Route::kSsse3 : Base64Route::kScalar;
}

// --- The codec -----------------------------------------------------------------------------------

// Codes `count` bytes (at least 1) into Base64CalcEncodedSize(count) characters. `route` must be
// one the processor supports.
inline void EncodeBase64(const unsigned char* source, unsigned char* destination, int count,
                         Base64Route route) {
  int groups = count / 3;
  if (route == Base64Route::kSsse3) EncodeBlocksSsse3(source, destination, groups);
  EncodeGroupsScalar(source, destination, groups);
  if (count % 3 != 0) EncodeLastGroup(source + 3 * groups, count % 3, destination + 4 * groups);
}

// One group, by its word where DecodeRunScalar would take it, by the exact rules otherwise.
// Returns the bytes given, 0 at a group that ends the text.
inline int DecodeOneGroup(const unsigned char* source, unsigned char* out, int length) {
  const std::uint32_t word = DecodeGroupWord(source);
  if ((word & kSlowGroup) != 0 || length < 8 || source[4] == kBase64Pad) {
    return DecodeGroup(source, out);
  }
  std::memcpy(out, &word, sizeof word);
  return 3;
}

// Decodes the whole groups of `length` characters and returns the number of bytes written; see
// Base64Decode for the rules. `route` must be one the processor supports.
inline int DecodeBase64(const unsigned char* source, unsigned char* destination, int length,
                        Base64Route route) {
  unsigned char* out = destination;
  if (route == Base64Route::kSsse3) {
    while (length >= 4) {
      DecodeBlocksSsse3(source, out, length);
      // A block with an odd character in it, or the last groups: four groups one at a time,
      // then back to blocks.
      for (int group = 0; group < 4 && length >= 4; ++group) {
        const int given = DecodeOneGroup(source, out, length);
        if (given == 0) return static_cast<int>(out - destination);
        out += given;
        source += 4;
        length -= 4;
      }
    }
    return static_cast<int>(out - destination);
  }
  while (length >= 4) {
    DecodeRunScalar(source, out, length);  // Leaves at least one group.
    const int given = DecodeGroup(source, out);
    if (given == 0) break;
    out += given;
    source += 4;
    length -= 4;
  }
  return static_cast<int>(out - destination);
}

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_BASE64_CODEC_H_
