// The buffer search over 64 MiB of generated English-like lines, against the standard library's
// Horspool searcher and std::search in the same run. Every peer counts the same occurrences as
// the library: leftmost, not overlapping, whole words only where asked, caseless by ASCII (which
// is what the C locale's comparison does), and a peer that counts otherwise is reported as an
// error instead of a time.
//
// Rare terms are also measured against memchr (narrow) and wmemchr (wide) looking for a unit that
// the text doesn't hold (memchr_peer.h), the speed of reading the text at all; with each kernel
// set the processor runs besides the widest, which the search takes; and, where memory allows,
// over 1 GiB, beyond every cache.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "bench/bench_compare.h"
#include "bench/memchr_peer.h"
#include "bench/search_corpus.h"
#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "buffer/internal/search_scan.h"
#include "foundation/win.h"

namespace {

using tern_bench::Config;
using tern_bench::kTextBytes;
using tern_bench::NarrowText;
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

// The scan beneath the search with one kernel set, results counted only.
template <typename T>
void BM_ScanWith(benchmark::State& state, Config config,
                 const KVT::internal::KernelSet* set) {
  const std::basic_string<T>& text = Text<T>();
  const std::basic_string<T> term = TermOf<T>(config);
  KVT::CSearchQuery<T> query;
  query.SetTerm(term.c_str(), 0, (config.flags & 1) != 0);
  struct Count final : KVT::internal::ResultSink {
    void Put(const std::uint64_t*, std::uint32_t count) override { found += count; }
    std::size_t found = 0;
  } sink;
  KVT::internal::ScanTuning tuning;
  tuning.kernels = set;
  for (auto _ : state) {
    sink.found = 0;
    KVT::internal::ScanText(text.data(), static_cast<int>(text.size()), query,
                                   config.flags, nullptr, nullptr, static_cast<T>('\n'), sink,
                                   tuning);
    benchmark::DoNotOptimize(sink.found);
  }
  if (sink.found != Expected<T>(config)) state.SkipWithError("found other occurrences");
  SetBytes(state, text.size(), sizeof(T));
}

// A unit that the texts don't hold.
constexpr char kAbsent = '\x01';

// memchr or wmemchr over the text, for a unit it doesn't hold.
template <typename T>
std::size_t PeerFind(const T* text, std::size_t n) {
  const tern_bench::MemchrPeer& peer = tern_bench::WidestMemchrPeer();
  if constexpr (sizeof(T) == 1) {
    return peer.find_byte(text, n, kAbsent);
  } else {
    return peer.find_unit(text, n, static_cast<wchar_t>(kAbsent));
  }
}

template <typename T>
void BM_Memchr(benchmark::State& state) {
  const std::basic_string<T>& text = Text<T>();
  std::size_t at = 0;
  for (auto _ : state) {
    at = PeerFind(text.data(), text.size());
    benchmark::DoNotOptimize(at);
  }
  if (at != text.size()) state.SkipWithError("found the absent unit");
  SetBytes(state, text.size(), sizeof(T));
}

// 1 GiB of the narrow text, the 64 MiB repeated: null where memory is short (this process's
// address space, for the 32-bit build, or the machine's memory).
const char* BigText() {
  static const char* text = [] () -> const char* {
    constexpr std::size_t kBig = std::size_t{1} << 30;
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof(memory);
    if (!::GlobalMemoryStatusEx(&memory) || memory.ullAvailPhys < 3 * std::uint64_t{kBig} ||
        memory.ullAvailVirtual < 2 * std::uint64_t{kBig}) {
      return nullptr;
    }
    auto* big = static_cast<char*>(::VirtualAlloc(nullptr, kBig, MEM_COMMIT | MEM_RESERVE,
                                                  PAGE_READWRITE));
    if (big == nullptr) return nullptr;
    for (std::size_t at = 0; at < kBig; at += kTextBytes) {
      std::memcpy(big + at, NarrowText().data(), kTextBytes);
    }
    return big;
  }();
  return text;
}
constexpr int kBigCopies = (1 << 30) / kTextBytes;

void BM_BigSearch(benchmark::State& state, Config config) {
  const char* text = BigText();
  if (text == nullptr) {
    state.SkipWithError("skipped: 1 GiB of text does not fit here");
    return;
  }
  const std::string term = TermOf<char>(config);
  KVT::CSearchQuery<char> query;
  query.SetTerm(term.c_str(), 0, (config.flags & 1) != 0);
  KVT::CBuffer<char> buffer;
  std::size_t found = 0;
  for (auto _ : state) {
    found = buffer.Search(text, 1 << 30, config.flags, query, nullptr, nullptr, '\n');
    benchmark::DoNotOptimize(found);
  }
  if (found != kBigCopies * Expected<char>(config)) state.SkipWithError("found other occurrences");
  SetBytes(state, std::size_t{1} << 30, 1);
}

void BM_BigMemchr(benchmark::State& state) {
  const char* text = BigText();
  if (text == nullptr) {
    state.SkipWithError("skipped: 1 GiB of text does not fit here");
    return;
  }
  std::size_t at = 0;
  for (auto _ : state) {
    at = PeerFind(text, std::size_t{1} << 30);
    benchmark::DoNotOptimize(at);
  }
  if (at != std::size_t{1} << 30) state.SkipWithError("found the absent unit");
  SetBytes(state, std::size_t{1} << 30, 1);
}

constexpr double kMinTime = 0.3;
// The rows measured against memchr run that many times, each right behind a run of the peer, and
// the comparison takes the shortest time of each (bench_main.cpp): the machine's load then meets
// both alike.
constexpr int kPeerRepetitions = 3;

template <typename T>
void RegisterWidth(const char* width) {
  char suffix[32];
  std::snprintf(suffix, sizeof(suffix), "/min_time:%0.3f", kMinTime);
  const char* const peer_kind = sizeof(T) == 1 ? "memchr" : "wmemchr";
  for (int li = 0; li < 4; ++li) {
    for (bool rare : {true, false}) {
      for (unsigned long flags : {0ul, 1ul, 2ul}) {
        const Config config{li, rare, flags};
        char base[96];
        std::snprintf(base, sizeof(base), "BM_Search/%s/%s%d/flags%lu", width,
                      rare ? "rare" : "common", tern_bench::kTermLengths[li], flags);
        const std::string name = base;
        const std::string peer = name + "/" + peer_kind;
        const int repetitions = rare ? kPeerRepetitions : 1;
        if (rare) {
          benchmark::RegisterBenchmark(peer.c_str(), BM_Memchr<T>)
              ->Unit(benchmark::kMillisecond)->MinTime(kMinTime)->Repetitions(repetitions);
        }
        benchmark::RegisterBenchmark((name + "/tern").c_str(), BM_Tern<T>, config)
            ->Unit(benchmark::kMillisecond)->MinTime(kMinTime)->Repetitions(repetitions);
        benchmark::RegisterBenchmark((name + "/std_horspool").c_str(), BM_Horspool<T>, config)
            ->Unit(benchmark::kMillisecond)->MinTime(kMinTime);
        benchmark::RegisterBenchmark((name + "/std_search").c_str(), BM_StdSearch<T>, config)
            ->Unit(benchmark::kMillisecond)->MinTime(kMinTime);
        const std::string repeats =
            rare ? "/repeats:" + std::to_string(kPeerRepetitions) : std::string();
        const std::string subject = name + "/tern" + suffix + repeats;
        ::tern_bench::ComparisonRegistrar(("search vs std horspool " + name.substr(10)).c_str(),
                                          subject.c_str(),
                                          (name + "/std_horspool" + suffix).c_str());
        ::tern_bench::ComparisonRegistrar(("search vs std::search " + name.substr(10)).c_str(),
                                          subject.c_str(),
                                          (name + "/std_search" + suffix).c_str());
        if (!rare) continue;
        const std::string peer_name = peer + suffix + repeats;
        const std::string peer_label = std::string(peer_kind) + " " + name.substr(10);
        ::tern_bench::ComparisonRegistrar(("search vs " + peer_label).c_str(), subject.c_str(),
                                          peer_name.c_str());
        // The narrower kernel sets that run here, through the scan alone.
        for (const KVT::internal::KernelSet* const* set =
                 KVT::internal::AllKernelSets();
             *set != nullptr; ++set) {
          if (*set == &KVT::internal::WidestKernels() ||
              !KVT::internal::KernelsRun(**set)) {
            continue;
          }
          const std::string scan = name + "/scan_" + (*set)->name;
          benchmark::RegisterBenchmark(scan.c_str(), BM_ScanWith<T>, config, *set)
              ->Unit(benchmark::kMillisecond)->MinTime(kMinTime);
          ::tern_bench::ComparisonRegistrar(
              ("scan (" + std::string((*set)->name) + ") vs " + peer_label).c_str(),
              (scan + suffix).c_str(), peer_name.c_str());
        }
      }
    }
  }
}

// Rare terms over 1 GiB against memchr over the same, each right behind a run of the peer.
void RegisterBig() {
  char suffix[32];
  std::snprintf(suffix, sizeof(suffix), "/min_time:%0.3f", kMinTime);
  for (int li = 0; li < 4; ++li) {
    for (unsigned long flags : {0ul, 1ul, 2ul}) {
      char name[96];
      std::snprintf(name, sizeof(name), "BM_Search/narrow1GiB/rare%d/flags%lu",
                    tern_bench::kTermLengths[li], flags);
      const std::string peer = std::string(name) + "/memchr";
      const std::string subject = std::string(name) + "/tern";
      benchmark::RegisterBenchmark(peer.c_str(), BM_BigMemchr)
          ->Unit(benchmark::kMillisecond)->MinTime(kMinTime)->Repetitions(kPeerRepetitions);
      benchmark::RegisterBenchmark(subject.c_str(), BM_BigSearch, Config{li, true, flags})
          ->Unit(benchmark::kMillisecond)->MinTime(kMinTime)->Repetitions(kPeerRepetitions);
      const std::string repeats = "/repeats:" + std::to_string(kPeerRepetitions);
      ::tern_bench::ComparisonRegistrar(
          ("search vs memchr " + std::string(name).substr(10)).c_str(),
          (subject + suffix + repeats).c_str(), (peer + suffix + repeats).c_str());
    }
  }
}

const bool kRegistered = [] {
  benchmark::AddCustomContext("search kernels", KVT::internal::WidestKernels().name);
  benchmark::AddCustomContext("memchr peer", tern_bench::WidestMemchrPeer().name);
  RegisterWidth<char>("narrow");
  RegisterWidth<wchar_t>("wide");
  RegisterBig();
  return true;
}();

}  // namespace
