// ternsearch: a fixed-string grep with line numbers, built on the library's buffer search.
// The usage text (kHelp) tells what it does; what follows is how.
//
// Input is read in large pieces into one block that only grows, reused across files: a piece is
// searched up to its last line feed with the memory form of Search, and the partial line behind
// it moves to the front of the block to meet the rest of its line. Cutting at line feeds changes
// no result: occurrences never span one (unless the term holds one: then the whole input is read
// before it is searched), the scan's state does not pass one (after an occurrence it moves on by
// the term's length, which ends before the line feed), and a line feed is a word delimiter just
// as the start of the text is. So the output is that of one search over the whole input, while
// the memory touched stays that of the largest piece, not of the largest file.
//
// Output goes through one large buffer, never a write per line.
#include <emmintrin.h>
#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "foundation/compiler.h"
#include "foundation/scoped_handle.h"
#include "foundation/win.h"

#include <shellapi.h>  // CommandLineToArgvW; after win.h, which brings in <windows.h>.

namespace {

using KVT::CBuffer;
using KVT::CSearchQuery;
using KVT::ScopedHandle;

const char kUsage[] = "usage: ternsearch [-icwlnhHr] [--wide] [--] TERM [FILE]...\n";

const char kHelp[] =
    "usage: ternsearch [-icwlnhHr] [--wide] [--] TERM [FILE]...\n"
    "Prints each line of the FILEs that holds TERM, a fixed string, as FILE:LINE:TEXT.\n"
    "Without FILE, or for FILE -, reads standard input.\n"
    "\n"
    "  -i      ignore case, as the C runtime compares one character (ASCII letters only)\n"
    "  -w      whole words only (see below)\n"
    "  -c      print FILE:COUNT, the number of occurrences (not lines) in each file\n"
    "  -l      print only the name of each file that holds an occurrence\n"
    "  -n      accepted for grep's sake: line numbers are always printed\n"
    "  -h      leave out the file name\n"
    "  -H      print the file name, standard input's too\n"
    "  -r      search directories recursively, in order of name; without FILE the\n"
    "          current directory\n"
    "  --wide  files are UTF-16LE; TERM and the lines printed are UTF-8\n"
    "  --help  print this text (and --version, alone, the version)\n"
    "  --      end of the options: the next argument is TERM\n"
    "\n"
    "The file name is printed unless the only input is standard input, or -h is given.\n"
    "TEXT is the line up to its first CR, LF or zero character.\n"
    "Occurrences never overlap: after each one the search moves on by the term's length.\n"
    "\n"
    "Whole words differ from grep -w: a word delimiter is any character that is not a\n"
    "letter or digit, so the underscore and every byte above 127 separate words; and a\n"
    "candidate that is no whole word costs the same move as an occurrence, so\n"
    "'ba a a' holds no whole word 'a a' (grep -w finds one).\n"
    "\n"
    "Exit status: 0 if an occurrence was found, 1 if none, 2 on an error (a file that\n"
    "cannot be searched is named on stderr with the cause) or a wrong command line.\n";

struct Options {
  bool caseless = false;
  bool whole_words = false;
  bool count_only = false;
  bool names_only = false;
  bool recursive = false;
  bool wide = false;
  int show_names = -1;  // -1 by the rule of kHelp, 0 with -h, 1 with -H.
  bool help = false;
  std::wstring term;
  std::vector<std::wstring> files;
};

std::string Utf8(const wchar_t* text, int length) {
  if (length <= 0) return std::string();
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
  if (bytes <= 0) return std::string();
  std::string out(static_cast<std::size_t>(bytes), '\0');
  // The converting call's own count decides the length: a text it converts otherwise than it
  // measured must not leave zeros or a cut sequence in a name.
  const int written =
      WideCharToMultiByte(CP_UTF8, 0, text, length, &out[0], bytes, nullptr, nullptr);
  out.resize(static_cast<std::size_t>(written > 0 ? written : 0));
  return out;
}

std::string Utf8(const std::wstring& text) {
  return Utf8(text.c_str(), static_cast<int>(text.size()));
}

void Fail(const std::wstring& file, const char* cause) {
  std::fprintf(stderr, "ternsearch: %s: %s\n", Utf8(file).c_str(), cause);
}

bool ParseArguments(int argc, wchar_t** argv, Options* options) {
  int i = 1;
  for (; i < argc; ++i) {
    const std::wstring arg = argv[i];
    if (arg == L"--") {
      ++i;
      break;
    }
    if (arg == L"--wide") {
      options->wide = true;
    } else if (arg == L"--help") {
      options->help = true;
      return true;
    } else if (arg.size() >= 2 && arg[0] == L'-' && arg[1] != L'-') {
      for (std::size_t k = 1; k < arg.size(); ++k) {
        switch (arg[k]) {
          case L'i': options->caseless = true; break;
          case L'w': options->whole_words = true; break;
          case L'c': options->count_only = true; break;
          case L'l': options->names_only = true; break;
          case L'n': break;
          case L'h': options->show_names = 0; break;
          case L'H': options->show_names = 1; break;
          case L'r': options->recursive = true; break;
          default: return false;
        }
      }
    } else if (arg.size() >= 2 && arg[0] == L'-') {
      return false;  // An unknown long option.
    } else {
      break;
    }
  }
  if (i >= argc) return false;
  options->term = argv[i++];
  for (; i < argc; ++i) options->files.push_back(argv[i]);
  return !options->term.empty();
}

// Why a file named on the command line cannot be searched; null if nothing speaks against it.
// `directory` tells whether it is a directory, which only -r searches.
const char* CheckFile(const std::wstring& file, bool* directory) {
  *directory = false;
  const DWORD attributes = GetFileAttributesW(file.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
        error == ERROR_INVALID_NAME || error == ERROR_BAD_NETPATH) {
      return "no such file";
    }
    return "cannot be read";
  }
  *directory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return nullptr;
}

