#ifndef TERNCORELIB_XML_COM_PTR_H_
#define TERNCORELIB_XML_COM_PTR_H_

// The COM side of the XML classes: the exception they raise and the counted interface pointer
// that they hold into the DOM. Texts and values pass through comdef.h's own counted wrappers,
// _bstr_t (a shared, counted BSTR) and _variant_t (a VARIANT cleared when it goes).

#include "foundation/win.h"

#include <comdef.h>
#include <objbase.h>

#include <cstddef>

namespace KVT {

// Raises _com_error carrying `hr`, and `info` if given (the exception takes that reference over).
// This is the one way the XML classes report what COM refuses; nothing in them catches it.
[[noreturn]] inline void RaiseComError(HRESULT hr, IErrorInfo* info = nullptr) {
  throw _com_error(hr, info);
}

// A COM interface pointer with one reference of its own: a copy adds a reference, destruction
// and reassignment drop one. A null pointer is a normal state; calling through it with -> raises
// _com_error with E_POINTER instead of crashing, which is how every DOM call on a missing node
// (a key tag, a released tag, a CXml without a document) turns into that error.
//
// Header-only, so that the pointer can cross into and out of the DLL by value: each module
// compiles the same code, and the reference count lives in the COM object.
template <typename I>
class CInterfacePtr {
 public:
  CInterfacePtr() = default;
  CInterfacePtr(std::nullptr_t) {}  // NOLINT: null converts, as for a plain pointer.
  // Holds `pointer` with a reference of its own; the caller keeps whatever it had.
  explicit CInterfacePtr(I* pointer) : pointer_(pointer) {
    if (pointer_ != nullptr) pointer_->AddRef();
  }
  CInterfacePtr(const CInterfacePtr& other) : CInterfacePtr(other.pointer_) {}
  CInterfacePtr(CInterfacePtr&& other) noexcept : pointer_(other.pointer_) {
    other.pointer_ = nullptr;
  }
  ~CInterfacePtr() { Reset(); }

  // The references change only when the two pointers differ: the new one gains its reference
  // before the old one loses its own, so assigning a pointer to itself (or to another holder of
  // the same object) never lets the object go in between.
  CInterfacePtr& operator=(const CInterfacePtr& other) {
    if (pointer_ != other.pointer_) {
      I* old = pointer_;
      if (other.pointer_ != nullptr) other.pointer_->AddRef();
      pointer_ = other.pointer_;
      if (old != nullptr) old->Release();
    }
    return *this;
  }
  CInterfacePtr& operator=(CInterfacePtr&& other) noexcept {
    if (this != &other) {
      Reset();
      pointer_ = other.pointer_;
      other.pointer_ = nullptr;
    }
    return *this;
  }
  CInterfacePtr& operator=(std::nullptr_t) {
    Reset();
    return *this;
  }

  // Takes over a reference that the caller owns (as an out-parameter hands one out).
  static CInterfacePtr Adopt(I* pointer) {
    CInterfacePtr result;
    result.pointer_ = pointer;
    return result;
  }

  // Raises _com_error with E_POINTER when null.
  I* operator->() const {
    if (pointer_ == nullptr) RaiseComError(E_POINTER);
    return pointer_;
  }

  // The pointer, possibly null; no reference is added.
  I* Get() const { return pointer_; }
  // Whether the pointer is not null.
  explicit operator bool() const { return pointer_ != nullptr; }
  // Comparisons with null.
  bool operator==(std::nullptr_t) const { return pointer_ == nullptr; }
  bool operator!=(std::nullptr_t) const { return pointer_ != nullptr; }

  // Drops the reference, if any, and leaves the pointer null.
  void Reset() {
    I* old = pointer_;
    pointer_ = nullptr;
    if (old != nullptr) old->Release();
  }

  // For an out-parameter: drops the current reference and gives the address that receives the
  // new one, which this object then owns.
  I** Receive() {
    Reset();
    return &pointer_;
  }

 private:
  I* pointer_ = nullptr;
};

}  // namespace KVT

#endif  // TERNCORELIB_XML_COM_PTR_H_
