#ifndef TERNCORELIB_NET_LOOPBACK_TEST_SUPPORT_H_
#define TERNCORELIB_NET_LOOPBACK_TEST_SUPPORT_H_

// Sockets on 127.0.0.1 for the tests of the socket classes: free ports, connected pairs, and
// receivers and listeners that record what the loops tell them. Every wait is bounded by
// kPatience.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/internal/scoped_handle.h"
#include "foundation/string_util.h"
#include "net/client_socket.h"
#include "net/internal/scoped_socket.h"
#include "net/server_socket.h"
#include "sync/test_thread.h"

namespace tern_test {

inline sockaddr_in LoopbackAddress(unsigned short port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  return address;
}

// A socket bound to a loopback port the system picks, listening if `backlog` > 0; the port goes
// to `port`. None on failure.
inline KVT::internal::ScopedSocket BoundToFreePort(unsigned short& port, int backlog = 0) {
  KVT::internal::ScopedSocket bound(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = LoopbackAddress(0);
  int length = sizeof(address);
  auto* name = reinterpret_cast<sockaddr*>(&address);
  if (!bound.IsValid() || ::bind(bound.Get(), name, length) != 0 ||
      (backlog > 0 && ::listen(bound.Get(), backlog) != 0) ||
      ::getsockname(bound.Get(), name, &length) != 0) {
    return KVT::internal::ScopedSocket();
  }
  port = ::ntohs(address.sin_port);
  return bound;
}

// A connected client socket to 127.0.0.1:port, or none.
inline KVT::internal::ScopedSocket Connect(unsigned short port) {
  KVT::internal::ScopedSocket client(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = LoopbackAddress(port);
  if (!client.IsValid() ||
      ::connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    return KVT::internal::ScopedSocket();
  }
  return client;
}

// Both ends of one loopback connection, made with plain Windows Sockets: the connecting side
// and the accepted side.
struct SocketPair {
  KVT::internal::ScopedSocket near_end;
  KVT::internal::ScopedSocket far_end;
  bool IsValid() const { return near_end.IsValid() && far_end.IsValid(); }
};

inline SocketPair ConnectedPair() {
  SocketPair pair;
  unsigned short port = 0;
  KVT::internal::ScopedSocket listening = BoundToFreePort(port, 1);
  if (listening.IsValid()) pair.near_end = Connect(port);
  // The connection is queued already, so this accept doesn't wait.
  if (pair.near_end.IsValid()) pair.far_end.Reset(::accept(listening.Get(), nullptr, nullptr));
  return pair;
}

// A handle that is open but no socket, as the socket classes' number type.
inline unsigned int HandleNumber(const KVT::internal::ScopedHandle& handle) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(handle.Get()));
}

// Sends all of `bytes`; false if the connection failed.
inline bool SendAll(SOCKET socket, const std::string& bytes) {
  for (size_t at = 0; at < bytes.size();) {
    const int sent = ::send(socket, bytes.data() + at, static_cast<int>(bytes.size() - at), 0);
    if (sent <= 0) return false;
    at += static_cast<size_t>(sent);
  }
  return true;
}

// Waits for `thread` to end; its exit code, or -1 if it didn't end in time.
inline long ExitCodeAfterWait(void* thread) {
  DWORD code = 0;
  const bool ended = thread != nullptr && ::WaitForSingleObject(thread, kPatience) == WAIT_OBJECT_0;
  return ended && ::GetExitCodeThread(thread, &code) ? static_cast<long>(code) : -1;
}

// Polls `done` until it holds or kPatience has passed.
inline bool WaitUntil(const std::function<bool()>& done) {
  for (const DWORD deadline = ::GetTickCount() + kPatience; !done(); ::Sleep(5)) {
    if (static_cast<LONG>(deadline - ::GetTickCount()) <= 0) return false;
  }
  return true;
}

// An ISOReceiver that keeps every chunk. `stop` makes IsStopping answer true; `on_receive`, if
// set, decides what OnReceive answers (after the chunk is kept).
class RecordingReceiver : public KVT::ISOReceiver {
 public:
  bool IsStopping() override { return stop.load(); }
  bool OnReceive(KVT::CClientSocket* socket, void* data, int length) override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      bytes_.append(static_cast<char*>(data), static_cast<size_t>(length));
      ++calls_;
    }
    return on_receive ? on_receive(socket) : true;
  }
  bool WaitForBytes(size_t count) { return WaitUntil([&] { return Bytes().size() >= count; }); }
  std::string Bytes() {
    std::lock_guard<std::mutex> hold(mutex_);
    return bytes_;
  }
  int Calls() {
    std::lock_guard<std::mutex> hold(mutex_);
    return calls_;
  }

  std::atomic<bool> stop{false};
  std::function<bool(KVT::CClientSocket*)> on_receive;

 private:
  std::mutex mutex_;
  std::string bytes_;
  int calls_ = 0;
};

