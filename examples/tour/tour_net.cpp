// Talking over TCP: the road of one message. A CServerSocket accepts on its thread, a
// CClientSocket over the accepted handle receives on another and hands each chunk to a
// CLengthMsgReceiver, which frames it and hands the message on; the main thread answers it.
#include "examples/tour/tour.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "TernCoreLib.h"
#include "examples/common/owners.h"

namespace {

constexpr DWORD kPatienceMs = 5000;  // Nothing in this tour should take nearly that long.

// The receiving side of the connection: the library's framing by a 4-byte little-endian length,
// with a word at each step.
class Messages : public KVT::CLengthMsgReceiver {
 public:
  Messages() : CLengthMsgReceiver(1024), arrived_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

  bool IsStopping() override { return false; }
  bool OnReceive(KVT::CClientSocket* socket, void* data, int length) override {
    std::printf("  4. OnReceive: a chunk of %d bytes in the socket's buffer\n", length);
    const bool more = CLengthMsgReceiver::OnReceive(socket, data, length);
    if (current != nullptr && current->GetPacketSize() < 0) {
      std::printf("  5. AddMessage: %d bytes so far, the header is not complete\n",
                  current->GetRecvSize());
    }
    return more;
  }

  bool WaitForMessage() { return ::WaitForSingleObject(arrived_.get(), kPatienceMs) == 0; }
  std::string text;  // The message, once arrived.

 protected:
  bool OnMessage(KVT::CClientSocket*, char* message, int length) override {
    std::printf("  5. AddMessage: the header says %d bytes, and they are all here\n", length);
    text.assign(message, static_cast<size_t>(length));
    std::printf("  6. OnMessage: \"%s\", popped from the queue on the receive thread (the\n"
                "     message object waits for reuse)\n", text.c_str());
    ::SetEvent(arrived_.get());
    return true;
  }

 private:
  tern_example::Handle arrived_;
};

// The server side: the listener, and the receiver of the one connection.
class Server : public KVT::ISOListener {
 public:
  explicit Server(unsigned short port)
      : port_(port), listening_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  ~Server() {
    if (connection_ != nullptr) {
      connection_->Shutdown();
      connection_->WaitForThreadExit(static_cast<int>(kPatienceMs));
    }
  }

  // ISOListener, on the listening thread. The port is a free one that the system picked: the
  // tour says that it is the one asked for rather than print it, so that its output stays the
  // same from run to run.
  bool IsStopping() override { return stop_; }
  bool OnListening(wchar_t const*, wchar_t const* ipAddress, unsigned short port) override {
    std::printf("  2. OnListening: bound and listening on %ls, on the port asked for: %s\n",
                ipAddress, port == port_ ? "yes" : "no");
    ::SetEvent(listening_.get());
    return true;
  }
  bool OnAccept(KVT::CServerSocket*, unsigned int accepted) override {
    std::printf("  3. OnAccept: a connection, with SO_DONTLINGER set; the handle is ours now\n");
    connection_ = std::make_unique<KVT::CClientSocket>(&messages, accepted, 0);
    std::printf("     CClientSocket over it (peer %ls) starts its receive thread\n",
                connection_->GetIPAddress());
    if (connection_->Receive(0) == nullptr) std::printf("     ...which failed\n");
    return true;
  }
  bool OnError(KVT::CServerSocket*, int error) override {
    std::printf("  OnError: %ls\n", KVT::CSocketUtil::PrintSocketError(error));
    ::SetEvent(listening_.get());
    return true;
  }

  void Stop() { stop_ = true; }
  bool WaitForListening() {
    return ::WaitForSingleObject(listening_.get(), kPatienceMs) == 0;
  }
  KVT::CClientSocket* connection() { return connection_.get(); }

  Messages messages;

 private:
  unsigned short port_;
  volatile bool stop_ = false;
  tern_example::Handle listening_;
  std::unique_ptr<KVT::CClientSocket> connection_;
};

std::string FrameOf(const std::string& text) {
  std::string frame(KVT::CLengthMsg::HeaderSize, '\0');
  KVT::CLengthMsg::WriteHeader(&frame[0], static_cast<unsigned int>(text.size()));
  return frame + text;
}

// A loopback port that was free a moment ago.
unsigned short FreePort() {
  tern_example::Socket probe(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  int length = sizeof(address);
  if (::bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 0;
  }
  return ::ntohs(address.sin_port);
}

bool RunRoad() {
  const unsigned short port = FreePort();
  KVT::TSOSocketInfo info = {};
  info.family = AF_INET;
  info.protocol = static_cast<IPPROTO>(IPPROTO_TCP);
  info.type = SOCK_STREAM;
  std::wcscpy(info.host, L"127.0.0.1");
  info.port = port;

  Server side(port);
  KVT::CServerSocket server(&side, 0, &info);
  std::printf("  1. CServerSocket::Listen starts the listening thread\n");
  bool ok = server.Listen(0) == 1 && side.WaitForListening();

  // The client: plain Windows Sockets, as the library has no connect of its own.
  tern_example::Socket client(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  ok = ok && ::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  const std::string frame = FrameOf("Hello, TernCoreLib");
  // In two pieces, so that the header arrives in two chunks (the pause lets them part).
  ok = ok && ::send(client.get(), frame.data(), 2, 0) == 2;
  ::Sleep(50);
  ok = ok && ::send(client.get(), frame.data() + 2, static_cast<int>(frame.size() - 2), 0) ==
                 static_cast<int>(frame.size() - 2);
  ok = ok && side.messages.WaitForMessage() && side.messages.text == "Hello, TernCoreLib";

  const std::string answer = FrameOf("Hello yourself");
  ok = ok && side.connection() != nullptr &&
       side.connection()->Send(answer.data(), static_cast<int>(answer.size())) ==
           static_cast<int>(answer.size());
  std::printf("  7. Send: the answer goes out on the caller's thread\n");
  char got[64] = {};
  DWORD timeout = kPatienceMs;
  ::setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char*>(&timeout),
               sizeof(timeout));
  int received = 0;
  while (received < static_cast<int>(answer.size())) {
    const int more = ::recv(client.get(), got + received, sizeof(got) - received, 0);
    if (more <= 0) break;
    received += more;
  }
  std::printf("     the client reads %d bytes: \"%.*s\"\n", received,
              received > 4 ? received - 4 : 0, got + 4);
  ok = ok && received == static_cast<int>(answer.size());

  // The end, in the order the socket classes want: stop, shut down, wait, destroy.
  side.Stop();
  server.Shutdown();
  server.WaitForThreadExit(static_cast<int>(kPatienceMs));
  std::printf("     stopped: the listening thread has ended\n");
  return ok;
}

}  // namespace

bool TourNet() {
  TourHeading("TCP: the road of one message");
  WSADATA wsa;
  // The application starts Windows Sockets; the library never does.
  if (::WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return false;
  const bool ok = RunRoad();
  ::WSACleanup();
  return ok;
}
