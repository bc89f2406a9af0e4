#include "net/socket_msg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <vector>

#include "net/test_frames.h"

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

int Add(FrameMsg& message, const std::string& chunk) {
  return message.Add(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
}

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

// Random frames, messages of 0..max_message bytes, some with trailers; `stream` gets them framed.
std::vector<Seen> RandomFrames(std::mt19937& random, int count, int max_message,
                               std::string& stream) {
  std::vector<Seen> frames(static_cast<size_t>(count));
  for (Seen& frame : frames) {
    frame.message.resize(random() % (max_message + 1));
    for (char& c : frame.message) c = static_cast<char>(random());
    frame.trailer.assign(random() % 4, 'T');
    stream += Frame(frame.message, frame.trailer);
  }
  return frames;
}

// --- CSocketMsg on its own -----------------------------------------------------------------------

TEST(CSocketMsg, NothingToAddChangesNothing) {
  FrameMsg message;
  FrameReceiver receiver;
  char byte = 'x';
  EXPECT_FALSE(receiver.AddMessage(nullptr, 4));
  EXPECT_FALSE(receiver.AddMessage(&byte, 0));
  EXPECT_FALSE(receiver.AddMessage(&byte, -1));
  EXPECT_EQ(receiver.Current(), nullptr);
  EXPECT_EQ(receiver.created(), 0u);
  EXPECT_EQ(receiver.Pop(), nullptr);
  EXPECT_EQ(message.Add(nullptr, 5), 0);
  EXPECT_EQ(message.Add(&byte, 0), 0);
  EXPECT_EQ(message.Add(&byte, -3), 0);
  EXPECT_EQ(message.GetMsgLength(), -1);
  EXPECT_EQ(message.GetPacketSize(), -2);
  EXPECT_EQ(message.GetPacket(), nullptr);
  EXPECT_EQ(message.GetMsg(), nullptr);
  EXPECT_EQ(message.GetRecvSize(), 0);
  EXPECT_EQ(message.parse_calls(), 0);
}

TEST(CSocketMsg, AddResultTellsHowMuchOfTheChunkBelongsToThePacket) {
  const std::string frame = Frame("hello");  // 13 bytes.
  const struct {
    const char* name;
    std::vector<std::string> chunks;
    int last_result, recv_size;
  } rows[] = {
      {"exact chunk", {frame}, 13, 13},
      {"header split", {frame.substr(0, 2), frame.substr(2)}, 13, 13},
      {"header only, then rest", {frame.substr(0, 8), frame.substr(8)}, 13, 13},
      {"incomplete", {frame.substr(0, 10)}, 10, 10},
      {"packet ends inside chunk", {frame + "xyz"}, 13, 16},
      {"ends inside second chunk", {frame.substr(0, 5), frame.substr(5) + "xy"}, 8, 15},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FrameMsg message;
    int result = -100;
    for (const std::string& chunk : row.chunks) result = Add(message, chunk);
    EXPECT_EQ(result, row.last_result);
    EXPECT_EQ(message.GetRecvSize(), row.recv_size);
    if (row.recv_size >= 13) {
      EXPECT_EQ(message.GetPacketSize(), 13);
      EXPECT_EQ(message.Message(), "hello");
      EXPECT_EQ(message.GetMsg(), message.GetPacket() + 8);
    }
  }
}

TEST(CSocketMsg, BlockGrowsByTheChunkAndResetKeepsIt) {
  FrameMsg message;
  const std::string chunk(100, 'a');  // A header refused: the message takes every byte.
  Add(message, chunk);
  EXPECT_EQ(message.capacity_for_test(), 100);
  message.Reset();
  Add(message, chunk);  // 0 + 100 reaches the capacity of 100, which counts as too small.
  EXPECT_EQ(message.capacity_for_test(), 200);
  char* block = message.GetPacket();
  message.Reset();
  EXPECT_EQ(message.GetPacket(), block);
  EXPECT_EQ(message.GetMsgLength(), -1);
  EXPECT_EQ(message.GetRecvSize(), 0);
  Add(message, Frame("2nd"));
  EXPECT_EQ(message.capacity_for_test(), 200);
  EXPECT_EQ(message.GetPacket(), block);
  EXPECT_EQ(message.Message(), "2nd");
  EXPECT_EQ(std::string(block + 11, 4), "aaaa");  // The old bytes behind the new packet stay.
}

TEST(CSocketMsg, FrameWithoutMessagePartHasNoMsgAndParsesAgainWhileTheTrailerIsOutstanding) {
  FrameMsg message;
  const std::string frame = Frame("", "TR");
  Add(message, frame.substr(0, 9));
  EXPECT_EQ(message.GetMsgLength(), 0);
  EXPECT_EQ(message.GetPacketSize(), 10);
  EXPECT_EQ(Add(message, frame.substr(9)), 10);
  EXPECT_EQ(message.parse_calls(), 2);  // msgLength 0 is below 1.
  EXPECT_EQ(message.GetMsg(), nullptr);
  EXPECT_EQ(message.Trailer(), "TR");
}

TEST(CSocketMsg, CopiesShareTheBlockAndEachCanBeDestroyed) {
  auto original = std::make_unique<FrameMsg>();
  Add(*original, Frame("shared"));
  {
    FrameMsg copy(*original);
    EXPECT_EQ(copy.GetPacket(), original->GetPacket());
    FrameMsg assigned;
    assigned = copy;
    EXPECT_EQ(assigned.GetPacket(), original->GetPacket());
    // A copy that grows takes a block of its own; the others keep theirs.
    Add(assigned, std::string(200, 'm'));
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
  struct Permissive : FrameMsg {
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
  EXPECT_EQ(message.capacity_for_test(), 16);
}

// --- CSocketMsgReceiver: worked examples ---------------------------------------------------------

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

TEST(CSocketMsgReceiver, PoppedMessagesAreReusedOldestFirstWithTheirBlocks) {
  FrameReceiver receiver;
  FrameMsg a, b;
  EXPECT_EQ(receiver.Push(&a), 1u);
  EXPECT_EQ(receiver.Push(&b), 2u);
  EXPECT_EQ(receiver.Pop(), &a);
  EXPECT_EQ(receiver.Pop(), &b);
  EXPECT_EQ(receiver.Pop(), nullptr);
  const std::string stream = Frame(std::string(500, 'p')) + Frame("q");
  Feed(receiver, stream);
  EXPECT_EQ(receiver.PopFrame(), &a);
  // Cut off from the chunk, `a` keeps the chunk's further bytes behind its packet.
  EXPECT_EQ(std::string(a.GetPacket(), a.GetRecvSize()), stream);
  EXPECT_EQ(receiver.PopFrame(), &b);
  EXPECT_EQ(b.Message(), "q");
  char* block = a.GetPacket();
  for (int i = 0; i < 50; ++i) {  // Each packet fits a's block: nothing is allocated.
    Feed(receiver, Frame(std::string(static_cast<size_t>(i * 7), 'y')));
    ASSERT_EQ(receiver.PopFrame(), &a);
    Feed(receiver, Frame("z"));
    ASSERT_EQ(receiver.PopFrame(), &b);
  }
  EXPECT_EQ(a.GetPacket(), block);
  EXPECT_EQ(receiver.created(), 0u);
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

// Two chunks, split at every byte: a packet whole, split anywhere in its header or body, and
// several in one chunk with a piece of the next. AddMessage is true when a packet completes in
// the chunk, and a message is under assembly exactly when the split is inside a packet.
TEST(CSocketMsgReceiver, EverySplitOfAStreamGivesTheSameFrames) {
  const std::vector<Seen> frames = {{"alpha", ""}, {"bravo!!", "t"}, {"", ""}, {"", "TR"}};
  std::string stream;
  std::vector<size_t> ends;
  for (const Seen& frame : frames) {
    stream += Frame(frame.message, frame.trailer);
    ends.push_back(stream.size());
  }
  for (size_t split = 0; split <= stream.size(); ++split) {
    SCOPED_TRACE(split);
    FrameReceiver receiver;
    EXPECT_EQ(Feed(receiver, stream.substr(0, split)), split >= ends[0]);
    const bool inside = split > 0 && std::find(ends.begin(), ends.end(), split) == ends.end();
    EXPECT_EQ(receiver.Current() != nullptr, inside);
    EXPECT_EQ(Feed(receiver, stream.substr(split)), split < stream.size());
    EXPECT_EQ(receiver.Current(), nullptr);
    EXPECT_EQ(receiver.GetQueueSize(), 4);
    ASSERT_EQ(PopAll(receiver), frames);
  }
}

// Pieces of 1 byte, up to 100 and up to 9000 bytes, popping as we go now and then so that
// messages are reused in between.
TEST(CSocketMsgReceiver, AnyChunkingGivesTheFramesInOrder) {
  for (unsigned seed = 1; seed <= 21; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const size_t max_piece = seed % 3 == 0 ? 1 : seed % 3 == 1 ? 100 : 9000;
    std::string stream;
    const std::vector<Seen> frames =
        RandomFrames(random, max_piece == 1 ? 30 : 200, seed % 2 ? 300 : 5000, stream);
    FrameReceiver receiver;
    std::vector<Seen> seen;
    for (size_t at = 0; at < stream.size();) {
      const size_t size = std::min(1 + random() % max_piece, stream.size() - at);
      Feed(receiver, stream.substr(at, size));
      at += size;
      if (random() % 4 == 0 || at == stream.size()) {
        for (const Seen& s : PopAll(receiver)) seen.push_back(s);
      }
    }
    ASSERT_EQ(seen, frames);
    EXPECT_EQ(receiver.Current(), nullptr);
  }
}

}  // namespace
