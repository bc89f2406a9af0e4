#ifndef TERNCORELIB_BENCH_MEMCHR_PEER_H_
#define TERNCORELIB_BENCH_MEMCHR_PEER_H_

// memchr and wmemchr as the C libraries' vector versions do them (glibc's memchr for SSE2, AVX2
// and AVX-512, for one): one unaligned vector, then four aligned vectors a step, compared and
// ORed, one test a step. The peer that a search for a rare term is measured against, since a
// search can't read its text faster than a scan for a byte that isn't there. The C runtime's own
// memchr is no such peer under Wine, whose msvcrt takes a byte at a time (about 1.3 GB/s here).

#include <cstddef>

namespace tern_bench {

struct MemchrPeer {
  const char* name;  // The instruction set: "sse2", "avx2", "avx512bw"; "crt" where none runs.
  // The index of the first `ch` in p[0 .. n - 1], or n.
  std::size_t (*find_byte)(const char* p, std::size_t n, char ch);
  std::size_t (*find_unit)(const wchar_t* p, std::size_t n, wchar_t ch);
};

// The widest that the processor and the system run.
const MemchrPeer& WidestMemchrPeer();

// Per instruction set; each only where it runs.
const MemchrPeer& Sse2MemchrPeer();
const MemchrPeer& Avx2MemchrPeer();
const MemchrPeer& Avx512bwMemchrPeer();

}  // namespace tern_bench

#endif  // TERNCORELIB_BENCH_MEMCHR_PEER_H_
