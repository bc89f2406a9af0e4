// Temporary strings against malloc and free of the same size. Once the ring is warm a take is an
// atomic add, a capacity check and a terminator store: no allocation, no lock.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "bench/bench_compare.h"
#include "foundation/temp_string.h"

namespace {

void BM_TempStringTake(benchmark::State& state) {
  const auto chars = static_cast<std::uint32_t>(state.range(0));
  char* text = nullptr;
  for (int i = 0; i < 256; ++i) KVT::KVTGetTmpString(text, chars);  // Warm every slot.
  for (auto _ : state) {
    KVT::KVTGetTmpString(text, chars);
    benchmark::DoNotOptimize(text);
    text[0] = 'x';
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TempStringTake)->Arg(64)->Arg(1024);
BENCHMARK(BM_TempStringTake)->Arg(64)->Threads(2)->UseRealTime();

void BM_TempStringTakeWide(benchmark::State& state) {
  const auto chars = static_cast<std::uint32_t>(state.range(0));
  wchar_t* text = nullptr;
  for (int i = 0; i < 256; ++i) KVT::KVTGetTmpString(text, chars);
  for (auto _ : state) {
    KVT::KVTGetTmpString(text, chars);
    benchmark::DoNotOptimize(text);
    text[0] = L'x';
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TempStringTakeWide)->Arg(64);

void BM_MallocFree(benchmark::State& state) {
  const auto bytes = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    char* text = static_cast<char*>(std::malloc(bytes));
    benchmark::DoNotOptimize(text);
    text[0] = 'x';
    benchmark::ClobberMemory();
    std::free(text);
  }
}
BENCHMARK(BM_MallocFree)->Arg(64)->Arg(1024);

TERN_BENCH_COMPARE("temporary string take vs malloc+free, 64 chars", "BM_TempStringTake/64",
                   "BM_MallocFree/64");
TERN_BENCH_COMPARE("temporary string take vs malloc+free, 1024 chars", "BM_TempStringTake/1024",
                   "BM_MallocFree/1024");

}  // namespace
