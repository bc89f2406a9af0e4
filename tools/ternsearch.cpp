// ternsearch: a fixed-string grep with line numbers, built on the library's buffer search.
// The usage text (kHelp) tells what it does; what follows is how.
//
// Input is read in large pieces: a piece is searched up to its last line feed with the memory form
// of Search, and the partial line behind it is copied in front of the next piece to meet the rest
// of its line (a line longer than the room there collects in the buffer's block). Cutting at line
// feeds changes no result: occurrences never span one (unless the term holds one: then the whole
// input is read before it is searched), the scan's state does not pass one (after an occurrence it
// moves on by the term's length, which ends before the line feed), and a line feed is a word
// delimiter just as the start of the text is. So the output is that of one search over the whole
// input, while the memory touched stays that of a few pieces, not of the largest file.
//
// Line numbers come from the search itself: it counts the lines of what it searches, and a copy
// of the term put behind a piece's last line feed is found at the start of the line after it, so
// that its result tells the piece's line count (see Searcher::SearchLines).
//
// Reading overlaps the search: the next piece of a file is read on a thread of its own while this
// one searches the piece before (PieceReader), and the next files are opened and read on others
// (ReadAhead): each open, read and close is a round trip to the system, which for small files costs
// more than their search. The output keeps the order of the files.
//
// Output goes through one large buffer, never a write per line.
#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "foundation/win.h"

#include <shellapi.h>  // CommandLineToArgvW; after win.h, which brings in <windows.h>.

namespace {

using KVT::CBuffer;
using KVT::CSearchQuery;

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
    "cannot be searched is named on stderr with the cause; output that cannot be written\n"
    "ends the search) or a wrong command line.\n";

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

// Standard output through one large buffer. A write that fails (standard output closed, a full
// disk) marks the output failed and drops what it held; the search then stops.
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
    if (!text_.empty() && !failed_ &&
        std::fwrite(text_.data(), 1, text_.size(), stdout) != text_.size()) {
      failed_ = true;
    }
    text_.clear();
    if (!failed_ && std::fflush(stdout) != 0) failed_ = true;
  }
  bool failed() const { return failed_; }

 private:
  static constexpr std::size_t kFlushAt = 1 << 20;
  std::string text_;
  bool failed_ = false;
};

// Sole owner of a file handle: closes it when it goes.
class FileHandle {
 public:
  FileHandle() = default;
  explicit FileHandle(HANDLE handle) : handle_(handle) {}
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  ~FileHandle() { Reset(INVALID_HANDLE_VALUE); }

  bool valid() const { return handle_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return handle_; }
  void Reset(HANDLE handle) {
    if (valid()) CloseHandle(handle_);
    handle_ = handle;
  }

