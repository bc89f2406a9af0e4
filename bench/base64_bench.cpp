// Base64 against a straightforward table codec of a symbol per lookup, in the same run. Figures
// count the binary bytes (the encoder's input, the decoder's output), so encode and decode are
// comparable. The library takes sixteen characters at a time with SSSE3 where the processor has
// it (every x86_64 machine this runs on does), and otherwise two symbols per lookup to encode and
// four pre-shifted words OR-ed per group to decode.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "bench/bench_compare.h"
#include "foundation/base64.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::vector<unsigned char> RandomBytes(std::size_t count) {
  std::mt19937 rng(64);
  std::vector<unsigned char> bytes(count);
  for (auto& b : bytes) b = static_cast<unsigned char>(rng());
  return bytes;
}

// The peer: one alphabet lookup per symbol on encode, one inverse lookup per character on decode.
// Whole groups only, which is all the benchmark feeds it.
void PlainEncode(const unsigned char* source, unsigned char* destination, std::size_t count) {
  for (std::size_t i = 0; i + 3 <= count; i += 3) {
    const unsigned b0 = source[i], b1 = source[i + 1], b2 = source[i + 2];
    *destination++ = kAlphabet[b0 >> 2];
    *destination++ = kAlphabet[(b0 & 3) << 4 | b1 >> 4];
    *destination++ = kAlphabet[(b1 & 15) << 2 | b2 >> 6];
    *destination++ = kAlphabet[b2 & 63];
  }
}

struct Inverse {
  unsigned char value[256];
  Inverse() {
    for (auto& v : value) v = 0xFF;
    for (unsigned i = 0; i < 64; ++i) value[static_cast<unsigned char>(kAlphabet[i])] = i;
  }
};

std::size_t PlainDecode(const unsigned char* source, unsigned char* destination,
                        std::size_t length) {
  static const Inverse inverse;
  unsigned char* out = destination;
  for (std::size_t i = 0; i + 4 <= length; i += 4) {
    const unsigned s0 = inverse.value[source[i]], s1 = inverse.value[source[i + 1]];
    const unsigned s2 = inverse.value[source[i + 2]], s3 = inverse.value[source[i + 3]];
    *out++ = static_cast<unsigned char>(s0 << 2 | s1 >> 4);
    *out++ = static_cast<unsigned char>(s1 << 4 | s2 >> 2);
    *out++ = static_cast<unsigned char>(s2 << 6 | s3);
  }
  return static_cast<std::size_t>(out - destination);
}

// Sizes are whole groups: 1023 bytes for 1 KiB, 1 MiB less one byte for 1 MiB.
std::size_t ByteCount(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0)) / 3 * 3;
}

void BM_Base64Encode(benchmark::State& state) {
  std::vector<unsigned char> bytes = RandomBytes(ByteCount(state));
  std::vector<unsigned char> text(KVT::Base64CalcEncodedSize(static_cast<int>(bytes.size())));
  for (auto _ : state) {
    int length = 0;
    KVT::Base64Encode(bytes.data(), text.data(), static_cast<int>(bytes.size()), &length);
    benchmark::DoNotOptimize(text.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_PlainBase64Encode(benchmark::State& state) {
  std::vector<unsigned char> bytes = RandomBytes(ByteCount(state));
  std::vector<unsigned char> text(bytes.size() / 3 * 4);
  for (auto _ : state) {
    PlainEncode(bytes.data(), text.data(), bytes.size());
    benchmark::DoNotOptimize(text.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_Base64Decode(benchmark::State& state) {
  std::vector<unsigned char> bytes = RandomBytes(ByteCount(state));
  std::vector<unsigned char> text(bytes.size() / 3 * 4);
  PlainEncode(bytes.data(), text.data(), bytes.size());
  std::vector<unsigned char> out(KVT::Base64CalcDecodedSize(static_cast<int>(text.size())));
  for (auto _ : state) {
    const int given = KVT::Base64Decode(text.data(), out.data(), static_cast<int>(text.size()),
                                        nullptr);
    benchmark::DoNotOptimize(given);
    benchmark::ClobberMemory();
  }
  if (out != bytes) state.SkipWithError("decoded bytes differ");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_PlainBase64Decode(benchmark::State& state) {
  std::vector<unsigned char> bytes = RandomBytes(ByteCount(state));
  std::vector<unsigned char> text(bytes.size() / 3 * 4);
  PlainEncode(bytes.data(), text.data(), bytes.size());
  std::vector<unsigned char> out(bytes.size());
  for (auto _ : state) {
    const std::size_t given = PlainDecode(text.data(), out.data(), text.size());
    benchmark::DoNotOptimize(given);
    benchmark::ClobberMemory();
  }
  if (out != bytes) state.SkipWithError("decoded bytes differ");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

BENCHMARK(BM_Base64Encode)->Arg(1024)->Arg(1 << 20);
BENCHMARK(BM_PlainBase64Encode)->Arg(1024)->Arg(1 << 20);
BENCHMARK(BM_Base64Decode)->Arg(1024)->Arg(1 << 20);
BENCHMARK(BM_PlainBase64Decode)->Arg(1024)->Arg(1 << 20);

TERN_BENCH_COMPARE("Base64 encode vs plain table codec, 1 KiB", "BM_Base64Encode/1024",
                   "BM_PlainBase64Encode/1024");
TERN_BENCH_COMPARE("Base64 encode vs plain table codec, 1 MiB", "BM_Base64Encode/1048576",
                   "BM_PlainBase64Encode/1048576");
TERN_BENCH_COMPARE("Base64 decode vs plain table codec, 1 KiB", "BM_Base64Decode/1024",
                   "BM_PlainBase64Decode/1024");
TERN_BENCH_COMPARE("Base64 decode vs plain table codec, 1 MiB", "BM_Base64Decode/1048576",
                   "BM_PlainBase64Decode/1048576");

}  // namespace
