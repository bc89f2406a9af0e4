#include "net/server_socket.h"

#include <gtest/gtest.h>

#include "net/loopback_test_support.h"

namespace {

using tern_test::Connect;
using tern_test::ExitCodeAfterWait;
using tern_test::FreeLoopbackPort;
using tern_test::kPatience;
using tern_test::LoopbackServer;
using tern_test::RecordingListener;
using tern_test::TcpInfo;
using tern_test::TestServer;
using tern_test::WaitUntil;

// Whether the peer of `socket` has closed: recv gives 0 or fails (a reset).
bool PeerClosed(const KVT::ScopedSocket& socket) {
  DWORD timeout = kPatience;
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
    ASSERT_TRUE(WaitUntil([&] { return listener.accepts.load() == i + 1; }));
    EXPECT_TRUE(PeerClosed(client));  // The listener closed its end.
  }
  EXPECT_TRUE(server.server().Resume());
  EXPECT_NE(dont_linger, 0);
  EXPECT_EQ(server.server().GetLastError(), 0u);
  EXPECT_TRUE(listener.errors.empty());
}

TEST(CServerSocket, PortInUseReachesOnErrorAndLeavesNoError) {
  // Someone else listens on the port already.
  KVT::ScopedSocket holder(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = tern_test::LoopbackAddress(0);
  int length = sizeof(address);
  ASSERT_EQ(::bind(holder.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(holder.Get(), 1), 0);
  ASSERT_EQ(::getsockname(holder.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);

  RecordingListener listener;
  KVT::TSOSocketInfo info = TcpInfo(L"127.0.0.1", ::ntohs(address.sin_port));
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

TEST(CServerSocket, SecondListenIsRefusedAndKeepsTheFirstArgument) {
  RecordingListener listener;
  listener.stop_from = 1;  // Stop at once after OnListening.
  KVT::TSOSocketInfo info = TcpInfo(L"127.0.0.1", FreeLoopbackPort());
  TestServer server(&listener, 0, &info);
  ASSERT_EQ(server.Listen(5), 1);
  listener.OpenGate();
  EXPECT_EQ(server.Listen(6), -1);
  ASSERT_EQ(ExitCodeAfterWait(server.GetThread()), 1);
  EXPECT_EQ(server.Listen(8), -1);
  EXPECT_EQ(server.listen_argument(), 5);
}

TEST(CServerSocket, StopRightAfterListeningAcceptsNothingAndKeepsTheSocketOpen) {
  RecordingListener listener;
  listener.stop_from = 1;
  LoopbackServer server(listener);
  ASSERT_TRUE(server.IsListening());
  ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
  EXPECT_NE(server.server().socket_handle(), 0u);
  // The backlog still takes a connection, but nobody accepts it.
  KVT::ScopedSocket client = Connect(server.port());
  EXPECT_TRUE(client.IsValid());
  EXPECT_EQ(listener.accepts.load(), 0);
  server.server().Shutdown();
  EXPECT_EQ(server.server().socket_handle(), 0u);
}

TEST(CServerSocket, StopThatComesWithAConnectionClosesItUnseenAndTheListeningSocket) {
  RecordingListener listener;
  listener.stop_from = 2;  // The test after OnListening says no; the one after accept says yes.
  LoopbackServer server(listener);
  ASSERT_TRUE(server.IsListening());
  KVT::ScopedSocket client = Connect(server.port());
  ASSERT_TRUE(client.IsValid());
  ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
  EXPECT_EQ(listener.accepts.load(), 0);
  EXPECT_TRUE(PeerClosed(client));
  EXPECT_EQ(server.server().socket_handle(), 0u);
  EXPECT_EQ(server.server().GetLastError(), 0u);
}

TEST(CServerSocket, StopDuringOnAcceptEndsTheLoopWithTheSocketOpen) {
  RecordingListener listener;
  listener.on_accept = [&](unsigned int accepted) {
    listener.stop = true;
    ::closesocket(accepted);
  };
  LoopbackServer server(listener);
  ASSERT_TRUE(server.IsListening());
  KVT::ScopedSocket client = Connect(server.port());
  ASSERT_TRUE(client.IsValid());
  ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
  EXPECT_EQ(listener.accepts.load(), 1);
  EXPECT_NE(server.server().socket_handle(), 0u);
}

TEST(CServerSocket, ShutdownWithTheStopSetReleasesAcceptSilently) {
  RecordingListener listener;
  LoopbackServer server(listener);
  ASSERT_TRUE(server.IsListening());
  listener.stop = true;
  EXPECT_TRUE(tern_test::OnOtherThread([&] { server.server().Shutdown(); }));
  ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
  EXPECT_TRUE(listener.errors.empty());
  EXPECT_EQ(server.server().socket_handle(), 0u);
  // The failed accept is recorded; which number it is depends on the platform (Windows gives
  // WSAEINTR, Wine may give another).
  EXPECT_NE(server.server().GetLastError(), 0u);
}

TEST(CServerSocket, ShutdownWithoutTheStopReachesOnError) {
  RecordingListener listener;
  LoopbackServer server(listener);
  ASSERT_TRUE(server.IsListening());
  EXPECT_TRUE(tern_test::OnOtherThread([&] { server.server().Shutdown(); }));
  ASSERT_EQ(ExitCodeAfterWait(server.server().GetThread()), 1);
  ASSERT_EQ(listener.errors.size(), 1u);
  EXPECT_NE(listener.errors[0], 0);
  EXPECT_EQ(static_cast<unsigned long>(listener.errors[0]), server.server().GetLastError());
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
