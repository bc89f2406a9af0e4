#include "net/socket_msg.h"

#include <climits>
#include <cstdint>
#include <cstring>

#include "foundation/memory.h"

namespace KVT {
namespace {

// A packet's block on the process heap starts with this header; `packet` points behind it. The
// header counts the messages that share the block, so that copies of a message release it once.
// It takes exactly the alignment that the heap guarantees (8 bytes in 32-bit processes, 16 in
// 64-bit ones): no more, as the header sits at the start of a heap block, and that much in size,
// so that the packet is as aligned as the heap's blocks are.
struct alignas(MEMORY_ALLOCATION_ALIGNMENT) BlockHeader {
  LONG users;
};
static_assert(alignof(BlockHeader) == MEMORY_ALLOCATION_ALIGNMENT &&
                  sizeof(BlockHeader) == MEMORY_ALLOCATION_ALIGNMENT,
              "the header must fit the heap's alignment, and keep the packet at it");
constexpr std::int64_t kHeaderBytes = sizeof(BlockHeader);
constexpr std::int64_t kMaxCapacity = INT_MAX - kHeaderBytes;

BlockHeader* HeaderOf(char* packet) {
  return reinterpret_cast<BlockHeader*>(packet - kHeaderBytes);
}

char* PacketOf(void* block) { return static_cast<char*>(block) + kHeaderBytes; }

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
  if (packet != nullptr) ::InterlockedIncrement(&HeaderOf(packet)->users);
}

CSocketMsg& CSocketMsg::operator=(CSocketMsg const& other) {
  if (other.packet != packet) {
    if (other.packet != nullptr) ::InterlockedIncrement(&HeaderOf(other.packet)->users);
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
  if (packet == nullptr) return;
  BlockHeader* header = HeaderOf(packet);
  packet = nullptr;
  if (::InterlockedDecrement(&header->users) == 0) MemFree(header);
}

void CSocketMsg::Resize(int size) {
  const std::int64_t needed = static_cast<std::int64_t>(recvSize) + size;
  if (needed >= capacity) {
    // Grows by the chunk's size from the capacity, not from what is received: a reused message
    // whose block is big enough for every packet allocates nothing.
    const std::int64_t grown = static_cast<std::int64_t>(capacity) + size;
    void* block = nullptr;
    if (needed <= kMaxCapacity && grown <= kMaxCapacity) {
      const auto bytes = static_cast<std::uint32_t>(kHeaderBytes + grown);
      if (packet == nullptr) {
        block = MemAlloc(bytes);
      } else if (::InterlockedCompareExchange(&HeaderOf(packet)->users, 0, 0) == 1) {
        block = MemRealloc(HeaderOf(packet), bytes);
        if (block != nullptr) packet = nullptr;  // Moved: the old pointer is no longer ours.
      } else {
        // A copy shares the block: take a new one, so that the copy's stays as it is.
        block = MemAlloc(bytes);
        if (block != nullptr) std::memcpy(PacketOf(block), packet, recvSize);
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
    static_cast<BlockHeader*>(block)->users = 1;
    packet = PacketOf(block);
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
  const auto size = static_cast<int>(ready.size());
  lock.Unlock();
  return size;
}

CSocketMsg* CSocketMsgReceiver::NewMessage() {
  lock.Lock();
  CSocketMsg* message;
  if (!reusable.empty()) {
    message = reusable.front();
    reusable.pop_front();
    message->Reset();
  } else {
    message = CreateMessage();
  }
  lock.Unlock();
  return message;
}

unsigned int CSocketMsgReceiver::Push(CSocketMsg* message) {
  lock.Lock();
  ready.push_back(message);
  const auto size = static_cast<unsigned int>(ready.size());
  lock.Unlock();
  return size;
}

CSocketMsg* CSocketMsgReceiver::Pop() {
  lock.Lock();
  CSocketMsg* message = nullptr;
  if (!ready.empty()) {
    message = ready.front();
    ready.pop_front();
    reusable.push_back(message);
  }
  lock.Unlock();
  return message;
}

void CSocketMsgReceiver::LockQueue() { lock.Lock(); }

void CSocketMsgReceiver::UnlockQueue() { lock.Unlock(); }

}  // namespace KVT
