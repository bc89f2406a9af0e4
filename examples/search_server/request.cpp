// Requests: parsing, resolving a path inside an allowed folder, and the search itself.
#include <algorithm>
#include <cwchar>
#include <cwctype>

#include "examples/common/length_frame.h"
#include "examples/common/owners.h"
#include "examples/search_server/search_server.h"

namespace search_server {
namespace {

const char kMalformed[] = "malformed request";
const char kRefused[] = "path refused";

// Windows opens these names as devices in any folder, also with an extension ("NUL.txt").
bool IsDeviceName(std::wstring base) {
  base = base.substr(0, base.find(L'.'));
  while (!base.empty() && base.back() == L' ') base.pop_back();
  for (wchar_t& c : base) c = static_cast<wchar_t>(std::towupper(c));
  if (base == L"CON" || base == L"PRN" || base == L"AUX" || base == L"NUL" ||
      base == L"CONIN$" || base == L"CONOUT$") {
    return true;
  }
  const bool numbered = base.size() == 4 && (base.compare(0, 3, L"COM") == 0 ||
                                             base.compare(0, 3, L"LPT") == 0);
  return numbered && ((base[3] >= L'1' && base[3] <= L'9') || base[3] == L'\u00B9' ||
                      base[3] == L'\u00B2' || base[3] == L'\u00B3');
}

// One name below an allowed folder: no separators, drive or stream colons, wildcards or control
// characters, not "." or "..", no trailing dot or space (Windows would drop them and open
// another name), no device.
bool IsSafeName(const std::wstring& name) {
  if (name.empty() || name.size() > 255) return false;
  for (wchar_t c : name) {
    if (c < 32 || std::wcschr(L"<>:\"/\\|?*", c) != nullptr) return false;
  }
  return name.back() != L'.' && name.back() != L' ' && !IsDeviceName(name);
}

template <typename Data>
long long FileSize(const Data& data) {
  return static_cast<long long>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
}

// The final path and the root's come from the same call over the same file system's names, so a
// folder inside has the root's text exactly, case included; comparing without regard to case
// would let a root "tree" reach a sibling "Tree" on a file system that tells them apart.
bool IsBelow(const std::wstring& path, const std::wstring& root) {
  return path.compare(0, root.size(), root) == 0 &&
         (path.size() == root.size() || root.back() == L'\\' || path[root.size()] == L'\\');
}

}  // namespace

bool FinalPath(HANDLE handle, std::wstring* path) {
  path->resize(std::max<std::size_t>(path->capacity(), MAX_PATH));
  for (;;) {
    // The size given counts the terminator; a result below it is the length written, one at or
    // above it the size needed.
    const DWORD length = ::GetFinalPathNameByHandleW(handle, &(*path)[0],
                                                     static_cast<DWORD>(path->size()),
                                                     FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (length == 0) break;
    if (length < path->size()) {
      path->resize(length);
      return true;
    }
    if (length > 0x8000) break;  // Longer than any path the system makes.
    path->resize(length);
  }
  path->clear();
  return false;
}

HANDLE OpenToAsk(const std::wstring& path) {
  return ::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

bool Utf8ToWide(const std::string& text, std::wstring* wide) {
  wide->clear();
  if (text.empty()) return true;
  const int size = static_cast<int>(text.size());
  const int units =
      ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
  if (units <= 0) return false;
  wide->resize(static_cast<std::size_t>(units));
  return ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, &(*wide)[0],
                               units) == units;
}

std::string WideToUtf8(const std::wstring& text) {
  if (text.empty()) return std::string();
  const int size = static_cast<int>(text.size());
  const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr,
                                          nullptr);
  std::string out(static_cast<std::size_t>(std::max(bytes, 0)), '\0');
  if (bytes > 0) {
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, &out[0], bytes, nullptr, nullptr);
  }
  return out;
}

const char* ParseRequest(const std::string& text, const std::vector<Folder>& folders,
                         Request* request) {
  if (text == "STOP") {
    request->command = Command::kStop;
    return nullptr;
  }
  // FIND <flags> <path> LF <term>
  const std::size_t newline = text.find('\n');
  if (newline == std::string::npos || text.compare(0, 5, "FIND ") != 0) return kMalformed;
  const std::size_t space = text.find(' ', 5);
  if (space == std::string::npos || space > newline) return kMalformed;
  const std::string flags = text.substr(5, space - 5);
  request->command = Command::kFind;
  request->flags = 0;
  if (flags != "-") {
    for (char c : flags) {
      const unsigned long bit = c == 'i' ? 1 : c == 'w' ? 2 : 0;
      if (bit == 0 || (request->flags & bit) != 0) return kMalformed;
      request->flags |= bit;
    }
  }
  if (flags.empty()) return kMalformed;
  request->path = text.substr(space + 1, newline - space - 1);
  request->term = text.substr(newline + 1);
  // A line holds no line break, and the query's copy of the term ends at a zero.
  if (request->term.empty() || request->term.find_first_of(std::string("\r\n\0", 3)) !=
                                   std::string::npos) {
    return kMalformed;
  }
  if (request->path.empty()) return kMalformed;

  std::size_t start = 0;
  std::size_t end = request->path.find('/');
  const std::string name = request->path.substr(0, end);
  request->folder = nullptr;
  for (const Folder& folder : folders) {
    if (folder.name == name) request->folder = &folder;
  }
  if (request->folder == nullptr) return "unknown folder";
  request->components.clear();
  while (end != std::string::npos) {
    start = end + 1;
    end = request->path.find('/', start);
    std::wstring component;
    if (!Utf8ToWide(request->path.substr(start, end - start), &component) ||
        !IsSafeName(component) || request->components.size() >= 32) {
      return kRefused;
    }
    request->components.push_back(component);
  }
  return nullptr;
}

