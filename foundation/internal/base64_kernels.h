#ifndef TERNCORELIB_FOUNDATION_INTERNAL_BASE64_KERNELS_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_BASE64_KERNELS_H_

// The Base64 codec's entry points compiled for one instruction set each (base64_ssse3.cpp).
// Internal to the library. Call one only where CpuHas grants its set. Declarations only: the
// files compiled for those sets include this header, and an inline function defined here would
// get a copy built for that set, which the linker could keep for every caller.

namespace KVT {
namespace internal {

// Whole blocks of four groups (12 bytes, read 16 at a time) to 16 characters while `groups`
// is at least 6, so that 16 bytes can always be read; leaves the rest of `groups` and advances
// the three arguments past what it coded.
void EncodeBlocksSsse3(const unsigned char*& source, unsigned char*& destination, int& groups);

// Blocks of 16 symbols of the alphabet to 12 bytes each while at least 16 characters are left;
// stops before the first block holding any other character ('=' included) and advances the
// three arguments past what it decoded.
void DecodeBlocksSsse3(const unsigned char*& source, unsigned char*& out, int& length);

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_BASE64_KERNELS_H_
