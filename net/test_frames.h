#ifndef TERNCORELIB_NET_TEST_FRAMES_H_
#define TERNCORELIB_NET_TEST_FRAMES_H_

// The frame format of the random framing suite, and the message classes that read it: frames
// with a trailer, which the library's length framing has not.
//
// A frame is an 8-byte header (message length, trailer length: each 4 bytes, little-endian), the
// message and the trailer. A header that declares more than kMaxFrameBytes in all is refused.

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/socket_msg.h"

namespace tern_test {

constexpr int kFrameHeaderBytes = 8;
constexpr std::int64_t kMaxFrameBytes = 1 << 20;

inline std::uint32_t GetLittleEndian32(const char* in) {
  std::uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(in[i]);
  return value;
}

// A header alone that declares the given lengths; nothing follows it.
inline std::string Header(std::uint32_t message, std::uint32_t trailer) {
  std::string out;
  for (std::uint32_t value : {message, trailer}) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
  }
  return out;
}

// A frame with the given message and trailer.
inline std::string Frame(const std::string& message, const std::string& trailer = "") {
  return Header(static_cast<std::uint32_t>(message.size()),
                static_cast<std::uint32_t>(trailer.size())) + message + trailer;
}

class FrameMsg : public KVT::CSocketMsg {
 public:
  bool refused() const { return refused_; }
  int capacity_for_test() const { return capacity; }
  // The message part as a string ("" when there is none).
  std::string Message() {
    char* msg = GetMsg();
    return msg == nullptr ? std::string() : std::string(msg, static_cast<size_t>(msgLength));
  }
  std::string Trailer() {
    if (GetPacket() == nullptr || headerSize < 0 || msgLength < 0) return std::string();
    return std::string(GetPacket() + headerSize + msgLength, static_cast<size_t>(trailerSize));
  }
  int Process(void*) override { return 0; }

 protected:
  int ParseHeader(int* message, int* header, int* trailer) override {
    refused_ = false;
    const char* packet = GetPacket();
    if (GetRecvSize() < kFrameHeaderBytes) return 0;
    const std::int64_t declared_message = GetLittleEndian32(packet);
    const std::int64_t declared_trailer = GetLittleEndian32(packet + 4);
    if (declared_message + declared_trailer + kFrameHeaderBytes > kMaxFrameBytes) {
      // Nothing is set: the message takes every further byte and never completes, and the
      // owner sees refused() and drops the connection.
      refused_ = true;
      return INT32_MAX;
    }
    *message = static_cast<int>(declared_message);
    *header = kFrameHeaderBytes;
    *trailer = static_cast<int>(declared_trailer);
    return 0;
  }

 private:
  bool refused_ = false;
};

// A receiver of FrameMsg objects, which it owns.
class FrameReceiver : public KVT::CSocketMsgReceiver {
 public:
  FrameMsg* Current() { return static_cast<FrameMsg*>(current); }
  FrameMsg* PopFrame() { return static_cast<FrameMsg*>(Pop()); }
  // The message under assembly has a header that ParseHeader refused.
  bool Refused() { return current != nullptr && Current()->refused(); }

 protected:
  KVT::CSocketMsg* CreateMessage() override {
    messages_.push_back(std::make_unique<FrameMsg>());
    return messages_.back().get();
  }

 private:
  std::vector<std::unique_ptr<FrameMsg>> messages_;
};

}  // namespace tern_test

#endif  // TERNCORELIB_NET_TEST_FRAMES_H_
