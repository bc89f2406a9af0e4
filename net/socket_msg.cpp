#include "net/socket_msg.h"

#include <climits>
#include <cstdint>
#include <cstring>

#include "foundation/internal/counted_heap_block.h"

namespace KVT {
namespace {

// A packet's block is a counted block on the process heap (zero-filled), counting the messages
// that share it, so that copies of a message release it once.
using PacketBlock = internal::CountedBlock<internal::HeapMemory>;
// Header and packet together stay within what an int counts.
constexpr std::int64_t kMaxCapacity =
    INT_MAX - static_cast<std::int64_t>(PacketBlock::kHeaderBytes);

}  // namespace

CSocketMsg::CSocketMsg()
    : packet(nullptr), recvSize(0), capacity(0), msgLength(-1), headerSize(-1), trailerSize(0) {}

CSocketMsg::CSocketMsg(CSocketMsg const& other)
    : packet(other.packet),
      recvSize(other.recvSize),
      capacity(other.capacity),
      msgLength(other.msgLength),
      headerSize(other.headerSize),
      trailerSize(other.trailerSize) {
  PacketBlock::Retain(packet);
}

CSocketMsg& CSocketMsg::operator=(CSocketMsg const& other) {
  if (other.packet != packet) {
    PacketBlock::Retain(other.packet);
    ReleasePacket();
    packet = other.packet;
  }
  recvSize = other.recvSize;
  capacity = other.capacity;
  msgLength = other.msgLength;
  headerSize = other.headerSize;
  trailerSize = other.trailerSize;
  return *this;
}

CSocketMsg::~CSocketMsg() { ReleasePacket(); }

void CSocketMsg::ReleasePacket() {
  char* released = packet;
  packet = nullptr;
  if (PacketBlock::Release(released)) PacketBlock::Free(released);
}

void CSocketMsg::Resize(int size) {
  const std::int64_t needed = static_cast<std::int64_t>(recvSize) + size;
  if (needed >= capacity) {
    // Grows by the chunk's size from the capacity, not from what is received: a reused message
    // whose block is big enough for every packet allocates nothing.
    const std::int64_t grown = static_cast<std::int64_t>(capacity) + size;
    void* block = nullptr;
    if (needed <= kMaxCapacity && grown <= kMaxCapacity) {
      const auto bytes = static_cast<std::size_t>(grown);
      if (packet == nullptr) {
        block = PacketBlock::Allocate(bytes);
      } else if (PacketBlock::Holders(packet) == 1) {
        block = PacketBlock::Reallocate(packet, bytes);
        if (block != nullptr) packet = nullptr;  // Moved: the old pointer is no longer ours.
      } else {
        // A copy shares the block: take a new one, so that the copy's stays as it is.
        block = PacketBlock::Allocate(bytes);
        if (block != nullptr) std::memcpy(block, packet, recvSize);
      }
    }
    if (block == nullptr) {
      // The block couldn't grow. Drop the message rather than keep a packet with a hole.
      ReleasePacket();
      capacity = 0;
      Reset();
      return;
    }
    ReleasePacket();
    packet = static_cast<char*>(block);
    capacity = static_cast<int>(grown);
    std::memset(packet + recvSize, 0, static_cast<size_t>(capacity - recvSize));
  }
  recvSize = static_cast<int>(needed);
}

int CSocketMsg::Add(void* data, int size) {
  if (data == nullptr || size <= 0) return 0;
  const int offset = recvSize;
  Resize(size);
  if (packet == nullptr) return 0;
  std::memcpy(packet + offset, data, static_cast<size_t>(size));
  if (msgLength < 1) {
    const int parsed = ParseHeader(&msgLength, &headerSize, &trailerSize);
    if (parsed != 0) return parsed;
  }
  const int packet_size = GetPacketSize();
  if (packet_size < 0 || recvSize < packet_size) return size;
  if (recvSize == packet_size) return recvSize;
  return size - (recvSize - packet_size);
}

void CSocketMsg::Reset() {
  recvSize = 0;
  msgLength = -1;
  headerSize = -1;
  trailerSize = 0;
}

char* CSocketMsg::GetMsg() {
  if (msgLength < 1 || headerSize < 1 || packet == nullptr) return nullptr;
  return packet + headerSize;
}

int CSocketMsg::GetMsgLength() { return msgLength; }

char* CSocketMsg::GetPacket() { return packet; }

int CSocketMsg::GetPacketSize() {
  const std::int64_t sum =
      static_cast<std::int64_t>(headerSize) + msgLength + static_cast<std::int64_t>(trailerSize);
  if (sum > INT_MAX) return INT_MAX;
  if (sum < INT_MIN) return INT_MIN;
  return static_cast<int>(sum);
}

int CSocketMsg::GetRecvSize() { return recvSize; }

CSocketMsgReceiver::CSocketMsgReceiver() : current(nullptr) {}

CSocketMsgReceiver::CSocketMsgReceiver(CSocketMsgReceiver const& other) = default;

CSocketMsgReceiver& CSocketMsgReceiver::operator=(CSocketMsgReceiver const& other) = default;

CSocketMsgReceiver::~CSocketMsgReceiver() = default;

bool CSocketMsgReceiver::AddMessage(void* data, int size) {
  if (data == nullptr || size <= 0) return false;
  auto* bytes = static_cast<char*>(data);
  bool pushed = false;
  for (;;) {
    if (current == nullptr) current = NewMessage();
    if (current == nullptr) return pushed;  // CreateMessage broke its promise.
    const int taken = current->Add(bytes, size);
    if (current->GetRecvSize() == current->GetPacketSize()) {
      Push(current);
      current = nullptr;
      return true;
    }
    if (taken >= size || taken <= 0) return pushed;
    Push(current);
    current = nullptr;
    pushed = true;
    bytes += taken;
    size -= taken;
  }
}

int CSocketMsgReceiver::GetQueueSize() {
  lock.Lock();
  const int size = ready.Size();
  lock.Unlock();
  return size;
}

CSocketMsg* CSocketMsgReceiver::NewMessage() {
  lock.Lock();
  CSocketMsg* message;
  if (!reusable.IsEmpty()) {
    message = reusable.PopFront();
    message->Reset();
  } else {
    message = CreateMessage();
  }
  lock.Unlock();
  return message;
}

unsigned int CSocketMsgReceiver::Push(CSocketMsg* message) {
  lock.Lock();
  ready.PushBack(message);
  const auto size = static_cast<unsigned int>(ready.Size());
  lock.Unlock();
  return size;
}

CSocketMsg* CSocketMsgReceiver::Pop() {
  lock.Lock();
  CSocketMsg* message = nullptr;
  if (!ready.IsEmpty()) {
    message = ready.PopFront();
    reusable.PushBack(message);
  }
  lock.Unlock();
  return message;
}

void CSocketMsgReceiver::LockQueue() { lock.Lock(); }

void CSocketMsgReceiver::UnlockQueue() { lock.Unlock(); }

}  // namespace KVT
