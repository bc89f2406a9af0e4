// The length framing: its header both ways, and the receiver fed chunk by chunk. Over real
// connections it serves the example servers, whose tests drive it.
#include "net/length_msg.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using KVT::CLengthMsg;

std::string Header(std::uint32_t length) {
  std::string header(CLengthMsg::HeaderSize, '\0');
  CLengthMsg::WriteHeader(&header[0], length);
  return header;
}

std::string Frame(const std::string& message) {
  return Header(static_cast<std::uint32_t>(message.size())) + message;
}

// Keeps the frames it is handed and counts the refusals. OnMessage gives false for the frame
// numbered `stop_at` (from 1).
class Frames : public KVT::CLengthMsgReceiver {
 public:
  explicit Frames(int max_length = 64) : CLengthMsgReceiver(max_length) {}
  bool IsStopping() override { return false; }
  bool Feed(const std::string& chunk) {
    return OnReceive(nullptr, const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
  }
  // The plain way: the whole chunk to AddMessage, which is true when a frame completed, then
  // every frame popped.
  void FeedWhole(std::string chunk) {
    const size_t before = seen.size();
    const bool completed = AddMessage(&chunk[0], static_cast<int>(chunk.size()));
    while (KVT::CSocketMsg* frame = Pop()) {
      seen.emplace_back(frame->GetPacket() + 4, static_cast<size_t>(frame->GetMsgLength()));
    }
    EXPECT_EQ(completed, seen.size() > before);
  }
  KVT::CSocketMsg* Current() { return current; }

  std::vector<std::string> seen;
  int refusals = 0;
  size_t stop_at = 0;

 protected:
  bool OnMessage(KVT::CClientSocket*, char* message, int length) override {
    EXPECT_NE(message, nullptr);
    seen.emplace_back(message, static_cast<size_t>(length));
    return seen.size() != stop_at;
  }
  void OnRefused(KVT::CClientSocket* socket) override {
    ++refusals;
    CLengthMsgReceiver::OnRefused(socket);
  }
};

TEST(CLengthMsg, HeaderBothWaysAndTheMaximum) {
  EXPECT_EQ(Header(0x04030201u), "\x01\x02\x03\x04");
  EXPECT_EQ(Header(0xFFFFFFFFu), "\xFF\xFF\xFF\xFF");
  CLengthMsg::WriteHeader(nullptr, 5);
  EXPECT_EQ(CLengthMsg(-5).GetMaxLength(), 0);
  EXPECT_EQ(Frames(INT_MAX).GetMaxLength(), CLengthMsg::LengthLimit);
  const struct {
    int max_length;
    std::uint32_t declared;
    bool accepted;
  } rows[] = {
      {16, 16, true}, {16, 17, false}, {-1, 0, true}, {0, 1, false},
      {INT_MAX, 0x7FFFFFFBu, true}, {INT_MAX, 0x7FFFFFFCu, false},
      {INT_MAX, 0x80000000u, false}, {INT_MAX, 0xFFFFFFFFu, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.declared);
    CLengthMsg message(row.max_length);
    std::string header = Header(row.declared);
    EXPECT_EQ(message.Add(&header[0], 3), 3);  // The header split: nothing decided yet.
    EXPECT_FALSE(message.IsRefused());
    EXPECT_EQ(message.Add(&header[3], 1), !row.accepted ? INT_MAX : row.declared == 0 ? 4 : 1);
    EXPECT_EQ(message.IsRefused(), !row.accepted);
    EXPECT_EQ(message.GetMsgLength(), row.accepted ? static_cast<int>(row.declared) : -1);
    EXPECT_EQ(message.GetPacketSize(), row.accepted ? static_cast<int>(row.declared) + 4 : -2);
    message.Reset();
    EXPECT_FALSE(message.IsRefused());
  }
}

TEST(CLengthMsgReceiver, HandsOnEveryFrameInStreamOrder) {
  Frames frames;
  EXPECT_TRUE(frames.Feed(Frame("alpha") + Frame("") + Frame("bravo").substr(0, 2)));
  EXPECT_TRUE(frames.Feed(Frame("bravo").substr(2)));
  EXPECT_TRUE(frames.Feed(std::string()));  // Nothing to frame, nothing handed on.
  // OnMessage's false ends the loop; the frames behind it wait for the next chunk.
  frames.stop_at = 4;
  EXPECT_FALSE(frames.Feed(Frame("d") + Frame("e")));
  EXPECT_EQ(frames.seen.size(), 4u);
  EXPECT_TRUE(frames.Feed(Frame("f")));
  EXPECT_EQ(frames.seen, (std::vector<std::string>{"alpha", "", "bravo", "d", "e", "f"}));
}

// OnReceive cuts each chunk at the frames' ends before AddMessage; fed whole chunks, AddMessage
// gives the same frames, and both give the frames that went in, over random streams: frames of
// every length up to the maximum, chunks of one byte to a few hundred, and in a third of them a
// header that declares too much. The frames before such a header are handed on, OnRefused comes
// once, and nothing after it is taken: the refused message holds the header alone.
TEST(CLengthMsgReceiver, FramesAsTheWholeChunksGiveThemUpToARefusedHeader) {
  const std::uint32_t kHostile[] = {65, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
  std::mt19937 rng(21);
  for (int round = 0; round < 400; ++round) {
    SCOPED_TRACE(round);
    std::vector<std::string> sent;
    std::string stream;
    for (int i = rng() % 30; i > 0; --i) {
      sent.emplace_back(rng() % 3 != 0 ? rng() % 10 : rng() % 65, static_cast<char>(rng()));
      stream += Frame(sent.back());
    }
    const bool hostile = rng() % 3 == 0;
    if (hostile) stream += Header(kHostile[rng() % 4]) + Frame("after");
    Frames cut, whole;
    for (size_t at = 0, size; at < stream.size(); at += size) {
      size = 1 + rng() % (rng() % 2 != 0 ? 5 : 300);
      const bool more = cut.Feed(stream.substr(at, size));
      EXPECT_EQ(more, !cut.IsRefused());
      whole.FeedWhole(stream.substr(at, size));
    }
    ASSERT_EQ(cut.seen, sent);
    ASSERT_EQ(whole.seen, sent);
    EXPECT_EQ(cut.IsRefused(), hostile);
    EXPECT_EQ(whole.IsRefused(), hostile);
    EXPECT_EQ(cut.refusals, hostile ? 1 : 0);
    if (hostile) {
      EXPECT_EQ(cut.Current()->GetRecvSize(), 4);
    }
  }
}

}  // namespace
