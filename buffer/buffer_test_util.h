#ifndef TERNCORELIB_BUFFER_BUFFER_TEST_UTIL_H_
#define TERNCORELIB_BUFFER_BUFFER_TEST_UTIL_H_

// Helpers shared by the buffer tests.

#include <cstddef>
#include <string>

#include "buffer/buffer.h"

namespace buffer_test {

// `text` (`n` narrow characters, zeros included) in the width T, each byte as one character.
template <typename T>
std::basic_string<T> Text(const char* text, std::size_t n) {
  std::basic_string<T> result;
  for (std::size_t i = 0; i < n; ++i) result.push_back(static_cast<T>(text[i]));
  return result;
}

template <typename T>
std::basic_string<T> Text(const char* text) {
  return Text<T>(text, std::char_traits<char>::length(text));
}

// The buffer's `length` characters as a string, zeros included.
template <typename T>
std::basic_string<T> Contents(const KVT::CBuffer<T>& buffer) {
  if (buffer.data == nullptr) return std::basic_string<T>();
  return std::basic_string<T>(buffer.data, buffer.length);
}

// The line table as strings, each read up to its terminator.
template <typename T>
std::basic_string<T> LineAt(const KVT::CBuffer<T>& buffer, int index) {
  const T* line = buffer.lines[index];
  return line != nullptr ? std::basic_string<T>(line) : std::basic_string<T>();
}

}  // namespace buffer_test

#endif  // TERNCORELIB_BUFFER_BUFFER_TEST_UTIL_H_
