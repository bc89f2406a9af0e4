#include "net/client_socket.h"

#include <gtest/gtest.h>

#include <string>

#include "net/loopback_test_support.h"

namespace {

using KVT::CClientSocket;
using tern_test::ExitCodeAfterWait;
using tern_test::RecordingReceiver;
using tern_test::SendAll;

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
      tern_test::ResetConnection(client.pair.near_end);
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
  KVT::ScopedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
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

TEST(CClientSocket, OneThreadPerObjectAndTheFlagsReachCreateThread) {
  RecordingReceiver receiver;
  Client client(&receiver);
  void* thread = client.socket.Receive(CREATE_SUSPENDED);
  ASSERT_NE(thread, nullptr);
  EXPECT_EQ(client.socket.GetThread(), thread);
  ASSERT_TRUE(client.Send("waiting"));
  ::Sleep(tern_test::kGrace);  // A look at what must not happen: a suspended thread doesn't read.
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

}  // namespace
