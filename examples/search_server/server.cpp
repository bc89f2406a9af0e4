// Connections and workers.
//
// Each connection is a Session: a CClientSocket whose receive thread cuts the stream into
// request frames (the session is its CLengthMsgReceiver) and queues them on the session. A
// session with queued requests waits in the Dispatcher's queue, from which the workers take it,
// answer its oldest request and put it back if more are waiting: one request of a connection at
// a time, so that its answers keep the order of its requests, while different connections are
// served side by side.
#include <cstdio>
#include <cwchar>
#include <deque>
#include <memory>

#include "examples/common/length_frame.h"
#include "examples/common/owners.h"
#include "examples/search_server/search_server.h"

namespace search_server {
namespace {

constexpr unsigned int kStopId = 0;  // The lowest id, so that a stop wins over work in Wait.
constexpr unsigned int kWorkId = 1;
constexpr DWORD kSendTimeoutMs = 10000;  // A client that stops reading frees its worker then.
constexpr int kThreadPatienceMs = 5000;

class Session;

// A queued request: the frame's text, or, with `close` set, the reason of an "ERR" reply after
// which the connection is closed.
struct Pending {
  std::string text;
  const char* close = nullptr;
};

// The work queue and the worker pool. The table holds two events: kWorkId (auto-reset) wakes
// one waiting worker per signal, kStopId (manual reset) wakes every worker and the main thread.
// It is filled before any thread starts and only read afterwards, so the threads share it
// without a lock; the queue itself is guarded by `lock_`.
class Dispatcher {
 public:
  explicit Dispatcher(const Config& config) : config_(config) {}
  ~Dispatcher() {
    StopWorkers();
    sync_.CloseAll();  // The table's destructor closes nothing.
  }

  bool Start() {
    if (sync_.CreateEventW(0, kStopId, nullptr, true) == nullptr ||
        sync_.CreateEventW(0, kWorkId, nullptr, false) == nullptr) {
      return false;
    }
    for (int i = 0; i < config_.workers; ++i) {
      tern_example::Handle thread(::CreateThread(nullptr, 0, WorkerMain, this, 0, nullptr));
      if (!tern_example::IsOpen(thread)) return false;
      threads_.push_back(std::move(thread));
    }
    return true;
  }

  void Push(std::shared_ptr<Session> session) {
    lock_.Lock();
    queue_.push_back(std::move(session));
    lock_.Unlock();
    sync_.Signal(kWorkId);
  }

  void RequestStop() {
    stopping_ = true;
    sync_.Signal(kStopId);
  }
  bool Stopping() const { return stopping_; }
  void WaitForStop() { sync_.Wait(1u << kStopId, -1); }

  // Stops the workers and waits for them. Without a time limit: a worker ends after its current
  // request, whose sends give up after kSendTimeoutMs and whose folder walk ends at the next
  // file once the stop is asked for.
  void StopWorkers() {
    RequestStop();
    for (tern_example::Handle& thread : threads_) ::WaitForSingleObject(thread.get(), INFINITE);
    threads_.clear();
    lock_.Lock();
    queue_.clear();
    lock_.Unlock();
  }

 private:
  static DWORD WINAPI WorkerMain(void* self) {
    static_cast<Dispatcher*>(self)->Work();
    return 0;
  }

  void Work();
  void Serve(Session& session, const Pending& item, Searcher& searcher, std::string& frames);

  // The next session with work, or null once the server stops.
  std::shared_ptr<Session> Next() {
    for (;;) {
      if (stopping_) return nullptr;
      std::shared_ptr<Session> session;
      lock_.Lock();
      if (!queue_.empty()) {
        session = std::move(queue_.front());
        queue_.pop_front();
        // An auto-reset event wakes one worker per signal: pass the wake on while work remains.
        if (!queue_.empty()) sync_.Signal(kWorkId);
      }
      lock_.Unlock();
      if (session) return session;
      if (sync_.Wait((1u << kStopId) | (1u << kWorkId), -1) != kWorkId) return nullptr;
    }
  }

