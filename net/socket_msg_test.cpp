// Socket messages and the message receiver, alone and end to end over loopback: a
// CServerSocket accepts, a CClientSocket over the accepted handle receives on its thread,
// OnReceive feeds a CSocketMsgReceiver, and a consumer pops.
#include "net/socket_msg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "net/client_socket.h"
#include "net/loopback_test_support.h"
#include "net/server_socket.h"
#include "net/test_frames.h"

namespace {

using tern_test::Connect;
using tern_test::Frame;
using tern_test::FrameMsg;
using tern_test::FrameReceiver;
using tern_test::GetLittleEndian32;
using tern_test::Header;
using tern_test::kPatience;
using tern_test::SendAll;

// A frame as the consumer sees it: message and trailer.
using Seen = std::pair<std::string, std::string>;

int Add(FrameMsg& message, const std::string& chunk) {
  return message.Add(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
}

bool Feed(FrameReceiver& receiver, const std::string& chunk) {
  return receiver.AddMessage(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()));
}

std::vector<Seen> PopAll(FrameReceiver& receiver) {
  std::vector<Seen> seen;
  while (FrameMsg* message = receiver.PopFrame()) {
    seen.emplace_back(message->Message(), message->Trailer());
  }
  return seen;
}

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
  const struct { const char* name; std::string header; } rows[] = {
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
    stream += Frame(frame.first, frame.second);
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

// One accepted connection: a client socket over the handle, whose chunks go to `frames` (its
// own receiver unless one is given). Stopped, shut down and awaited before it goes.
struct Connection : KVT::ISOReceiver {
  Connection(unsigned int accepted, FrameReceiver* shared)
      : frames(shared != nullptr ? shared : &own), socket(this, accepted, 0) {}
  ~Connection() {
    stop = true;
    socket.Shutdown();
    socket.WaitForThreadExit(static_cast<int>(kPatience));
  }

  bool IsStopping() override { return stop.load(); }
  bool OnReceive(KVT::CClientSocket*, void* data, int length) override {
    frames->AddMessage(data, length);
    if (!frames->Refused()) return true;
    // The stream can't be framed any more: forget it, and end the connection.
    frames->DropCurrent();
    refused = true;
    return false;
  }

  std::atomic<bool> stop{false};
  std::atomic<bool> refused{false};
  FrameReceiver own;
  FrameReceiver* frames;
  KVT::CClientSocket socket;
};

// A server whose OnAccept starts a Connection for every accepted handle.
class FrameServer {
 public:
  explicit FrameServer(FrameReceiver* shared = nullptr) {
    listener_.on_accept = [this, shared](unsigned int accepted) {
      std::lock_guard<std::mutex> hold(mutex_);
      connections_.push_back(std::make_unique<Connection>(accepted, shared));
      connections_.back()->socket.Receive(0);
    };
    server_ = std::make_unique<tern_test::LoopbackServer>(listener_);
  }
  ~FrameServer() { server_.reset(); }  // No more accepts, before the connections go.

  bool IsListening() const { return server_->IsListening(); }
  unsigned short port() const { return server_->port(); }
  // The first `count` connections, once they have come.
  std::vector<Connection*> WaitForConnections(size_t count) {
    std::vector<Connection*> all;
    tern_test::WaitUntil([&] {
      std::lock_guard<std::mutex> hold(mutex_);
      all.clear();
      for (auto& connection : connections_) all.push_back(connection.get());
      return all.size() >= count;
    });
    all.resize(std::min(all.size(), count));
    return all;
  }

 private:
  tern_test::RecordingListener listener_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::unique_ptr<tern_test::LoopbackServer> server_;
};

TEST(MessageRoad, HostileHeaderEndsItsConnectionAndTheNextOneIsFramedAfresh) {
  FrameReceiver shared;
  FrameServer server(&shared);
  ASSERT_TRUE(server.IsListening());
  {
    KVT::ScopedSocket hostile = Connect(server.port());
    ASSERT_TRUE(SendAll(hostile.Get(), Header(0x7FFFFFF0u, 0x7FFFFFF0u) + "junk"));
    const std::vector<Connection*> connections = server.WaitForConnections(1);
    ASSERT_EQ(connections.size(), 1u);
    EXPECT_EQ(tern_test::ExitCodeAfterWait(connections[0]->socket.GetThread()), 1);
    EXPECT_EQ(connections[0]->socket.GetLastError(), 0u);
    EXPECT_TRUE(connections[0]->refused);
  }
  KVT::ScopedSocket fresh = Connect(server.port());
  ASSERT_TRUE(SendAll(fresh.Get(), Frame("valid after all")));
  std::string message = "<none>";
  tern_test::WaitUntil([&] {
    FrameMsg* popped = shared.PopFrame();  // Nothing feeds `shared` after this frame.
    if (popped != nullptr) message = popped->Message();
    return popped != nullptr;
  });
  EXPECT_EQ(message, "valid after all");
  EXPECT_EQ(shared.created(), 1u);  // The refused message was reused, not replaced.
}

// --- Load ----------------------------------------------------------------------------------------

// The frames of client `id`: each holds the two numbers, then bytes that both determine. Sent
// in one go; the stack cuts the stream where it likes.
std::string LoadStream(std::uint32_t id, int frames) {
  std::string stream;
  for (std::uint32_t sequence = 0; sequence < static_cast<std::uint32_t>(frames); ++sequence) {
    std::string message = Header(id, sequence);
    const size_t size = 8 + (id * 131 + sequence * 71) % 593;
    for (size_t k = 8; k < size; ++k) message.push_back(static_cast<char>(k));
    stream += Frame(message, std::string(sequence % 4, 'T'));
  }
  return stream;
}

bool SendLoad(unsigned short port, std::uint32_t id, int frames) {
  KVT::ScopedSocket socket = Connect(port);
  return SendAll(socket.Get(), LoadStream(id, frames));
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

TEST(MessageRoad, EightClientsAtOnceLoseNothingAndLeakNoHandles) {
  constexpr int kClients = 8;
  constexpr int kFrames = 400;
  {
    // Warm-up, so that Windows Sockets' own lazily made handles exist before the count.
    FrameServer warm_up;
    ASSERT_TRUE(SendLoad(warm_up.port(), 99, 10));
    ASSERT_EQ(warm_up.WaitForConnections(1).size(), 1u);
  }
  const DWORD handles_before = ProcessHandleCount();
  {
    FrameServer server;
    ASSERT_TRUE(server.IsListening());
    std::vector<std::unique_ptr<tern_test::TestThread>> clients;
    std::atomic<int> sent_ok{0};
    for (int id = 0; id < kClients; ++id) {
      clients.push_back(std::make_unique<tern_test::TestThread>([&, id] {
        if (SendLoad(server.port(), static_cast<std::uint32_t>(id), kFrames)) ++sent_ok;
      }));
    }
    const std::vector<Connection*> connections = server.WaitForConnections(kClients);
    ASSERT_EQ(connections.size(), static_cast<size_t>(kClients));
    // The count sees the threads and sockets of the run; otherwise the check below proves
    // nothing.
    EXPECT_GT(ProcessHandleCount(), handles_before + kClients);
    // Per connection, the frames as they come: the client's whole stream once all are there.
    std::vector<std::string> streams(kClients);
    int popped = 0;
    const DWORD deadline = ::GetTickCount() + 6 * kPatience;
    while (popped < kClients * kFrames && static_cast<LONG>(deadline - ::GetTickCount()) > 0) {
      const int before = popped;
      for (int c = 0; c < kClients; ++c) {
        FrameReceiver* frames = connections[c]->frames;
        frames->LockQueue();  // Held while reading, so that the message isn't reused meanwhile.
        for (FrameMsg* message; (message = frames->PopFrame()) != nullptr; ++popped) {
          streams[c] += Frame(message->Message(), message->Trailer());
        }
        frames->UnlockQueue();
      }
      if (popped == before) ::Sleep(1);
    }
    for (auto& client : clients) EXPECT_TRUE(client->Join());
    EXPECT_EQ(sent_ok.load(), kClients);
    EXPECT_EQ(popped, kClients * kFrames);
    for (const std::string& stream : streams) {
      const std::uint32_t id = stream.size() < 16 ? ~0u : GetLittleEndian32(&stream[8]);
      EXPECT_TRUE(stream == LoadStream(id, kFrames)) << "client " << id;
    }
  }
  EXPECT_LE(ProcessHandleCount(), handles_before);
}

}  // namespace
