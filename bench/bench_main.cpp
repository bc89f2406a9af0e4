// The bench's main: runs every benchmark with Google Benchmark's console output, then prints the
// table of comparisons registered with TERN_BENCH_COMPARE and the costs per item (PerItem).
#include <benchmark/benchmark.h>

#include <algorithm>
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

std::vector<PerItem>& PerItems() {
  static std::vector<PerItem> per_items;
  return per_items;
}

namespace {

// Console output as usual, and the time per iteration of every run kept by name: the shortest
// of its repetitions (--benchmark_repetitions), the one that others sharing the machine slowed
// least.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const double ns = run.GetAdjustedRealTime() * NanosecondsPer(run.time_unit);
      auto [it, fresh] = ns_per_iteration_.emplace(run.benchmark_name(), ns);
      if (!fresh && ns < it->second) it->second = ns;
    }
  }

  void PrintPerItems() const {
    std::map<std::string, std::pair<double, double>> spread;  // Smallest and largest per group.
    bool header = false;
    for (const PerItem& p : PerItems()) {
      auto subject = ns_per_iteration_.find(p.subject);
      auto base = ns_per_iteration_.find(p.base);
      if (subject == ns_per_iteration_.end() || base == ns_per_iteration_.end()) continue;
      if (!header) std::printf("\n%-56s %14s %14s\n", "cost per item", "items", "ns per item");
      header = true;
      const double cost = (subject->second - base->second) / p.items;
      std::printf("%-56s %14.0f %14.2f\n", p.subject.c_str(), p.items, cost);
      auto [it, fresh] = spread.emplace(p.group, std::make_pair(cost, cost));
      if (!fresh) {
        it->second.first = std::min(it->second.first, cost);
        it->second.second = std::max(it->second.second, cost);
      }
    }
    for (const auto& [group, range] : spread) {
      std::printf("%-56s %14s %14.2f\n", (group + ": spread (largest / smallest)").c_str(), "",
                  range.second / range.first);
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
  reporter.PrintPerItems();
  benchmark::Shutdown();
  return 0;
}
