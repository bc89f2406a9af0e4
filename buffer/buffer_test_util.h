#ifndef TERNCORELIB_BUFFER_BUFFER_TEST_UTIL_H_
#define TERNCORELIB_BUFFER_BUFFER_TEST_UTIL_H_

#include <cstddef>
#include <cstring>
#include <string>

#include "buffer/buffer.h"

namespace buffer_test {

// `n` narrow characters (zeros included) in the width T, each byte as one character.
template <typename T>
std::basic_string<T> Text(const char* text, std::size_t n) {
  return std::basic_string<T>(text, text + n);
}
template <typename T>
std::basic_string<T> Text(const char* text) {
  return Text<T>(text, std::strlen(text));
}

// The buffer's `length` characters, zeros included.
template <typename T>
std::basic_string<T> Contents(const KVT::CBuffer<T>& buffer) {
  return buffer.data ? std::basic_string<T>(buffer.data, buffer.length) : std::basic_string<T>();
}

}  // namespace buffer_test

#endif  // TERNCORELIB_BUFFER_BUFFER_TEST_UTIL_H_