 private:
  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

// Opens a file found by name for reading; an invalid handle if that fails.
HANDLE OpenForReading(const std::wstring& path) {
  return CreateFileW(path.c_str(), GENERIC_READ,
                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                     OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
}

constexpr DWORD kPieceBytes = 1 << 20;
// A piece is read into a block with room in front of it for the partial line that the piece before
// ended with, and room behind it for a copy of the term (see Searcher::SearchLines).
constexpr std::size_t kHeadBytes = 64 << 10;
constexpr std::size_t kTailBytes = 128 << 10;

// A thread of the system's that runs `owner->Work()`; Join waits for it to end. (The C++ library's
// threads keep their code in its compiled part, which the MSVC-ABI cross build does without.)
template <typename Owner>
class WorkThread {
 public:
  WorkThread() = default;
  WorkThread(const WorkThread&) = delete;
  WorkThread& operator=(const WorkThread&) = delete;
  ~WorkThread() { Join(); }

  // False where the system gives no thread.
  bool Start(Owner* owner) {
    handle_ = CreateThread(nullptr, 0, &Run, owner, 0, nullptr);
    return handle_ != nullptr;
  }
  bool running() const { return handle_ != nullptr; }
  void Join() {
    if (handle_ == nullptr) return;
    WaitForSingleObject(handle_, INFINITE);
    CloseHandle(handle_);
    handle_ = nullptr;
  }

 private:
  static DWORD WINAPI Run(void* owner) {
    static_cast<Owner*>(owner)->Work();
    return 0;
  }

  HANDLE handle_ = nullptr;
};

// The processors the system runs this program on.
unsigned Processors() {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  return info.dwNumberOfProcessors;
}

class PieceBlock {
 public:
  // False where memory runs out.
  bool Make() {
    if (!bytes_) bytes_.reset(new (std::nothrow) char[kHeadBytes + kPieceBytes + kTailBytes]);
    return bytes_ != nullptr;
  }
  char* piece() const { return bytes_.get() + kHeadBytes; }

 private:
  std::unique_ptr<char[]> bytes_;
};

// One input on its way to the search: the handle it is read from, whether it is a file on disk
// (where a short read means the end), and its first piece where that was read ahead.
struct Input {
  HANDLE handle = INVALID_HANDLE_VALUE;
  bool disk = false;
  char* ahead = nullptr;  // In a PieceBlock.
  DWORD ahead_bytes = 0;
};

// The pieces of a file on disk after its first, each read on a thread of its own while the one
// before is searched (the system's copy of the bytes and the search then overlap). Two blocks take
// turns: the caller holds the piece that Next gave last, and the thread fills the other one. The
// destructor stops the thread.
class PieceReader {
 public:
  struct Piece {
    char* bytes;  // In a PieceBlock.
    DWORD got;
    bool ok;      // False where the read failed.
  };

  PieceReader() = default;
  PieceReader(const PieceReader&) = delete;
  PieceReader& operator=(const PieceReader&) = delete;
  ~PieceReader() {
    AcquireSRWLockExclusive(&lock_);
    stop_ = true;
    ReleaseSRWLockExclusive(&lock_);
    WakeAllConditionVariable(&changed_);
    thread_.Join();
  }

  // Reads `handle` from its current position on; false where memory or a thread can't be had.
  bool Begin(HANDLE handle) {
    if (!blocks_[0].Make() || !blocks_[1].Make()) return false;
    if (!thread_.running() && !thread_.Start(this)) return false;
    handle_ = handle;
    held_ = 1;
    Request(0);
    return true;
  }

  // The next piece, with the `kept` bytes at `partial` (at most kHeadBytes: the end of the piece
  // before, which the block given out before may hold) copied in front of it.
  Piece Next(const char* partial, std::size_t kept) {
    const int next = 1 - held_;
    AcquireSRWLockExclusive(&lock_);
    while (state_[next] != kReady) SleepConditionVariableSRW(&changed_, &lock_, INFINITE, 0);
    state_[next] = kHeld;
    const Piece result{blocks_[next].piece(), got_[next], ok_[next]};
    ReleaseSRWLockExclusive(&lock_);
    std::memcpy(result.bytes - kept, partial, kept);
    held_ = next;
    // The block given out before is free now: the next piece goes there.
    if (result.ok && result.got == kPieceBytes) Request(1 - next);
    return result;
  }

  // Ends the input, once no read of it is in flight (its handle may then be closed).
  void End() {
    AcquireSRWLockExclusive(&lock_);
    while (state_[0] == kReading || state_[1] == kReading) {
      SleepConditionVariableSRW(&changed_, &lock_, INFINITE, 0);
    }
    state_[0] = state_[1] = kFree;  // A read asked for and not begun is dropped.
    ReleaseSRWLockExclusive(&lock_);
  }

 private:
  friend class WorkThread<PieceReader>;
  enum State { kFree, kAsked, kReading, kReady, kHeld };

  void Request(int block) {
    AcquireSRWLockExclusive(&lock_);
    state_[block] = kAsked;
    ReleaseSRWLockExclusive(&lock_);
    WakeAllConditionVariable(&changed_);
  }

  void Work() {
    AcquireSRWLockExclusive(&lock_);
    for (;;) {
      if (stop_) break;
      const int block = state_[0] == kAsked ? 0 : state_[1] == kAsked ? 1 : -1;
      if (block < 0) {
        SleepConditionVariableSRW(&changed_, &lock_, INFINITE, 0);
        continue;
      }
      state_[block] = kReading;
      ReleaseSRWLockExclusive(&lock_);
      DWORD got = 0;
      const bool ok = ReadFile(handle_, blocks_[block].piece(), kPieceBytes, &got, nullptr) != 0;
      AcquireSRWLockExclusive(&lock_);
      got_[block] = ok ? got : 0;
      ok_[block] = ok;
      state_[block] = kReady;
      WakeAllConditionVariable(&changed_);
    }
    ReleaseSRWLockExclusive(&lock_);
  }

  PieceBlock blocks_[2];
  HANDLE handle_ = INVALID_HANDLE_VALUE;
  int held_ = 1;  // The block the caller holds.
  // Under lock_: what each block is doing, and what its read gave.
  State state_[2] = {kFree, kFree};
  DWORD got_[2] = {0, 0};
  bool ok_[2] = {true, true};
  bool stop_ = false;
  WorkThread<PieceReader> thread_;
  SRWLOCK lock_ = SRWLOCK_INIT;
  CONDITION_VARIABLE changed_ = CONDITION_VARIABLE_INIT;
};

// Searches inputs one after another with one query, one buffer and one output.
template <typename T>
class Searcher {
 public:
  Searcher(const Options& options, CSearchQuery<T>& query, Output& out)
      : options_(options), query_(query), out_(out) {
    flags_ = (options.caseless ? 1ul : 0ul) | (options.whole_words ? 2ul : 0ul);
    term_has_feed_ = std::char_traits<T>::find(query.term, query.termLength, '\n') != nullptr;
    const T feed[2] = {static_cast<T>('\n'), 0};
    feeds_.SetTerm(feed, 0, false);
  }

  // Searches what `input` gives until its end and prints what it finds, under the name `file`
  // where `show_name` asks for it. Gives the occurrences, or -1 after reporting an error.
  //
  // A file on disk is searched where its pieces are read, a partial line copied in front of each
  // (PieceReader); a partial line longer than that room, and every input not on disk (whose reads
  // come in any size), goes through the buffer's block instead, read into behind the partial line.
  long long Search(Input& input, const std::wstring& file, bool show_name) {
    const std::string name = Utf8(file);
    name_ = show_name ? name : std::string();
    last_line_ = 0;
    lines_before_ = 0;
    // Room behind the text for the copy of the term that SearchLines puts there.
    spare_ = (static_cast<std::size_t>(query_.termLength) + 1) * sizeof(T);
    found_ = 0;
    const long long result = input.disk ? SearchFile(input, file) : SearchStream(input, file);
    if (result < 0) return result;
    if (options_.names_only) {
      if (found_ > 0) {
        out_.Put(name);
        out_.Put('\n');
      }
    } else if (options_.count_only) {
      PutName();
      out_.PutNumber(static_cast<std::uint64_t>(found_));
      out_.Put('\n');
    }
    return found_;
  }

 private:
  long long SearchFile(Input& input, const std::wstring& file) {
    std::size_t kept = 0;  // Bytes of the partial line at `partial`.
    const char* partial = nullptr;
    bool in_block = false;  // The text is in the buffer's block (a line longer than the room).
    bool first = true;
    bool end = false;
    bool reading = false;  // reader_ reads `input`.
    struct Stop {  // Whichever way the loop ends, no read of the input is left in flight.
      PieceReader& reader;
      bool& reading;
      ~Stop() {
        if (reading) reader.End();
      }
    } stop{reader_, reading};
    while (!end) {
      PieceReader::Piece piece{nullptr, 0, true};
      if (first && input.ahead != nullptr) {
        piece = PieceReader::Piece{input.ahead, input.ahead_bytes, true};
        input.ahead = nullptr;
      } else {
        if (!reading) {
          if (!reader_.Begin(input.handle)) return SearchStream(input, file, partial, kept);
          reading = true;
        }
        if (!in_block && kept > kHeadBytes) {
          if (!Keep(file, partial, kept)) return -1;
          in_block = true;
        }
        piece = reader_.Next(in_block ? nullptr : partial, in_block ? 0 : kept);
      }
      first = false;
      if (!piece.ok) {
        Fail(file, "cannot be read");
        return -1;
      }
      end = piece.got < kPieceBytes;
      char* start = piece.bytes - kept;
      std::size_t tail = kTailBytes;
      if (in_block) {
        if (!Room(file, kept + piece.got)) return -1;
        start = reinterpret_cast<char*>(buffer_.GetBuffer());
        std::memcpy(start + kept, piece.bytes, piece.got);
        tail = static_cast<std::size_t>(buffer_.capacity) - kept - piece.got;
      }
      const std::size_t total = kept + piece.got;
      const std::size_t cut = SearchPiece(reinterpret_cast<T*>(start), kept, total, end, tail);
      if (found_ > 0 && options_.names_only) break;
      partial = start + cut * sizeof(T);
      kept = total - cut * sizeof(T);
      if (in_block && cut > 0) {
        std::memmove(start, partial, kept);
        partial = start;
        in_block = kept > kHeadBytes;  // Back to the pieces' own room once the line has ended.
      }
    }
    return found_;
  }

  // An input not on disk (a pipe, standard input), read into the buffer's block behind the
  // `kept` bytes at `partial` (a file's reading that had to stop halfway hands over those).
  long long SearchStream(Input& input, const std::wstring& file, const char* partial = nullptr,
                         std::size_t kept = 0) {
    if (kept > 0 && !Keep(file, partial, kept)) return -1;
    bool end = false;
    while (!end) {
      if (!Room(file, kept + kPieceBytes)) return -1;
      char* bytes = reinterpret_cast<char*>(buffer_.GetBuffer());
      DWORD got = 0;
      if (input.ahead != nullptr) {
        std::memcpy(bytes + kept, input.ahead, input.ahead_bytes);
        got = input.ahead_bytes;
        input.ahead = nullptr;
      } else if (!ReadFile(input.handle, bytes + kept, kPieceBytes, &got, nullptr)) {
        if (GetLastError() != ERROR_BROKEN_PIPE) {
          Fail(file, "cannot be read");
          return -1;
        }
        got = 0;
      }
      end = got == 0 || (input.disk && got < kPieceBytes);
      const std::size_t total = kept + got;
      const std::size_t cut = SearchPiece(buffer_.GetBuffer(), kept, total, end,
                                          static_cast<std::size_t>(buffer_.capacity) - total);
      if (found_ > 0 && options_.names_only) break;
      kept = total - cut * sizeof(T);
      if (cut > 0) std::memmove(bytes, bytes + cut * sizeof(T), kept);
    }
    return found_;
  }

  // Makes the buffer's block hold `bytes` and the room behind them that SearchLines may use,
  // growing a long line's block by doubling, lest each piece copy the line again.
  bool Room(const std::wstring& file, std::size_t bytes) {
    if (bytes > static_cast<std::size_t>(INT_MAX) - spare_) {
      Fail(file, "too large for the buffer");
      return false;
    }
    int room = static_cast<int>(bytes + spare_);
    if (room > buffer_.capacity && buffer_.capacity > 0) {
      room = std::max(room, std::min(INT_MAX / 2, buffer_.capacity) * 2);
    }
    buffer_.Realloc(room);
    if (buffer_.capacity < room) {
      Fail(file, "too large for the buffer (out of memory)");
      return false;
    }
    return true;
  }

  // Puts the `kept` bytes at `partial` at the front of the buffer's block.
  bool Keep(const std::wstring& file, const char* partial, std::size_t kept) {
    if (!Room(file, kept + kPieceBytes)) return false;
    std::memmove(buffer_.GetBuffer(), partial, kept);
    return true;
  }

  // Searches `text`, `total` bytes of which the first `kept` were kept from before (a partial line
  // that holds no line feed), up to its last line feed, or to its end where `end` says it is the
  // last; `tail` bytes behind `total` may be written. Gives the characters searched.
  std::size_t SearchPiece(T* text, std::size_t kept, std::size_t total, bool end,
                          std::size_t tail) {
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
      found_ += SearchLines(text, cut, !end, tail + (total - cut * sizeof(T)) >= spare_);
    }
    return cut;
  }

  void PutName() {
    if (!name_.empty()) {
      out_.Put(name_);
      out_.Put(':');
    }
  }

  // Searches text[0 .. count - 1], which ends at a line feed or at the end of the input, prints
  // its lines that hold an occurrence (each once) and gives the occurrences. `more` says that
  // input follows, whose line numbers go on from this piece's: the search then also counts the
  // piece's line feeds. A copy of the term goes behind the piece, at the start of the line after
  // its last line feed, where it is an occurrence (and a whole word: a line feed before it, the
  // text's end behind it) that no occurrence of the piece overlaps, as none spans a line feed:
  // its result's line number, less one, is the piece's count of line feeds. The characters under
  // the copy are put back afterwards. Should a table that skips (see CSearchQuery) miss the copy,
  // a search for the line feed itself counts them.
  long long SearchLines(T* text, std::size_t count, bool more, bool room_behind) {
    const bool print = !options_.count_only && !options_.names_only;
    const bool tail = print && more && room_behind;
    const std::size_t m = static_cast<std::size_t>(query_.termLength);
    std::basic_string<T> under;
    if (tail) {
      under.assign(text + count, m);
      std::copy(query_.term, query_.term + m, text + count);
    }
    const std::size_t searched = count + (tail ? m : 0);
    long long found = static_cast<long long>(buffer_.Search(
        text, static_cast<int>(searched), flags_, query_, nullptr, nullptr, static_cast<T>('\n')));
    int results = buffer_.GetResultCount();
    std::uint64_t feeds = 0;
    if (print && more && !room_behind) feeds = LineFeeds(text, count);
    if (tail) {
      std::copy(under.begin(), under.end(), text + count);
      const std::uint64_t last = results > 0 ? (*buffer_.results)[results - 1] : 0;
      if (results > 0 && (last >> 32) == count) {
        feeds = static_cast<std::uint32_t>(last) - 1;
        --results;
        --found;
      } else {
        feeds = LineFeeds(text, count);
      }
    }
    if (!print) return found;
    for (int i = 0; i < results; ++i) {
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
    lines_before_ += feeds;
    return found;
  }

  // The line feeds of text[0 .. count - 1], found as occurrences of a line feed.
  std::uint64_t LineFeeds(const T* text, std::size_t count) {
    return feed_buffer_.Search(text, static_cast<int>(count), 0, feeds_, nullptr, nullptr,
                               static_cast<T>('\n'));
  }

  const Options& options_;
  CSearchQuery<T>& query_;
  Output& out_;
  unsigned long flags_ = 0;
  bool term_has_feed_ = false;
  CBuffer<T> buffer_;
  PieceReader reader_;
  std::size_t spare_ = 0;  // Bytes behind a piece that SearchLines may write to.
  long long found_ = 0;    // Occurrences in the input being searched.
  CSearchQuery<T> feeds_;    // The term LF, for LineFeeds.
  CBuffer<T> feed_buffer_;   // LineFeeds' results.
  std::string name_;  // Printed before each line or count; empty for none.
  std::uint64_t lines_before_ = 0;  // Line feeds before the text being searched.
  std::uint64_t last_line_ = 0;     // The last line printed.
};

// One thing to do, in the order of the output: a file to search, standard input, or a failure
// to report (a missing operand, a directory that can't be listed).
struct Job {
  enum Kind { kFile, kStandardInput, kFailure };
  Kind kind;
  std::wstring path;   // kFile: the file to open.
  std::wstring shown;  // The name printed for it.
  const char* cause;   // kFailure: why.
  bool disk;           // kFile: found in a directory, so known to be a file on disk.
};

// The jobs of the command line's operands in order: directories (with -r) walked, entries in order
// of name (by UTF-16 code units), depth first. Links to other places are left out, as grep -r
// leaves out symbolic links it finds on its way.
class Jobs {
 public:
  explicit Jobs(const Options& options) : options_(options) {}

  // `shown` is the name printed for `operand`.
  void Operand(const std::wstring& operand, const std::wstring& shown) {
    if (operand == L"-") {
      jobs_.push_back({Job::kStandardInput, L"", L"(standard input)", nullptr, false});
      return;
    }
    bool directory = false;
    if (const char* cause = CheckFile(operand, &directory)) {
      jobs_.push_back({Job::kFailure, L"", operand, cause, false});
    } else if (directory && !options_.recursive) {
      jobs_.push_back({Job::kFailure, L"", operand, "is a directory", false});
    } else if (directory) {
      Walk(operand, shown);
    } else {
      jobs_.push_back({Job::kFile, operand, shown, nullptr, false});
    }
  }

  const std::vector<Job>& list() const { return jobs_; }

 private:
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
      jobs_.push_back({Job::kFailure, L"", shown.empty() ? path : shown, "cannot be read", false});
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
        jobs_.push_back({Job::kFile, base + entry.name, prefix + entry.name, nullptr, true});
      }
    }
  }

  const Options& options_;
  std::vector<Job> jobs_;
};

