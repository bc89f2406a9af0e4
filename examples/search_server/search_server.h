#ifndef TERNCORELIB_EXAMPLES_SEARCH_SERVER_SEARCH_SERVER_H_
#define TERNCORELIB_EXAMPLES_SEARCH_SERVER_SEARCH_SERVER_H_

// A small search service on TernCoreLib: framed requests over TCP, a pool of workers, and the
// buffer search over the files of a few allowed folders. The README's section on it gives the
// request format; the pieces are:
//   config.cpp   the XML configuration (CXml)
//   request.cpp  parsing a request, resolving its path safely, and searching (CBuffer,
//   CSearchQuery) server.cpp   connections (CServerSocket, CClientSocket, CLengthMsgReceiver) and
//   the worker
//                pool (CTWSync, CLock)

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "TernCoreLib.h"

namespace search_server {

// Limits that keep one client from taking the server's memory or threads. Named in the README.
constexpr int kMaxRequestBytes = 8192;               // A longer frame closes the connection.
constexpr int kMaxPendingRequests = 64;               // Per connection; more closes it.
constexpr int kMaxConnections = 64;                   // Further clients get "server busy".
constexpr long long kMaxFileBytes = 64ll << 20;       // Larger files are not searched.
constexpr std::size_t kFlushBytes = 64 * 1024;        // Reply bytes gathered before a send.

// A folder that requests may search: `name` is what requests call it, `root` its full Windows
// path without a trailing separator, and `final_root` where that path really leads, every link
// on the way resolved (FinalPath), taken once at start-up. A file or folder is inside the folder
// when its own final path is `final_root` or lies below it.
struct Folder {
  std::string name;
  std::wstring root;
  std::wstring final_root;
};

struct Config {
  std::wstring address = L"127.0.0.1";  // "any" or empty: every local address.
  unsigned short port = 0;
  int workers = 4;
  std::vector<Folder> folders;
};

// UTF-8 and UTF-16 conversions by the count of units, so that zeros pass through. Utf8ToWide
// refuses (false) what is not valid UTF-8.
bool Utf8ToWide(const std::string& text, std::wstring* wide);
std::string WideToUtf8(const std::wstring& text);

// The path that `handle` leads to once every link on the way is resolved, in the form
// "\\?\C:\data\docs\a.txt", as GetFinalPathNameByHandleW gives it (Wine's resolves Linux
// symbolic links to files and folders too). False, `path` empty, if the system can't tell.
bool FinalPath(HANDLE handle, std::wstring* path);

// Opens a folder (or a file) only to ask about it, as FinalPath does: no right to its contents
// needed, nobody kept out. INVALID_HANDLE_VALUE if it can't be opened.
HANDLE OpenToAsk(const std::wstring& path);

// Reads the configuration file (UTF-8, with or without a byte-order mark). False with a message
// in `error` for a file that can't be read, isn't XML, or holds a value out of range, an unknown
// element, a folder name used twice or a folder that doesn't exist or can't be opened.
bool LoadConfig(const std::wstring& file, Config* config, std::string* error);

enum class Command { kFind, kStop };

// A request that parsed: for kFind, the folder, the path below it and the term.
struct Request {
  Command command = Command::kFind;
  unsigned long flags = 0;               // 1 ignores case (ASCII), 2 takes whole words only.
  const Folder* folder = nullptr;
  std::vector<std::wstring> components;  // Below the folder's root; empty for the folder itself.
  std::string path;                      // As the request wrote it; rows begin with it.
  std::string term;
};

// Parses one request frame. Null on success, else the reason of the "ERR" reply: "malformed
// request", "unknown folder" or "path refused". Only the text is looked at; no file is touched.
const char* ParseRequest(const std::string& text, const std::vector<Folder>& folders,
                         Request* request);

// Runs FIND requests for one worker thread, reusing one buffer and one query across requests and
// files, so that a worker allocates only when a file is larger than any before.
class Searcher {
 public:
  // Receives the reply frames gathered so far; false when the connection is gone, which ends the
  // request.
  using Flush = std::function<bool(const std::string& frames)>;

  // Searches the file or folder of `request` and appends to `frames` one row frame
  // "PATH:LINE:TEXT" for each line that holds an occurrence, then the terminal frame: "END n"
  // (n rows), or "ERR not found" / "ERR path refused" (a reparse point on the way, or a file or
  // folder whose final path lies outside the folder's) / "ERR unreadable" (a file that can't be
  // read or is larger than kMaxFileBytes). In a folder, files come in ordinal order of their
  // names, subfolders are walked where their names fall, and files that can't be read, files
  // above the limit, reparse points and whatever leads outside are left out. `frames` is handed
  // to `flush` and emptied whenever it holds kFlushBytes or more. `stopping` ends a folder walk
  // early, between two files.
  void Find(const Request& request, std::string& frames, const Flush& flush,
            const std::atomic<bool>& stopping);

 private:
  struct Walk;
  enum class Outcome { kSearched, kUnreadable, kOutside };
  Outcome SearchFile(const std::wstring& file, long long size, const std::string& path,
                     Walk& walk);
  Outcome SearchFolder(const std::wstring& folder, const std::string& path, Walk& walk);
  bool IsInside(HANDLE handle, const std::wstring& final_root);

  KVT::CBuffer<char> buffer_;
  KVT::CSearchQuery<char> query_;
  std::wstring final_path_;  // Reused for each file's final path.
};

// Runs the service until a STOP request, Ctrl+C or a failure to listen. 0 after a stop, 1 if it
// could not listen or start its threads.
int RunServer(const Config& config);

}  // namespace search_server

#endif  // TERNCORELIB_EXAMPLES_SEARCH_SERVER_SEARCH_SERVER_H_