// Standard output through one large buffer.
class Output {
 public:
  Output() { text_.reserve(kFlushAt + 4096); }
  ~Output() { Flush(); }

  void Put(const char* text, std::size_t size) {
    text_.append(text, size);
    if (text_.size() >= kFlushAt) Flush();
  }
  void Put(const std::string& text) { Put(text.data(), text.size()); }
  void Put(char ch) { text_ += ch; }
  // Digits from the right. (std::to_chars would do, but libc++ keeps its integer form in its
  // compiled library, which the MSVC-ABI cross build uses headers-only.)
  void PutNumber(std::uint64_t value) {
    char digits[24];
    char* const end = digits + sizeof(digits);
    char* start = end;
    do {
      *--start = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
    Put(start, static_cast<std::size_t>(end - start));
  }
  void Flush() {
    if (!text_.empty()) std::fwrite(text_.data(), 1, text_.size(), stdout);
    text_.clear();
    std::fflush(stdout);
  }

 private:
  static constexpr std::size_t kFlushAt = 1 << 20;
  std::string text_;
};

// Line feeds in text[0 .. count - 1]: SSE2 compares, summed per byte lane in runs short enough
// that no lane overflows. The i686 build too assumes a processor with SSE2 here, though its
// baseline lacks it (the library's scan checks; this tool does not yet).
template <typename T>
TERN_TARGET_SSE2 std::uint64_t CountLineFeeds(const T* text, std::size_t count) {
  constexpr std::size_t kLanes = 16 / sizeof(T);
  const __m128i feed = sizeof(T) == 1 ? _mm_set1_epi8('\n') : _mm_set1_epi16('\n');
  std::uint64_t total = 0;
  std::size_t i = 0;
  while (i + kLanes <= count) {
    __m128i lanes = _mm_setzero_si128();
    // Each compare adds at most 1 (2 for a 16-bit lane's two bytes) to a byte lane: 127 rounds.
    const std::size_t rounds = std::min<std::size_t>((count - i) / kLanes, 127);
    for (std::size_t r = 0; r < rounds; ++r, i += kLanes) {
      const __m128i chars = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
      const __m128i equal =
          sizeof(T) == 1 ? _mm_cmpeq_epi8(chars, feed) : _mm_cmpeq_epi16(chars, feed);
      lanes = _mm_sub_epi8(lanes, equal);
    }
    const __m128i sums = _mm_sad_epu8(lanes, _mm_setzero_si128());
    total += static_cast<std::uint64_t>(_mm_cvtsi128_si32(sums) +
                                        _mm_cvtsi128_si32(_mm_srli_si128(sums, 8))) /
             sizeof(T);
  }
  for (; i < count; ++i) total += text[i] == '\n';
  return total;
}

// Searches inputs one after another with one query, one buffer and one output.
template <typename T>
class Searcher {
 public:
  Searcher(const Options& options, CSearchQuery<T>& query, Output& out)
      : options_(options), query_(query), out_(out) {
    flags_ = (options.caseless ? 1ul : 0ul) | (options.whole_words ? 2ul : 0ul);
    term_has_feed_ = std::char_traits<T>::find(query.term, query.termLength, '\n') != nullptr;
  }