// Opens the files of a job list and reads their first piece on threads of its own (as many as the
// processor has, at least two and at most kMaxThreads), at most a window of jobs ahead of the one
// being searched.
// A file that fits in its piece is read whole and closed there; a larger one keeps its handle
// open for the searcher to go on; anything not on disk (a pipe named on the command line) is only
// opened. The destructor stops the threads, waits for them, and closes what is still open,
// whichever way the run ends.
class ReadAhead {
 public:
  // What was read ahead of one job.
  struct Slot {
    enum State { kFree, kReading, kReady };
    State state = kFree;
    std::size_t job = 0;
    PieceBlock bytes;  // Made on first use.
    DWORD got = 0;
    bool opened = false;  // False: the file cannot be opened.
    bool read = false;    // The first piece is in `bytes`.
    bool read_failed = false;
    bool disk = false;
    FileHandle handle;  // Open if more may follow.
  };

  explicit ReadAhead(const std::vector<Job>& jobs) : jobs_(jobs) {
    // The readers mostly wait for the system, so two of them pay even on one processor.
    unsigned threads = std::max(2u, std::min(Processors(), kMaxThreads));
    std::size_t files = 0;
    for (const Job& job : jobs) files += job.kind == Job::kFile;
    if (files < 2) return;  // Nothing to overlap.
    threads = static_cast<unsigned>(std::min<std::size_t>(threads, files));
    slots_ = std::vector<Slot>(threads * kJobsPerThread);
    // Fewer threads where the system gives fewer, or none: the searcher then reads for itself.
    while (running_ < threads && threads_[running_].Start(this)) ++running_;
  }

