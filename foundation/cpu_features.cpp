#include "foundation/cpu_features.h"

#include <cpuid.h>

namespace KVT {
namespace internal {
namespace {

unsigned Detect() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return 0;
  unsigned features = 0;
  if (edx & bit_SSE2) features |= kCpuSse2;
  if (ecx & bit_SSSE3) features |= kCpuSsse3;
  if ((ecx & bit_OSXSAVE) && (ecx & bit_AVX)) {
    unsigned xcr0_low = 0, xcr0_high = 0;
    __asm__ volatile("xgetbv" : "=a"(xcr0_low), "=d"(xcr0_high) : "c"(0));
    if ((xcr0_low & 6) == 6 && __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) &&
        (ebx & bit_AVX2)) {
      features |= kCpuAvx2;
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
