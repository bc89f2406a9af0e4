#include "net/length_msg.h"

#include <new>

namespace KVT {
namespace {

int LimitLength(int maxLength) {
  return maxLength < 0 ? 0 : maxLength > CLengthMsg::LengthLimit ? CLengthMsg::LengthLimit
                                                                 : maxLength;
}

unsigned int ReadHeader(const void* header) {
  const auto* bytes = static_cast<const unsigned char*>(header);
  return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<unsigned int>(bytes[3]) << 24;
}

}  // namespace

// Defined, so that a use that takes their address (a const reference) finds them in the DLL.
const int CLengthMsg::HeaderSize;
const int CLengthMsg::LengthLimit;

CLengthMsg::CLengthMsg(int maxLength) : maxLength(LimitLength(maxLength)), nextOwned(nullptr) {}

CLengthMsg::CLengthMsg(CLengthMsg const& other)
    : CSocketMsg(other), maxLength(other.maxLength), nextOwned(nullptr) {}

CLengthMsg& CLengthMsg::operator=(CLengthMsg const& other) {
  CSocketMsg::operator=(other);
  maxLength = other.maxLength;
  return *this;
}

CLengthMsg::~CLengthMsg() = default;

// A header that has come but set no lengths was refused.
bool CLengthMsg::IsRefused() { return recvSize >= HeaderSize && headerSize < 0; }

int CLengthMsg::GetMaxLength() { return maxLength; }

void CLengthMsg::WriteHeader(void* header, unsigned int length) {
  if (header == nullptr) return;
  auto* bytes = static_cast<unsigned char*>(header);
  for (int i = 0; i < HeaderSize; ++i) bytes[i] = static_cast<unsigned char>(length >> (8 * i));
}

int CLengthMsg::ParseHeader(int* msgLength, int* headerSize, int* trailerSize) {
  if (recvSize < HeaderSize) return 0;
  const unsigned int length = ReadHeader(packet);
  // At least any chunk's size: the message takes every byte and never completes.
  if (length > static_cast<unsigned int>(maxLength)) return 0x7FFFFFFF;
  *msgLength = static_cast<int>(length);
  *headerSize = HeaderSize;
  *trailerSize = 0;
  return 0;
}

int CLengthMsg::Process(void*) { return 0; }

CLengthMsgReceiver::CLengthMsgReceiver(int maxLength)
    : maxLength(LimitLength(maxLength)), made(nullptr) {}

CLengthMsgReceiver::~CLengthMsgReceiver() {
  while (made != nullptr) {
    CLengthMsg* next = made->nextOwned;
    delete made;
    made = next;
  }
}

bool CLengthMsgReceiver::OnReceive(CClientSocket* socket, void* data, int length) {
  if (IsRefused()) return false;
  // AddMessage copies the rest of a chunk into each message that starts in it; fed one frame at
  // a time, each message copies its own frame only.
  for (auto* bytes = static_cast<char*>(data); bytes != nullptr && length > 0 && !IsRefused();) {
    const int piece = NextPiece(bytes, length);
    AddMessage(bytes, piece);
    bytes += piece;
    length -= piece;
  }
  while (CSocketMsg* message = Pop()) {
    if (!OnMessage(socket, message->GetPacket() + CLengthMsg::HeaderSize,
                   message->GetMsgLength())) {
      return false;
    }
  }
  if (!IsRefused()) return true;
  OnRefused(socket);
  return false;
}

// The frame under assembly ends after the header if that is refused, else after the length
// that it declares; a header that isn't complete yet ends where it will be.
int CLengthMsgReceiver::NextPiece(const char* bytes, int length) {
  const int received = current != nullptr ? current->GetRecvSize() : 0;
  int piece;
  if (received == 0 && length >= CLengthMsg::HeaderSize) {
    const unsigned int declared = ReadHeader(bytes);
    piece = CLengthMsg::HeaderSize +
            (declared <= static_cast<unsigned int>(maxLength) ? static_cast<int>(declared) : 0);
  } else if (received < CLengthMsg::HeaderSize) {
    piece = CLengthMsg::HeaderSize - received;
  } else {
    piece = current->GetPacketSize() - received;
  }
  return piece < length ? piece : length;
}

// Every message is one that CreateMessage made, so a CLengthMsg.
bool CLengthMsgReceiver::IsRefused() {
  return current != nullptr && static_cast<CLengthMsg*>(current)->IsRefused();
}

int CLengthMsgReceiver::GetMaxLength() { return maxLength; }

void CLengthMsgReceiver::OnRefused(CClientSocket* socket) {
  if (socket != nullptr) socket->Shutdown();
}

CSocketMsg* CLengthMsgReceiver::CreateMessage() {
  auto* message = new (std::nothrow) CLengthMsg(maxLength);
  if (message == nullptr) return nullptr;
  message->nextOwned = made;
  made = message;
  return message;
}

}  // namespace KVT
