#ifndef TERNCORELIB_NET_INTERNAL_SOCKET_FIELDS_H_
#define TERNCORELIB_NET_INTERNAL_SOCKET_FIELDS_H_

// Library-internal helpers of the socket classes.

#include "foundation/string_util.h"

namespace KVT {
namespace internal {

// The receive buffer's size when none (or one below 1) is asked for.
constexpr int kDefaultBufferSize = 8912;
// Elements of the host and address texts, terminator included.
constexpr int kTextElements = 1025;

// Copies `text` into a text field of kTextElements, cut to fit; a null text empties it.
inline void CopyBounded(wchar_t (&field)[kTextElements], wchar_t const* text) {
  StrSafeCopy(field, text, kTextElements - 1);
}

// The socket field is shared between the owner's thread, which may shut the socket down, and the
// serving thread, which reads it anew for every call. Plain loads and stores, made explicit so
// that the compiler neither caches nor tears them.
inline unsigned int LoadSocket(const unsigned int& field) {
  return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
inline void StoreSocket(unsigned int& field, unsigned int value) {
  __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}
inline unsigned int ExchangeSocket(unsigned int& field, unsigned int value) {
  return __atomic_exchange_n(&field, value, __ATOMIC_ACQ_REL);
}

}  // namespace internal
}  // namespace KVT

#endif  // TERNCORELIB_NET_INTERNAL_SOCKET_FIELDS_H_
