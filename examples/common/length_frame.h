#ifndef TERNCORELIB_EXAMPLES_COMMON_LENGTH_FRAME_H_
#define TERNCORELIB_EXAMPLES_COMMON_LENGTH_FRAME_H_

// What the example servers add to the library's length framing (CLengthMsgReceiver reads it):
// frames gathered in a std::string, and a send that repeats until all is gone.

#include <cstddef>
#include <cstdint>
#include <string>

#include "TernCoreLib.h"

namespace tern_example {

// Appends one frame holding `size` bytes of `data` to `out`.
inline void AppendFrame(std::string& out, const char* data, std::size_t size) {
  const std::size_t at = out.size();
  out.resize(at + KVT::CLengthMsg::HeaderSize);
  KVT::CLengthMsg::WriteHeader(&out[at], static_cast<std::uint32_t>(size));
  out.append(data, size);
}

inline void AppendFrame(std::string& out, const std::string& text) {
  AppendFrame(out, text.data(), text.size());
}

// Sends all of `bytes` on `socket`, repeating Send after a short count; false once a Send fails.
inline bool SendAll(KVT::CClientSocket& socket, const std::string& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const int sent = socket.Send(bytes.data() + at, static_cast<int>(bytes.size() - at));
    if (sent <= 0) return false;
    at += static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace tern_example

#endif  // TERNCORELIB_EXAMPLES_COMMON_LENGTH_FRAME_H_
