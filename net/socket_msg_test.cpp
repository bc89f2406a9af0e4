// Socket messages and the message receiver: the layer's own rules, on the length framing where
// it serves, and on a small framing of the tests' own for what that one never does (a trailer, a
// packet that ParseHeader ends early, lengths that overflow).
#include "net/socket_msg.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "net/length_msg.h"
#include "sync/test_thread.h"

namespace {

using KVT::CLengthMsg;

std::string Frame(const std::string& message) {
  std::string frame(CLengthMsg::HeaderSize, '\0');
  CLengthMsg::WriteHeader(&frame[0], static_cast<unsigned int>(message.size()));
  return frame + message;
}

// The message of a length-framed packet.
std::string Text(KVT::CSocketMsg* message) {
  return std::string(message->GetPacket() + CLengthMsg::HeaderSize, message->GetMsgLength());
}

// A length-framed message with its block's size in view.
struct Msg : CLengthMsg {
  explicit Msg(int max = 1 << 20) : CLengthMsg(max) {}
  int Capacity() const { return capacity; }
};

int Add(KVT::CSocketMsg& message, const std::string& chunk) {
  return message.Add(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
}

// The length framing's receiver with the layer's queue in view; OnMessage is never reached, as
// the tests feed AddMessage.
struct Queue : KVT::CLengthMsgReceiver {
  Queue() : CLengthMsgReceiver(1 << 20) {}
  bool IsStopping() override { return false; }
  bool OnMessage(KVT::CClientSocket*, char*, int) override { return false; }
  using CSocketMsgReceiver::current;
  using CSocketMsgReceiver::LockQueue;
  using CSocketMsgReceiver::Pop;
  using CSocketMsgReceiver::Push;
  using CSocketMsgReceiver::UnlockQueue;
  bool Feed(const std::string& chunk) {
    return AddMessage(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
  }
};

// The tests' own framing: a 2-byte header holds the message's and the trailer's lengths. A first
// byte '!' is a ping, a packet of that byte alone, which ParseHeader ends early whatever follows.
class TrailerMsg : public KVT::CSocketMsg {
 public:
  int Process(void*) override { return 0; }
  int parse_calls = 0;

 protected:
  int ParseHeader(int* message, int* header, int* trailer) override {
    ++parse_calls;
    if (GetPacket()[0] == '!') {
      *message = *trailer = 0;
      *header = 1;
      return 1;
    }
    if (GetRecvSize() < 2) return 0;
    *message = GetPacket()[0];
    *header = 2;
    *trailer = GetPacket()[1];
    return 0;
  }
};

TEST(CSocketMsg, NothingToAddChangesNothing) {
  Msg message;
  Queue queue;
  char byte = 'x';
  EXPECT_FALSE(queue.AddMessage(nullptr, 4));
  EXPECT_FALSE(queue.AddMessage(&byte, 0));
  EXPECT_FALSE(queue.AddMessage(&byte, -1));
  EXPECT_EQ(queue.current, nullptr);
  EXPECT_EQ(queue.Pop(), nullptr);
  EXPECT_EQ(message.Add(nullptr, 5), 0);
  EXPECT_EQ(message.Add(&byte, 0), 0);
  EXPECT_EQ(message.Add(&byte, -3), 0);
  EXPECT_EQ(message.GetMsgLength(), -1);
  EXPECT_EQ(message.GetPacketSize(), -2);
  EXPECT_EQ(message.GetPacket(), nullptr);
  EXPECT_EQ(message.GetMsg(), nullptr);
  EXPECT_EQ(message.GetRecvSize(), 0);
}

TEST(CSocketMsg, AddResultTellsHowMuchOfTheChunkBelongsToThePacket) {
  const std::string frame = Frame("hello");  // 9 bytes.
  const struct {
    const char* name;
    std::vector<std::string> chunks;
    int last_result, recv_size;
  } rows[] = {
      {"exact chunk", {frame}, 9, 9},
      {"header split", {frame.substr(0, 2), frame.substr(2)}, 9, 9},
      {"header only, then rest", {frame.substr(0, 4), frame.substr(4)}, 9, 9},
      {"incomplete", {frame.substr(0, 7)}, 7, 7},
      {"packet ends inside chunk", {frame + "xyz"}, 9, 12},
      {"ends inside second chunk", {frame.substr(0, 5), frame.substr(5) + "xy"}, 4, 11},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Msg message;
    int result = -100;
    for (const std::string& chunk : row.chunks) result = Add(message, chunk);
    EXPECT_EQ(result, row.last_result);
    EXPECT_EQ(message.GetRecvSize(), row.recv_size);
    if (row.recv_size >= 9) {
      EXPECT_EQ(message.GetPacketSize(), 9);
      EXPECT_EQ(message.GetMsg(), message.GetPacket() + 4);
      EXPECT_EQ(Text(&message), "hello");
    }
  }
}

TEST(CSocketMsg, BlockGrowsByTheChunkAndResetKeepsIt) {
  Msg message(0);
  const std::string chunk(100, 'a');  // A header refused: the message takes every byte.
  Add(message, chunk);
  EXPECT_EQ(message.Capacity(), 100);
  message.Reset();
  Add(message, chunk);  // 0 + 100 reaches the capacity of 100, which counts as too small.
  EXPECT_EQ(message.Capacity(), 200);
  char* block = message.GetPacket();
  message.Reset();
  EXPECT_EQ(message.GetPacket(), block);
  EXPECT_EQ(message.GetMsgLength(), -1);
  EXPECT_EQ(message.GetRecvSize(), 0);
  Add(message, Frame(""));
  EXPECT_EQ(message.Capacity(), 200);
  EXPECT_EQ(message.GetPacket(), block);
  EXPECT_EQ(message.GetPacketSize(), 4);
  EXPECT_EQ(std::string(block + 4, 4), "aaaa");  // The old bytes behind the new packet stay.
}

TEST(CSocketMsg, FrameWithoutMessagePartHasNoMsgAndParsesAgainWhileTheTrailerIsOutstanding) {
  TrailerMsg message;
  EXPECT_EQ(Add(message, std::string("\0\2T", 3)), 3);
  EXPECT_EQ(message.GetMsgLength(), 0);
  EXPECT_EQ(message.GetPacketSize(), 4);
  EXPECT_EQ(Add(message, "R"), 4);
  EXPECT_EQ(message.parse_calls, 2);  // msgLength 0 is below 1.
  EXPECT_EQ(message.GetMsg(), nullptr);
  EXPECT_EQ(std::string(message.GetPacket(), 4), std::string("\0\2TR", 4));
}

TEST(CSocketMsg, CopiesShareTheBlockAndEachCanBeDestroyed) {
  auto original = std::make_unique<Msg>();
  Add(*original, Frame("shared"));
  {
    Msg copy(*original);
    EXPECT_EQ(copy.GetPacket(), original->GetPacket());
    Msg assigned;
    assigned = copy;
    EXPECT_EQ(assigned.GetPacket(), original->GetPacket());
    // A copy that grows takes a block of its own; the others keep theirs.
    Add(assigned, std::string(200, 'm'));
    EXPECT_NE(assigned.GetPacket(), original->GetPacket());
    EXPECT_EQ(Text(&assigned), "shared");
  }
  EXPECT_EQ(Text(original.get()), "shared");
  Msg survivor(*original);
  original.reset();
  EXPECT_EQ(Text(&survivor), "shared");
}

TEST(CSocketMsg, PacketSizeSaturatesInsteadOfOverflowing) {
  // A ParseHeader that accepts whatever comes: lengths whose sum exceeds 2^31 - 1.
  struct Permissive : Msg {
    int ParseHeader(int* message, int* header, int* trailer) override {
      *message = INT_MAX - 2;
      *header = 8;
      *trailer = INT_MAX;
      return 0;
    }
  };
  Permissive message;
  EXPECT_EQ(Add(message, std::string(16, 'p')), 16);
  EXPECT_EQ(message.GetPacketSize(), INT_MAX);
  EXPECT_EQ(message.Capacity(), 16);
}

TEST(CSocketMsgReceiver, ParseHeaderEndsMessagesEarly) {
  struct Pings : KVT::CSocketMsgReceiver {
    std::vector<std::unique_ptr<TrailerMsg>> made;
    KVT::CSocketMsg* CreateMessage() override {
      made.push_back(std::make_unique<TrailerMsg>());
      return made.back().get();
    }
    using CSocketMsgReceiver::Pop;
  } pings;
  std::string stream("!!!\1\1xT!\1\0y", 11);  // Pings, "x" with a trailer, a ping, "y".
  EXPECT_TRUE(pings.AddMessage(&stream[0], 1));  // A ping alone.
  EXPECT_TRUE(pings.AddMessage(&stream[1], 8));  // Ends inside "y"'s header.
  EXPECT_TRUE(pings.AddMessage(&stream[9], 2));
  std::vector<std::string> kinds;
  while (KVT::CSocketMsg* message = pings.Pop()) {
    kinds.push_back(message->GetPacket()[0] == '!'
                        ? "ping"
                        : std::string(message->GetMsg(), message->GetMsgLength()));
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{"ping", "ping", "ping", "x", "ping", "y"}));
}

TEST(CSocketMsgReceiver, PoppedMessagesAreReusedOldestFirstWithTheirBlocks) {
  Queue queue;
  Msg a, b;
  EXPECT_EQ(queue.Push(&a), 1u);
  EXPECT_EQ(queue.Push(&b), 2u);
  EXPECT_EQ(queue.Pop(), &a);
  EXPECT_EQ(queue.Pop(), &b);
  EXPECT_EQ(queue.Pop(), nullptr);
  const std::string stream = Frame(std::string(500, 'p')) + Frame("q");
  queue.Feed(stream);
  EXPECT_EQ(queue.Pop(), &a);
  // Cut off from the chunk, `a` keeps the chunk's further bytes behind its packet.
  EXPECT_EQ(std::string(a.GetPacket(), a.GetRecvSize()), stream);
  EXPECT_EQ(queue.Pop(), &b);
  EXPECT_EQ(Text(&b), "q");
  char* block = a.GetPacket();
  for (int i = 0; i < 50; ++i) {  // Each packet fits a's block: nothing is allocated.
    queue.Feed(Frame(std::string(static_cast<size_t>(i * 7), 'y')));
    ASSERT_EQ(queue.Pop(), &a);
    queue.Feed(Frame("z"));
    ASSERT_EQ(queue.Pop(), &b);
  }
  EXPECT_EQ(a.GetPacket(), block);
}

// A consumer on another thread holds LockQueue from before Pop until it has read the message, so
// that the feeding thread's NewMessage can't reuse it meanwhile: every frame comes out intact.
TEST(CSocketMsgReceiver, AConsumerThreadReadsUnderTheQueueLock) {
  constexpr int kFrames = 3000;
  std::string stream;
  for (int i = 0; i < kFrames; ++i) stream += Frame(std::to_string(i) + std::string(i % 97, 'f'));
  Queue queue;
  tern_test::TestThread feeder([&] {
    for (size_t at = 0, step = 1; at < stream.size(); at += step, step = step % 300 + 7) {
      queue.Feed(stream.substr(at, step));
    }
  });
  int popped = 0;
  for (const DWORD deadline = ::GetTickCount() + tern_test::kPatience;
       popped < kFrames && static_cast<LONG>(deadline - ::GetTickCount()) > 0;) {
    queue.LockQueue();
    KVT::CSocketMsg* message = queue.Pop();
    const bool intact = message == nullptr ||
                        Text(message) == std::to_string(popped) + std::string(popped % 97, 'f');
    popped += message != nullptr;
    queue.UnlockQueue();
    ASSERT_TRUE(intact) << "frame " << popped - 1;
  }
  EXPECT_TRUE(feeder.Join());
  EXPECT_EQ(popped, kFrames);
}

}  // namespace
