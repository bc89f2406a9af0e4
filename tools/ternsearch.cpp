// ternsearch: a fixed-string grep with line numbers, built on the library's buffer search.
//
//   ternsearch [-i] [-w] [-c] [--wide] TERM FILE...
//
// Each file is read whole into a CBuffer by the file form of Search (through a handle from
// CreateFileW) and searched for TERM. Every line that holds an occurrence is printed once as
// FILE:LINE:TEXT; with -c only FILE:COUNT, the number of occurrences (not lines) in the file.
// -i ignores case as the C runtime's comparison does, -w takes whole words only. Without --wide
// files are taken as bytes and TERM as UTF-8; with --wide files are UTF-16LE (a byte-order mark is
// text like any other) and lines are printed as UTF-8. Occurrences do not overlap.
//
// Exit status: 0 if some file holds an occurrence, 1 if none does, 2 if a file could not be
// searched (each such file gets one line on stderr naming it and the cause) or the command line
// is wrong.
#include <fcntl.h>
#include <io.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "foundation/scoped_handle.h"
#include "foundation/win.h"

#include <shellapi.h>  // CommandLineToArgvW; after win.h, which brings in <windows.h>.

namespace {

using KVT::CBuffer;
using KVT::CSearchQuery;
using KVT::ScopedHandle;

struct Options {
  bool caseless = false;
  bool whole_words = false;
  bool count_only = false;
  bool wide = false;
  std::wstring term;
  std::vector<std::wstring> files;
};

std::string Utf8(const wchar_t* text, int length) {
  if (length <= 0) return std::string();
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<std::size_t>(bytes > 0 ? bytes : 0), '\0');
  if (bytes > 0) {
    WideCharToMultiByte(CP_UTF8, 0, text, length, &out[0], bytes, nullptr, nullptr);
  }
  return out;
}

std::string Utf8(const std::wstring& text) {
  return Utf8(text.c_str(), static_cast<int>(text.size()));
}

void Write(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

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
    } else if (arg.size() >= 2 && arg[0] == L'-' && arg[1] != L'-') {
      for (std::size_t k = 1; k < arg.size(); ++k) {
        switch (arg[k]) {
          case L'i': options->caseless = true; break;
          case L'w': options->whole_words = true; break;
          case L'c': options->count_only = true; break;
          default: return false;
        }
      }
    } else if (arg.size() >= 2 && arg[0] == L'-') {
      return false;  // An unknown long option.
    } else {
      break;
    }
  }
  if (argc - i < 2) return false;
  options->term = argv[i++];
  for (; i < argc; ++i) options->files.push_back(argv[i]);
  return !options->term.empty();
}

// Why a file cannot be searched, before it is opened; null if nothing speaks against it.
const char* CheckFile(const std::wstring& file) {
  const DWORD attributes = GetFileAttributesW(file.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
        error == ERROR_INVALID_NAME || error == ERROR_BAD_NETPATH) {
      return "no such file";
    }
    return "cannot be read";
  }
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) return "is a directory";
  return nullptr;
}

// Searches one file; gives the occurrences, or -1 after reporting an error.
template <typename T>
long SearchFile(const std::wstring& file, const Options& options, CSearchQuery<T>& query) {
  if (const char* cause = CheckFile(file)) {
    Fail(file, cause);
    return -1;
  }
  ScopedHandle handle(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!handle.IsValid()) {
    Fail(file, "cannot be read");
    return -1;
  }
  LARGE_INTEGER size;
  if (!GetFileSizeEx(handle.Get(), &size)) {
    Fail(file, "cannot be read");
    return -1;
  }
  // The buffer's capacity is an int of bytes.
  if (size.QuadPart > INT_MAX) {
    Fail(file, "too large for the buffer");
    return -1;
  }

  const unsigned long flags = (options.caseless ? 1ul : 0ul) | (options.whole_words ? 2ul : 0ul);
  CBuffer<T> buffer;
  const unsigned long found = buffer.Search(handle.Get(), flags, query, nullptr, nullptr);
  if (found == 0 && size.QuadPart >= query.termLength * static_cast<LONGLONG>(sizeof(T))) {
    // Nothing found in a file large enough: make sure the file was really read.
    if (buffer.capacity < size.QuadPart) {
      Fail(file, "too large for the buffer (out of memory)");
      return -1;
    }
    if (buffer.length != static_cast<int>(size.QuadPart / sizeof(T))) {
      Fail(file, "cannot be read");
      return -1;
    }
  }

  const std::string name = Utf8(file);
  if (options.count_only) {
    Write(name + ":" + std::to_string(found) + "\n");
    return static_cast<long>(found);
  }
  int previous_line = 0;
  for (int i = 0; i < buffer.GetResultCount(); ++i) {
    int line = 0;
    const T* text = buffer.GetResult(i, line);
    if (text == nullptr || line == previous_line) continue;  // One output line per text line.
    previous_line = line;
    const int length = buffer.GetResultLength(i);
    std::string out = name + ":" + std::to_string(line) + ":";
    if constexpr (sizeof(T) == 1) {
      out.append(text, static_cast<std::size_t>(length));
    } else {
      out += Utf8(text, length);
    }
    out += '\n';
    Write(out);
  }
  return static_cast<long>(found);
}

template <typename T>
int Run(const Options& options) {
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
  bool found = false;
  bool failed = false;
  for (const std::wstring& file : options.files) {
    const long count = SearchFile<T>(file, options, query);
    if (count < 0) failed = true;
    if (count > 0) found = true;
  }
  std::fflush(stdout);
  return failed ? 2 : found ? 0 : 1;
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
  if (!ok) {
    std::fprintf(stderr, "usage: ternsearch [-i] [-w] [-c] [--wide] TERM FILE...\n");
    return 2;
  }
  return options.wide ? Run<wchar_t>(options) : Run<char>(options);
}
