// An echo server on TernCoreLib's sockets. Messages are framed with a 4-byte little-endian
// length (CLengthMsgReceiver); the server answers each one with a frame that holds "echo: " and
// the message. A message "quit" ends the server. Any TCP client can drive it; see the README.
//
//   tern_echo_server.exe [port]      (default 5555; listens on 127.0.0.1)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "examples/common/length_frame.h"

namespace {

constexpr int kMaxMessage = 1 << 20;  // Larger lengths are refused: the connection ends.
constexpr DWORD kPatienceMs = 5000;

HANDLE g_quit = nullptr;  // Set by "quit" or Ctrl+C.

// One connection: the client socket over the accepted handle, whose stream the session frames.
// Everything happens on the receive thread.
class Session : public KVT::CLengthMsgReceiver {
 public:
  Session(unsigned int accepted, int number)
      : CLengthMsgReceiver(kMaxMessage), socket_(this, accepted, 0), number_(number) {}
  ~Session() {
    stop_ = true;
    socket_.Shutdown();
    socket_.WaitForThreadExit(static_cast<int>(kPatienceMs));
  }
  bool Start() { return socket_.Receive(0) != nullptr; }

  bool IsStopping() override { return stop_; }

 protected:
  bool OnMessage(KVT::CClientSocket* socket, char* message, int length) override {
    const std::string text(message, static_cast<std::size_t>(length));
    std::printf("[%d] got %d bytes: %.60s\n", number_, length, text.c_str());
    std::string answer;
    tern_example::AppendFrame(answer, "echo: " + text);
    if (!tern_example::SendAll(*socket, answer)) return false;
    if (text == "quit") ::SetEvent(g_quit);
    return true;
  }
  // The receiver shuts the connection after this, so that the client sees the end of the stream.
  void OnRefused(KVT::CClientSocket* socket) override {
    std::printf("[%d] a header declares more than %d bytes: closing\n", number_, kMaxMessage);
    CLengthMsgReceiver::OnRefused(socket);
  }

 private:
  volatile bool stop_ = false;
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
