#ifndef TERNCORELIB_FOUNDATION_INTERNAL_CPU_FEATURES_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_CPU_FEATURES_H_

// The instruction sets beyond the build's baseline that the library's vector code may use.
// Internal to the library. Code compiled for one of them is called only where CpuHas says so:
// the i686 baseline has not even SSE2.

namespace KVT {
namespace internal {

enum CpuFeature : unsigned {
  kCpuSse2 = 1u << 0,
  kCpuSsse3 = 1u << 1,
  // AVX2 counts only where the system also saves the 256-bit registers on a thread switch
  // (OSXSAVE, and XCR0 with the SSE and AVX state): a processor that has it under a system that
  // doesn't must not use it.
  kCpuAvx2 = 1u << 2,
  // AVX-512 Foundation and Byte/Word, where the system also saves the mask and 512-bit registers
  // (XCR0 with the opmask and both ZMM states besides the AVX ones).
  kCpuAvx512bw = 1u << 3,
};

// The CpuFeature bits of this processor, asked once per module and cached; safe from any thread.
unsigned CpuFeatures();

inline bool CpuHas(unsigned features) { return (CpuFeatures() & features) == features; }

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_CPU_FEATURES_H_