  // Searches what `input` gives until its end and prints what it finds, under the name `file`
  // where `show_name` asks for it. Gives the occurrences, or -1 after reporting an error. `disk`
  // says that a short read means the end.
  long long Search(HANDLE input, bool disk, const std::wstring& file, bool show_name) {
    const std::string name = Utf8(file);
    name_ = show_name ? name : std::string();
    last_line_ = 0;
    lines_before_ = 0;
    std::size_t kept = 0;  // Bytes of a partial line at the front of the block.
    long long found = 0;
    bool end = false;
    while (!end) {
      if (kept > static_cast<std::size_t>(INT_MAX) - kPieceBytes) {
        Fail(file, "too large for the buffer");
        return -1;
      }
      int room = static_cast<int>(kept + kPieceBytes);
      if (kept >= kPieceBytes && room > buffer_.capacity) {
        // A line longer than a piece doubles the block, lest each piece copy the line again.
        room = std::max(room, std::min(INT_MAX / 2, buffer_.capacity) * 2);
      }
      buffer_.Realloc(room);
      if (buffer_.capacity < room) {
        Fail(file, "too large for the buffer (out of memory)");
        return -1;
      }
      char* bytes = reinterpret_cast<char*>(buffer_.GetBuffer());
      DWORD got = 0;
      if (!ReadFile(input, bytes + kept, kPieceBytes, &got, nullptr)) {
        if (GetLastError() != ERROR_BROKEN_PIPE) {
          Fail(file, "cannot be read");
          return -1;
        }
        got = 0;
      }
      end = got == 0 || (disk && got < kPieceBytes);
      const std::size_t total = kept + got;
      const T* text = buffer_.GetBuffer();
      const std::size_t chars = total / sizeof(T);  // At the end an odd last byte is dropped.
      std::size_t cut = chars;
      if (!end) {
        // Up to the last line feed; the partial line before it holds none (unless the term holds
        // one, and then nothing is cut before the end).
        cut = 0;
        for (std::size_t i = chars; !term_has_feed_ && i > kept / sizeof(T); --i) {
          if (text[i - 1] == '\n') {
            cut = i;
            break;
          }
        }
      }
      if (cut > 0) {
        found += SearchLines(text, cut);
        if (found > 0 && options_.names_only) break;
      }
      kept = total - cut * sizeof(T);
      if (cut > 0) std::memmove(bytes, bytes + cut * sizeof(T), kept);
    }
    if (options_.names_only) {
      if (found > 0) {
        out_.Put(name);
        out_.Put('\n');
      }
    } else if (options_.count_only) {
      PutName();
      out_.PutNumber(static_cast<std::uint64_t>(found));
      out_.Put('\n');
    }
    return found;
  }

 private:
  static constexpr DWORD kPieceBytes = 1 << 20;

  void PutName() {
    if (!name_.empty()) {
      out_.Put(name_);
      out_.Put(':');
    }
  }

  // Searches text[0 .. count - 1], which ends at a line feed or at the end of the input, prints
  // its lines that hold an occurrence (each once) and gives the occurrences.
  long long SearchLines(const T* text, std::size_t count) {
    const unsigned long found = buffer_.Search(text, static_cast<int>(count), flags_, query_,
                                               nullptr, nullptr, static_cast<T>('\n'));
    if (options_.count_only || options_.names_only) return static_cast<long long>(found);
    for (int i = 0; i < buffer_.GetResultCount(); ++i) {
      const std::uint64_t result = (*buffer_.results)[i];
      const std::uint64_t line = lines_before_ + static_cast<std::uint32_t>(result);
      if (line == last_line_) continue;  // One output line per text line.
      last_line_ = line;
      const std::size_t start = static_cast<std::size_t>(result >> 32);
      std::size_t stop = start;
      while (stop < count && text[stop] != '\n' && text[stop] != '\r' && text[stop] != 0) ++stop;
      PutName();
      out_.PutNumber(line);
      out_.Put(':');
      if constexpr (sizeof(T) == 1) {
        out_.Put(text + start, stop - start);
      } else {
        out_.Put(Utf8(text + start, static_cast<int>(stop - start)));
      }
      out_.Put('\n');
    }
    lines_before_ += CountLineFeeds(text, count);
    return static_cast<long long>(found);
  }

  const Options& options_;
  CSearchQuery<T>& query_;
  Output& out_;
  unsigned long flags_ = 0;
  bool term_has_feed_ = false;
  CBuffer<T> buffer_;
  std::string name_;  // Printed before each line or count; empty for none.
  std::uint64_t lines_before_ = 0;  // Line feeds before the text being searched.
  std::uint64_t last_line_ = 0;     // The last line printed.
};

// Sole owner of a directory search of FindFirstFileW, which FindClose ends (not CloseHandle).
struct FindHandle {
  explicit FindHandle(HANDLE find) : handle(find) {}
  FindHandle(const FindHandle&) = delete;
  FindHandle& operator=(const FindHandle&) = delete;
  ~FindHandle() {
    if (handle != INVALID_HANDLE_VALUE) FindClose(handle);
  }
  const HANDLE handle;
};

// What one run does with its inputs: the exit status it has earned so far.
template <typename T>
class Run {
 public:
  Run(const Options& options, CSearchQuery<T>& query, Output& out)
      : options_(options), searcher_(options, query, out) {}

