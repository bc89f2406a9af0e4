// Random input against references: conversions against the platform's own counts, message
// framing against the frames that went in, and temporary strings taken by many threads at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "foundation/base64.h"
#include "foundation/string_util.h"
#include "foundation/temp_string.h"
#include "net/test_frames.h"
#include "tests/random/random_test_util.h"

namespace {

using random_test::PlatformNarrow;
using random_test::PlatformWide;
using random_test::Rounds;

// Texts that end inside a UTF-8 sequence: the platform measured and converted them without a
// terminator, and the result ran on into what the slot held before.
TEST(StrConvertRegression, TextEndingInsideAUtf8SequenceIsTerminated) {
  random_test::FillRingsWithJunk();
  for (const char* text : {"\xF1", "0\xB4\xF1", "ohvafQ0\xEF", "\xE2\x82", "a\xF0\x9F\x98"}) {
    const wchar_t* wide = KVT::StrConvert(text, 65001);
    EXPECT_EQ(PlatformWide(text, 65001), wide != nullptr ? wide : L"(null)") << text;
  }
  const wchar_t* decoded = KVT::Base64DecodeString(L"MLTxI", 65001);  // 30 B4 F1
  EXPECT_EQ(PlatformWide("0\xB4\xF1", 65001), decoded != nullptr ? decoded : L"(null)");
}

// Mostly short texts whose units come from four ranges: ASCII, UTF-8 continuations or lone
// surrogates, UTF-8 lead bytes or other BMP characters, and anything but zero.
template <typename C>
std::basic_string<C> RandomUnits(std::mt19937& rng, const unsigned (&ranges)[4][2]) {
  std::basic_string<C> text(rng() % 8 == 0 ? rng() % 300 : 1 + rng() % 12, C('a'));
  for (C& ch : text) {
    const unsigned* range = ranges[rng() % 4];
    ch = static_cast<C>(range[0] + rng() % range[1]);
  }
  return text;
}

TEST(RandomConvert, BothWaysMatchThePlatformsOwnCountsWithEverySlotFull) {
  static const UINT kCodePages[] = {0, 65001, 1252, 932, 437};
  static const unsigned kBytes[4][2] = {{0x20, 0x5F}, {0x80, 0x40}, {0xC2, 0x33}, {1, 0xFF}};
  static const unsigned kUnits[4][2] = {{0x20, 0x5F}, {0xD800, 0x800}, {0x80, 0x780}, {1, 0xFFFF}};
  for (Rounds rounds(10); rounds.Next();) {
    std::mt19937 rng(rounds.seed());
    for (int c = 0; c < 4000; ++c) {
      if (c % 100 == 0) random_test::FillRingsWithJunk();
      const UINT code_page = kCodePages[rng() % 5];
      const std::string narrow = RandomUnits<char>(rng, kBytes);
      const std::wstring expected_wide = PlatformWide(narrow, code_page), wide = RandomUnits<wchar_t>(rng, kUnits);
      const std::string expected_narrow = PlatformNarrow(wide, code_page);
      const wchar_t* widened = KVT::StrConvert(narrow.c_str(), code_page);
      const char* narrowed = KVT::StrConvert(wide.c_str(), code_page);
      ASSERT_EQ(expected_wide, widened != nullptr ? widened : L"") << narrow << " from " << code_page;
      ASSERT_EQ(expected_wide.empty(), widened == nullptr);
      ASSERT_EQ(expected_narrow, narrowed != nullptr ? narrowed : "") << "to " << code_page;
      ASSERT_EQ(expected_narrow.empty(), narrowed == nullptr);
      rounds.Count(2);
    }
  }
}

// Message framing with the net tests' 8-byte header, refused above 1 MiB: every kind of chunking
// (whole, byte by byte, random, at the frame ends or one byte off them), hostile headers behind
// valid frames. Valid frames come out whole and in order; no message holds more than was fed.
TEST(RandomFraming, ValidFramesComeOutWholeAndInOrderAndHostileOnesTakeOnlyWhatCame) {
  static const std::uint32_t kHostile[] = {0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u, (1u << 20) + 1,
                                           (1u << 20) - 7};
  for (Rounds rounds(60); rounds.Next();) {
    std::mt19937 rng(rounds.seed());
    std::string stream;
    std::vector<std::string> frames;
    std::vector<std::size_t> cuts;
    for (unsigned i = 0, count = rng() % 40; i < count; ++i) {
      std::string message(rng() % 4 == 0 ? 0 : rng() % (rng() % 8 == 0 ? 70000 : 300), 'm');
      for (char& ch : message) ch = static_cast<char>(rng());
      const std::string trailer(rng() % 3 == 0 ? rng() % 20 : 0, 't');
      frames.push_back(message + "|" + trailer);
      stream += tern_test::Frame(message, trailer);
      cuts.push_back(stream.size());
    }
    const bool hostile = rng() % 2 == 0;
    if (hostile) {
      const std::uint32_t declared = kHostile[rng() % 5];
      stream += rng() % 2 ? tern_test::Header(declared, 0) : tern_test::Header(8, declared);
      stream += tern_test::Frame("not a frame");
    }
    const unsigned kind = rng() % 4;
    for (std::size_t& cut : cuts) cut = std::min(stream.size(), cut + rng() % 3 - 1);
    if (kind < 3) cuts.clear();
    for (std::size_t at = 0; kind > 0 && kind < 3 && at < stream.size();) {
      at += kind == 1 && stream.size() < 20000 ? 1 : 1 + rng() % 3000;
      cuts.push_back(std::min(at, stream.size()));
    }
    cuts.push_back(stream.size());
    tern_test::FrameReceiver receiver;
    std::vector<std::string> seen;
    std::size_t fed = 0;
    for (std::size_t cut : cuts) {
      if (cut <= fed) continue;
      receiver.AddMessage(&stream[fed], static_cast<int>(cut - fed));
      fed = cut;
      while (tern_test::FrameMsg* message = receiver.PopFrame()) {
        ASSERT_LE(message->capacity_for_test(), static_cast<int>(fed));
        seen.push_back(message->Message() + "|" + message->Trailer());
      }
    }
    ASSERT_EQ(frames, seen) << "chunking " << kind;
    ASSERT_EQ(hostile, receiver.Refused());
    if (receiver.Current() != nullptr) {
      ASSERT_LE(receiver.Current()->capacity_for_test(), static_cast<int>(fed));
    }
    rounds.Count(frames.size() + hostile);
  }
}

// The rings have no guard against a slot handed out twice while its first holder still uses it:
// a text is good until 256 further takes of its ring, by any thread. Within that limit every
// holder keeps its text while other threads grow the slots around it and the cursor wraps under
// them: in each phase 16 threads take 3 slots each (48 in all), fill and check them, and meet.
// A thread that waits more than 20 s at a meeting gives up, so every join is bounded.
TEST(RandomTempStrings, ThreadsWithinTheRingsLimitKeepTheirTexts) {
  constexpr int kThreads = 16, kPhases = 150;
  for (Rounds rounds(1); rounds.Next();) {
    std::atomic<int> arrived{0}, failures{0};
    // Thread t fills its k-th text with the character 0x100 + 3t + k, never 0.
    auto take_and_check = [&](std::uint32_t seed, int t) {
      std::mt19937 rng(seed);
      for (int phase = 1; phase <= kPhases; ++phase) {
        std::wstring mine[3];
        wchar_t* held[3] = {};
        for (int k = 0; k < 3; ++k) {
          mine[k].assign(1 + rng() % (rng() % 16 == 0 ? 5000 : 60), static_cast<wchar_t>(0x100 + 3 * t + k));
          if (!KVT::KVTGetTmpString(held[k], static_cast<std::uint32_t>(mine[k].size() + 1))) ++failures;
          if (held[k] != nullptr) std::copy(mine[k].c_str(), mine[k].c_str() + mine[k].size() + 1, held[k]);
        }
        for (int k = 0; k < 3; ++k) failures += held[k] == nullptr || mine[k] != held[k];
        ++arrived;
        for (const ULONGLONG give_up = ::GetTickCount64() + 20000; arrived < phase * kThreads;) {
          if (::GetTickCount64() > give_up) return void(++failures);
          std::this_thread::yield();
        }
      }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(take_and_check, rounds.seed() * 100 + t, t);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, failures.load());
    rounds.Count(kThreads * kPhases * 3);
  }
}

}  // namespace
