// The sockets subsystem against what it is built on.
//
// Message layer: a stream of frames (4-byte length, then the message) cut into 8912-byte chunks,
// fed to a CLengthMsgReceiver as its socket would (AddMessage, then Pop and OnMessage for every
// frame), against a loop that only copies the same chunks. Goal: at least 10 million 64-byte
// messages a second. AddMessage itself copies the whole rest of a chunk into every message that
// starts in it (a message keeps the bytes behind its packet), so the receiver gives it one frame
// at a time; otherwise the bytes copied for small frames grow with the frames per chunk.
//
// Receive: loopback throughput of a CClientSocket's receive thread against a plain recv loop on
// a thread, both with an 8912-byte buffer. Goal: a ratio of at least 0.9.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "bench/bench_compare.h"
#include "foundation/internal/scoped_handle.h"
#include "net/client_socket.h"
#include "net/length_msg.h"
#include "net/internal/scoped_socket.h"

namespace {

constexpr size_t kChunk = 8912;

// --- Message layer -------------------------------------------------------------------------------

// Counts the frames it is handed.
class Messages : public KVT::CLengthMsgReceiver {
 public:
  Messages() : CLengthMsgReceiver(1 << 20) {}
  bool IsStopping() override { return false; }
  bool OnMessage(KVT::CClientSocket*, char* message, int) override {
    benchmark::DoNotOptimize(message);
    ++popped;
    return true;
  }
  std::int64_t popped = 0;
};

// Frames of `frame_size` bytes in all, as many as make the stream a whole number of chunks, so
// that every pass ends on a frame's end.
std::string FrameStream(size_t frame_size) {
  const size_t bytes = std::lcm(frame_size, kChunk);
  std::string stream;
  std::string frame(frame_size, 'm');
  KVT::CLengthMsg::WriteHeader(&frame[0], static_cast<std::uint32_t>(frame_size - 4));
  while (stream.size() < bytes) stream += frame;
  return stream;
}

void BM_AddMessagePop(benchmark::State& state) {
  const auto frame_size = static_cast<size_t>(state.range(0));
  std::string stream = FrameStream(frame_size);
  Messages messages;
  for (auto _ : state) {
    for (size_t at = 0; at < stream.size(); at += kChunk) {
      messages.OnReceive(nullptr, &stream[at], static_cast<int>(kChunk));
    }
  }
  const std::int64_t popped = messages.popped;
  if (popped != static_cast<std::int64_t>(state.iterations() * (stream.size() / frame_size))) {
    state.SkipWithError("frames were lost");
  }
  state.SetItemsProcessed(popped);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_AddMessagePop)->Arg(64)->Arg(4096);

void BM_CopyChunks(benchmark::State& state) {
  const auto frame_size = static_cast<size_t>(state.range(0));
  std::string stream = FrameStream(frame_size);
  std::vector<char> target(kChunk);
  for (auto _ : state) {
    for (size_t at = 0; at < stream.size(); at += kChunk) {
      std::memcpy(target.data(), &stream[at], kChunk);
      benchmark::ClobberMemory();
    }
  }
  state.SetItemsProcessed(
      static_cast<std::int64_t>(state.iterations() * (stream.size() / frame_size)));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_CopyChunks)->Arg(64)->Arg(4096);

// --- Loopback receive ----------------------------------------------------------------------------

constexpr std::int64_t kBytesPerPass = 4 << 20;
constexpr int kSendPiece = 64 << 10;

class Winsock {
 public:
  Winsock() { ok_ = ::WSAStartup(MAKEWORD(2, 2), &data_) == 0; }
  ~Winsock() {
    if (ok_) ::WSACleanup();
  }
  bool ok() const { return ok_; }