  // Searches a file or (with -r) a directory named on the command line, or standard input for
  // "-". `shown` is the name printed for it.
  void Operand(const std::wstring& operand, const std::wstring& shown) {
    if (operand == L"-") {
      HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
      Searched(searcher_.Search(input, GetFileType(input) == FILE_TYPE_DISK, L"(standard input)",
                                ShowNames()));
      return;
    }
    bool directory = false;
    if (const char* cause = CheckFile(operand, &directory)) {
      Fail(operand, cause);
      failed_ = true;
    } else if (directory && !options_.recursive) {
      Fail(operand, "is a directory");
      failed_ = true;
    } else if (directory) {
      Walk(operand, shown);
    } else {
      File(operand, shown, false);
    }
  }

  int Status() const { return failed_ ? 2 : found_ ? 0 : 1; }

 private:
  bool ShowNames() const {
    if (options_.show_names >= 0) return options_.show_names == 1;
    return !(options_.files.empty() && !options_.recursive) &&
           !(options_.files.size() == 1 && options_.files[0] == L"-");
  }

  void Searched(long long found) {
    if (found < 0) failed_ = true;
    if (found > 0) found_ = true;
  }

  // `disk`: known to be a file on disk (found in a directory), so that its type need not be
  // asked.
  void File(const std::wstring& path, const std::wstring& shown, bool disk) {
    ScopedHandle handle(CreateFileW(path.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!handle.IsValid()) {
      Fail(shown, "cannot be read");
      failed_ = true;
      return;
    }
    disk = disk || GetFileType(handle.Get()) == FILE_TYPE_DISK;
    Searched(searcher_.Search(handle.Get(), disk, shown, ShowNames()));
  }

  // The entries of `path` in order of name (by UTF-16 code units), depth first. Links to other
  // places are left out, as grep -r leaves out symbolic links it finds on its way.
  void Walk(const std::wstring& path, const std::wstring& shown) {
    std::wstring prefix = shown;
    if (!prefix.empty() && prefix.back() != L'\\' && prefix.back() != L'/') prefix += L'\\';
    std::wstring base = path;
    if (!base.empty() && base.back() != L'\\' && base.back() != L'/') base += L'\\';
    struct Entry {
      std::wstring name;
      bool directory;
    };
    std::vector<Entry> entries;
    WIN32_FIND_DATAW data;
    const FindHandle find(FindFirstFileW((base + L"*").c_str(), &data));
    if (find.handle == INVALID_HANDLE_VALUE) {
      Fail(shown.empty() ? path : shown, "cannot be read");
      failed_ = true;
      return;
    }
    do {
      const std::wstring name = data.cFileName;
      if (name == L"." || name == L"..") continue;
      if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) continue;
      entries.push_back({name, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
    } while (FindNextFileW(find.handle, &data));
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    for (const Entry& entry : entries) {
      if (entry.directory) {
        Walk(base + entry.name, prefix + entry.name);
      } else {
        File(base + entry.name, prefix + entry.name, true);
      }
    }
  }

  const Options& options_;
  Searcher<T> searcher_;
  bool found_ = false;
  bool failed_ = false;
};

template <typename T>
int Main(const Options& options) {
  CSearchQuery<T> query;
  if constexpr (sizeof(T) == 1) {
    query.SetTerm(Utf8(options.term).c_str(), 0, options.caseless);
  } else {
    query.SetTerm(options.term.c_str(), 0, options.caseless);
  }
  if (query.termLength == 0) {
    std::fprintf(stderr, "ternsearch: the term cannot be searched for\n");
    return 2;
  }
  Output out;
  Run<T> run(options, query, out);
  if (options.files.empty()) {
    // -r without FILE searches the current directory, named as grep names it: without ".\".
    run.Operand(options.recursive ? L"." : L"-", L"");
  }
  for (const std::wstring& file : options.files) run.Operand(file, file);
  return run.Status();
}

}  // namespace

int main() {
  // Lines go out as they are in the file; no CR is added before LF.
  _setmode(_fileno(stdout), _O_BINARY);

  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  if (argc == 2 && argv != nullptr && std::wcscmp(argv[1], L"--version") == 0) {
    std::printf("ternsearch %s\n", TERN_VERSION);
    LocalFree(argv);
    return 0;
  }
  Options options;
  const bool ok = argv != nullptr && ParseArguments(argc, argv, &options);
  if (argv != nullptr) LocalFree(argv);
  if (ok && options.help) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (!ok) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  return options.wide ? Main<wchar_t>(options) : Main<char>(options);
}