  const Config& config_;
  KVT::CTWSync sync_;
  KVT::CLock lock_;
  std::deque<std::shared_ptr<Session>> queue_;
  std::atomic<bool> stopping_{false};
  std::vector<tern_example::Handle> threads_;
};

class Session : public KVT::CLengthMsgReceiver, public std::enable_shared_from_this<Session> {
 public:
  Session(Dispatcher& dispatcher, unsigned int accepted)
      : CLengthMsgReceiver(kMaxRequestBytes),
        dispatcher_(dispatcher),
        socket_(this, accepted, 0) {}
  // The order the socket classes want: stop, shut down, wait, destroy.
  ~Session() {
    stop_ = true;
    Close();
    socket_.WaitForThreadExit(kThreadPatienceMs);
  }

  bool Start() { return socket_.Receive(0) != nullptr; }

  bool IsStopping() override { return stop_ || dispatcher_.Stopping(); }

  // Worker side. Take gives the oldest request; Finish, once it is answered, removes it and
  // says whether the session must go back into the queue for the next one.
  bool Take(Pending* item) {
    lock_.Lock();
    const bool any = !pending_.empty();
    if (any) *item = pending_.front();
    lock_.Unlock();
    return any;
  }
  bool Finish() {
    lock_.Lock();
    if (!pending_.empty()) pending_.pop_front();
    scheduled_ = !pending_.empty();
    const bool again = scheduled_;
    lock_.Unlock();
    return again;
  }

  // Sends whole frames; a failed send closes the connection.
  bool Send(const std::string& bytes) {
    socket_.Lock();
    const bool sent = tern_example::SendAll(socket_, bytes);
    socket_.Unlock();
    if (!sent) Close();
    return sent;
  }

  // Closes the connection and drops what it still has queued. The socket's lock keeps a close
  // from overtaking a send in progress, which could otherwise reach a socket that a new
  // connection got under the same handle.
  void Close() {
    lock_.Lock();
    closed_ = true;
    pending_.clear();
    lock_.Unlock();
    socket_.Lock();
    socket_.Shutdown();
    socket_.Unlock();
  }

  // The receive thread has ended and no worker holds the session.
  bool Ended() {
    HANDLE thread = socket_.GetThread();
    lock_.Lock();
    const bool idle = !scheduled_;
    lock_.Unlock();
    return idle && (thread == nullptr || ::WaitForSingleObject(thread, 0) == WAIT_OBJECT_0);
  }

  bool FromLoopback() { return std::wcsncmp(socket_.GetIPAddress(), L"127.", 4) == 0; }

 protected:
  // Receive side, on the receive thread: the frame becomes a request in the session's queue.
  bool OnMessage(KVT::CClientSocket*, char* message, int length) override {
    return Enqueue({std::string(message, static_cast<std::size_t>(length))});
  }
  // Nothing behind a refused header can be trusted: the worker answers, then closes; the
  // receive loop reads no more.
  void OnRefused(KVT::CClientSocket*) override { Enqueue({std::string(), "request too large"}); }

 private:
  // Receive side: false once the connection takes no more requests. A close item is the last
  // that a connection queues; one beyond kMaxPendingRequests becomes such an item.
  bool Enqueue(Pending item) {
    lock_.Lock();
    if (closed_) {
      lock_.Unlock();
      return false;
    }
    if (item.close == nullptr && pending_.size() >= static_cast<std::size_t>(kMaxPendingRequests)) {
      item = {std::string(), "too many requests"};
    }
    closed_ = item.close != nullptr;
    pending_.push_back(std::move(item));
    const bool wake = !scheduled_;
    scheduled_ = true;
    const bool open = !closed_;
    lock_.Unlock();
    if (wake) dispatcher_.Push(shared_from_this());
    return open;
  }

  Dispatcher& dispatcher_;
  KVT::CLock lock_;  // Guards pending_, scheduled_ and closed_.
  std::deque<Pending> pending_;
  bool scheduled_ = false;  // In the dispatcher's queue or in a worker's hands.
  bool closed_ = false;      // Takes no more requests.
  std::atomic<bool> stop_{false};
  KVT::CClientSocket socket_;
};

void Dispatcher::Work() {
  Searcher searcher;
  std::string frames;
  while (std::shared_ptr<Session> session = Next()) {
    Pending item;
    if (session->Take(&item)) Serve(*session, item, searcher, frames);
    if (session->Finish()) Push(std::move(session));
  }
}

void Dispatcher::Serve(Session& session, const Pending& item, Searcher& searcher,
                       std::string& frames) {
  frames.clear();
  Request request;
  const char* refusal = item.close;
  if (refusal == nullptr) refusal = ParseRequest(item.text, config_.folders, &request);
  bool stop = false;
  if (refusal == nullptr && request.command == Command::kStop) {
    // Only a client on this machine may end the service.
    stop = session.FromLoopback();
    refusal = stop ? nullptr : "stop refused";
    if (stop) tern_example::AppendFrame(frames, "END 0");
  } else if (refusal == nullptr) {
    searcher.Find(request, frames, [&session](const std::string& f) { return session.Send(f); },
                  stopping_);
  }
  if (refusal != nullptr) tern_example::AppendFrame(frames, std::string("ERR ") + refusal);
  session.Send(frames);
  if (item.close != nullptr) session.Close();
  if (stop) RequestStop();
}

class Listener : public KVT::ISOListener {
 public:
  explicit Listener(Dispatcher& dispatcher) : dispatcher_(dispatcher) {}

