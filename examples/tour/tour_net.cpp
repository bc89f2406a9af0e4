// Talking over TCP: the road of one message. A CServerSocket accepts on its thread, a
// CClientSocket over the accepted handle receives on another, OnReceive feeds a
// CSocketMsgReceiver, and the main thread pops the message and answers it.
#include "examples/tour/tour.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "TernCoreLib.h"
#include "foundation/scoped_handle.h"
#include "net/scoped_socket.h"

namespace {

constexpr DWORD kPatienceMs = 5000;  // Nothing in this tour should take nearly that long.

// The wire format: a 4-byte little-endian length, then the message.
class LengthMsg : public KVT::CSocketMsg {
 public:
  int Process(void*) override { return 0; }

 protected:
  int ParseHeader(int* msgLength, int* headerSize, int* trailerSize) override {
    if (GetRecvSize() < 4) {
      std::printf("  5. ParseHeader: %d bytes so far, the header is not complete\n",
                  GetRecvSize());
      return 0;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(GetPacket());
    const int length = bytes[0] | bytes[1] << 8 | bytes[2] << 16 | (bytes[3] & 0x7F) << 24;
    *msgLength = length;
    *headerSize = 4;
    *trailerSize = 0;
    std::printf("  5. ParseHeader: header 4 bytes, message %d bytes, no trailer\n", length);
    return 0;
  }
};

class Messages : public KVT::CSocketMsgReceiver {
 public:
  using CSocketMsgReceiver::LockQueue;
  using CSocketMsgReceiver::Pop;
  using CSocketMsgReceiver::UnlockQueue;

 protected:
  KVT::CSocketMsg* CreateMessage() override {
    std::printf("     CreateMessage: a new message object\n");
    message_ = std::make_unique<LengthMsg>();
    return message_.get();
  }

 private:
  std::unique_ptr<LengthMsg> message_;  // One is enough for this tour.
};

// The server side: the listener, and the receiver of the one connection.
class Server : public KVT::ISOListener, public KVT::ISOReceiver {
 public:
  explicit Server(unsigned short port)
      : port_(port),
        listening_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
        arrived_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
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
    ::SetEvent(listening_.Get());
    return true;
  }
  bool OnAccept(KVT::CServerSocket*, unsigned int accepted) override {
    std::printf("  3. OnAccept: a connection, with SO_DONTLINGER set; the handle is ours now\n");
    connection_ = std::make_unique<KVT::CClientSocket>(this, accepted, 0);
    std::printf("     CClientSocket over it (peer %ls) starts its receive thread\n",
                connection_->GetIPAddress());
    if (connection_->Receive(0) == nullptr) std::printf("     ...which failed\n");
    return true;
  }
  bool OnError(KVT::CServerSocket*, int error) override {
    std::printf("  OnError: %ls\n", KVT::CSocketUtil::PrintSocketError(error));
    ::SetEvent(listening_.Get());
    ::SetEvent(arrived_.Get());
    return true;
  }

  // ISOReceiver, on the receive thread.
  bool OnReceive(KVT::CClientSocket*, void* data, int length) override {
    std::printf("  4. OnReceive: a chunk of %d bytes in the socket's buffer\n", length);
    const bool pushed = messages.AddMessage(data, length);
    if (pushed) {
      std::printf("  6. AddMessage: the packet is complete and queued (%d ready)\n",
                  messages.GetQueueSize());
      ::SetEvent(arrived_.Get());
    }
    return true;
  }

  void Stop() { stop_ = true; }
  bool WaitForListening() {
    return ::WaitForSingleObject(listening_.Get(), kPatienceMs) == 0;
  }
  bool WaitForMessage() { return ::WaitForSingleObject(arrived_.Get(), kPatienceMs) == 0; }
  KVT::CClientSocket* connection() { return connection_.get(); }

  Messages messages;

 private:
  unsigned short port_;
  volatile bool stop_ = false;
  KVT::ScopedHandle listening_;
  KVT::ScopedHandle arrived_;
  std::unique_ptr<KVT::CClientSocket> connection_;
};

std::string FrameOf(const std::string& text) {
  std::string frame(4, '\0');
  for (int i = 0; i < 4; ++i) frame[i] = static_cast<char>(text.size() >> (8 * i));
  return frame + text;
}

// A loopback port that was free a moment ago.
unsigned short FreePort() {
  KVT::ScopedSocket probe(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  int length = sizeof(address);
  if (::bind(probe.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::getsockname(probe.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
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
  KVT::ScopedSocket client(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  ok = ok && ::connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  const std::string frame = FrameOf("Hello, TernCoreLib");
  // In two pieces, so that the header arrives in two chunks (the pause lets them part).
  ok = ok && ::send(client.Get(), frame.data(), 2, 0) == 2;
  ::Sleep(50);
  ok = ok && ::send(client.Get(), frame.data() + 2, static_cast<int>(frame.size() - 2), 0) ==
                 static_cast<int>(frame.size() - 2);
  ok = ok && side.WaitForMessage();

  // The consumer: holding the queue lock while reading, so that the message can't be reused.
  side.messages.LockQueue();
  KVT::CSocketMsg* message = side.messages.Pop();
  std::string text;
  if (message != nullptr && message->GetMsg() != nullptr) {
    text.assign(message->GetMsg(), static_cast<size_t>(message->GetMsgLength()));
    std::printf("     Pop: \"%s\" (packet %d bytes; the message object waits for reuse)\n",
                text.c_str(), message->GetPacketSize());
  }
  side.messages.UnlockQueue();
  ok = ok && text == "Hello, TernCoreLib";

  const std::string answer = FrameOf("Hello yourself");
  ok = ok && side.connection() != nullptr &&
       side.connection()->Send(answer.data(), static_cast<int>(answer.size())) ==
           static_cast<int>(answer.size());
  std::printf("  7. Send: the answer goes out on the caller's thread\n");
  char got[64] = {};
  DWORD timeout = kPatienceMs;
  ::setsockopt(client.Get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char*>(&timeout),
               sizeof(timeout));
  int received = 0;
  while (received < static_cast<int>(answer.size())) {
    const int more = ::recv(client.Get(), got + received, sizeof(got) - received, 0);
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
