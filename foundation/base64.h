#ifndef TERNCORELIB_FOUNDATION_BASE64_H_
#define TERNCORELIB_FOUNDATION_BASE64_H_

#include <cstdint>

#include "foundation/export.h"

namespace KVT {

// Base64 with the alphabet of RFC 4648 (A-Z, a-z, 0-9, '+', '/') and the pad '='. No line
// breaks are written, and none are skipped when reading.
//
// Full groups of three bytes code exactly as the RFC says. A last group of one or two bytes
// differs: a final symbol that would carry only zero bits isn't written, and a pad stands in its
// place, so every text is still four characters per group:
//   0x40       -> "Q===" (the RFC writes "QA==")
//   0x41, 0x50 -> "QV==" (the RFC writes "QVA=")
// The second symbol of a two-byte group is always written. The decoder is the matching half and
// also takes the RFC's forms. One input doesn't survive the trip: a last pair whose second byte
// is 0 codes like the single first byte (0x41, 0x00 and 0x41 both give "QQ==").
//
// Sizes are ints, and a size of 0 or below is empty input. Sources are only read (the types are
// those of the library's interface). Everything here is reentrant and keeps no state.

// 4 x ceiling(count / 3), the exact length of the text for `count` bytes. 0 for a count of 0 or
// below, and also for a count whose text would be longer than an int can say
// (above 1610612733).
TERN_API int Base64CalcEncodedSize(int count);

// length - length / 4. For a length that is a multiple of 4 that is the most the text can
// decode to (8 gives 6); in general it is enough room for Base64Decode's buffer form (5 gives
// 4). 0 for a length of 0 or below.
TERN_API int Base64CalcDecodedSize(int length);

// Codes `count` bytes of `source` into `destination`, which needs room for
// Base64CalcEncodedSize(count) bytes. Writes exactly that many bytes and no terminator, stores
// the number in `*length` unless `length` is null, and returns `destination`.
// A count of 0 or below, a null source or destination, or a count too large for
// Base64CalcEncodedSize writes nothing and stores 0.
TERN_API unsigned char* Base64Encode(unsigned char* source, unsigned char* destination, int count,
                                     int* length);

// The same into a new block of the process heap of exactly Base64CalcEncodedSize(count) bytes,
// which the caller releases with MemFree. The text is not terminated: `*length` is the only way
// to know where it ends, so pass a length pointer. A count of 0 or below, a null source, or a
// heap that fails gives null and stores 0.
TERN_API unsigned char* Base64Encode(unsigned char* source, int count, int* length);

// Base64Encode's allocating form over the bytes of `text` before its terminator. Null text gives
// null and leaves `*length` alone; empty text gives null and stores 0.
TERN_API unsigned char* Base64EncodeString(char const* text, int* length);

// Decodes `length` characters of `source` into `destination` and returns the number of bytes
// written; nothing is written past them, and no terminator. Room for
// Base64CalcDecodedSize(length) bytes is always enough. `unused` is never read or written.
//
// The text is read four characters at a time. There is no failure value; every text gives some
// bytes:
//   - a group that begins with '=' ends the text: "YWJj====YWJj" gives 3 bytes;
//   - any other group with pads gives its bytes and reading goes on, so texts written one after
//     the other decode in one call without a gap ("QQ==QQ==" gives 0x41, 0x41);
//   - a character outside the alphabet, white space and line breaks included, isn't skipped or
//     refused: it counts in its group with the value 0xFF, whose bits spill into the bytes
//     around it;
//   - the 1 to 3 characters left over by a length that is no multiple of 4 are ignored. They
//     can't form a group of their own, and reading them as one would give bytes made up from
//     the missing positions and break the bound of Base64CalcDecodedSize.
// A null source or destination, or a length below 4, gives 0 and writes nothing.
TERN_API int Base64Decode(unsigned char* source, unsigned char* destination, int length,
                          unsigned char** unused);

// The same into a new zero-filled block of the process heap of
// Base64CalcDecodedSize(length + 1) bytes or more, which the caller releases with MemFree. The
// bytes are followed by a zero byte; their number is stored in `*decodedLength` unless it is
// null. `unused` is never read or written. A length of 0 or below or a null source gives a block
// holding only the zero byte, and 0. A heap that fails gives null and stores 0.
TERN_API unsigned char* Base64Decode(unsigned char* source, int length, unsigned char** unused,
                                     int* decodedLength);

// The bytes of `text` as a narrow temporary string (see temp_string.h). The text ends at the
// first zero byte among them, so bytes behind a zero are lost; a text that decodes to no bytes
// gives an empty text. Null for null or empty text, or when the result needs more than 512000
// characters with its terminator. `codePage` isn't used: the bytes are returned as they are.
TERN_API char const* Base64DecodeString(char const* text, std::uint32_t codePage);

// `text` is converted to narrow with StrConvert(text, codePage), decoded, and the bytes up to the
// first zero byte are converted back to wide with StrConvert(bytes, codePage): a wide temporary
// string. Null for null or empty text, for a text that doesn't convert, and, unlike the narrow
// form, for a text that decodes to no bytes (StrConvert has no empty result). The text is
// decoded over as many characters as it has wide characters; a narrow form that came out
// shorter (a code page that makes one character of two) is decoded over its own length.
TERN_API wchar_t const* Base64DecodeString(wchar_t const* text, std::uint32_t codePage);

}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_BASE64_H_
