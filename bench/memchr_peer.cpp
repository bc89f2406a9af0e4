#include "bench/memchr_peer.h"

#include <cstring>
#include <cwchar>

#include "foundation/internal/cpu_features.h"

namespace tern_bench {
namespace {

std::size_t CrtFindByte(const char* p, std::size_t n, char ch) {
  const void* at = std::memchr(p, static_cast<unsigned char>(ch), n);
  return at != nullptr ? static_cast<std::size_t>(static_cast<const char*>(at) - p) : n;
}

std::size_t CrtFindUnit(const wchar_t* p, std::size_t n, wchar_t ch) {
  const wchar_t* at = std::wmemchr(p, ch, n);
  return at != nullptr ? static_cast<std::size_t>(at - p) : n;
}

constexpr MemchrPeer kCrt{"crt", &CrtFindByte, &CrtFindUnit};

}  // namespace

const MemchrPeer& WidestMemchrPeer() {
  using KVT::internal::CpuHas;
  if (CpuHas(KVT::internal::kCpuAvx512bw)) return Avx512bwMemchrPeer();
  if (CpuHas(KVT::internal::kCpuAvx2)) return Avx2MemchrPeer();
  if (CpuHas(KVT::internal::kCpuSse2)) return Sse2MemchrPeer();
  return kCrt;
}

}  // namespace tern_bench