  ~ReadAhead() {
    AcquireSRWLockExclusive(&lock_);
    stop_ = true;
    ReleaseSRWLockExclusive(&lock_);
    WakeAllConditionVariable(&room_);
    for (unsigned i = 0; i < running_; ++i) threads_[i].Join();
  }

  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // What was read ahead of job `index` (a file), once it is there; null where nothing is read
  // ahead. The slot is the caller's until Done(index).
  Slot* Wait(std::size_t index) {
    if (running_ == 0) return nullptr;
    Slot& slot = slots_[index % slots_.size()];
    AcquireSRWLockExclusive(&lock_);
    while (slot.state != Slot::kReady || slot.job != index) {
      SleepConditionVariableSRW(&ready_, &lock_, INFINITE, 0);
    }
    ReleaseSRWLockExclusive(&lock_);
    return &slot;
  }

  // Job `index` is done with (whatever its kind): its slot is free again, and the window moves on.
  void Done(std::size_t index) {
    if (running_ == 0) return;
    AcquireSRWLockExclusive(&lock_);
    Slot& slot = slots_[index % slots_.size()];
    if (slot.state == Slot::kReady && slot.job == index) {
      slot.handle.Reset(INVALID_HANDLE_VALUE);
      slot.state = Slot::kFree;
    }
    searching_ = index + 1;
    ReleaseSRWLockExclusive(&lock_);
    WakeAllConditionVariable(&room_);
  }

