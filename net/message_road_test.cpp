// Messages end to end over loopback: a CServerSocket accepts, a CClientSocket over the accepted
// handle receives on its thread, OnReceive feeds a CSocketMsgReceiver, and a consumer pops.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "net/client_socket.h"
#include "net/loopback_test_support.h"
#include "net/server_socket.h"
#include "net/socket_msg.h"
#include "net/test_frames.h"

namespace {

using tern_test::Connect;
using tern_test::Frame;
using tern_test::FrameMsg;
using tern_test::FrameReceiver;
using tern_test::kPatience;
using tern_test::LoopbackServer;
using tern_test::RecordingListener;
using tern_test::SendAll;
using tern_test::WaitUntil;

// One accepted connection: a client socket over the handle, whose chunks go to `frames`.
class Connection : public KVT::ISOReceiver {
 public:
  Connection(unsigned int accepted, FrameReceiver* frames)
      : frames_(frames), socket_(this, accepted, 0) {}
  // Stopped, shut down and awaited before it goes, as the socket classes want.
  ~Connection() {
    stop_ = true;
    socket_.Shutdown();
    socket_.WaitForThreadExit(static_cast<int>(kPatience));
  }

  bool Start() { return socket_.Receive(0) != nullptr; }
  bool IsStopping() override { return stop_.load(); }
  bool OnReceive(KVT::CClientSocket*, void* data, int length) override {
    frames_->AddMessage(data, length);
    if (frames_->Refused()) {
      // The stream can't be framed any more: forget it, and end the connection.
      frames_->DropCurrent();
      refused_ = true;
      return false;
    }
    return true;
  }
  bool refused() const { return refused_.load(); }
  FrameReceiver* frames() { return frames_; }
  KVT::CClientSocket& socket() { return socket_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<bool> refused_{false};
  FrameReceiver* frames_;
  KVT::CClientSocket socket_;
};

// A server whose OnAccept wraps every connection, feeding either one shared FrameReceiver or a
// new one per connection.
class FrameServer {
 public:
  explicit FrameServer(FrameReceiver* shared = nullptr) : shared_(shared) {
    listener_.on_accept = [this](unsigned int accepted) {
      FrameReceiver* frames = shared_;
      std::lock_guard<std::mutex> hold(mutex_);
      if (frames == nullptr) {
        own_frames_.push_back(std::make_unique<FrameReceiver>());
        frames = own_frames_.back().get();
      }
      connections_.push_back(std::make_unique<Connection>(accepted, frames));
      connections_.back()->Start();
    };
    server_ = std::make_unique<LoopbackServer>(listener_);
  }
  ~FrameServer() {
    server_.reset();  // No more accepts.
    connections_.clear();
  }

  bool IsListening() const { return server_->IsListening(); }
  unsigned short port() const { return server_->port(); }
  bool WaitForConnections(size_t count) {
    return WaitUntil([&] { return Connections().size() >= count; });
  }
  std::vector<Connection*> Connections() {
    std::lock_guard<std::mutex> hold(mutex_);
    std::vector<Connection*> all;
    for (auto& connection : connections_) all.push_back(connection.get());
    return all;
  }

