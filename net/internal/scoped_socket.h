#ifndef TERNCORELIB_NET_INTERNAL_SCOPED_SOCKET_H_
#define TERNCORELIB_NET_INTERNAL_SCOPED_SOCKET_H_

// Sole owners of a socket and of a getaddrinfo result, for use inside functions of the library,
// its tests and its examples.

#include "net/winsock.h"

namespace KVT {
namespace internal {

// Closes its socket (closesocket, no shutdown) when it goes. Holds the platform's SOCKET, so that
// INVALID_SOCKET stays recognisable on 64-bit; 0 and INVALID_SOCKET both mean "none".
class ScopedSocket {
 public:
  ScopedSocket() = default;
  explicit ScopedSocket(SOCKET socket) : socket_(socket) {}
  ScopedSocket(const ScopedSocket&) = delete;
  ScopedSocket& operator=(const ScopedSocket&) = delete;
  ScopedSocket(ScopedSocket&& other) noexcept : socket_(other.Take()) {}
  ScopedSocket& operator=(ScopedSocket&& other) noexcept {
    if (this != &other) Reset(other.Take());
    return *this;
  }
  ~ScopedSocket() { Close(); }

  bool IsValid() const { return socket_ != 0 && socket_ != INVALID_SOCKET; }
  SOCKET Get() const { return socket_; }
  // Gives up ownership without closing.
  SOCKET Take() {
    SOCKET socket = socket_;
    socket_ = 0;
    return socket;
  }
  void Reset(SOCKET socket) {
    Close();
    socket_ = socket;
  }
  void Close() {
    if (IsValid()) ::closesocket(socket_);
    socket_ = 0;
  }

 private:
  SOCKET socket_ = 0;
};

// Releases a getaddrinfo result with freeaddrinfo when it goes. Hand it a result only once the
// lookup has succeeded: what a failed lookup leaves in its output is not to be released.
class ScopedAddrInfo {
 public:
  explicit ScopedAddrInfo(addrinfo* info) : info_(info) {}
  ScopedAddrInfo(const ScopedAddrInfo&) = delete;
  ScopedAddrInfo& operator=(const ScopedAddrInfo&) = delete;
  ~ScopedAddrInfo() {
    if (info_ != nullptr) ::freeaddrinfo(info_);
  }

  const addrinfo* Get() const { return info_; }

 private:
  addrinfo* info_ = nullptr;
};

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_NET_INTERNAL_SCOPED_SOCKET_H_