 private:
  friend class WorkThread<ReadAhead>;
  static constexpr unsigned kMaxThreads = 16;
  static constexpr std::size_t kJobsPerThread = 4;

  void Work() {
    AcquireSRWLockExclusive(&lock_);
    for (;;) {
      // The next file, once the window and its slot have room for it.
      while (next_ < jobs_.size() && jobs_[next_].kind != Job::kFile) ++next_;
      if (stop_ || next_ >= jobs_.size()) break;
      Slot& slot = slots_[next_ % slots_.size()];
      if (next_ >= searching_ + slots_.size() || slot.state != Slot::kFree) {
        SleepConditionVariableSRW(&room_, &lock_, INFINITE, 0);
        continue;
      }
      const std::size_t index = next_++;
      slot.state = Slot::kReading;
      slot.job = index;
      ReleaseSRWLockExclusive(&lock_);
      Read(jobs_[index], slot);
      AcquireSRWLockExclusive(&lock_);
      slot.state = Slot::kReady;
      WakeAllConditionVariable(&ready_);
    }
    ReleaseSRWLockExclusive(&lock_);
  }

  static void Read(const Job& job, Slot& slot) {
    slot.got = 0;
    slot.read = false;
    slot.read_failed = false;
    slot.handle.Reset(OpenForReading(job.path));
    slot.opened = slot.handle.valid();
    if (!slot.opened) return;
    slot.disk = job.disk || GetFileType(slot.handle.get()) == FILE_TYPE_DISK;
    if (!slot.disk) return;
    // Without memory for the piece the searcher reads the file itself.
    if (!slot.bytes.Make()) return;
    slot.read = ReadFile(slot.handle.get(), slot.bytes.piece(), kPieceBytes, &slot.got, nullptr);
    slot.read_failed = !slot.read;
    if (!slot.read || slot.got < kPieceBytes) slot.handle.Reset(INVALID_HANDLE_VALUE);
  }