// An ISOListener that records the events of an accept loop. IsStopping answers true from its
// `stop_from`-th call on (0: never), or once `stop` is set. Accepted handles are closed unless
// `on_accept` takes them. OnListening and OnError wait until the gate is open, so that a loop
// that ends at once is still running when Listen looks at it (a loop seen ended would raise
// Listen's message box): open it once Listen has returned. The recorded texts, port and errors
// are read after the loop has ended or once `listenings` counts.
class RecordingListener : public KVT::ISOListener {
 public:
  bool IsStopping() override { return stop.load() || (stop_from > 0 && ++stop_calls >= stop_from); }
  bool OnAccept(KVT::CServerSocket*, unsigned int accepted) override {
    ++accepts;
    on_accept ? on_accept(accepted) : void(::closesocket(accepted));
    return true;
  }
  bool OnListening(wchar_t const*, wchar_t const* ip_address, unsigned short port) override {
    ::WaitForSingleObject(gate.Get(), kPatience);
    listening_address = ip_address;
    listening_port = port;
    ++listenings;
    return true;
  }
  bool OnError(KVT::CServerSocket*, int error) override {
    ::WaitForSingleObject(gate.Get(), kPatience);
    errors.push_back(error);
    return true;
  }
  void OpenGate() { ::SetEvent(gate.Get()); }

  std::atomic<bool> stop{false};
  int stop_from = 0;
  std::atomic<int> stop_calls{0}, accepts{0}, listenings{0};
  std::function<void(unsigned int)> on_accept;
  std::vector<int> errors;
  std::wstring listening_address;
  unsigned short listening_port = 0xFFFF;
  KVT::internal::ScopedHandle gate{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

// A TSOSocketInfo for TCP on IPv4.
inline KVT::TSOSocketInfo TcpInfo(const wchar_t* host, unsigned short port) {
  KVT::TSOSocketInfo info = {};
  info.family = AF_INET;
  info.protocol = static_cast<IPPROTO>(IPPROTO_TCP);
  info.type = SOCK_STREAM;
  KVT::StrSafeCopy(info.host, host, 1024);
  info.port = port;
  return info;
}

// A CServerSocket with its fields in view.
class TestServer : public KVT::CServerSocket {
 public:
  using CServerSocket::CServerSocket;
  unsigned int socket_handle() const { return socket; }
  int listen_argument() const { return listenArgument; }
};

// A server listening on a free loopback port, found by a probe and retried while someone else
// takes it first (the loop then reports WSAEADDRINUSE and ends). Stopped, shut down and awaited
// when it goes, in the order the class wants.
class LoopbackServer {
 public:
  explicit LoopbackServer(RecordingListener& listener) : listener_(listener) {
    for (int attempt = 0; attempt < 10 && server_ == nullptr; ++attempt) {
      BoundToFreePort(port_);  // Closed again at once: the port was free a moment ago.
      KVT::TSOSocketInfo info = TcpInfo(L"127.0.0.1", port_);
      auto server = std::make_unique<TestServer>(&listener_, 0, &info);
      ::ResetEvent(listener_.gate.Get());
      const int started = server->Listen(0);
      listener_.OpenGate();
      if (started != 1) continue;
      const bool settled = WaitUntil([&] {
        return listener_.listenings.load() > 0 ||
               ::WaitForSingleObject(server->GetThread(), 0) == WAIT_OBJECT_0;
      });
      if (settled && listener_.listenings.load() > 0) {
        server_ = std::move(server);
      } else {
        server->WaitForThreadExit(static_cast<int>(kPatience));
        listener_.errors.clear();
      }
    }
  }
  ~LoopbackServer() {
    if (server_ == nullptr) return;
    listener_.stop = true;
    server_->Shutdown();
    server_->WaitForThreadExit(static_cast<int>(kPatience));
  }

  bool IsListening() const { return server_ != nullptr; }
  unsigned short port() const { return port_; }
  TestServer& server() { return *server_; }

 private:
  RecordingListener& listener_;
  std::unique_ptr<TestServer> server_;
  unsigned short port_ = 0;
};

}  // namespace tern_test

#endif  // TERNCORELIB_NET_LOOPBACK_TEST_SUPPORT_H_
