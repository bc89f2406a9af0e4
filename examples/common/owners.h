#ifndef TERNCORELIB_EXAMPLES_COMMON_OWNERS_H_
#define TERNCORELIB_EXAMPLES_COMMON_OWNERS_H_

// Owners of what the examples open from Windows itself, so that every way out of a function
// closes it: kernel handles (files, events, threads), directory searches and sockets.

#include <memory>

#include "TernCoreLib.h"

namespace tern_example {

// A kernel handle, closed when the owner goes. CreateFileW reports failure with
// INVALID_HANDLE_VALUE, most other calls with null; IsOpen counts neither as a handle.
struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const {
    if (handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle);
  }
};
using Handle = std::unique_ptr<void, HandleCloser>;

inline bool IsOpen(const Handle& handle) {
  return handle != nullptr && handle.get() != INVALID_HANDLE_VALUE;
}

// A directory search of FindFirstFileW or FindFirstFileExW, ended with FindClose (not
// CloseHandle) when the owner goes. Those calls report failure with INVALID_HANDLE_VALUE only.
struct FindCloser {
  using pointer = HANDLE;
  void operator()(HANDLE find) const {
    if (find != INVALID_HANDLE_VALUE) ::FindClose(find);
  }
};
using Find = std::unique_ptr<void, FindCloser>;

// A socket, closed (closesocket, no shutdown) when the owner goes.
class Socket {
 public:
  explicit Socket(SOCKET socket) : socket_(socket) {}
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() {
    if (socket_ != INVALID_SOCKET) ::closesocket(socket_);
  }
  SOCKET get() const { return socket_; }

 private:
  SOCKET socket_;
};

}  // namespace tern_example

#endif  // TERNCORELIB_EXAMPLES_COMMON_OWNERS_H_
