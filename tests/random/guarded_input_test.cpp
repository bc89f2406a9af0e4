// Every routine that scans its input to a length or a terminator, run over texts placed against
// an unreadable page (see GuardedRegion): a read past the end, or before the start, faults at
// once. The results are checked against plain references on the way.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <io.h>
#include <random>
#include <string>
#include <vector>

#include "buffer/buffer.h"
#include "buffer/search_test_util.h"
#include "foundation/base64.h"
#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "foundation/url_unescape.h"
#include "foundation/wide_string.h"
#include "tests/random/random_test_util.h"

#include <shlwapi.h>

namespace {

using random_test::GuardedRegion;
using random_test::Rounds;
template <typename T>
using Str = std::basic_string<T>;

// A text over a random part of `alphabet` (a small part makes matches common).
template <typename T>
Str<T> RandomText(std::mt19937& rng, const Str<T>& alphabet, std::size_t length) {
  const std::size_t used = 1 + rng() % alphabet.size();
  const std::size_t first = rng() % (alphabet.size() - used + 1);
  Str<T> text(length, T());
  for (T& ch : text) ch = alphabet[first + rng() % used];
  return text;
}

template <typename T>
Str<T> UpToZero(const Str<T>& text) {
  return text.substr(0, text.find(T()));
}

bool NeverStop(void*) { return false; }

// A buffer whose block is guarded memory of `chars` characters and the terminator's room, that
// room last before the unreadable page. Nothing here grows it; it gives the memory to nobody.
template <typename T>
struct GuardedBuffer : KVT::CBuffer<T> {
  GuardedBuffer(GuardedRegion& region, int chars, const Str<T>& text, int length) {
    this->data = region.Place(Str<T>(static_cast<std::size_t>(chars), T('J')), true);
    std::copy(text.begin(), text.end(), this->data);
    this->capacity = chars * static_cast<int>(sizeof(T));
    this->length = length;
  }
  ~GuardedBuffer() { this->data = nullptr; }
  std::vector<Str<T>> Lines() {
    std::vector<Str<T>> out;
    for (int i = 0; i < this->lines.count; ++i) out.push_back(this->lines[i]);
    return out;
  }
};

// The lines that ToLines and Split (`file` false) or Load (`file` true) make of `text`, each up to
// its first zero; `last` keeps the piece behind the last line end.
template <typename T>
std::vector<Str<T>> Cut(const Str<T>& text, T end, bool file, bool last = true) {
  std::vector<Str<T>> lines(1);
  for (T ch : text) {
    if (ch == end || (file && ch == T())) {
      lines.back() = UpToZero(lines.back());
      lines.emplace_back();
    } else if (!file || ch != T('\r')) {
      lines.back() += ch;
    }
  }
  if (!last || lines.back().empty()) lines.pop_back();
  if (!lines.empty()) lines.back() = UpToZero(lines.back());
  return lines;
}

// The long and the short form for every flag, term length 1-40 and text length 0-300, the long
// form with and without a stop callback and at either edge, over terms prepared from guarded
// text, and the scan beneath them with every kernel set this processor runs; the file form and
// the line operations once per text length.
template <typename T>
void SearchAndCutGuardedText(std::uint32_t seed, Rounds& rounds) {
  GuardedRegion texts, terms, blocks;
  struct TempFile {  // Closed and removed however the function ends.
    TempFile() {
      wchar_t folder[MAX_PATH];
      if (::GetTempPathW(MAX_PATH, folder) && ::GetTempFileNameW(folder, L"trn", 0, path)) {
        file = _wfopen(path, L"w+b");
      }
    }
    ~TempFile() {
      if (file != nullptr) std::fclose(file);
      ::DeleteFileW(path);
    }
    wchar_t path[MAX_PATH] = {};
    FILE* file = nullptr;
  } temp;
  FILE* file = temp.file;
  ASSERT_NE(nullptr, file);
  std::mt19937 rng(seed);
  const Str<T> alphabet = search_test::AlphabetOf(T());
  const std::vector<const search_test::KernelSet*> sets = search_test::RunningKernelSets();
  KVT::CBuffer<T> buffer;
  for (int n = 0; n <= 300; ++n) {
    GuardedBuffer<T> own(blocks, n, Str<T>(), n);
    for (int m = 1; m <= 40; ++m) {
      Str<T> text = RandomText(rng, alphabet, n);
      Str<T> term = m <= n && rng() % 2 ? text.substr(rng() % (n - m + 1), m)
                                         : RandomText(rng, alphabet, m);
      std::replace(term.begin(), term.end(), T(), T('a'));
      if (m <= n && rng() % 3 == 0) text.replace(n - m, m, term);
      KVT::CSearchQuery<T> query[2];
      for (int caseless = 0; caseless < 2; ++caseless) {
        query[caseless].SetTerm(terms.Place(term, rng() % 2 == 0), 0, caseless == 1);
      }
      for (unsigned long flags = 0; flags < 4; ++flags) {
        const T delimiter = rng() % 2 ? T('\n') : T();
        const auto expected = search_test::NaiveSearch(text, term, flags, delimiter);
        ASSERT_EQ(expected.size(), buffer.Search(texts.Place(text, rng() % 4 != 0, false), n, flags,
                                                 query[flags & 1], rng() % 2 ? NeverStop : nullptr,
                                                 nullptr, delimiter))
            << "n " << n << " m " << m << " flags " << flags;
        // An empty text is refused, and the former results stay.
        for (std::size_t i = 0; n > 0 && i < expected.size(); ++i) {
          ASSERT_EQ(expected[i], (*buffer.results)[i])
              << "n " << n << " m " << m << " flags " << flags;
        }
        // The scan with each kernel set, in stretches of random length.
        KVT::internal::ScanTuning tuning;
        tuning.chars_per_set_up_call = rng() % 2 ? 0 : 32;
        tuning.stretch = rng() % 4 ? 1 + rng() % 100 : 0;
        for (const search_test::KernelSet* set : sets) {
          tuning.kernels = set;
          ASSERT_EQ(expected, search_test::Scan(texts.Place(text, rng() % 4 != 0, false),
                                                text.size(), query[flags & 1], flags, delimiter,
                                                tuning))
              << "n " << n << " m " << m << " flags " << flags << " " << set->name;
        }
        // The short form: the same occurrences (on other lines), over the buffer's own block.
        std::copy(text.begin(), text.end(), own.data);
        ASSERT_EQ(expected.size(), own.Search(flags, query[flags & 1]))
            << "n " << n << " m " << m << " flags " << flags;
        for (int i = 0; i < own.GetResultCount(); ++i) own.GetResultLength(i);
      }
      rounds.Count(8);
      if (m != 1 + n % 40) continue;
      SCOPED_TRACE(testing::Message() << "file and lines, n " << n);
      auto write = [&] {
        std::rewind(file);
        std::fwrite(text.data(), sizeof(T), text.size(), file);
        std::fflush(file);
        _chsize(_fileno(file), static_cast<long>(text.size() * sizeof(T)));
        std::rewind(file);
        return file;
      };
      const unsigned long flags = rng() % 4;
      GuardedBuffer<T> read(blocks, n, Str<T>(), 0);
      ASSERT_EQ(search_test::NaiveSearch(text, term, flags, T('\n')).size(),
                read.Search(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(write()))), flags,
                            query[flags & 1], rng() % 2 ? NeverStop : nullptr, nullptr));
      for (int split = 0; split < 2; ++split) {
        GuardedBuffer<T> cut(blocks, n, text, n);
        const bool refused = !split && (n == 0 || text[0] == T());  // ToLines alone refuses those.
        ASSERT_EQ(!refused && n > 0, split ? cut.Split(T('b')) : cut.ToLines());
        ASSERT_EQ(refused ? std::vector<Str<T>>() : Cut(text, T(split ? 'b' : '\n'), false),
                  cut.Lines());
      }
      // Load reserves sizeof(T) characters per byte of the file; GetNext takes no more.
      const int reserved = n * static_cast<int>(sizeof(T));
      GuardedBuffer<T> loaded(blocks, reserved, Str<T>(), 0);
      loaded.Load(write());
      ASSERT_EQ(Cut(text, T('\n'), true), loaded.Lines());
      GuardedBuffer<T> next(blocks, reserved, Str<T>(), 0);
      write();
      FILE* stream = _wfopen(temp.path, L"rb");  // GetNext closes it at the end.
      while (next.GetNext(stream, 0) != nullptr) {}
      ASSERT_EQ(nullptr, stream);
      ASSERT_EQ(Cut(text, T('\n'), true, false), next.Lines());
      rounds.Count(5);
    }
  }
}