 private:
  FrameReceiver* shared_;
  RecordingListener listener_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<FrameReceiver>> own_frames_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::unique_ptr<LoopbackServer> server_;
};

// Pops one message within kPatience and gives its message part; "<none>" if none came.
std::string PopWithin(FrameReceiver& frames) {
  std::string message = "<none>";
  WaitUntil([&] {
    frames.LockQueue();
    FrameMsg* popped = frames.PopFrame();
    if (popped != nullptr) message = popped->Message();
    frames.UnlockQueue();
    return popped != nullptr;
  });
  return message;
}

TEST(MessageRoad, OneMessageEndToEnd) {
  FrameServer server;
  ASSERT_TRUE(server.IsListening());
  KVT::ScopedSocket client = Connect(server.port());
  ASSERT_TRUE(client.IsValid());
  ASSERT_TRUE(server.WaitForConnections(1));
  Connection* connection = server.Connections()[0];
  EXPECT_STREQ(connection->socket().GetIPAddress(), L"127.0.0.1");
  const std::string frame = Frame("hello, road");
  // Split so that the header comes in two chunks.
  ASSERT_TRUE(SendAll(client.Get(), frame.substr(0, 3)));
  ::Sleep(20);
  ASSERT_TRUE(SendAll(client.Get(), frame.substr(3)));
  EXPECT_EQ(PopWithin(*connection->frames()), "hello, road");
  client.Close();
  EXPECT_EQ(tern_test::ExitCodeAfterWait(connection->socket().GetThread()), 1);
  EXPECT_EQ(connection->socket().GetLastError(), 0u);
}

TEST(MessageRoad, HostileHeaderEndsItsConnectionAndTheNextOneIsFramedAfresh) {
  FrameReceiver shared;
  FrameServer server(&shared);
  ASSERT_TRUE(server.IsListening());
  {
    KVT::ScopedSocket hostile = Connect(server.port());
    ASSERT_TRUE(hostile.IsValid());
    ASSERT_TRUE(SendAll(hostile.Get(), tern_test::Header(0x7FFFFFF0u, 0x7FFFFFF0u) + "junk"));
    ASSERT_TRUE(server.WaitForConnections(1));
    Connection* connection = server.Connections()[0];
    EXPECT_EQ(tern_test::ExitCodeAfterWait(connection->socket().GetThread()), 1);
    EXPECT_TRUE(connection->refused());
  }
  KVT::ScopedSocket fresh = Connect(server.port());
  ASSERT_TRUE(fresh.IsValid());
  ASSERT_TRUE(SendAll(fresh.Get(), Frame("valid after all")));
  EXPECT_EQ(PopWithin(shared), "valid after all");
  EXPECT_EQ(shared.created(), 1u);  // The refused message was reused, not replaced.
}

// --- Load ----------------------------------------------------------------------------------------

// Frame `sequence` of client `id`: the two numbers, then bytes that both determine.
std::string LoadMessage(std::uint32_t id, std::uint32_t sequence, size_t size) {
  std::string message;
  tern_test::PutLittleEndian32(message, id);
  tern_test::PutLittleEndian32(message, sequence);
  for (size_t k = 8; k < size; ++k) {
    message.push_back(static_cast<char>(id * 31 + sequence * 7 + k));
  }
  return message;
}

// Sends `frames` frames of random sizes in random pieces.
bool SendLoad(unsigned short port, std::uint32_t id, int frames) {
  KVT::ScopedSocket socket = Connect(port);
  if (!socket.IsValid()) return false;
  std::mt19937 random(1000 + id);
  std::uniform_int_distribution<size_t> size(8, 600);
  std::uniform_int_distribution<size_t> trailer(0, 3);
  std::uniform_int_distribution<size_t> piece(1, 3000);
  std::string pending;
  for (int sequence = 0; sequence < frames; ++sequence) {
    pending += Frame(LoadMessage(id, static_cast<std::uint32_t>(sequence), size(random)),
                     std::string(trailer(random), 'T'));
    while (pending.size() > 3000 || (sequence == frames - 1 && !pending.empty())) {
      const size_t cut = std::min(piece(random), pending.size());
      if (!SendAll(socket.Get(), pending.substr(0, cut))) return false;
      pending.erase(0, cut);
    }
  }
  return true;
}

// Per connection: the client it belongs to, and the next sequence number expected.
struct Progress {
  std::int64_t id = -1;
  std::uint32_t next = 0;
  bool intact = true;
};

bool CheckLoadMessage(FrameMsg* message, Progress& progress) {
  const std::string text = message->Message();
  if (text.size() < 8) return false;
  const std::uint32_t id = tern_test::GetLittleEndian32(text.data());
  const std::uint32_t sequence = tern_test::GetLittleEndian32(text.data() + 4);
  if (progress.id < 0) progress.id = id;
  if (id != progress.id || sequence != progress.next) return false;
  ++progress.next;
  return text == LoadMessage(id, sequence, text.size());
}

// Handles the process holds. Wine answers GetProcessHandleCount with 0; there the handle table
// is walked instead: its handles are multiples of 4 from 4 on, and GetHandleInformation accepts
// exactly the open ones (sockets included, which are handles there).
DWORD ProcessHandleCount() {
  DWORD count = 0;
  if (::GetProcessHandleCount(::GetCurrentProcess(), &count) && count != 0) return count;
  for (uintptr_t value = 4; value < 0x40000; value += 4) {
    DWORD flags = 0;
    if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++count;
  }
  return count;
}

TEST(MessageRoad, SixteenClientsUnderLoadLoseNothingAndLeakNoHandles) {
  constexpr int kClients = 16;
  constexpr int kFrames = 5000;
  {
    // Warm-up, so that Windows Sockets' own lazily made handles exist before the count.
    FrameServer warm_up;
    ASSERT_TRUE(warm_up.IsListening());
    ASSERT_TRUE(SendLoad(warm_up.port(), 99, 10));
    ASSERT_TRUE(warm_up.WaitForConnections(1));
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
    ASSERT_TRUE(server.WaitForConnections(kClients));
    // The count sees the threads and sockets of the run; otherwise the check below proves
    // nothing.
    EXPECT_GT(ProcessHandleCount(), handles_before + kClients);
    std::vector<Connection*> connections = server.Connections();
    std::vector<Progress> progress(connections.size());
    int popped = 0;
    bool intact = true;
    const DWORD deadline = ::GetTickCount() + 6 * kPatience;
    while (popped < kClients * kFrames && static_cast<LONG>(deadline - ::GetTickCount()) > 0) {
      bool any = false;
      for (size_t c = 0; c < connections.size(); ++c) {
        FrameReceiver* frames = connections[c]->frames();
        frames->LockQueue();
        while (FrameMsg* message = frames->PopFrame()) {
          intact = CheckLoadMessage(message, progress[c]) && intact;
          ++popped;
          any = true;
        }
        frames->UnlockQueue();
      }
      if (!any) ::Sleep(1);
    }
    for (auto& client : clients) EXPECT_TRUE(client->Join());
    EXPECT_EQ(sent_ok.load(), kClients);
    EXPECT_EQ(popped, kClients * kFrames);
    EXPECT_TRUE(intact);
    for (const Progress& p : progress) EXPECT_EQ(p.next, static_cast<std::uint32_t>(kFrames));
  }
  EXPECT_LE(ProcessHandleCount(), handles_before);
}

}  // namespace
