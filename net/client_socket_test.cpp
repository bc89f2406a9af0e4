#include "net/client_socket.h"

#include <gtest/gtest.h>

#include <string>

#include "net/loopback_test_support.h"

namespace {

using KVT::CClientSocket;
using tern_test::ConnectedPair;
using tern_test::ExitCodeAfterWait;
using tern_test::kGrace;
using tern_test::kPatience;
using tern_test::RecordingReceiver;
using tern_test::SendAll;
using tern_test::SocketPair;

// A client socket over the far end of a fresh pair, which it takes; the test keeps the near end.
// Shut down and awaited when it goes, so that no thread outlives the test.
struct Client {
  explicit Client(RecordingReceiver* receiver, int buffer_size = 0)
      : pair(ConnectedPair()),
        socket(receiver, static_cast<unsigned int>(pair.far_end.Take()), buffer_size) {}
  ~Client() {
    socket.Shutdown();
    socket.WaitForThreadExit(static_cast<int>(kPatience));
  }
  SocketPair pair;
  CClientSocket socket;
};

TEST(CClientSocket, DeliversChunksUntilThePeerCloses) {
  RecordingReceiver receiver;
  Client client(&receiver);
  ASSERT_TRUE(client.pair.near_end.IsValid());
  ASSERT_NE(client.socket.Receive(0), nullptr);
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "first "));
  ASSERT_TRUE(receiver.WaitForBytes(6));
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "second"));
  ASSERT_TRUE(receiver.WaitForBytes(12));
  const int calls = receiver.Calls();
  client.pair.near_end.Close();
  EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
  EXPECT_EQ(client.socket.GetLastError(), 0u);
  EXPECT_EQ(receiver.Bytes(), "first second");
  EXPECT_EQ(receiver.Calls(), calls);  // No call for the end.
}

TEST(CClientSocket, AResetLooksLikeAClose) {
  RecordingReceiver receiver;
  Client client(&receiver);
  ASSERT_NE(client.socket.Receive(0), nullptr);
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "data"));
  ASSERT_TRUE(receiver.WaitForBytes(4));
  tern_test::ResetConnection(client.pair.near_end);
  EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
  // recv fails with WSAECONNRESET on Windows (Wine may report the reset as a close); either way
  // nothing is recorded.
  EXPECT_EQ(client.socket.GetLastError(), 0u);
  EXPECT_EQ(receiver.Calls(), 1);
}

TEST(CClientSocket, ShutdownFromAnotherThreadReleasesABlockingReceive) {
  RecordingReceiver receiver;
  Client client(&receiver);
  ASSERT_NE(client.socket.Receive(0), nullptr);
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "x"));
  ASSERT_TRUE(receiver.WaitForBytes(1));  // The loop is back in recv.
  EXPECT_TRUE(tern_test::OnOtherThread([&] { client.socket.Shutdown(); }));
  EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
  EXPECT_EQ(client.socket.GetLastError(), 0u);
  EXPECT_EQ(receiver.Calls(), 1);
  EXPECT_EQ(client.socket.Send("y", 1), 0);  // No socket any more: 0, not -1.
  EXPECT_EQ(client.socket.GetLastError(), 0u);
}

TEST(CClientSocket, StopTestDropsTheChunkThatCameWithIt) {
  RecordingReceiver receiver;
  receiver.stop = true;
  Client client(&receiver);
  ASSERT_NE(client.socket.Receive(0), nullptr);
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "never seen"));
  EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
  EXPECT_EQ(receiver.Calls(), 0);
  EXPECT_EQ(client.socket.GetLastError(), 0u);
}

TEST(CClientSocket, NullReceiverReadsOnceAndEnds) {
  Client client(nullptr);
  ASSERT_NE(client.socket.Receive(0), nullptr);
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "dropped"));
  EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
}

TEST(CClientSocket, OnReceiveFalseEndsTheLoopWithNoErrorEvenAfterAFailedSend) {
  RecordingReceiver receiver;
  unsigned long error_after_send = 0;
  receiver.on_receive = [&](CClientSocket* socket) {
    // A send from a bad pointer fails and is recorded...
    EXPECT_EQ(socket->Send(nullptr, 16), -1);
    error_after_send = socket->GetLastError();
    return false;  // ...and ending the loop clears it.
  };
  Client client(&receiver);
  ASSERT_NE(client.socket.Receive(0), nullptr);
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "stop here"));
  EXPECT_EQ(ExitCodeAfterWait(client.socket.GetThread()), 1);
  EXPECT_EQ(error_after_send, static_cast<unsigned long>(WSAEFAULT));
  EXPECT_EQ(client.socket.GetLastError(), 0u);
}

TEST(CClientSocket, NotASocketEndsWithWSAENOTSOCK) {
  RecordingReceiver receiver;
  KVT::ScopedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  const auto not_a_socket = static_cast<unsigned int>(reinterpret_cast<uintptr_t>(event.Get()));
  CClientSocket socket(&receiver, not_a_socket, 0);
  ASSERT_NE(socket.Receive(0), nullptr);
  EXPECT_EQ(ExitCodeAfterWait(socket.GetThread()), 1);
  EXPECT_EQ(socket.GetLastError(), static_cast<unsigned long>(WSAENOTSOCK));
  EXPECT_EQ(receiver.Calls(), 0);
}

TEST(CClientSocket, WithoutASocketTheThreadNeverReads) {
  RecordingReceiver receiver;
  CClientSocket socket(&receiver, 0, 0);
  ASSERT_NE(socket.Receive(0), nullptr);
  EXPECT_EQ(ExitCodeAfterWait(socket.GetThread()), 0);
  EXPECT_EQ(socket.Send("x", 1), 0);
}

TEST(CClientSocket, OneThreadPerObjectAndTheFlagsReachCreateThread) {
  RecordingReceiver receiver;
  Client client(&receiver);
  void* thread = client.socket.Receive(CREATE_SUSPENDED);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(client.socket.GetThread(), thread);
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), "waiting"));
  ::Sleep(kGrace);  // A look at what must not happen: a suspended thread doesn't read.
  EXPECT_EQ(receiver.Calls(), 0);
  EXPECT_EQ(client.socket.Receive(0), nullptr);
  ::ResumeThread(thread);
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
  ASSERT_TRUE(SendAll(client.pair.near_end.Get(), text));
  ASSERT_TRUE(receiver.WaitForBytes(text.size()));
  EXPECT_EQ(receiver.Bytes(), text);
  EXPECT_EQ(largest, 64);
}

TEST(CClientSocket, SendGivesThePlatformsCount) {
  Client client(nullptr);
  EXPECT_EQ(client.socket.Send("hello", 5), 5);
  char got[5] = {};
  EXPECT_EQ(::recv(client.pair.near_end.Get(), got, 5, MSG_WAITALL), 5);
  EXPECT_EQ(std::string(got, 5), "hello");
}

TEST(CClientSocket, DestructionLeavesTheHandleOpen) {
  SocketPair pair = ConnectedPair();
  ASSERT_TRUE(pair.IsValid());
  const SOCKET handle = pair.far_end.Take();
  { CClientSocket socket(nullptr, static_cast<unsigned int>(handle), 0); }
  KVT::ScopedSocket owner(handle);
  EXPECT_EQ(::send(owner.Get(), "still", 5, 0), 5);
}

}  // namespace
