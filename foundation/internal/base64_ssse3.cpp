// The Base64 kernels for SSSE3, compiled with -mssse3 (foundation/CMakeLists.txt) and called only
// where the processor has it. Everything here but the entry points is file-local, and the file
// includes no header of the library with inline code: a copy of a shared inline function compiled
// for SSSE3 could be the one the linker keeps for every caller.
#include <tmmintrin.h>

#include <cstdint>
#include <cstring>

#include "foundation/internal/base64_kernels.h"

namespace KVT {
namespace internal {
namespace {

// Four whole groups: 12 bytes from a 16-byte load (so 16 readable bytes) to 16 characters.
void EncodeBlock(const unsigned char* source, unsigned char* destination) {
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
bool DecodeBlock(const unsigned char* source, unsigned char* out) {
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

}  // namespace

// The loops work on copies of the arguments: the bytes they store could alias the references,
// which would have every round reload them.
void EncodeBlocksSsse3(const unsigned char*& source, unsigned char*& destination, int& groups) {
  const unsigned char* in = source;
  unsigned char* out = destination;
  int left = groups;
  for (; left >= 6; left -= 4) {
    EncodeBlock(in, out);
    in += 12;
    out += 16;
  }
  source = in;
  destination = out;
  groups = left;
}

void DecodeBlocksSsse3(const unsigned char*& source, unsigned char*& out, int& length) {
  const unsigned char* in = source;
  unsigned char* to = out;
  int left = length;
  for (; left >= 16 && DecodeBlock(in, to); left -= 16) {
    in += 16;
    to += 12;
  }
  source = in;
  out = to;
  length = left;
}

}  // namespace internal
}  // namespace KVT
