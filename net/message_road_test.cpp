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
using tern_test::SendAll;

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
    ASSERT_TRUE(SendAll(hostile.Get(), tern_test::Header(0x7FFFFFF0u, 0x7FFFFFF0u) + "junk"));
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

// Frame `sequence` of client `id`: the two numbers, then bytes that both determine.
std::string LoadMessage(std::uint32_t id, std::uint32_t sequence, size_t size) {
  std::string message = tern_test::Header(id, sequence);
  for (size_t k = 8; k < size; ++k) message.push_back(static_cast<char>(id * 31 + sequence * 7 + k));
  return message;
}

// Sends `frames` frames of random sizes in random pieces.
bool SendLoad(unsigned short port, std::uint32_t id, int frames) {
  KVT::ScopedSocket socket = Connect(port);
  std::mt19937 random(1000 + id);
  std::string pending;
  for (int sequence = 0; sequence < frames; ++sequence) {
    pending += Frame(LoadMessage(id, static_cast<std::uint32_t>(sequence), 8 + random() % 593),
                     std::string(random() % 4, 'T'));
    while (pending.size() > 3000 || (sequence == frames - 1 && !pending.empty())) {
      const size_t cut = std::min<size_t>(1 + random() % 3000, pending.size());
      if (!SendAll(socket.Get(), pending.substr(0, cut))) return false;
      pending.erase(0, cut);
    }
  }
  return true;
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
    // Per connection: the client it belongs to (learnt from its first frame) and the next
    // sequence number; each frame must be that one, intact.
    std::vector<std::int64_t> ids(kClients, -1);
    std::vector<std::uint32_t> next(kClients, 0);
    int popped = 0, bad = 0;
    const DWORD deadline = ::GetTickCount() + 6 * kPatience;
    while (popped < kClients * kFrames && static_cast<LONG>(deadline - ::GetTickCount()) > 0) {
      const int before = popped;
      for (int c = 0; c < kClients; ++c) {
        FrameReceiver* frames = connections[c]->frames;
        frames->LockQueue();  // Held while reading, so that the message isn't reused meanwhile.
        for (FrameMsg* message; (message = frames->PopFrame()) != nullptr; ++popped) {
          const std::string text = message->Message();
          const std::uint32_t id = text.size() < 8 ? ~0u : tern_test::GetLittleEndian32(&text[0]);
          if (ids[c] < 0) ids[c] = id;
          bad += id != ids[c] || text != LoadMessage(id, next[c]++, text.size());
        }
        frames->UnlockQueue();
      }
      if (popped == before) ::Sleep(1);
    }
    for (auto& client : clients) EXPECT_TRUE(client->Join());
    EXPECT_EQ(sent_ok.load(), kClients);
    EXPECT_EQ(popped, kClients * kFrames);
    EXPECT_EQ(bad, 0);
    for (std::uint32_t n : next) EXPECT_EQ(n, static_cast<std::uint32_t>(kFrames));
  }
  EXPECT_LE(ProcessHandleCount(), handles_before);
}

}  // namespace
