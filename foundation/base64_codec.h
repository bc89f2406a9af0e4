#ifndef TERNCORELIB_FOUNDATION_BASE64_CODEC_H_
#define TERNCORELIB_FOUNDATION_BASE64_CODEC_H_

// The coding kernels behind base64.h. Internal to the library; inline so that tests can drive
// each route directly, whatever the machine they run on supports.
//
// Two routes give identical output for every input:
//   - kScalar: two symbols per lookup to encode; four pre-shifted words OR-ed per group to
//     decode, with one flag bit that sends a group holding '=' or a foreign byte to the exact
//     rules of DecodeGroup.
//   - kSsse3: sixteen characters at a time where the processor has SSSE3. A block of sixteen
//     symbols of the alphabet decodes in registers; any other block goes the scalar way.
// Words are stored in the byte order of x86, the only one the library runs on.

#include <array>
#include <cstdint>
#include <cstring>

#if defined(__i386__) || defined(__x86_64__)
#include <tmmintrin.h>
#define TERN_BASE64_SSSE3 1
#endif

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
    const std::uint64_t bytes = __builtin_bswap64(loaded);  // The first byte on top.
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

// --- SSSE3 route ---------------------------------------------------------------------------------
//
// force_align_arg_pointer: 32-bit Windows guarantees only 4-byte stack alignment, and a spilled
// vector must not fault there.

#if defined(TERN_BASE64_SSSE3)
#define TERN_BASE64_SSSE3_FUNCTION __attribute__((target("ssse3"), force_align_arg_pointer))

// Four whole groups: 12 bytes from a 16-byte load (so 16 readable bytes) to 16 characters.
TERN_BASE64_SSSE3_FUNCTION inline void EncodeBlockSsse3(const unsigned char* source,
                                                        unsigned char* destination) {
  __m128i in = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source));
  // Each 32-bit lane gets the bytes b1 b0 b2 b1 of its group: the 16-bit halves hold b0b1 and
  // b1b2 with the first byte on top, so that each symbol is one mask and one multiply away.
  in = _mm_shuffle_epi8(in, _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
  // First and third symbol: the high six bits of b0b1 and bits 11..6 of b1b2, moved down to
  // bytes 0 and 2 by a high multiply.
  const __m128i first_third =
      _mm_mulhi_epu16(_mm_and_si128(in, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
  // Second and fourth symbol: bits 9..4 of b0b1 and 5..0 of b1b2, moved up to bytes 1 and 3.
  const __m128i second_fourth =
      _mm_mullo_epi16(_mm_and_si128(in, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
  const __m128i values = _mm_or_si128(first_third, second_fourth);
  // Value to character by one lookup of the offset to add: index 13 for 0..25 ('A' + v), 0 for
  // 26..51 (a..z), 1 to 12 for 52..63 (0..9, '+', '/').
  __m128i index = _mm_subs_epu8(values, _mm_set1_epi8(51));
  index = _mm_or_si128(index, _mm_and_si128(_mm_cmpgt_epi8(_mm_set1_epi8(26), values),
                                            _mm_set1_epi8(13)));
  const __m128i offsets = _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                        '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                                        '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
  const __m128i text = _mm_add_epi8(values, _mm_shuffle_epi8(offsets, index));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(destination), text);
}

// Four groups of 16 characters to exactly 12 bytes, if all 16 are symbols of the alphabet;
// otherwise false, and nothing is written.
TERN_BASE64_SSSE3_FUNCTION inline bool DecodeBlockSsse3(const unsigned char* source,
                                                        unsigned char* out) {
  const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source));
  const __m128i low_nibble_mask = _mm_set1_epi8(0x0F);
  const __m128i high = _mm_and_si128(_mm_srli_epi32(c, 4), low_nibble_mask);
  const __m128i low = _mm_and_si128(c, low_nibble_mask);
  // Validity by two nibble lookups: each row of the ASCII table (high nibble) has one bit, set
  // in the entry of every low nibble that isn't a symbol in that row. Row 2 holds '+' and '/'
  // (bit 1), row 3 the digits (bit 2), rows 4 and 6 the letters from 1 on (bit 4), rows 5 and
  // 7 the letters up to 10 (bit 8); all other rows, 0x80 to 0xFF included, hold none (bit 16).
  const __m128i row_bits = _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08,
                                         0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  const __m128i invalid_in_rows = _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                                0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  const __m128i invalid = _mm_and_si128(_mm_shuffle_epi8(row_bits, high),
                                        _mm_shuffle_epi8(invalid_in_rows, low));
  if (_mm_movemask_epi8(_mm_cmpeq_epi8(invalid, _mm_setzero_si128())) != 0xFFFF) return false;
  // Character to value by the offset of its row; in row 2, '/' is told from '+' by moving it to
  // index 1.
  const __m128i row_offsets = _mm_setr_epi8(0, 63 - '/', 62 - '+', 52 - '0', -'A', -'A',
                                            26 - 'a', 26 - 'a', 0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i slash = _mm_cmpeq_epi8(c, _mm_set1_epi8('/'));
  const __m128i values =
      _mm_add_epi8(c, _mm_shuffle_epi8(row_offsets, _mm_add_epi8(high, slash)));
  // Per lane s0 s1 s2 s3: pairs to s0 << 6 | s1 and s2 << 6 | s3, then to the 24 bits of the
  // group, whose three bytes are then taken in order.
  const __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
  const __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
  const __m128i bytes = _mm_shuffle_epi8(
      groups, _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), bytes);
  const auto last = static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(bytes, 8)));
  std::memcpy(out + 8, &last, sizeof last);
  return true;
}

// Whole blocks of four groups while 16 bytes can be read; leaves the rest of `groups`. One call
// per run: the processor-specific code can't be inlined into code built for any x86.
TERN_BASE64_SSSE3_FUNCTION inline void EncodeBlocksSsse3(const unsigned char*& source,
                                                         unsigned char*& destination,
                                                         int& groups) {
  for (; groups >= 6; groups -= 4) {
    EncodeBlockSsse3(source, destination);
    source += 12;
    destination += 16;
  }
}

// Blocks of 16 symbols while there are any; stops at the first block with an odd character or
// when fewer than 16 characters are left.
TERN_BASE64_SSSE3_FUNCTION inline void DecodeBlocksSsse3(const unsigned char*& source,
                                                         unsigned char*& out, int& length) {
  for (; length >= 16 && DecodeBlockSsse3(source, out); length -= 16) {
    source += 16;
    out += 12;
  }
}

inline bool ProcessorHasSsse3() {
  static const bool has = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("ssse3") != 0;
  }();
  return has;
}
#else
inline bool ProcessorHasSsse3() { return false; }
#endif

inline Base64Route FastestBase64Route() {
  return ProcessorHasSsse3() ? Base64Route::kSsse3 : Base64Route::kScalar;
}

// --- The codec -----------------------------------------------------------------------------------

// Codes `count` bytes (at least 1) into Base64CalcEncodedSize(count) characters. `route` must be
// one the processor supports.
inline void EncodeBase64(const unsigned char* source, unsigned char* destination, int count,
                         Base64Route route) {
  int groups = count / 3;
#if defined(TERN_BASE64_SSSE3)
  if (route == Base64Route::kSsse3) EncodeBlocksSsse3(source, destination, groups);
#else
  (void)route;
#endif
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
#if defined(TERN_BASE64_SSSE3)
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
#else
  (void)route;
#endif
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

#endif  // TERNCORELIB_FOUNDATION_BASE64_CODEC_H_
