// The socket threads: the client socket's receive loop and the server socket's accept loop.
#include "net/client_socket.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "net/loopback_test_support.h"
#include "net/server_socket.h"

namespace {

using KVT::CClientSocket;
using tern_test::Connect;
using tern_test::ExitCodeAfterWait;
using tern_test::LoopbackServer;
using tern_test::RecordingListener;
using tern_test::RecordingReceiver;
using tern_test::SendAll;
using tern_test::TcpInfo;
using tern_test::TestServer;

// Closes with a reset instead of the orderly close: linger on, with a time of 0.
void ResetConnection(KVT::internal::ScopedSocket& socket) {
  linger hard = {1, 0};
  ::setsockopt(socket.Get(), SOL_SOCKET, SO_LINGER, reinterpret_cast<char*>(&hard), sizeof(hard));
  socket.Close();
}

// A client socket over the far end of a fresh pair, which it takes; the test keeps the near end.
// Shut down and awaited when it goes, so that no thread outlives the test.
struct Client {
  explicit Client(RecordingReceiver* receiver, int buffer_size = 0)
      : pair(tern_test::ConnectedPair()),
        socket(receiver, static_cast<unsigned int>(pair.far_end.Take()), buffer_size) {}
  ~Client() {
    socket.Shutdown();
    socket.WaitForThreadExit(static_cast<int>(tern_test::kPatience));
  }
  bool Send(const std::string& bytes) { return SendAll(pair.near_end.Get(), bytes); }
  tern_test::SocketPair pair;
  CClientSocket socket;
};

// The peer closes in order or with a reset (Windows fails recv with WSAECONNRESET, Wine may
// report a close): either way the loop ends with 1, records nothing, and OnReceive isn't called
// for the end.
TEST(CClientSocket, DeliversChunksUntilThePeerClosesOrResets) {
  for (bool reset : {false, true}) {
    SCOPED_TRACE(reset ? "reset" : "close");
    RecordingReceiver receiver;
    Client client(&receiver);
    ASSERT_TRUE(client.pair.near_end.IsValid());
    ASSERT_NE(client.socket.Receive(0), nullptr);
    ASSERT_TRUE(client.Send("first "));
    ASSERT_TRUE(receiver.WaitForBytes(6));
    ASSERT_TRUE(client.Send("second"));
    ASSERT_TRUE(receiver.WaitForBytes(12));
    const int calls = receiver.Calls();
    if (reset) {
      ResetConnection(client.pair.near_end);
    } else {
      client.pair.near_end.Close();
    }
    EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
    EXPECT_EQ(client.socket.GetLastError(), 0u);
    EXPECT_EQ(receiver.Bytes(), "first second");
    EXPECT_EQ(receiver.Calls(), calls);
  }
}

TEST(CClientSocket, ShutdownFromAnotherThreadReleasesABlockingReceive) {
  RecordingReceiver receiver;
  Client client(&receiver);
  ASSERT_NE(client.socket.Receive(0), nullptr);
  ASSERT_TRUE(client.Send("x"));
  ASSERT_TRUE(receiver.WaitForBytes(1));  // The loop is back in recv.
  EXPECT_TRUE(tern_test::OnOtherThread([&] { client.socket.Shutdown(); }));
  EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
  EXPECT_EQ(client.socket.GetLastError(), 0u);
  EXPECT_EQ(receiver.Calls(), 1);
  EXPECT_EQ(client.socket.Send("y", 1), 0);  // No socket any more: 0, not -1.
  EXPECT_EQ(client.socket.GetLastError(), 0u);
}

// The loop ends at its first chunk, with 1 and no error: when the stop test says so (the chunk
// is dropped unseen), without a receiver, and when OnReceive answers false (which also clears
// an error that a failed Send in OnReceive recorded).
TEST(CClientSocket, LoopEndsAtTheFirstChunkWithoutAnError) {
  enum Way { kStopTest, kNoReceiver, kOnReceiveFalse };
  for (Way way : {kStopTest, kNoReceiver, kOnReceiveFalse}) {
    SCOPED_TRACE(way);
    RecordingReceiver receiver;
    receiver.stop = way == kStopTest;
    unsigned long error_after_send = 0;
    receiver.on_receive = [&](CClientSocket* socket) {
      EXPECT_EQ(socket->Send(nullptr, 16), -1);
      error_after_send = socket->GetLastError();
      return false;
    };
    Client client(way == kNoReceiver ? nullptr : &receiver);
    ASSERT_NE(client.socket.Receive(0), nullptr);
    ASSERT_TRUE(client.Send("first chunk"));
    EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
    EXPECT_EQ(client.socket.GetLastError(), 0u);
    EXPECT_EQ(receiver.Calls(), way == kOnReceiveFalse ? 1 : 0);
    EXPECT_EQ(error_after_send, way == kOnReceiveFalse ? WSAEFAULT + 0ul : 0ul);
  }
}

TEST(CClientSocket, NotASocketEndsWithWSAENOTSOCKAndNoSocketNeverReads) {
  RecordingReceiver receiver;
  KVT::internal::ScopedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  CClientSocket socket(&receiver, tern_test::HandleNumber(event), 0);
  ASSERT_NE(socket.Receive(0), nullptr);
  EXPECT_EQ(ExitCodeAfterWait(socket.GetThread()), 1);
  EXPECT_EQ(socket.GetLastError(), static_cast<unsigned long>(WSAENOTSOCK));

  CClientSocket none(&receiver, 0, 0);
  ASSERT_NE(none.Receive(0), nullptr);
  EXPECT_EQ(ExitCodeAfterWait(none.GetThread()), 0);
  EXPECT_EQ(none.Send("x", 1), 0);
  EXPECT_EQ(receiver.Calls(), 0);
}

// The flags reach CreateThread: the thread starts suspended, and ResumeThread finds it so.
TEST(CClientSocket, OneThreadPerObjectAndTheFlagsReachCreateThread) {
  RecordingReceiver receiver;
  Client client(&receiver);
  void* thread = client.socket.Receive(CREATE_SUSPENDED);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(client.socket.GetThread(), thread);
  ASSERT_TRUE(client.Send("waiting"));
  EXPECT_EQ(client.socket.Receive(0), nullptr);
  EXPECT_EQ(::ResumeThread(thread), 1u);
  ASSERT_TRUE(receiver.WaitForBytes(7));
  client.pair.near_end.Close();
  EXPECT_EQ(ExitCodeAfterWait(thread), 1);
  EXPECT_EQ(client.socket.Receive(0), nullptr);  // Also after the end.
}

TEST(CClientSocket, OnReceiveMayGrowTheBuffer) {
  RecordingReceiver receiver;
  int largest = 0;
  receiver.on_receive = [&](CClientSocket* socket) {
    socket->SetBufferSize(64);
    largest = socket->GetBufferSize();
    return true;
  };
  Client client(&receiver, 4);
  ASSERT_NE(client.socket.Receive(0), nullptr);
  const std::string text(200, 'g');
  ASSERT_TRUE(client.Send(text));
  ASSERT_TRUE(receiver.WaitForBytes(text.size()));
  EXPECT_EQ(receiver.Bytes(), text);
  EXPECT_EQ(largest, 64);
}

TEST(CClientSocket, SendGivesThePlatformsCountAndDestructionLeavesTheHandleOpen) {
  tern_test::SocketPair pair = tern_test::ConnectedPair();
  ASSERT_TRUE(pair.IsValid());
  {
    CClientSocket socket(nullptr, static_cast<unsigned int>(pair.far_end.Get()), 0);
    EXPECT_EQ(socket.Send("hello", 5), 5);
  }
  EXPECT_EQ(::send(pair.far_end.Get(), " again", 6, 0), 6);
  char got[11] = {};
  EXPECT_EQ(::recv(pair.near_end.Get(), got, 11, MSG_WAITALL), 11);
  EXPECT_EQ(std::string(got, 11), "hello again");
}

// Whether the peer of `socket` has closed: recv gives 0 or fails (a reset).
bool PeerClosed(const KVT::internal::ScopedSocket& socket) {
  DWORD timeout = tern_test::kPatience;
  ::setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char*>(&timeout),
               sizeof(timeout));
  char byte;
  const int got = ::recv(socket.Get(), &byte, 1, 0);
  return got == 0 || (got == SOCKET_ERROR && ::WSAGetLastError() != WSAETIMEDOUT);
}

