#ifndef TERNCORELIB_FOUNDATION_INTERNAL_SCOPED_HANDLE_H_
#define TERNCORELIB_FOUNDATION_INTERNAL_SCOPED_HANDLE_H_

#include "foundation/win.h"

namespace KVT {
namespace internal {

// Sole owner of a kernel handle (event, mutex, thread, file): closes it when it goes. Both null
// and INVALID_HANDLE_VALUE count as "no handle", since the APIs that create handles disagree on
// which one they return for failure.
class ScopedHandle {
 public:
  ScopedHandle() = default;
  explicit ScopedHandle(HANDLE handle) : handle_(handle) {}
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  ScopedHandle(ScopedHandle&& other) noexcept : handle_(other.Take()) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    if (this != &other) Reset(other.Take());
    return *this;
  }
  ~ScopedHandle() { Close(); }

  bool IsValid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
  HANDLE Get() const { return handle_; }

  // Gives up ownership without closing.
  HANDLE Take() {
    HANDLE handle = handle_;
    handle_ = nullptr;
    return handle;
  }

  void Reset(HANDLE handle) {
    Close();
    handle_ = handle;
  }

  void Close() {
    if (IsValid()) ::CloseHandle(handle_);
    handle_ = nullptr;
  }

 private:
  HANDLE handle_ = nullptr;
};

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_FOUNDATION_INTERNAL_SCOPED_HANDLE_H_
