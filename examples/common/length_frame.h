#ifndef TERNCORELIB_EXAMPLES_COMMON_LENGTH_FRAME_H_
#define TERNCORELIB_EXAMPLES_COMMON_LENGTH_FRAME_H_

// The wire format of the example servers: every frame is a 4-byte little-endian length followed
// by that many bytes, in both directions. A frame of length 0 is allowed and carries nothing.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TernCoreLib.h"

namespace tern_example {

// One frame under assembly. A header that declares more than `maxLength` bytes is refused: the
// message then takes every byte it is given and never completes, and Refused() tells the
// session, which closes the connection, since nothing behind such a header can be trusted.
class LengthFrame : public KVT::CSocketMsg {
 public:
  explicit LengthFrame(std::uint32_t maxLength) : maxLength_(maxLength) {}
  bool Refused() const { return refused_; }
  int Process(void*) override { return 0; }

 protected:
  int ParseHeader(int* msgLength, int* headerSize, int* trailerSize) override {
    if (GetRecvSize() < 4) return 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(GetPacket());
    const std::uint32_t length = bytes[0] | bytes[1] << 8 | bytes[2] << 16 |
                                 static_cast<std::uint32_t>(bytes[3]) << 24;
    refused_ = length > maxLength_;
    if (refused_) return INT32_MAX;  // At least any chunk's size: "more awaited", for ever.
    *msgLength = static_cast<int>(length);
    *headerSize = 4;
    *trailerSize = 0;
    return 0;
  }

 private:
  std::uint32_t maxLength_;
  bool refused_ = false;
};

// Cuts a connection's stream into LengthFrames and owns every frame object it creates.
// AddMessage and Pop run on the connection's receive thread only, so a popped frame stays
// intact until the next AddMessage.
class LengthFrames : public KVT::CSocketMsgReceiver {
 public:
  explicit LengthFrames(std::uint32_t maxLength) : maxLength_(maxLength) {}
  using CSocketMsgReceiver::Pop;
  // Whether the frame under assembly has a header that was refused.
  bool Refused() const {
    return current != nullptr && static_cast<const LengthFrame*>(current)->Refused();
  }
  // The message of a popped frame (empty for a frame of length 0).
  static std::string Text(KVT::CSocketMsg* frame) {
    const char* text = frame->GetMsg();
    return text == nullptr ? std::string() : std::string(text, frame->GetMsgLength());
  }

 protected:
  KVT::CSocketMsg* CreateMessage() override {
    owned_.push_back(std::make_unique<LengthFrame>(maxLength_));
    return owned_.back().get();
  }

 private:
  std::uint32_t maxLength_;
  std::vector<std::unique_ptr<LengthFrame>> owned_;
};

// Appends one frame holding `size` bytes of `data` to `out`.
inline void AppendFrame(std::string& out, const char* data, std::size_t size) {
  const auto length = static_cast<std::uint32_t>(size);
  for (int i = 0; i < 4; ++i) out += static_cast<char>(length >> (8 * i));
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
