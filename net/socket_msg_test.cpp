#include "net/socket_msg.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "net/test_frames.h"
#include "sync/test_thread.h"

namespace {

using tern_test::Frame;
using tern_test::FrameMsg;
using tern_test::FrameReceiver;
using tern_test::Header;

// A frame as the consumer sees it.
struct Seen {
  std::string message;
  std::string trailer;
  bool operator==(const Seen& other) const {
    return message == other.message && trailer == other.trailer;
  }
};

bool Feed(FrameReceiver& receiver, const std::string& chunk) {
  return receiver.AddMessage(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
}

std::vector<Seen> PopAll(FrameReceiver& receiver) {
  std::vector<Seen> seen;
  while (FrameMsg* message = receiver.PopFrame()) {
    seen.push_back({message->Message(), message->Trailer()});
  }
  return seen;
}

// Random frames: messages of 0..max_message bytes, some with trailers.
std::vector<Seen> RandomFrames(std::mt19937& random, int count, int max_message) {
  std::uniform_int_distribution<int> message_length(0, max_message);
  std::uniform_int_distribution<int> trailer_length(0, 3);
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<Seen> frames(static_cast<size_t>(count));
  for (Seen& frame : frames) {
    frame.message.resize(static_cast<size_t>(message_length(random)));
    for (char& c : frame.message) c = static_cast<char>(byte(random));
    frame.trailer.assign(static_cast<size_t>(trailer_length(random)), 'T');
  }
  return frames;
}

std::string Stream(const std::vector<Seen>& frames) {
  std::string stream;
  for (const Seen& frame : frames) stream += Frame(frame.message, frame.trailer);
  return stream;
}

// --- CSocketMsg on its own -----------------------------------------------------------------------

TEST(CSocketMsg, FreshMessageHasNoPacketAndUnparsedLengths) {
  FrameMsg message;
  EXPECT_EQ(message.GetMsgLength(), -1);
  EXPECT_EQ(message.GetPacketSize(), -2);
  EXPECT_EQ(message.GetPacket(), nullptr);
  EXPECT_EQ(message.GetMsg(), nullptr);
  EXPECT_EQ(message.GetRecvSize(), 0);
}

TEST(CSocketMsg, AddResultTellsHowMuchOfTheChunkBelongsToThePacket) {
  const std::string frame = Frame("hello");  // 13 bytes.
  struct Row {
    const char* name;
    std::vector<std::string> chunks;
    int last_result;
    int recv_size;
  };
  const Row rows[] = {
      {"exact chunk", {frame}, 13, 13},
      {"header split", {frame.substr(0, 2), frame.substr(2)}, 13, 13},
      {"header only, then rest", {frame.substr(0, 8), frame.substr(8)}, 13, 13},
      {"incomplete", {frame.substr(0, 10)}, 10, 10},
      {"packet ends inside chunk", {frame + "xyz"}, 13, 16},
      {"ends inside second chunk", {frame.substr(0, 5), frame.substr(5) + "xy"}, 8, 15},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FrameMsg message;
    int result = -100;
    for (const std::string& chunk : row.chunks) {
      result = message.Add(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
    }
    EXPECT_EQ(result, row.last_result);
    EXPECT_EQ(message.GetRecvSize(), row.recv_size);
    if (row.recv_size >= 13) {
      EXPECT_EQ(message.GetPacketSize(), 13);
      EXPECT_EQ(message.Message(), "hello");
      EXPECT_EQ(message.GetMsg(), message.GetPacket() + 8);
    }
  }
}

TEST(CSocketMsg, AddOfNothingChangesNothing) {
  FrameMsg message;
  char byte = 'x';
  EXPECT_EQ(message.Add(nullptr, 5), 0);
  EXPECT_EQ(message.Add(&byte, 0), 0);
  EXPECT_EQ(message.Add(&byte, -3), 0);
  EXPECT_EQ(message.GetRecvSize(), 0);
  EXPECT_EQ(message.GetPacket(), nullptr);
  EXPECT_EQ(message.parse_calls(), 0);
}

TEST(CSocketMsg, BlockGrowsByTheChunkFromTheCapacityAndEqualityCountsAsTooSmall) {
  FrameMsg message;
  std::string chunk(100, 'a');
  message.Add(&chunk[0], 100);
  EXPECT_EQ(message.capacity_for_test(), 100);
  message.Reset();
  // recvSize 0 + 100 reaches the capacity of 100: it grows to 200.
  message.Add(&chunk[0], 100);
  EXPECT_EQ(message.capacity_for_test(), 200);
  message.Reset();
  message.Add(&chunk[0], 50);
  EXPECT_EQ(message.capacity_for_test(), 200);
}

TEST(CSocketMsg, ResetKeepsTheBlockAndTheNextAddOverwritesFromTheStart) {
  FrameMsg message;
  const std::string first = Frame("first message");
  message.Add(const_cast<char*>(first.data()), static_cast<int>(first.size()));
  char* block = message.GetPacket();
  message.Reset();
  EXPECT_EQ(message.GetPacket(), block);
  EXPECT_EQ(message.GetMsgLength(), -1);
  EXPECT_EQ(message.GetRecvSize(), 0);
  const std::string second = Frame("2nd");
  message.Add(const_cast<char*>(second.data()), static_cast<int>(second.size()));
  EXPECT_EQ(message.GetPacket(), block);
  EXPECT_EQ(message.Message(), "2nd");
  // Behind the new packet the old bytes are still there.
  EXPECT_EQ(std::string(block + second.size(), 4), first.substr(second.size(), 4));
}

TEST(CSocketMsg, FrameWithoutMessagePartHasNoMsgAndParsesAgainWhileTheTrailerIsOutstanding) {
  FrameMsg message;
  const std::string frame = Frame("", "TR");
  message.Add(const_cast<char*>(frame.data()), 9);
  EXPECT_EQ(message.GetMsgLength(), 0);
  EXPECT_EQ(message.GetPacketSize(), 10);
  EXPECT_EQ(message.parse_calls(), 1);
  EXPECT_EQ(message.Add(const_cast<char*>(frame.data()) + 9, 1), 10);
  EXPECT_EQ(message.parse_calls(), 2);  // msgLength 0 is below 1.
  EXPECT_EQ(message.GetMsg(), nullptr);
  EXPECT_EQ(message.Trailer(), "TR");
}

TEST(CSocketMsg, CopiesShareTheBlockAndEachCanBeDestroyed) {
  auto original = std::make_unique<FrameMsg>();
  const std::string frame = Frame("shared");
  original->Add(const_cast<char*>(frame.data()), static_cast<int>(frame.size()));
  {
    FrameMsg copy(*original);
    EXPECT_EQ(copy.GetPacket(), original->GetPacket());
    FrameMsg assigned;
    assigned = copy;
    EXPECT_EQ(assigned.GetPacket(), original->GetPacket());
    // A copy that grows takes a block of its own; the others keep theirs.
    std::string more(200, 'm');
    assigned.Add(&more[0], 200);
    EXPECT_NE(assigned.GetPacket(), original->GetPacket());
    EXPECT_EQ(assigned.Message(), "shared");
  }
  EXPECT_EQ(original->Message(), "shared");
  FrameMsg survivor(*original);
  original.reset();
  EXPECT_EQ(survivor.Message(), "shared");
}

TEST(CSocketMsg, PacketSizeSaturatesInsteadOfOverflowing) {
  // A ParseHeader that accepts whatever comes: lengths whose sum exceeds 2^31 - 1.
  class Permissive : public FrameMsg {
   protected:
    int ParseHeader(int* message, int* header, int* trailer) override {
      *message = INT_MAX - 2;
      *header = 8;
      *trailer = INT_MAX;
      return 0;
    }
  };
  Permissive message;
  std::string chunk(16, 'p');
  EXPECT_EQ(message.Add(&chunk[0], 16), 16);
  EXPECT_EQ(message.GetPacketSize(), INT_MAX);
  EXPECT_EQ(message.capacity_for_test(), 16);
}

// --- CSocketMsgReceiver: worked examples ---------------------------------------------------------

TEST(CSocketMsgReceiver, OneChunkOnePacket) {
  FrameReceiver receiver;
  EXPECT_TRUE(Feed(receiver, Frame("abc")));
  EXPECT_EQ(receiver.GetQueueSize(), 1);
  EXPECT_EQ(receiver.Current(), nullptr);
}

TEST(CSocketMsgReceiver, ChunkPatterns) {
  const std::string a = Frame("alpha"), b = Frame("bravo!!", "t"), c = Frame("");
  struct Row {
    const char* name;
    std::vector<std::string> chunks;
    std::vector<bool> results;
    std::vector<std::string> messages;
    bool current_after;
  };
  const Row rows[] = {
      {"packet in two chunks", {a.substr(0, 6), a.substr(6)}, {false, true}, {"alpha"}, false},
      {"2 bytes, then the rest", {a.substr(0, 2), a.substr(2)}, {false, true}, {"alpha"}, false},
      {"three packets in one chunk", {a + b + c}, {true}, {"alpha", "bravo!!", ""}, false},
      {"one and a half", {a + b.substr(0, 4)}, {true}, {"alpha"}, true},
      {"half completed by the next", {a + b.substr(0, 4), b.substr(4)}, {true, true},
       {"alpha", "bravo!!"}, false},
      {"completes one, holds the next exactly", {a.substr(0, 3), a.substr(3) + b}, {false, true},
       {"alpha", "bravo!!"}, false},
      {"completes one, holds one and a half",
       {a.substr(0, 3), a.substr(3) + b + c.substr(0, 1)}, {false, true},
       {"alpha", "bravo!!"}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FrameReceiver receiver;
    for (size_t i = 0; i < row.chunks.size(); ++i) {
      EXPECT_EQ(Feed(receiver, row.chunks[i]), row.results[i]) << "chunk " << i;
    }
    EXPECT_EQ(receiver.Current() != nullptr, row.current_after);
    std::vector<std::string> messages;
    for (const Seen& seen : PopAll(receiver)) messages.push_back(seen.message);
    EXPECT_EQ(messages, row.messages);
  }
}

TEST(CSocketMsgReceiver, CutOffMessageKeepsTheBytesBehindItsPacket) {
  FrameReceiver receiver;
  const std::string stream = Frame("one") + Frame("two");
  Feed(receiver, stream);
  FrameMsg* first = receiver.PopFrame();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->GetPacketSize(), 11);
  EXPECT_EQ(first->GetRecvSize(), 22);
  EXPECT_EQ(std::string(first->GetPacket(), 22), stream);
}

TEST(CSocketMsgReceiver, RefusesNothingToDo) {
  FrameReceiver receiver;
  char byte = 0;
  EXPECT_FALSE(receiver.AddMessage(nullptr, 4));
  EXPECT_FALSE(receiver.AddMessage(&byte, 0));
  EXPECT_FALSE(receiver.AddMessage(&byte, -1));
  EXPECT_EQ(receiver.Current(), nullptr);
  EXPECT_EQ(receiver.created(), 0u);
  EXPECT_EQ(receiver.Pop(), nullptr);
  EXPECT_EQ(receiver.GetQueueSize(), 0);
}

TEST(CSocketMsgReceiver, ParseHeaderEndsMessagesEarly) {
  FrameReceiver receiver(/*pings=*/true);
  EXPECT_TRUE(Feed(receiver, "!"));  // A ping alone is complete at its one byte.
  EXPECT_TRUE(Feed(receiver, "!!" + Frame("x") + "!" + Frame("y").substr(0, 3)));
  EXPECT_TRUE(Feed(receiver, Frame("y").substr(3)));
  std::vector<std::string> kinds;
  while (FrameMsg* message = receiver.PopFrame()) {
    kinds.push_back(message->GetPacket()[0] == '!' ? "ping" : message->Message());
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{"ping", "ping", "ping", "x", "ping", "y"}));
}

TEST(CSocketMsgReceiver, PushCountsAndPopMovesToReuseOldestFirst) {
  FrameReceiver receiver;
  FrameMsg a, b;
  EXPECT_EQ(receiver.Push(&a), 1u);
  EXPECT_EQ(receiver.Push(&b), 2u);
  EXPECT_EQ(receiver.Pop(), &a);
  EXPECT_EQ(receiver.Pop(), &b);
  EXPECT_EQ(receiver.Pop(), nullptr);
  // The next two messages are the popped ones, reset, the first popped first.
  Feed(receiver, Frame("p") + Frame("q"));
  EXPECT_EQ(receiver.created(), 0u);
  EXPECT_EQ(receiver.PopFrame(), &a);
  EXPECT_EQ(receiver.PopFrame(), &b);
  EXPECT_EQ(b.Message(), "q");
}

TEST(CSocketMsgReceiver, ReusedMessagesAllocateNothingForPacketsThatFit) {
  FrameReceiver receiver;
  Feed(receiver, Frame(std::string(500, 'x')));
  FrameMsg* message = receiver.PopFrame();
  char* block = message->GetPacket();
  for (int i = 0; i < 50; ++i) {
    Feed(receiver, Frame(std::string(static_cast<size_t>(i * 7), 'y')));
    ASSERT_EQ(receiver.PopFrame(), message);
    EXPECT_EQ(message->GetPacket(), block);
  }
  EXPECT_EQ(receiver.created(), 1u);
}

TEST(CSocketMsgReceiver, HostileHeadersAreRefusedWithoutAllocatingForThem) {
  const struct {
    const char* name;
    std::string header;
  } rows[] = {
      {"length near 2^31", Header(0x7FFFFFF0u, 0)},
      {"length above 2^31", Header(0xFFFFFFFFu, 0)},
      {"sum overflows", Header(0x7FFFFFF0u, 0x7FFFFFF0u)},
      {"trailer alone too long", Header(1, 0x7FFFFFFFu)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FrameReceiver receiver;
    EXPECT_FALSE(Feed(receiver, row.header + "tail"));
    EXPECT_TRUE(receiver.Refused());
    EXPECT_LE(receiver.Current()->capacity_for_test(), 64);
    // The owner drops the stream; a fresh one starts clean in the same message object.
    receiver.DropCurrent();
    EXPECT_TRUE(Feed(receiver, Frame("after")));
    EXPECT_EQ(PopAll(receiver), (std::vector<Seen>{{"after", ""}}));
  }
}

// --- CSocketMsgReceiver: random streams ----------------------------------------------------------

TEST(CSocketMsgReceiver, EverySplitOfAStreamGivesTheSameFrames) {
  std::mt19937 random(7);
  const std::vector<Seen> frames = RandomFrames(random, 4, 20);
  const std::string stream = Stream(frames);
  for (size_t split = 0; split <= stream.size(); ++split) {
    SCOPED_TRACE(split);
    FrameReceiver receiver;
    Feed(receiver, stream.substr(0, split));
    Feed(receiver, stream.substr(split));
    ASSERT_EQ(PopAll(receiver), frames);
  }
}

TEST(CSocketMsgReceiver, OneByteAtATime) {
  std::mt19937 random(11);
  const std::vector<Seen> frames = RandomFrames(random, 30, 40);
  const std::string stream = Stream(frames);
  FrameReceiver receiver;
  for (char c : stream) Feed(receiver, std::string(1, c));
  EXPECT_EQ(PopAll(receiver), frames);
  EXPECT_EQ(receiver.Current(), nullptr);
}

TEST(CSocketMsgReceiver, RandomChunkingAcrossSeeds) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const std::vector<Seen> frames = RandomFrames(random, 200, seed % 2 ? 300 : 5000);
    const std::string stream = Stream(frames);
    std::uniform_int_distribution<size_t> chunk(1, seed % 3 ? 100 : 9000);
    FrameReceiver receiver;
    std::vector<Seen> seen;
    for (size_t at = 0; at < stream.size();) {
      const size_t size = std::min(chunk(random), stream.size() - at);
      Feed(receiver, stream.substr(at, size));
      at += size;
      // Pop as we go now and then, so that messages are reused in between.
      if (random() % 4 == 0) {
        for (const Seen& s : PopAll(receiver)) seen.push_back(s);
      }
    }
    for (const Seen& s : PopAll(receiver)) seen.push_back(s);
    ASSERT_EQ(seen, frames);
  }
}

TEST(CSocketMsgReceiver, ConsumerOnAnotherThreadSeesEveryFrameInOrder) {
  std::mt19937 random(3);
  const std::vector<Seen> frames = RandomFrames(random, 20000, 64);
  const std::string stream = Stream(frames);
  FrameReceiver receiver;
  std::vector<Seen> seen;
  tern_test::TestThread consumer([&] {
    const DWORD deadline = ::GetTickCount() + tern_test::kPatience;
    while (seen.size() < frames.size() && ::GetTickCount() < deadline) {
      // Held across Pop and the read, so that the producer can't reuse the message meanwhile.
      receiver.LockQueue();
      if (FrameMsg* message = receiver.PopFrame()) {
        seen.push_back({message->Message(), message->Trailer()});
      }
      receiver.UnlockQueue();
    }
  });
  std::uniform_int_distribution<size_t> chunk(1, 700);
  for (size_t at = 0; at < stream.size();) {
    const size_t size = std::min(chunk(random), stream.size() - at);
    Feed(receiver, stream.substr(at, size));
    at += size;
  }
  ASSERT_TRUE(consumer.Join());
  EXPECT_TRUE(seen == frames);
}

}  // namespace