TEST(CServerSocket, AcceptsAndHandsOverEachConnectionWithDontLinger) {
  RecordingListener listener;
  int dont_linger = -1;
  listener.on_accept = [&](unsigned int accepted) {
    int length = sizeof(dont_linger);
    ::getsockopt(accepted, SOL_SOCKET, SO_DONTLINGER, reinterpret_cast<char*>(&dont_linger),
                 &length);
    ::closesocket(accepted);
  };
  LoopbackServer server(listener);
  ASSERT_TRUE(server.IsListening());
  EXPECT_EQ(listener.listening_address, L"127.0.0.1");
  EXPECT_EQ(listener.listening_port, server.port());
  EXPECT_EQ(server.server().GetPort(), server.port());
  EXPECT_STREQ(server.server().GetIPAddress(), L"127.0.0.1");
  EXPECT_TRUE(server.server().Pause());
  for (int i = 0; i < 3; ++i) {
    KVT::internal::ScopedSocket client = Connect(server.port());
    ASSERT_TRUE(client.IsValid());
    ASSERT_TRUE(tern_test::WaitUntil([&] { return listener.accepts.load() == i + 1; }));
    EXPECT_TRUE(PeerClosed(client));  // The listener closed its end.
  }
  EXPECT_TRUE(server.server().Resume());
  EXPECT_NE(dont_linger, 0);
  EXPECT_EQ(server.server().GetLastError(), 0u);
  EXPECT_TRUE(listener.errors.empty());
}