 private:
  WSADATA data_;
  bool ok_ = false;
};

// Both ends of a loopback connection.
bool ConnectedPair(KVT::internal::ScopedSocket& sender, KVT::internal::ScopedSocket& receiver) {
  KVT::internal::ScopedSocket listening(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  int length = sizeof(address);
  if (::bind(listening.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listening.Get(), 1) != 0 ||
      ::getsockname(listening.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return false;
  }
  sender.Reset(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  if (::connect(sender.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    return false;
  }
  receiver.Reset(::accept(listening.Get(), nullptr, nullptr));
  return receiver.IsValid();
}

// Counts received bytes and signals when a pass's worth has come.
struct Tally {
  Tally() : done(::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}
  void Add(int bytes) {
    if ((received += bytes) >= target) {
      received -= target;
      ::SetEvent(done.Get());
    }
  }
  std::int64_t received = 0;  // Written by the receiving thread only.
  std::int64_t target = kBytesPerPass;
  KVT::internal::ScopedHandle done;
};

// One pass: the benchmark's thread sends, the receiving side counts.
bool SendPass(SOCKET sender, const std::vector<char>& piece, Tally& tally) {
  for (std::int64_t sent = 0; sent < kBytesPerPass;) {
    const int n = ::send(sender, piece.data(), kSendPiece, 0);
    if (n <= 0) return false;
    sent += n;
  }
  return ::WaitForSingleObject(tally.done.Get(), 30000) == WAIT_OBJECT_0;
}

class CountingReceiver : public KVT::ISOReceiver {
 public:
  explicit CountingReceiver(Tally& tally) : tally_(tally) {}
  bool IsStopping() override { return stop.load(std::memory_order_relaxed); }
  bool OnReceive(KVT::CClientSocket*, void*, int length) override {
    tally_.Add(length);
    return true;
  }
  std::atomic<bool> stop{false};

 private:
  Tally& tally_;
};

void BM_ClientSocketReceive(benchmark::State& state) {
  Winsock winsock;
  KVT::internal::ScopedSocket sender, accepted;
  if (!winsock.ok() || !ConnectedPair(sender, accepted)) {
    state.SkipWithError("no loopback connection");
    return;
  }
  Tally tally;
  CountingReceiver receiver(tally);
  KVT::CClientSocket socket(&receiver, static_cast<unsigned int>(accepted.Take()), kChunk);
  socket.Receive(0);
  std::vector<char> piece(kSendPiece, 'r');
  for (auto _ : state) {
    if (!SendPass(sender.Get(), piece, tally)) {
      state.SkipWithError("a pass did not arrive");
      break;
    }
  }
  receiver.stop = true;
  socket.Shutdown();
  socket.WaitForThreadExit(10000);
  state.SetBytesProcessed(state.iterations() * kBytesPerPass);
}
BENCHMARK(BM_ClientSocketReceive)->UseRealTime()->Unit(benchmark::kMillisecond);

struct PlainLoop {
  SOCKET socket;
  Tally* tally;
};

DWORD WINAPI PlainReceiveLoop(void* parameter) {
  auto* loop = static_cast<PlainLoop*>(parameter);
  std::vector<char> buffer(kChunk);
  for (;;) {
    const int n = ::recv(loop->socket, buffer.data(), static_cast<int>(buffer.size()), 0);
    if (n <= 0) return 0;
    loop->tally->Add(n);
  }
}

void BM_PlainRecvLoop(benchmark::State& state) {
  Winsock winsock;
  KVT::internal::ScopedSocket sender, accepted;
  if (!winsock.ok() || !ConnectedPair(sender, accepted)) {
    state.SkipWithError("no loopback connection");
    return;
  }
  Tally tally;
  PlainLoop loop{accepted.Get(), &tally};
  KVT::internal::ScopedHandle thread(
      ::CreateThread(nullptr, 0, PlainReceiveLoop, &loop, 0, nullptr));
  std::vector<char> piece(kSendPiece, 'r');
  for (auto _ : state) {
    if (!SendPass(sender.Get(), piece, tally)) {
      state.SkipWithError("a pass did not arrive");
      break;
    }
  }
  ::shutdown(accepted.Get(), SD_BOTH);
  sender.Close();
  ::WaitForSingleObject(thread.Get(), 10000);
  state.SetBytesProcessed(state.iterations() * kBytesPerPass);
}
BENCHMARK(BM_PlainRecvLoop)->UseRealTime()->Unit(benchmark::kMillisecond);

TERN_BENCH_COMPARE("AddMessage+Pop vs copying the chunks, 64-byte frames",
                   "BM_AddMessagePop/64", "BM_CopyChunks/64");
TERN_BENCH_COMPARE("AddMessage+Pop vs copying the chunks, 4 KiB frames",
                   "BM_AddMessagePop/4096", "BM_CopyChunks/4096");
TERN_BENCH_COMPARE("CClientSocket receive vs plain recv loop, loopback",
                   "BM_ClientSocketReceive/real_time", "BM_PlainRecvLoop/real_time");

}  // namespace