  const std::vector<Job>& jobs_;
  std::vector<Slot> slots_;  // Job j's is slots_[j % size].
  WorkThread<ReadAhead> threads_[kMaxThreads];
  unsigned running_ = 0;
  // The system's own lock and condition variables: the C++ library's here are built on
  // semaphores, which under Wine cost a round trip to its server for every wait and wake.
  SRWLOCK lock_ = SRWLOCK_INIT;
  CONDITION_VARIABLE ready_ = CONDITION_VARIABLE_INIT;  // A slot became ready.
  CONDITION_VARIABLE room_ = CONDITION_VARIABLE_INIT;   // The window moved, or the readers stop.
  std::size_t next_ = 0;           // The next job a reader takes.
  std::size_t searching_ = 0;      // Jobs before this one are done with.
  bool stop_ = false;
};

// What one run does with its jobs: the exit status it has earned so far.
template <typename T>
class Run {
 public:
  Run(const Options& options, CSearchQuery<T>& query, Output& out)
      : options_(options), out_(out), searcher_(options, query, out) {}

  void Do(const std::vector<Job>& jobs) {
    ReadAhead ahead(jobs);
    for (std::size_t i = 0; i < jobs.size() && !out_.failed(); ++i) {
      const Job& job = jobs[i];
      if (job.kind == Job::kFailure) {
        Fail(job.shown, job.cause);
        failed_ = true;
      } else if (job.kind == Job::kStandardInput) {
        Input input;
        input.handle = GetStdHandle(STD_INPUT_HANDLE);
        input.disk = GetFileType(input.handle) == FILE_TYPE_DISK;
        Searched(searcher_.Search(input, job.shown, ShowNames()));
      } else {
        File(job, ahead.Wait(i));
      }
      ahead.Done(i);
    }
    out_.Flush();
    if (out_.failed()) {
      std::fprintf(stderr, "ternsearch: the output cannot be written\n");
      failed_ = true;
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

  // A file, read ahead into `slot` or (where slot is null) opened here.
  void File(const Job& job, ReadAhead::Slot* slot) {
    FileHandle own;
    Input input;
    if (slot != nullptr) {
      if (!slot->opened || slot->read_failed) {
        Fail(job.shown, "cannot be read");
        failed_ = true;
        return;
      }
      input.handle = slot->handle.get();
      input.disk = slot->disk;
      if (slot->read) {
        input.ahead = slot->bytes.piece();
        input.ahead_bytes = slot->got;
      }
    } else {
      own.Reset(OpenForReading(job.path));
      if (!own.valid()) {
        Fail(job.shown, "cannot be read");
        failed_ = true;
        return;
      }
      input.handle = own.get();
      input.disk = job.disk || GetFileType(own.get()) == FILE_TYPE_DISK;
    }
    Searched(searcher_.Search(input, job.shown, ShowNames()));
  }

  const Options& options_;
  Output& out_;
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
  Jobs jobs(options);
  if (options.files.empty()) {
    // -r without FILE searches the current directory, named as grep names it: without ".\".
    jobs.Operand(options.recursive ? L"." : L"-", L"");
  }
  for (const std::wstring& file : options.files) jobs.Operand(file, file);
  Output out;
  Run<T> run(options, query, out);
  run.Do(jobs.list());
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
