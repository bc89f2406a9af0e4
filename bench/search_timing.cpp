// The search table of search_bench.cpp without Google Benchmark, which needs a compiled C++
// library that the MSVC-ABI cross build lacks: the same text, the same terms and flags, the
// library's search called as an application calls it. Both ABIs build it from this source, and
// bench/abi_compare.py runs a program of each build side by side and has them time each row by
// turns.
//
// Prints the text's checksum and the vector set that the processor offers, so that a comparison
// can check that two builds searched the same text on the same kernels, and then one line per
// row: its name, the fastest time of one search in nanoseconds and the occurrences found.
//   tern_search_timing [MIN_SECONDS_PER_ROW]        every row once
//   tern_search_timing MIN_SECONDS_PER_ROW -        the rows named on standard input, one a line
//                                                  (narrow/rare3/flags0), until an empty line
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/search_corpus.h"
#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "foundation/internal/cpu_features.h"
#include "foundation/win.h"

namespace {

double Seconds() {
  static LARGE_INTEGER frequency = [] {
    LARGE_INTEGER f;
    ::QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER now;
  ::QueryPerformanceCounter(&now);
  return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

template <typename T>
std::uint64_t Checksum(const std::basic_string<T>& text) {  // FNV-1a over the characters.
  std::uint64_t hash = 14695981039346656037ull;
  for (T ch : text) hash = (hash ^ static_cast<std::uint64_t>(ch)) * 1099511628211ull;
  return hash;
}

// One row: the first search allocates the result records (as in the Google Benchmark table),
// then searches repeat for at least `min_seconds` and three times; the fastest one counts.
template <typename T>
void Row(const char* width, const tern_bench::Config& config, double min_seconds) {
  const std::basic_string<T>& text = tern_bench::Text<T>();
  const std::basic_string<T> term = tern_bench::TermOf<T>(config);
  KVT::CSearchQuery<T> query;
  query.SetTerm(term.c_str(), 0, (config.flags & 1) != 0);
  KVT::CBuffer<T> buffer;
  auto search = [&] {
    return buffer.Search(text.data(), static_cast<int>(text.size()), config.flags, query, nullptr,
                         nullptr, static_cast<T>('\n'));
  };
  const unsigned long found = search();
  double fastest = 1e30;
  const double start = Seconds();
  for (int runs = 0; runs < 3 || Seconds() - start < min_seconds; ++runs) {
    const double before = Seconds();
    if (search() != found) std::printf("!! the count changed from one search to the next\n");
    const double took = Seconds() - before;
    if (took < fastest) fastest = took;
  }
  std::printf("BM_Search/%s/%s%d/flags%lu %.0f %lu\n", width, config.rare ? "rare" : "common",
              tern_bench::kTermLengths[config.length_index], config.flags, fastest * 1e9, found);
}

template <typename T>
void Width(const char* width, double min_seconds) {
  for (int length = 0; length < 4; ++length) {
    for (bool rare : {true, false}) {
      for (unsigned long flags : {0ul, 1ul, 2ul}) Row<T>(width, {length, rare, flags}, min_seconds);
    }
  }
}

// A row named as the table prints it, without "BM_Search/"; false for another text.
bool RunNamedRow(const char* name, double min_seconds) {
  char width[8] = {};
  char kind[8] = {};
  int length = 0;
  unsigned long flags = 0;
  if (std::sscanf(name, "%7[a-z]/%7[a-z]%d/flags%lu", width, kind, &length, &flags) != 4) {
    return false;
  }
  int index = 0;
  while (index < 4 && tern_bench::kTermLengths[index] != length) ++index;
  const bool rare = std::strcmp(kind, "rare") == 0;
  if (index == 4 || (!rare && std::strcmp(kind, "common") != 0) || flags > 3) return false;
  if (std::strcmp(width, "narrow") == 0) {
    Row<char>(width, {index, rare, flags}, min_seconds);
  } else if (std::strcmp(width, "wide") == 0) {
    Row<wchar_t>(width, {index, rare, flags}, min_seconds);
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const double min_seconds = argc > 1 ? std::atof(argv[1]) : 0.2;
  using KVT::internal::CpuHas;
  std::printf("text %016llx %016llx\n",
              static_cast<unsigned long long>(Checksum(tern_bench::NarrowText())),
              static_cast<unsigned long long>(Checksum(tern_bench::WideText())));
  std::printf("vector set %s\n", CpuHas(KVT::internal::kCpuAvx2)   ? "AVX2"
                                 : CpuHas(KVT::internal::kCpuSse2) ? "SSE2"
                                                                   : "none");
  std::fflush(stdout);
  if (argc > 2 && std::strcmp(argv[2], "-") == 0) {
    char line[64];
    while (std::fgets(line, sizeof(line), stdin) != nullptr && line[0] != '\n') {
      if (!RunNamedRow(line, min_seconds)) std::printf("!! no such row: %s", line);
      std::fflush(stdout);
    }
    return 0;
  }
  Width<char>("narrow", min_seconds);
  Width<wchar_t>("wide", min_seconds);
  return 0;
}
