#ifndef TERNCORELIB_BENCH_SEARCH_CORPUS_H_
#define TERNCORELIB_BENCH_SEARCH_CORPUS_H_

// The text and the terms of the search table: 64 MiB of generated English-like lines, from a
// fixed seed, and rare and common terms of 3, 8, 16 and 32 characters. Shared by the Google
// Benchmark table (search_bench.cpp) and the timing program that both ABIs build
// (search_timing.cpp), so that both measure the same searches over the same text.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <random>
#include <string>

namespace tern_bench {

constexpr std::size_t kTextBytes = 64u << 20;

// Words with rough English frequencies (earlier ones are drawn more often), and stock phrases
// that make the long common terms occur.
const char* const kWords[] = {
    "the", "of", "and", "to", "a", "in", "is", "it", "you", "that", "he", "was", "for", "on",
    "are", "with", "as", "his", "they", "be", "at", "one", "have", "this", "from", "or", "had",
    "by", "not", "word", "but", "what", "some", "we", "can", "out", "other", "were", "all",
    "there", "when", "up", "use", "your", "how", "said", "an", "each", "she", "which", "do",
    "their", "time", "if", "will", "way", "about", "many", "then", "them", "write", "would",
    "like", "so", "these", "her", "long", "make", "thing", "see", "him", "two", "has", "look",
    "more", "day", "could", "go", "come", "did", "number", "sound", "no", "most", "people", "my",
    "over", "know", "water", "than", "call", "first", "who", "may", "down", "side", "been",
    "now", "find", "any", "new", "work", "part", "take", "get", "place", "made", "live", "where",
    "after", "back", "little", "only", "round", "man", "year", "came", "show", "every", "good",
    "me", "give", "our", "under", "name", "very", "through", "just", "form", "sentence", "great",
    "think", "say", "help", "low", "line", "differ", "turn", "cause", "much", "mean", "before",
    "move", "right", "boy", "old", "too", "same", "tell", "does", "set", "three", "want", "air",
    "well", "also", "play", "small", "end", "put", "home", "read", "hand", "port", "large",
    "spell", "add", "even", "land", "here", "must", "big", "high", "such", "follow", "act",
    "why", "ask", "men", "change", "went", "light", "kind", "off", "need", "house", "picture",
    "try", "us", "again", "animal", "point", "mother", "world", "near", "build", "self",
    "earth", "father", "head", "stand", "own", "page", "should", "country", "found", "answer",
    "school", "grow", "study", "still", "learn", "plant", "cover", "food", "sun", "four",
    "between", "state", "keep", "eye", "never", "last", "let", "thought", "city", "tree",
    "cross", "farm", "hard", "start", "might", "story", "saw", "far", "sea", "draw", "left",
    "late", "run", "while", "press", "close", "night", "real", "life", "few", "north"};
const char* const kPhrases[] = {"in the middle of the night", "as a matter of fact, the results"};

// Rare terms, planted a few dozen times.
const char* const kRare[] = {"Zyx", "Zanzibar", "quizzical zephyr",
                             "sphinx of black quartz, judge my"};
const char* const kCommon[] = {"the", " of the ", "in the middle of",
                               "as a matter of fact, the results"};

inline const std::string& NarrowText() {
  static const std::string text = [] {
    std::mt19937 rng(1234567);
    const std::size_t words = sizeof(kWords) / sizeof(kWords[0]);
    std::string out;
    out.reserve(kTextBytes + 256);
    std::string line;
    bool sentence_start = true;
    while (out.size() < kTextBytes) {
      // Zipf-like: the index is the smaller of two draws, three times over.
      std::size_t index = rng() % words;
      for (int i = 0; i < 2; ++i) index = std::min<std::size_t>(index, rng() % words);
      std::string word = rng() % 64 == 0 ? kPhrases[rng() % 2] : kWords[index];
      if (rng() % 40000 == 0) word = kRare[rng() % 4];
      if (sentence_start) word[0] = static_cast<char>(std::toupper(word[0]));
      sentence_start = false;
      line += word;
      const unsigned r = rng() % 16;
      if (r == 0) {
        line += '.';
        sentence_start = true;
      } else if (r == 1) {
        line += ',';
      }
      if (line.size() > 60 + rng() % 40) {
        out += line;
        out += '\n';
        line.clear();
      } else {
        line += ' ';
      }
    }
    out.resize(kTextBytes);
    return out;
  }();
  return text;
}

inline const std::wstring& WideText() {
  static const std::wstring text(NarrowText().begin(), NarrowText().end());
  return text;
}

template <typename T>
const std::basic_string<T>& Text();
template <>
inline const std::string& Text<char>() { return NarrowText(); }
template <>
inline const std::wstring& Text<wchar_t>() { return WideText(); }

inline constexpr int kTermLengths[] = {3, 8, 16, 32};

struct Config {
  int length_index;  // Into kRare / kCommon.
  bool rare;
  unsigned long flags;
};

template <typename T>
std::basic_string<T> TermOf(const Config& config) {
  const std::string term = config.rare ? kRare[config.length_index] : kCommon[config.length_index];
  return std::basic_string<T>(term.begin(), term.end());
}

}  // namespace tern_bench

#endif  // TERNCORELIB_BENCH_SEARCH_CORPUS_H_