TEST(RandomGuardedSearch, EveryFormAndLineCutStaysInsideItsText) {
  for (Rounds rounds(1); rounds.Next();) {
    SearchAndCutGuardedText<char>(rounds.seed(), rounds);
    SearchAndCutGuardedText<wchar_t>(rounds.seed(), rounds);
  }
}

// --- Base64: every form against a small reference, on guarded input and output -----------------

using random_test::kBase64Symbols;
using random_test::ReferenceDecode;
using random_test::ReferenceEncode;

std::string RandomBytes(std::mt19937& rng, std::size_t max_length) {
  std::string bytes(rng() % (max_length + 1), '\0');
  for (char& b : bytes) b = static_cast<char>(rng() % 8 == 0 ? 0 : rng());
  return bytes;
}

// Coded texts, one or several in a row, with foreign characters and cut lengths mixed in.
std::string RandomCodedText(std::mt19937& rng) {
  static const char kOdd[] = {'=', '=', '=', ' ', '\n', '\xFF', '\x80', '-', '\0'};
  std::string text;
  for (unsigned part = 0, parts = 1 + rng() % 3; part < parts; ++part) {
    text += ReferenceEncode(RandomBytes(rng, 90));
  }
  for (char& ch : text) {
    if (rng() % 16 == 0) ch = rng() % 2 ? kBase64Symbols[rng() % 64] : kOdd[rng() % sizeof kOdd];
  }
  return text.substr(0, rng() % 4 == 0 ? rng() % (text.size() + 1) : text.size());
}