TEST(CServerSocket, PortInUseReachesOnErrorAndLeavesNoError) {
  unsigned short port = 0;
  KVT::internal::ScopedSocket holder =
      tern_test::BoundToFreePort(port, 1);  // Someone else listens.
  ASSERT_TRUE(holder.IsValid());
  RecordingListener listener;
  KVT::TSOSocketInfo info = TcpInfo(L"127.0.0.1", port);
  TestServer server(&listener, 0, &info);
  EXPECT_EQ(server.Listen(7), 1);  // OnError holds the thread until it is allowed to end.
  listener.OpenGate();
  EXPECT_EQ(ExitCodeAfterWait(server.GetThread()), 0);
  EXPECT_EQ(listener.errors, std::vector<int>{WSAEADDRINUSE});
  EXPECT_EQ(server.GetLastError(), 0u);
  EXPECT_EQ(listener.listenings.load(), 0);
  EXPECT_EQ(server.listen_argument(), 7);
  // The socket of the failed start stays for Shutdown or destruction.
  EXPECT_NE(server.socket_handle(), 0u);
  server.Shutdown();
  EXPECT_EQ(server.socket_handle(), 0u);
}

TEST(CServerSocket, StopRightAfterListeningAcceptsNothingAndRefusesASecondListen) {
  RecordingListener listener;
  listener.stop_from = 1;
  LoopbackServer server(listener);
  ASSERT_TRUE(server.IsListening());
  EXPECT_EQ(server.server().Listen(6), -1);
  ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
  EXPECT_EQ(server.server().Listen(8), -1);
  EXPECT_EQ(server.server().listen_argument(), 0);  // The first one's.
  EXPECT_NE(server.server().socket_handle(), 0u);
  // The backlog still takes a connection, but nobody accepts it.
  KVT::internal::ScopedSocket client = Connect(server.port());
  EXPECT_TRUE(client.IsValid());
  EXPECT_EQ(listener.accepts.load(), 0);
  server.server().Shutdown();
  EXPECT_EQ(server.server().socket_handle(), 0u);
}

// The stop test after an accept: when it says yes, the new connection is closed unseen, and so
// is the listening socket; a stop set in OnAccept ends the loop with the socket open.
TEST(CServerSocket, StopAfterAnAccept) {
  for (bool in_on_accept : {false, true}) {
    SCOPED_TRACE(in_on_accept ? "set in OnAccept" : "the second stop test");
    RecordingListener listener;
    if (in_on_accept) {
      listener.on_accept = [&](unsigned int accepted) {
        listener.stop = true;
        ::closesocket(accepted);
      };
    } else {
      listener.stop_from = 2;  // No after OnListening, yes after the accept.
    }
    LoopbackServer server(listener);
    ASSERT_TRUE(server.IsListening());
    KVT::internal::ScopedSocket client = Connect(server.port());
    ASSERT_TRUE(client.IsValid());
    ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
    EXPECT_EQ(listener.accepts.load(), in_on_accept ? 1 : 0);
    EXPECT_EQ(server.server().socket_handle() != 0u, in_on_accept);
    EXPECT_EQ(server.server().GetLastError(), 0u);
    EXPECT_TRUE(in_on_accept || PeerClosed(client));
  }
}

