// The floor of ternsearch -r: a bare walk over a tree that opens, reads and closes each file with
// the calls ternsearch makes (FindFirstFileW/FindNextFileW, CreateFileW, ReadFile in pieces of
// 1 MiB, CloseHandle), one file after another on one thread, and searches nothing. Under Wine
// each of those calls is a round trip to the Wine server, which a tree of small files pays for
// thousands of times; bench/grep_compare.sh times this beside ternsearch -r.
//
//   tern_tree_walk DIRECTORY     prints the files and bytes read
#include <cstdio>
#include <memory>
#include <string>

#include "foundation/win.h"

#include <shellapi.h>  // CommandLineToArgvW; after win.h, which brings in <windows.h>.

namespace {

constexpr DWORD kPieceBytes = 1 << 20;

struct Totals {
  unsigned long long files = 0;
  unsigned long long bytes = 0;
};

void Walk(const std::wstring& path, char* piece, Totals* totals) {
  WIN32_FIND_DATAW data;
  const HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &data);
  if (find == INVALID_HANDLE_VALUE) return;
  do {
    const std::wstring name = data.cFileName;
    if (name == L"." || name == L".." || (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
      continue;
    }
    const std::wstring full = path + L"\\" + name;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      Walk(full, piece, totals);
      continue;
    }
    const HANDLE file = CreateFileW(full.c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE) continue;
    DWORD got = 0;
    while (ReadFile(file, piece, kPieceBytes, &got, nullptr) && got > 0) {
      totals->bytes += got;
      if (got < kPieceBytes) break;
    }
    CloseHandle(file);
    ++totals->files;
  } while (FindNextFileW(find, &data));
  FindClose(find);
}

}  // namespace

int main() {
  int argc = 0;
  wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
  if (argv == nullptr || argc != 2) {
    std::fputs("usage: tern_tree_walk DIRECTORY\n", stderr);
    return 2;
  }
  const std::unique_ptr<char[]> piece(new char[kPieceBytes]);
  Totals totals;
  Walk(argv[1], piece.get(), &totals);
  LocalFree(argv);
  std::printf("%llu files, %llu bytes\n", totals.files, totals.bytes);
  return 0;
}
