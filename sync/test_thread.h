#ifndef TERNCORELIB_SYNC_TEST_THREAD_H_
#define TERNCORELIB_SYNC_TEST_THREAD_H_

// Threads for the synchronisation tests. Every wait is bounded: kPatience for what must happen,
// kGrace for what must not (a short look that can only miss a fault, never invent one).

#include <functional>
#include <memory>

#include "foundation/internal/scoped_handle.h"

namespace tern_test {

constexpr DWORD kPatience = 10000;
constexpr DWORD kGrace = 100;

// A thread running `body`, joined when it goes: with a bound, and terminated if the bound passes
// (the test has failed by then), so that no thread outlives the locals it uses.
class TestThread {
 public:
  explicit TestThread(std::function<void()> body)
      : body_(std::make_unique<std::function<void()>>(std::move(body))),
        handle_(::CreateThread(nullptr, 0, &Run, body_.get(), 0, nullptr)) {}
  ~TestThread() { Join(); }
  // True if the thread ended in time.
  bool Join() {
    if (!handle_.IsValid()) return true;
    const bool ended = ::WaitForSingleObject(handle_.Get(), kPatience) == WAIT_OBJECT_0;
    if (!ended) ::TerminateThread(handle_.Get(), 1);
    handle_.Close();
    return ended;
  }

 private:
  static DWORD WINAPI Run(void* body) {
    (*static_cast<std::function<void()>*>(body))();
    return 0;
  }
  std::unique_ptr<std::function<void()>> body_;
  KVT::internal::ScopedHandle handle_;
};

// Runs `body` on a thread of its own and waits for it; false if it did not end in time.
inline bool OnOtherThread(std::function<void()> body) { return TestThread(std::move(body)).Join(); }

}  // namespace tern_test

#endif  // TERNCORELIB_SYNC_TEST_THREAD_H_