unsigned char* Bytes(GuardedRegion& region, const std::string& bytes, bool at_end) {
  return region.Place(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), at_end);
}
// Room for exactly `expected` against the end of `region`, filled with other bytes.
unsigned char* Room(GuardedRegion& region, std::string expected) {
  for (char& b : expected) b = static_cast<char>(~b);
  return Bytes(region, expected, true);
}
std::string Text(const unsigned char* p, int n) {
  return p == nullptr || n <= 0 ? std::string() : std::string(reinterpret_cast<const char*>(p), n);
}

TEST(RandomGuardedBase64, EveryFormMatchesAReferenceOnGuardedMemory) {
  static const UINT kCodePages[] = {0, 65001, 1252};
  GuardedRegion in, out;
  for (Rounds rounds(5); rounds.Next();) {
    std::mt19937 rng(rounds.seed());
    for (int c = 0; c < 3000; ++c) {
      if (c % 100 == 0) random_test::FillRingsWithJunk();
      const bool edge = rng() % 2 == 0;
      const std::string bytes = RandomBytes(rng, 300), text = ReferenceEncode(bytes);
      const int n = static_cast<int>(bytes.size());
      int length = -1;
      unsigned char* source = Bytes(in, bytes, edge);
      unsigned char* destination = Room(out, text);
      KVT::Base64Encode(source, destination, n, &length);
      ASSERT_EQ(text, Text(destination, length));
      unsigned char* block = KVT::Base64Encode(source, n, &length);
      ASSERT_EQ(text, Text(block, length));
      KVT::MemFree(block);
      block = KVT::Base64EncodeString(in.Place(UpToZero(bytes), edge), &length);
      ASSERT_EQ(ReferenceEncode(UpToZero(bytes)), Text(block, length));
      KVT::MemFree(block);

      const std::string coded = RandomCodedText(rng), decoded = ReferenceDecode(coded);
      const int size = static_cast<int>(coded.size());
      SCOPED_TRACE(coded);
      source = Bytes(in, coded, edge);
      destination = Room(out, decoded);
      ASSERT_EQ(decoded, Text(destination, KVT::Base64Decode(source, destination, size, nullptr)));
      block = KVT::Base64Decode(source, size, nullptr, &length);
      ASSERT_EQ(decoded, Text(block, length));
      ASSERT_EQ(0, block[length]);
      KVT::MemFree(block);
      const std::string cut = UpToZero(coded);
      const char* narrow = KVT::Base64DecodeString(in.Place(cut, edge), 0);
      ASSERT_EQ(cut.empty(), narrow == nullptr);
      ASSERT_EQ(UpToZero(ReferenceDecode(cut)), narrow != nullptr ? narrow : "");
      // The wide form goes through the code page both ways, as the platform converts.
      const UINT code_page = kCodePages[rng() % 3];
      const std::wstring wide(cut.begin(), cut.end());
      const std::wstring expected = random_test::PlatformWide(
          UpToZero(
              ReferenceDecode(random_test::PlatformNarrow(wide, code_page).substr(0, wide.size()))),
          code_page);
      const wchar_t* result = KVT::Base64DecodeString(in.Place(wide, edge), code_page);
      ASSERT_EQ(expected, result != nullptr ? result : L"") << "code page " << code_page;
      ASSERT_EQ(expected.empty(), result == nullptr);
      rounds.Count(8);
    }
  }
}

