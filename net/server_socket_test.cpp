#include "net/server_socket.h"

#include <gtest/gtest.h>

#include "net/loopback_test_support.h"

namespace {

using tern_test::Connect;
using tern_test::ExitCodeAfterWait;
using tern_test::LoopbackServer;
using tern_test::RecordingListener;
using tern_test::TcpInfo;
using tern_test::TestServer;

// Whether the peer of `socket` has closed: recv gives 0 or fails (a reset).
bool PeerClosed(const KVT::ScopedSocket& socket) {
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
    KVT::ScopedSocket client = Connect(server.port());
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
  KVT::ScopedSocket holder = tern_test::BoundToFreePort(port, 1);  // Someone else listens.
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
  KVT::ScopedSocket client = Connect(server.port());
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
    KVT::ScopedSocket client = Connect(server.port());
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

}  // namespace
