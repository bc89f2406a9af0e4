// std::exception and its runtime-made kin in the layout of Microsoft's vcruntime, for libc++ used
// header-only in the MSVC ABI (libc++'s <exception> includes this file there). The message is
// copied and freed by vcruntime140.dll's __std_exception_copy and __std_exception_destroy, as in
// programs built with Microsoft's own headers, so an exception object passes between modules
// built either way.
#pragma once

#include <corecrt.h>

#pragma pack(push, 8)

extern "C" {
struct __std_exception_data {
  const char* _What;
  bool _DoFree;
};
__declspec(dllimport) void __cdecl __std_exception_copy(const __std_exception_data* from,
                                                        __std_exception_data* to);
__declspec(dllimport) void __cdecl __std_exception_destroy(__std_exception_data* data);
}

namespace std {

class exception {
 public:
  exception() noexcept : _Data() {}
  explicit exception(const char* message) noexcept : _Data() {
    const __std_exception_data init = {message, true};
    __std_exception_copy(&init, &_Data);
  }
  // Keeps `message` without a copy: a text that lives for good.
  exception(const char* message, int) noexcept : _Data() { _Data._What = message; }
  exception(const exception& other) noexcept : _Data() {
    __std_exception_copy(&other._Data, &_Data);
  }
  exception& operator=(const exception& other) noexcept {
    if (this != &other) {
      __std_exception_destroy(&_Data);
      __std_exception_copy(&other._Data, &_Data);
    }
    return *this;
  }
  virtual ~exception() noexcept { __std_exception_destroy(&_Data); }
  virtual const char* what() const { return _Data._What ? _Data._What : "Unknown exception"; }

 private:
  __std_exception_data _Data;
};

class bad_exception : public exception {
 public:
  bad_exception() noexcept : exception("bad exception", 1) {}
};

class bad_alloc : public exception {
 public:
  bad_alloc() noexcept : exception("bad allocation", 1) {}

 private:
  friend class bad_array_new_length;
  explicit bad_alloc(const char* message) noexcept : exception(message, 1) {}
};

class bad_array_new_length : public bad_alloc {
 public:
  bad_array_new_length() noexcept : bad_alloc("bad array new length") {}
};

}  // namespace std

#pragma pack(pop)