// --- String functions, the wide string class and URL unescaping ---------------------------------

template <typename T>
long Index(const T* base, const T* found) {
  return found == nullptr ? -1 : static_cast<long>(found - base);
}
long Index(std::size_t found) { return found == std::string::npos ? -1 : static_cast<long>(found); }
template <typename T>
Str<T> Text(const T* text) {
  return text != nullptr ? Str<T>(text) : Str<T>();
}
int ToInt(const char* text) { return KVT::StrToIntA(text); }
int ToInt(const wchar_t* text) { return KVT::StrToIntW(text); }
int Sign(int v) { return (v > 0) - (v < 0); }

template <typename T>
void StringFunctionsOverGuardedText(Rounds& rounds) {
  GuardedRegion region_a, region_b, region_out;
  const Str<T> alphabet = {'a', 'a', 'b', '-', '+', '0', '9', '%', '4'};
  std::mt19937 rng(rounds.seed());
  for (int c = 0; c < 3000; ++c, rounds.Count(1)) {
    const Str<T> a = RandomText(rng, alphabet, rng() % 41),
                 b = RandomText(rng, alphabet, rng() % 3);
    const std::size_t n = a.size(), limit = rng() % (n + 2);
    const T* ga = region_a.Place(a, rng() % 2 == 0);
    const T* gb = region_b.Place(b, rng() % 2 == 0);
    const T ch = alphabet[rng() % alphabet.size()];
    SCOPED_TRACE(testing::Message() << "case " << c);
    ASSERT_EQ(n, KVT::StrLength(ga));
    ASSERT_EQ(n == 0 ? -1 : b.empty() ? long(n) : Index(a.substr(0, limit ? limit : n).find(b)),
              Index(ga, KVT::StrSearch(ga, gb, limit)));
    ASSERT_EQ(Index(a.find(ch)), Index(ga, KVT::StrFind(ga, ch)));
    for (std::size_t at = 0; at < n; at += 1 + rng() % 8) {
      ASSERT_EQ(b.empty() ? long(n) : Index(a.rfind(b, at)),
                Index(ga, KVT::StrRevFind(ga, ga + at, gb)));
      ASSERT_EQ(Index(a.rfind(ch, at)), Index(ga, KVT::StrRevFind(ga, ga + at, ch)));
    }
    const T* replaced = KVT::StrReplace(ga, gb, gb);  // Each match by itself: the text again.
    ASSERT_EQ(b.empty() ? Str<T>() : a, Text(replaced));
    KVT::MemFree(const_cast<T*>(replaced));
    ASSERT_EQ(static_cast<std::uint32_t>(std::count(a.begin(), a.end(), ch)),
              KVT::StrReplace(region_out.Place(a, true), ch, T('#')));
    ASSERT_EQ(Sign(a.compare(b)), Sign(KVT::StrCompare(ga, gb, true)));
    ASSERT_EQ(a == b, KVT::StrEqual(ga, gb, false));
    ToInt(ga);
    T* copy = region_out.Place(Str<T>(limit, T('J')), true);
    ASSERT_EQ(limit > 0 && n <= limit, KVT::StrSafeCopy(copy, ga, static_cast<int>(limit)));
    ASSERT_EQ(a.substr(0, limit), copy);
    KVT::StrCopy(copy = region_out.Place(Str<T>(n, T('J')), true), ga);
    ASSERT_EQ(a, copy);
    ASSERT_EQ(a, Text(KVT::StrFormat(Str<T>({'%', 's'}).c_str(), ga)));
    if constexpr (sizeof(T) == 2) {
      std::wstring unescaped = a;
      ::UrlUnescapeW(&unescaped[0], nullptr, nullptr, URL_UNESCAPE_INPLACE);
      ASSERT_EQ(unescaped.c_str(), Text(KVT::KVTUrlUnescape(ga)));
      KVT::String s(ga);
      ASSERT_TRUE(s == ga);
      ASSERT_EQ(n == 0      ? -1
                : b.empty() ? long(n)
                            : Index(a.find(b)),
                static_cast<int>(s.Find(gb, 0)));
      ASSERT_EQ(n != 0 && !b.empty() && a.find(b) == 0, s.Beginswith(gb));
      ASSERT_EQ(n, s.Replace(gb, gb));
      s.Append(gb);
      s.Trim(gb);
    }
  }
}

