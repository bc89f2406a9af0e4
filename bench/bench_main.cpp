// The bench's main: runs every benchmark with Google Benchmark's console output, then prints the
// table of comparisons registered with TERN_BENCH_COMPARE.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_compare.h"

namespace tern_bench {

std::vector<Comparison>& Comparisons() {
  static std::vector<Comparison> comparisons;
  return comparisons;
}

namespace {

// Console output as usual, and the time per iteration of every run kept by name.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      ns_per_iteration_[run.benchmark_name()] = run.GetAdjustedRealTime() *
                                                NanosecondsPer(run.time_unit);
    }
  }

  void PrintComparisons() const {
    if (Comparisons().empty()) return;
    std::printf("\n%-56s %14s %14s %8s\n", "comparison", "subject ns", "peer ns", "ratio");
    for (const Comparison& c : Comparisons()) {
      auto subject = ns_per_iteration_.find(c.subject);
      auto peer = ns_per_iteration_.find(c.peer);
      // Pairs that a --benchmark_filter left out entirely are not listed.
      if (subject == ns_per_iteration_.end() && peer == ns_per_iteration_.end()) continue;
      if (subject == ns_per_iteration_.end() || peer == ns_per_iteration_.end()) {
        std::printf("%-56s %14s %14s %8s\n", c.label.c_str(), "-", "-", "n/a");
        continue;
      }
      std::printf("%-56s %14.2f %14.2f %8.2f\n", c.label.c_str(), subject->second, peer->second,
                  peer->second / subject->second);
    }
  }

 private:
  static double NanosecondsPer(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond: return 1e9;
      case benchmark::kMillisecond: return 1e6;
      case benchmark::kMicrosecond: return 1e3;
      default: return 1.0;
    }
  }

  std::map<std::string, double> ns_per_iteration_;
};

}  // namespace
}  // namespace tern_bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  tern_bench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintComparisons();
  benchmark::Shutdown();
  return 0;
}
