#include "foundation/internal/cpu_features.h"

#include "foundation/internal/compiler.h"

namespace KVT {
namespace internal {
namespace {

// CPUID bits (Intel's Software Developer's Manual, volume 2, CPUID).
constexpr unsigned kLeaf1EdxSse2 = 1u << 26;
constexpr unsigned kLeaf1EcxSsse3 = 1u << 9;
constexpr unsigned kLeaf1EcxOsxsave = 1u << 27;
constexpr unsigned kLeaf1EcxAvx = 1u << 28;
constexpr unsigned kLeaf7EbxAvx2 = 1u << 5;
constexpr unsigned kLeaf7EbxAvx512f = 1u << 16;
constexpr unsigned kLeaf7EbxAvx512bw = 1u << 30;
// XCR0: the SSE and AVX states, and the three AVX-512 ones (opmask, upper ZMM0-15, ZMM16-31).
constexpr std::uint64_t kXcr0Avx = 0x6;
constexpr std::uint64_t kXcr0Avx512 = 0xE6;

unsigned Detect() {
  unsigned leaf1[4];
  if (!Cpuid(1, 0, leaf1)) return 0;
  unsigned features = 0;
  if (leaf1[3] & kLeaf1EdxSse2) features |= kCpuSse2;
  if (leaf1[2] & kLeaf1EcxSsse3) features |= kCpuSsse3;
  if ((leaf1[2] & kLeaf1EcxOsxsave) && (leaf1[2] & kLeaf1EcxAvx)) {
    const std::uint64_t xcr0 = ReadXcr0();
    unsigned leaf7[4];
    if ((xcr0 & kXcr0Avx) == kXcr0Avx && Cpuid(7, 0, leaf7)) {
      if (leaf7[1] & kLeaf7EbxAvx2) features |= kCpuAvx2;
      if ((xcr0 & kXcr0Avx512) == kXcr0Avx512 && (leaf7[1] & kLeaf7EbxAvx512f) &&
          (leaf7[1] & kLeaf7EbxAvx512bw)) {
        features |= kCpuAvx512bw;
      }
    }
  }
  return features;
}

}  // namespace

unsigned CpuFeatures() {
  static const unsigned features = Detect();
  return features;
}

}  // namespace internal
}  // namespace KVT