// Shutdown from another thread releases the blocking accept. With the stop set the loop ends
// silently (the failed accept is recorded; Windows gives WSAEINTR, Wine may give another);
// without, the failure reaches OnError.
TEST(CServerSocket, ShutdownFromAnotherThreadReleasesABlockingAccept) {
  for (bool stop : {true, false}) {
    SCOPED_TRACE(stop ? "stop set" : "no stop");
    RecordingListener listener;
    LoopbackServer server(listener);
    ASSERT_TRUE(server.IsListening());
    listener.stop = stop;
    EXPECT_TRUE(tern_test::OnOtherThread([&] { server.server().Shutdown(); }));
    ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
    EXPECT_EQ(server.server().socket_handle(), 0u);
    const auto error = static_cast<int>(server.server().GetLastError());
    EXPECT_NE(error, 0);
    EXPECT_EQ(listener.errors, stop ? std::vector<int>{} : std::vector<int>{error});
  }
}

TEST(CServerSocket, AnyHostListensOnTheWildcardAndPortZeroStaysZero) {
  RecordingListener listener;
  listener.stop_from = 1;
  KVT::TSOSocketInfo info = TcpInfo(L"Any", 0);
  TestServer server(&listener, 0, &info);
  ASSERT_EQ(server.Listen(0), 1);
  listener.OpenGate();
  ASSERT_EQ(ExitCodeAfterWait(server.GetThread()), 1);
  EXPECT_EQ(listener.listenings.load(), 1);
  EXPECT_EQ(listener.listening_port, 0);
  EXPECT_EQ(server.GetPort(), 0);
  EXPECT_EQ(listener.listening_address, L"0.0.0.0");
  EXPECT_STREQ(server.GetIPAddress(), L"0.0.0.0");
  server.Shutdown();
}

// Handles the process holds. Wine answers GetProcessHandleCount with 0; there the handle table
// is walked instead: its handles are multiples of 4 from 4 on, handed out lowest free first, and
// GetHandleInformation accepts exactly the open ones (sockets included, which are handles there).
// The walk ends after 1024 free values in a row; the test checks that it sees its own handles.
DWORD ProcessHandleCount() {
  DWORD count = 0;
  if (::GetProcessHandleCount(::GetCurrentProcess(), &count) && count != 0) return count;
  for (uintptr_t value = 4, free_run = 0; free_run < 1024; value += 4) {
    DWORD flags = 0;
    const bool open = ::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags);
    count += open;
    free_run = open ? 0 : free_run + 1;
  }
  return count;
}

// A server and the client sockets over what it accepted, ended in the order the classes want,
// leave no handle behind: every thread's handle and every socket goes. `peak` gets the count
// while the connections are up.
void ServeAndEnd(int clients, DWORD* peak) {
  RecordingReceiver receiver;
  std::mutex mutex;
  std::vector<std::unique_ptr<CClientSocket>> sockets;
  RecordingListener listener;
  listener.on_accept = [&](unsigned int accepted) {
    std::lock_guard<std::mutex> hold(mutex);
    sockets.push_back(std::make_unique<CClientSocket>(&receiver, accepted, 0));
    sockets.back()->Receive(0);
  };
  {
    LoopbackServer server(listener);
    ASSERT_TRUE(server.IsListening());
    std::vector<KVT::internal::ScopedSocket> peers;
    for (int i = 0; i < clients; ++i) {
      peers.push_back(Connect(server.port()));
      ASSERT_TRUE(SendAll(peers.back().Get(), "x"));
    }
    ASSERT_TRUE(receiver.WaitForBytes(static_cast<size_t>(clients)));
    *peak = ProcessHandleCount();
  }
  std::lock_guard<std::mutex> hold(mutex);
  for (auto& socket : sockets) {
    socket->Shutdown();
    socket->WaitForThreadExit(static_cast<int>(tern_test::kPatience));
  }
}

TEST(CServerSocket, ServedConnectionsLeaveNoHandleBehind) {
  DWORD peak = 0;
  ServeAndEnd(1, &peak);  // Windows Sockets makes handles of its own at first use.
  const DWORD before = ProcessHandleCount();
  ServeAndEnd(8, &peak);
  EXPECT_GT(peak, before + 8);  // The count sees the run's threads and sockets.
  EXPECT_LE(ProcessHandleCount(), before);
}

}  // namespace