  bool IsStopping() override { return dispatcher_.Stopping(); }

  bool OnAccept(KVT::CServerSocket*, unsigned int accepted) override {
    DWORD timeout = kSendTimeoutMs;
    KVT::CSocketUtil::SetOptions(accepted, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    std::vector<std::shared_ptr<Session>> ended;  // Destroyed after the lock is released.
    lock_.Lock();
    for (auto it = sessions_.begin(); it != sessions_.end();) {
      if ((*it)->Ended()) {
        ended.push_back(std::move(*it));
        it = sessions_.erase(it);
      } else {
        ++it;
      }
    }
    const bool busy = sessions_.size() >= static_cast<std::size_t>(kMaxConnections);
    std::shared_ptr<Session> session;
    if (!busy) {
      session = std::make_shared<Session>(dispatcher_, accepted);
      if (session->Start()) sessions_.push_back(session);
    }
    lock_.Unlock();
    if (busy) {
      KVT::CClientSocket refused(nullptr, accepted, 0);
      std::string frame;
      tern_example::AppendFrame(frame, "ERR server busy");
      tern_example::SendAll(refused, frame);
      refused.Shutdown();
    }
    return true;
  }

  bool OnListening(wchar_t const*, wchar_t const* ipAddress, unsigned short port) override {
    std::printf("tern_search_server: listening on %ls port %u\n", ipAddress, port);
    return true;
  }

  bool OnError(KVT::CServerSocket*, int error) override {
    std::fprintf(stderr, "tern_search_server: cannot listen: %d %ls\n", error,
                 KVT::CSocketUtil::PrintSocketError(error));
    failed_ = true;
    dispatcher_.RequestStop();
    return true;
  }

  bool Failed() const { return failed_; }

  void EndSessions() {
    lock_.Lock();
    std::vector<std::shared_ptr<Session>> sessions;
    sessions.swap(sessions_);
    lock_.Unlock();
  }

 private:
  Dispatcher& dispatcher_;
  KVT::CLock lock_;  // Guards sessions_.
  std::vector<std::shared_ptr<Session>> sessions_;
  std::atomic<bool> failed_{false};
};

Dispatcher* g_dispatcher = nullptr;

BOOL WINAPI OnConsoleEvent(DWORD) {
  if (g_dispatcher != nullptr) g_dispatcher->RequestStop();
  return TRUE;
}

}  // namespace

int RunServer(const Config& config) {
  Dispatcher dispatcher(config);
  if (!dispatcher.Start()) {
    std::fprintf(stderr, "tern_search_server: cannot start the workers\n");
    return 1;
  }
  g_dispatcher = &dispatcher;
  ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  Listener listener(dispatcher);
  bool listened = false;
  {
    KVT::TSOSocketInfo info = {};
    info.family = AF_INET;
    info.protocol = static_cast<IPPROTO>(IPPROTO_TCP);
    info.type = SOCK_STREAM;
    config.address.copy(info.host, 1024);
    info.port = config.port;
    KVT::CServerSocket server(&listener, 0, &info);
    listened = server.Listen(0) == 1;
    if (listened) dispatcher.WaitForStop();
    // The order the socket classes want: stop, shut down, wait, destroy.
    dispatcher.RequestStop();
    server.Shutdown();
    server.WaitForThreadExit(kThreadPatienceMs);
  }
  dispatcher.StopWorkers();
  listener.EndSessions();
  ::SetConsoleCtrlHandler(OnConsoleEvent, FALSE);
  g_dispatcher = nullptr;
  return listened && !listener.Failed() ? 0 : 1;
}

}  // namespace search_server
