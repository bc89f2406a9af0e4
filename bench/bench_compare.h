#ifndef TERNCORELIB_BENCH_BENCH_COMPARE_H_
#define TERNCORELIB_BENCH_BENCH_COMPARE_H_

// Pairs a benchmark of the library with a peer measured in the same run. After the run the bench
// prints, for each pair, both times per iteration and the ratio peer / subject: above 1 the
// library is faster.
//
//   TERN_BENCH_COMPARE("take vs malloc+free", "BM_TempStringTake/64", "BM_MallocFree/64");
//
// Names are the benchmarks' full names as Google Benchmark prints them (with their arguments).

#include <string>
#include <vector>

namespace tern_bench {

struct Comparison {
  std::string label;
  std::string subject;
  std::string peer;
};

std::vector<Comparison>& Comparisons();

struct ComparisonRegistrar {
  ComparisonRegistrar(const char* label, const char* subject, const char* peer) {
    Comparisons().push_back({label, subject, peer});
  }
};

// A cost per item, for benchmarks whose time is a fixed part plus a part that grows with a count
// of items: (time of `subject` - time of `base`) / `items`, where `base` does the fixed part
// alone. After the run the bench prints each, and for each group the spread of its costs
// (largest / smallest), which stays near 1 when the cost per item does not grow with the count.
struct PerItem {
  std::string group;
  std::string subject;
  std::string base;
  double items;
};

std::vector<PerItem>& PerItems();

struct PerItemRegistrar {
  PerItemRegistrar(const char* group, const char* subject, const char* base, double items) {
    PerItems().push_back({group, subject, base, items});
  }
};

}  // namespace tern_bench

#define TERN_BENCH_CONCAT_INNER(a, b) a##b
#define TERN_BENCH_CONCAT(a, b) TERN_BENCH_CONCAT_INNER(a, b)
#define TERN_BENCH_COMPARE(label, subject, peer)                                   \
  static ::tern_bench::ComparisonRegistrar TERN_BENCH_CONCAT(tern_bench_compare_, \
                                                             __LINE__)(label, subject, peer)

#endif  // TERNCORELIB_BENCH_BENCH_COMPARE_H_
