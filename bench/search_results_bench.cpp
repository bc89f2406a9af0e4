// Searches whose cost is in their results: 64 MiB of text holding 100 k to 4 M occurrences, on a
// fresh buffer (which makes its result table and every record) and repeated on one buffer (which
// reuses them), against the same scan collecting into a fresh std::vector. The cost per result,
// the time beyond that of the same text without occurrences, should stay flat across the range.
// It holds all the work that results cause, counting the lines between them among it.
// Only the search is timed: making and destroying the buffers is not. Each iteration's time is the
// median of five runs.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_compare.h"
#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "buffer/internal/search_scan.h"

namespace {

constexpr std::size_t kTextBytes = 64u << 20;
constexpr char kTerm[] = "XQ";

// Lines of 63 filler letters (none of them in the term) with `occurrences` terms spread evenly.
const std::string& TextWith(std::size_t occurrences) {
  static std::string text;
  static std::size_t made_for = SIZE_MAX;
  if (made_for != occurrences) {
    text.assign(kTextBytes, 'a');
    for (std::size_t i = 0; i < kTextBytes; ++i) {
      text[i] = i % 64 == 63 ? '\n' : static_cast<char>('a' + (i * 7 + i / 64) % 23);
    }
    const std::size_t spacing = occurrences > 0 ? kTextBytes / occurrences : 0;
    for (std::size_t k = 0; k < occurrences; ++k) {
      text[(k + 1) * spacing - 2] = kTerm[0];
      text[(k + 1) * spacing - 1] = kTerm[1];
    }
    made_for = occurrences;
  }
  return text;
}

using Clock = std::chrono::steady_clock;

// The median time of five runs of `search` (each after `prepare`, which is not timed): the
// machine is shared, and a run that others slow down must not decide the figure.
template <typename Prepare, typename Search>
double MedianSeconds(Prepare prepare, Search search) {
  double seconds[5];
  for (double& run : seconds) {
    prepare();
    const Clock::time_point start = Clock::now();
    search();
    run = std::chrono::duration<double>(Clock::now() - start).count();
  }
  std::sort(seconds, seconds + 5);
  return seconds[2];
}

void Report(benchmark::State& state, std::size_t found) {
  if (found != static_cast<std::size_t>(state.range(0))) {
    state.SkipWithError("found another number of occurrences than planted");
  }
  state.counters["results"] = static_cast<double>(found);
}

int Length(const std::string& text) { return static_cast<int>(text.size()); }

void BM_ResultsFresh(benchmark::State& state) {
  const std::string& text = TextWith(static_cast<std::size_t>(state.range(0)));
  KVT::CSearchQuery<char> query;
  query.SetTerm(kTerm, 0, false);
  std::size_t found = 0;
  std::unique_ptr<KVT::CBuffer<char>> buffer;
  for (auto _ : state) {
    state.SetIterationTime(MedianSeconds(
        [&buffer] {
          buffer.reset();
          buffer = std::make_unique<KVT::CBuffer<char>>();
        },
        [&] {
          found = buffer->Search(text.data(), Length(text), 0, query, nullptr, nullptr, '\n');
        }));
  }
  Report(state, found);
}

void BM_ResultsRepeated(benchmark::State& state) {
  const std::string& text = TextWith(static_cast<std::size_t>(state.range(0)));
  KVT::CSearchQuery<char> query;
  query.SetTerm(kTerm, 0, false);
  KVT::CBuffer<char> buffer;
  std::size_t found = buffer.Search(text.data(), Length(text), 0, query, nullptr, nullptr, '\n');
  for (auto _ : state) {
    state.SetIterationTime(MedianSeconds([] {}, [&] {
      found = buffer.Search(text.data(), Length(text), 0, query, nullptr, nullptr, '\n');
    }));
  }
  Report(state, found);
}

// The peer: the same scan, each result pushed into a fresh std::vector.
void BM_ResultsVector(benchmark::State& state) {
  const std::string& text = TextWith(static_cast<std::size_t>(state.range(0)));
  KVT::CSearchQuery<char> query;
  query.SetTerm(kTerm, 0, false);
  std::unique_ptr<std::vector<std::uint64_t>> results;
  struct VectorSink final : KVT::internal::ResultSink {
    explicit VectorSink(std::unique_ptr<std::vector<std::uint64_t>>& into) : into(into) {}
    void Put(const std::uint64_t* batch, std::uint32_t count) override {
      for (std::uint32_t i = 0; i < count; ++i) into->push_back(batch[i]);
    }
    std::unique_ptr<std::vector<std::uint64_t>>& into;
  } sink(results);
  for (auto _ : state) {
    state.SetIterationTime(MedianSeconds(
        [&results] {
          results.reset();
          results = std::make_unique<std::vector<std::uint64_t>>();
        },
        [&] {
          KVT::internal::ScanText(text.data(), Length(text), query, 0, nullptr, nullptr,
                                         '\n', sink);
        }));
  }
  Report(state, results->size());
}

// Enough iterations (of five runs each) that small counts are timed over more than a moment.
int IterationsFor(long count) {
  const long iterations = count > 0 ? 2000000 / count : 10;
  return static_cast<int>(iterations < 1 ? 1 : iterations > 10 ? 10 : iterations);
}

std::string NameOf(const char* kind, long count) {
  return "BM_Results/" + std::string(kind) + "/" + std::to_string(count) + "/iterations:" +
         std::to_string(IterationsFor(count)) + "/manual_time";
}

const bool kRegistered = [] {
  // 0 is the scan alone, which the costs per result leave out.
  const long kCounts[] = {0, 100000, 500000, 1000000, 2000000, 4000000};
  const char* const kKinds[] = {"fresh", "repeated", "std_vector"};
  for (auto [kind, function] : {std::pair{kKinds[0], &BM_ResultsFresh},
                                std::pair{kKinds[1], &BM_ResultsRepeated},
                                std::pair{kKinds[2], &BM_ResultsVector}}) {
    for (long count : kCounts) {
      benchmark::RegisterBenchmark((std::string("BM_Results/") + kind).c_str(), function)
          ->Arg(count)
          ->Iterations(IterationsFor(count))
          ->UseManualTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  for (long count : kCounts) {
    if (count == 0) continue;
    for (const char* kind : kKinds) {
      ::tern_bench::PerItemRegistrar((std::string("results ") + kind).c_str(),
                                     NameOf(kind, count).c_str(), NameOf(kind, 0).c_str(),
                                     static_cast<double>(count));
    }
    for (const char* kind : {kKinds[0], kKinds[1]}) {
      ::tern_bench::ComparisonRegistrar(
          ("results " + std::string(kind) + "/" + std::to_string(count) + " vs std::vector")
              .c_str(),
          NameOf(kind, count).c_str(), NameOf(kKinds[2], count).c_str());
    }
  }
  return true;
}();

}  // namespace
