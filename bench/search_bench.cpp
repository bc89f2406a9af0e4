// The buffer search over 64 MiB of generated English-like lines, against the standard library's
// Horspool searcher and std::search in the same run. Every peer counts the same occurrences as
// the library: leftmost, not overlapping, whole words only where asked, caseless by ASCII (which
// is what the C locale's comparison does), and a peer that counts otherwise is reported as an
// error instead of a time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "bench/bench_compare.h"
#include "bench/search_corpus.h"
#include "buffer/buffer.h"
#include "buffer/search_query.h"

namespace {

using tern_bench::Config;
using tern_bench::Text;
using tern_bench::TermOf;

template <typename T>
T Fold(T ch) {
  return ch >= 'A' && ch <= 'Z' ? static_cast<T>(ch + ('a' - 'A')) : ch;
}

void SetBytes(benchmark::State& state, std::size_t chars, std::size_t char_size) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(chars * char_size));
}

// The library's search as an application calls it: the long form over the text, by LF, with the
// results in the buffer's table (whose cells the iterations after the first reuse).
template <typename T>
std::size_t TernCount(const std::basic_string<T>& text, KVT::CSearchQuery<T>& query,
                      unsigned long flags, KVT::CBuffer<T>& buffer) {
  return buffer.Search(text.data(), static_cast<int>(text.size()), flags, query, nullptr, nullptr,
                       static_cast<T>('\n'));
}

// Occurrences found by the library for a configuration, which the peers must reproduce.
template <typename T>
std::size_t Expected(const Config& config) {
  const std::basic_string<T> term = TermOf<T>(config);
  KVT::CSearchQuery<T> query;
  query.SetTerm(term.c_str(), 0, (config.flags & 1) != 0);
  KVT::CBuffer<T> buffer;
  return TernCount(Text<T>(), query, config.flags, buffer);
}

template <typename T>
void BM_Tern(benchmark::State& state, Config config) {
  const std::basic_string<T>& text = Text<T>();
  const std::basic_string<T> term = TermOf<T>(config);
  KVT::CSearchQuery<T> query;
  query.SetTerm(term.c_str(), 0, (config.flags & 1) != 0);
  KVT::CBuffer<T> buffer;
  // One search first, as an application that searches again: the first one allocates a record
  // per result and grows the table 1000 slots at a time (over a million results for the common
  // 3-character term: seconds under Wine), later ones reuse them. The figures are for the scan.
  std::size_t found = TernCount(text, query, config.flags, buffer);
  for (auto _ : state) {
    found = TernCount(text, query, config.flags, buffer);
    benchmark::DoNotOptimize(found);
  }
  state.counters["found"] = static_cast<double>(found);
  SetBytes(state, text.size(), sizeof(T));
}

// Counts as the library does with `find` giving the next match at or after a position.
template <typename T, typename Find>
std::size_t PeerCount(const std::basic_string<T>& text, std::size_t m, unsigned long flags,
                      Find find) {
  const T* const begin = text.data();
  const T* const end = begin + text.size();
  std::size_t found = 0;
  for (const T* at = find(begin, end); at != end; at = find(at + m, end)) {
    if ((flags & 2) != 0) {
      const bool before = at == begin || KVT::CBuffer<T>::IsWordDelimeter(at[-1]);
      const bool after = at + m == end || KVT::CBuffer<T>::IsWordDelimeter(at[m]);
      if (!before || !after) continue;
    }
    ++found;
  }
  return found;
}

template <typename T>
void BM_Horspool(benchmark::State& state, Config config) {
  const std::basic_string<T>& text = Text<T>();
  const std::basic_string<T> term = TermOf<T>(config);
  const std::size_t expected = Expected<T>(config);
  std::size_t found = 0;
  for (auto _ : state) {
    if ((config.flags & 1) != 0) {
      auto hash = [](T ch) { return std::hash<int>()(Fold(ch)); };
      auto equal = [](T a, T b) { return Fold(a) == Fold(b); };
      std::boyer_moore_horspool_searcher<const T*, decltype(hash), decltype(equal)> searcher(
          term.data(), term.data() + term.size(), hash, equal);
      found = PeerCount(text, term.size(), config.flags,
                        [&](const T* from, const T* to) { return searcher(from, to).first; });
    } else {
      std::boyer_moore_horspool_searcher<const T*> searcher(term.data(),
                                                            term.data() + term.size());
      found = PeerCount(text, term.size(), config.flags,
                        [&](const T* from, const T* to) { return searcher(from, to).first; });
    }
    benchmark::DoNotOptimize(found);
  }
  if (found != expected) state.SkipWithError("counted other occurrences than the library");
  state.counters["found"] = static_cast<double>(found);
  SetBytes(state, text.size(), sizeof(T));
}

template <typename T>
void BM_StdSearch(benchmark::State& state, Config config) {
  const std::basic_string<T>& text = Text<T>();
  const std::basic_string<T> term = TermOf<T>(config);
  const std::size_t expected = Expected<T>(config);
  const T* const t_begin = term.data();
  const T* const t_end = t_begin + term.size();
  std::size_t found = 0;
  for (auto _ : state) {
    if ((config.flags & 1) != 0) {
      auto equal = [](T a, T b) { return Fold(a) == Fold(b); };
      found = PeerCount(text, term.size(), config.flags, [&](const T* from, const T* to) {
        return std::search(from, to, t_begin, t_end, equal);
      });
    } else {
      found = PeerCount(text, term.size(), config.flags, [&](const T* from, const T* to) {
        return std::search(from, to, t_begin, t_end);
      });
    }
    benchmark::DoNotOptimize(found);
  }
  if (found != expected) state.SkipWithError("counted other occurrences than the library");
  state.counters["found"] = static_cast<double>(found);
  SetBytes(state, text.size(), sizeof(T));
}

constexpr double kMinTime = 0.3;

template <typename T>
void RegisterWidth(const char* width) {
  char suffix[32];
  std::snprintf(suffix, sizeof(suffix), "/min_time:%0.3f", kMinTime);
  for (int li = 0; li < 4; ++li) {
    for (bool rare : {true, false}) {
      for (unsigned long flags : {0ul, 1ul, 2ul}) {
        const Config config{li, rare, flags};
        char base[96];
        std::snprintf(base, sizeof(base), "BM_Search/%s/%s%d/flags%lu", width,
                      rare ? "rare" : "common", tern_bench::kTermLengths[li], flags);
        const std::string name = base;
        benchmark::RegisterBenchmark((name + "/tern").c_str(), BM_Tern<T>, config)
            ->Unit(benchmark::kMillisecond)->MinTime(kMinTime);
        benchmark::RegisterBenchmark((name + "/std_horspool").c_str(), BM_Horspool<T>, config)
            ->Unit(benchmark::kMillisecond)->MinTime(kMinTime);
        benchmark::RegisterBenchmark((name + "/std_search").c_str(), BM_StdSearch<T>, config)
            ->Unit(benchmark::kMillisecond)->MinTime(kMinTime);
        const std::string subject = name + "/tern" + suffix;
        ::tern_bench::ComparisonRegistrar(("search vs std horspool " + name.substr(10)).c_str(),
                                          subject.c_str(),
                                          (name + "/std_horspool" + suffix).c_str());
        ::tern_bench::ComparisonRegistrar(("search vs std::search " + name.substr(10)).c_str(),
                                          subject.c_str(),
                                          (name + "/std_search" + suffix).c_str());
      }
    }
  }
}

const bool kRegistered = [] {
  RegisterWidth<char>("narrow");
  RegisterWidth<wchar_t>("wide");
  return true;
}();

}  // namespace