struct Searcher::Walk {
  const std::wstring& final_root;
  std::string& frames;
  const Flush& flush;
  const std::atomic<bool>& stopping;
  unsigned long flags;
  long rows;
  bool gone;  // The connection is gone: nothing more to do.
};

void Searcher::Find(const Request& request, std::string& frames, const Flush& flush,
                    const std::atomic<bool>& stopping) {
  query_.SetTerm(request.term.c_str(), 0, (request.flags & 1) != 0);
  Walk walk{request.folder->final_root, frames, flush, stopping, request.flags, 0, false};

  // Every step of the way must exist, and none may be a reparse point, which could lead out of
  // the folder; the folder's own root may be one, as its owner chose it. Where the file or
  // folder really is, is asked of its handle once it is open (IsInside).
  std::wstring path = request.folder->root;
  WIN32_FILE_ATTRIBUTE_DATA data;
  const char* refusal = nullptr;
  for (std::size_t i = 0; refusal == nullptr && i <= request.components.size(); ++i) {
    if (i > 0) {
      path += L'\\';
      path += request.components[i - 1];
    }
    const bool last = i == request.components.size();
    if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) ||
        (!last && !(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))) {
      refusal = "not found";
    } else if (i > 0 && (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
      refusal = kRefused;
    }
  }
  if (refusal == nullptr) {
    const Outcome outcome = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                                ? SearchFolder(path, request.path, walk)
                                : SearchFile(path, FileSize(data), request.path, walk);
    if (outcome == Outcome::kOutside) refusal = kRefused;
    if (outcome == Outcome::kUnreadable) refusal = "unreadable";
  }
  tern_example::AppendFrame(frames, refusal != nullptr ? std::string("ERR ") + refusal
                                                       : "END " + std::to_string(walk.rows));
}

// A name can lead elsewhere than its place in the folder says: under Wine a link to a file is no
// reparse point, and a folder may be reached by ways that no attribute shows. So whatever is
// opened is asked where it really is, with the handle that is opened anyway: one call more per
// file, and the check holds for exactly what is read, whatever changes on the way.
bool Searcher::IsInside(HANDLE handle, const std::wstring& final_root) {
  return FinalPath(handle, &final_path_) && IsBelow(final_path_, final_root);
}

Searcher::Outcome Searcher::SearchFile(const std::wstring& file, long long size,
                                       const std::string& path, Walk& walk) {
  tern_example::Handle handle(::CreateFileW(file.c_str(), GENERIC_READ,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN,
                                         nullptr));
  if (!tern_example::IsOpen(handle)) return Outcome::kUnreadable;
  if (!IsInside(handle.get(), walk.final_root)) return Outcome::kOutside;
  // The size comes from the directory entry, which saves a call per file; the search reads what
  // the file holds when it is opened, and the buffer never reads past what it was given.
  if (size > kMaxFileBytes) return Outcome::kUnreadable;
  // Only `found` tells this file's results: a search that finds nothing because the file is
  // shorter than the term leaves the table of the previous file in place.
  const unsigned long found = buffer_.Search(handle.get(), walk.flags, query_, nullptr, nullptr);
  int previous = 0;
  for (unsigned long i = 0; i < found && !walk.gone; ++i) {
    int line = 0;
    const char* text = buffer_.GetResult(static_cast<int>(i), line);
    if (text == nullptr || line == previous) continue;  // One row per line.
    previous = line;
    std::string row = path;
    row += ':';
    row += std::to_string(line);
    row += ':';
    row.append(text, static_cast<std::size_t>(buffer_.GetResultLength(static_cast<int>(i))));
    tern_example::AppendFrame(walk.frames, row);
    ++walk.rows;
    if (walk.frames.size() >= kFlushBytes) {
      walk.gone = !walk.flush(walk.frames);
      walk.frames.clear();
    }
  }
  return Outcome::kSearched;
}

Searcher::Outcome Searcher::SearchFolder(const std::wstring& folder, const std::string& path,
                                         Walk& walk) {
  {
    // A folder outside is not walked at all. Should it be swapped for another after this check,
    // every file and folder below is still checked as it is opened.
    const tern_example::Handle handle(OpenToAsk(folder));
    if (!tern_example::IsOpen(handle)) return Outcome::kSearched;  // Unreadable: nothing to show.
    if (!IsInside(handle.get(), walk.final_root)) return Outcome::kOutside;
  }
  struct Entry {
    std::wstring name;
    DWORD attributes;
    long long size;
    bool operator<(const Entry& other) const { return name < other.name; }
  };
  std::vector<Entry> entries;
  WIN32_FIND_DATAW data;
  const tern_example::Find find(::FindFirstFileExW((folder + L"\\*").c_str(), FindExInfoBasic,
                                                   &data, FindExSearchNameMatch, nullptr,
                                                   FIND_FIRST_EX_LARGE_FETCH));
  // Empty, or unreadable: nothing to show.
  if (find.get() == INVALID_HANDLE_VALUE) return Outcome::kSearched;
  do {
    const std::wstring name = data.cFileName;
    if (name != L"." && name != L"..")
      entries.push_back({name, data.dwFileAttributes, FileSize(data)});
  } while (::FindNextFileW(find.get(), &data));
  std::sort(entries.begin(), entries.end());
  for (const Entry& entry : entries) {
    if (walk.gone || walk.stopping) break;
    if (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) continue;
    const std::wstring full = folder + L'\\' + entry.name;
    const std::string shown = path + '/' + WideToUtf8(entry.name);
    if (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) {
      SearchFolder(full, shown, walk);
    } else {
      SearchFile(full, entry.size, shown, walk);
    }
  }
  return Outcome::kSearched;
}

}  // namespace search_server