TEST(RandomGuardedStrings, FunctionsAndTheStringClassStayInsideTheirTexts) {
  for (Rounds rounds(5); rounds.Next();) {
    StringFunctionsOverGuardedText<char>(rounds);
    StringFunctionsOverGuardedText<wchar_t>(rounds);
  }
}

// A text pointer that can't be read at all gets each routine's neutral answer.
TEST(GuardedInput, UnreadableTextGetsTheNeutralAnswer) {
  if (!random_test::FaultsAreCatchable()) GTEST_SKIP() << random_test::kFaultsNotCatchable;
  GuardedRegion region(1);
  const char* bad = region.Unreadable<char>();
  const wchar_t* wide_bad = region.Unreadable<wchar_t>();
  int length = -1;
  EXPECT_EQ(nullptr, KVT::Base64EncodeString(bad, &length));
  EXPECT_EQ(-1, length);
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(bad, 0));
  EXPECT_EQ(nullptr, KVT::Base64DecodeString(wide_bad, 65001));
  EXPECT_EQ(nullptr, KVT::KVTUrlUnescape(wide_bad));
  EXPECT_EQ(nullptr, KVT::StrConvert(bad, 65001));
  EXPECT_EQ(nullptr, KVT::StrConvert(wide_bad, 65001));
  KVT::String text(wide_bad);
  EXPECT_TRUE(text.GetBuffer() != nullptr && text.IsEmpty());
  text = L"abc";
  text.Append(wide_bad);
  EXPECT_EQ(3u, text.Find(wide_bad, 0));  // A bad text to find counts as found at the end.
  EXPECT_FALSE(text.Beginswith(wide_bad));
  EXPECT_EQ(0u, text.Trim(wide_bad));
  EXPECT_TRUE(text == L"abc");
}

}  // namespace
