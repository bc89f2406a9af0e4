// An echo server on TernCoreLib's sockets. Messages are framed with a 4-byte little-endian
// length; the server answers each one with a frame that holds "echo: " and the message. A
// message "quit" ends the server. Any TCP client can drive it; see the README.
//
//   tern_echo_server.exe [port]      (default 5555; listens on 127.0.0.1)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TernCoreLib.h"

namespace {

constexpr int kMaxMessage = 1 << 20;  // Larger lengths are refused: the connection ends.
constexpr DWORD kPatienceMs = 5000;

// One message of the wire format: 4 bytes of length, then the message.
class LengthMsg : public KVT::CSocketMsg {
 public:
  bool refused = false;
  int Process(void*) override { return 0; }

 protected:
  int ParseHeader(int* msgLength, int* headerSize, int* trailerSize) override {
    refused = false;
    if (GetRecvSize() < 4) return 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(GetPacket());
    const std::uint32_t length = bytes[0] | bytes[1] << 8 | bytes[2] << 16 |
                                 static_cast<std::uint32_t>(bytes[3]) << 24;
    if (length > kMaxMessage) {
      refused = true;
      return INT32_MAX;  // Takes everything, completes nothing: the session ends it.
    }
    *msgLength = static_cast<int>(length);
    *headerSize = 4;
    *trailerSize = 0;
    return 0;
  }
};

class Messages : public KVT::CSocketMsgReceiver {
 public:
  using CSocketMsgReceiver::Pop;
  bool Refused() { return current != nullptr && static_cast<LengthMsg*>(current)->refused; }

 protected:
  KVT::CSocketMsg* CreateMessage() override {
    owned_.push_back(std::make_unique<LengthMsg>());
    return owned_.back().get();
  }

 private:
  std::vector<std::unique_ptr<LengthMsg>> owned_;
};

std::string FrameOf(const std::string& text) {
  const auto length = static_cast<std::uint32_t>(text.size());
  std::string frame(4, '\0');
  for (int i = 0; i < 4; ++i) frame[i] = static_cast<char>(length >> (8 * i));
  return frame + text;
}

HANDLE g_quit = nullptr;  // Set by "quit" or Ctrl+C.

// One connection: the client socket over the accepted handle and its messages. Everything
// happens on the receive thread, so popped messages can't be reused under our feet.
class Session : public KVT::ISOReceiver {
 public:
  Session(unsigned int accepted, int number) : socket_(this, accepted, 0), number_(number) {}
  ~Session() {
    stop_ = true;
    socket_.Shutdown();
    socket_.WaitForThreadExit(static_cast<int>(kPatienceMs));
  }
  bool Start() { return socket_.Receive(0) != nullptr; }

  bool IsStopping() override { return stop_; }
  bool OnReceive(KVT::CClientSocket* socket, void* data, int length) override {
    messages_.AddMessage(data, length);
    if (messages_.Refused()) {
      std::printf("[%d] a header declares more than %d bytes: closing\n", number_, kMaxMessage);
      // Ending the loop alone would leave the connection open; Shutdown closes it, so the client
      // sees the end of the stream at once.
      socket->Shutdown();
      return false;
    }
    while (KVT::CSocketMsg* message = messages_.Pop()) {
      const std::string text(message->GetMsg() ? message->GetMsg() : "",
                             static_cast<size_t>(message->GetMsgLength()));
      std::printf("[%d] got %d bytes: %.60s\n", number_, message->GetMsgLength(), text.c_str());
      const std::string answer = FrameOf("echo: " + text);
      // One send may take less than all: go on until it has all gone.
      for (size_t at = 0; at < answer.size();) {
        const int sent = socket->Send(answer.data() + at, static_cast<int>(answer.size() - at));
        if (sent <= 0) return false;
        at += static_cast<size_t>(sent);
      }
      if (text == "quit") ::SetEvent(g_quit);
    }
    return true;
  }

 private:
  volatile bool stop_ = false;
  Messages messages_;
  KVT::CClientSocket socket_;
  int number_;
};

class Listener : public KVT::ISOListener {
 public:
  volatile bool stop = false;

  bool IsStopping() override { return stop; }
  bool OnAccept(KVT::CServerSocket*, unsigned int accepted) override {
    std::lock_guard<std::mutex> hold(mutex_);
    sessions_.push_back(std::make_unique<Session>(accepted, static_cast<int>(sessions_.size())));
    std::printf("[%d] connected\n", static_cast<int>(sessions_.size()) - 1);
    if (!sessions_.back()->Start()) std::printf("could not start a receive thread\n");
    return true;
  }
  bool OnListening(wchar_t const* host, wchar_t const* ipAddress, unsigned short port) override {
    std::printf("listening on %ls (%ls) port %u\n", ipAddress, host, port);
    std::fflush(stdout);
    return true;
  }
  bool OnError(KVT::CServerSocket*, int error) override {
    std::printf("listening failed: %d %ls\n", error, KVT::CSocketUtil::PrintSocketError(error));
    ::SetEvent(g_quit);
    return true;
  }
  void EndSessions() {
    std::lock_guard<std::mutex> hold(mutex_);
    sessions_.clear();
  }

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<Session>> sessions_;
};

BOOL WINAPI OnConsoleEvent(DWORD) {
  ::SetEvent(g_quit);
  return TRUE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("tern_echo_server %s\n", TERN_VERSION);
    return 0;
  }
  const int port = argc > 1 ? std::atoi(argv[1]) : 5555;
  WSADATA wsa;
  if (::WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 1;
  g_quit = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  std::setvbuf(stdout, nullptr, _IONBF, 0);

  KVT::TSOSocketInfo info = {};
  info.family = AF_INET;
  info.protocol = static_cast<IPPROTO>(IPPROTO_TCP);
  info.type = SOCK_STREAM;
  std::wcscpy(info.host, L"127.0.0.1");
  info.port = static_cast<unsigned short>(port);
  Listener listener;
  int status = 0;
  {
    KVT::CServerSocket server(&listener, 0, &info);
    if (server.Listen(0) == 1) {
      ::WaitForSingleObject(g_quit, INFINITE);
    } else {
      status = 1;
    }
    // The order the socket classes want: stop, shut down, wait, destroy.
    listener.stop = true;
    server.Shutdown();
    server.WaitForThreadExit(static_cast<int>(kPatienceMs));
    DWORD code = 0;
    ::GetExitCodeThread(server.GetThread(), &code);
    if (code == 0) status = 1;  // Never came to listen.
    listener.EndSessions();
  }
  std::printf("bye\n");
  ::CloseHandle(g_quit);
  ::WSACleanup();
  return status;
}
