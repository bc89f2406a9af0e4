#ifndef TERNCORELIB_NET_SOCKET_MSG_H_
#define TERNCORELIB_NET_SOCKET_MSG_H_

#include <cstdlib>

#include "foundation/export.h"
#include "sync/lock.h"

namespace KVT {

// One packet of a byte stream under assembly: a header of `headerSize` bytes, the message of
// `msgLength` bytes and a trailer of `trailerSize` bytes, in that order. The library knows
// nothing of a packet but those three lengths, which the subclass reads from its own header in
// ParseHeader.
//
// A message is used by one thread at a time. Copies share the packet's block: the block counts
// the messages that use it, the last one releases it, and a copy that has to grow the block
// takes a new one of its own first, so that the others keep theirs unchanged.
class TERN_API CSocketMsg {
 public:
  // Copies the six fields; the two objects then share `packet`.
  CSocketMsg(CSocketMsg const& other);
  // Copies the six fields. The target's own block is let go of first (released if no other copy
  // uses it).
  CSocketMsg& operator=(CSocketMsg const& other);

  // Appends a chunk to the packet and, while the message length isn't known yet (below 1), asks
  // ParseHeader about it. The whole chunk is copied, also when the packet ends inside it; the
  // block grows by exactly `size` bytes whenever `recvSize` + `size` reaches its capacity (equal
  // counts as too small), and the new bytes are zero.
  //
  // Result:
  // - 0 for null data or a size of 0 or less (nothing changes), and when the block can't grow:
  //   then the message drops what it held and is empty, without a block, as after Reset; the
  //   chunk is lost. A growth beyond 2^31 - 1 bytes counts as such a failure.
  // - ParseHeader's result, when it isn't 0, unchanged.
  // - The number of bytes of this chunk that belong to the packet: `recvSize` when the chunk
  //   completes it exactly, `size` when the packet isn't complete (or its header not parsed),
  //   and less when the packet ends inside the chunk.
  int Add(void* data, int size);
  // Forgets the packet but keeps its block and capacity, so that the next packet that fits
  // allocates nothing. The old bytes stay in the block until they are overwritten.
  void Reset();

  // The message part: null while `msgLength` or `headerSize` is below 1 (so also for a message
  // without a header), else `packet` + `headerSize`.
  char* GetMsg();
  // -1 until the header is parsed.
  int GetMsgLength();
  // Every byte received for this message, from its first on; null before the first. A message
  // that was cut off from a longer chunk holds the chunk's further bytes behind its packet.
  char* GetPacket();
  // `headerSize` + `msgLength` + `trailerSize`: -2 before the header is parsed. A sum beyond
  // 2^31 - 1 gives 2^31 - 1, a packet that can never complete.
  int GetPacketSize();
  // Bytes received so far; may exceed GetPacketSize when the packet ended inside a chunk.
  int GetRecvSize();

 protected:
  CSocketMsg();
  // Releases the block unless a copy still uses it.
  virtual ~CSocketMsg();

  // Reads the header from what has come so far (GetPacket, GetRecvSize); the arguments are the
  // addresses of `msgLength`, `headerSize` and `trailerSize`. Called by Add after the chunk is
  // copied, as long as `msgLength` is below 1.
  // - Header incomplete: give 0 and leave the three values alone.
  // - Header complete: set all three (none negative, packet size at least 1 and greater than
  //   the bytes received before this chunk) and give 0.
  // - A positive result ends the message: Add returns it, and CSocketMsgReceiver::AddMessage
  //   counts it as the number of bytes of the chunk that this message took. A value of at least
  //   the chunk's size means "more bytes are awaited"; a smaller one cuts the message off there.
  //   This is how a subclass refuses a header that it can't accept: set nothing and give a
  //   positive number.
  // A negative result isn't allowed; AddMessage takes it as "nothing taken".
  virtual int ParseHeader(int* msgLength, int* headerSize, int* trailerSize) = 0;
  // For the application's own work on a finished message, typically by the consumer after Pop:
  // `context` and the result mean what the application wants. The library never calls it.
  virtual int Process(void* context) = 0;

  char* packet;      // Heap block with room for `capacity` bytes; null before the first byte.
  int recvSize;      // Bytes received.
  int capacity;      // Room in `packet`.
  int msgLength;     // -1 until the header is parsed.
  int headerSize;    // -1 until the header is parsed.
  int trailerSize;   // 0 until the header is parsed.

 private:
  // Makes room for `size` more bytes and counts them into `recvSize`; on failure `packet` is
  // null and the message empty.
  void Resize(int size);
  // Lets go of `packet`: releases it when no other copy uses it.
  void ReleasePacket();
};

// A first-in, first-out queue of message pointers, the two queues of CSocketMsgReceiver: a ring
// in one block of the C runtime's heap that doubles when it is full, so that both ends work in
// constant time. The library's own type rather than std::deque, because the application compiles
// the receiver's layout into its subclass, and a standard-library type is laid out by whichever
// C++ library each side is built with (a debug build of the same one may differ again). Inline,
// like XArray, so that both sides run the same code.
//
// Copies copy the pointers. When memory runs out, PushBack leaves the queue as it was and gives
// false, and a copy comes out empty.
class CMsgQueue {
 public:
  // Empty, with no block.
  CMsgQueue() = default;
  // The same entries in a block of its own; empty if memory runs out.
  CMsgQueue(const CMsgQueue& other) { CopyFrom(other); }
  // Lets go of its block and takes a copy of `other`'s entries, as the copy constructor does.
  CMsgQueue& operator=(const CMsgQueue& other) {
    if (this != &other) {
      std::free(items);
      items = nullptr;
      capacity = head = count = 0;
      CopyFrom(other);
    }
    return *this;
  }
  // Frees the block; the messages stay.
  ~CMsgQueue() { std::free(items); }

  // The entries.
  int Size() const { return count; }
  // Whether there is no entry.
  bool IsEmpty() const { return count == 0; }
  // Appends `message` as the newest entry; false, with the queue as it was, if memory runs out.
  bool PushBack(CSocketMsg* message) {
    if (count == capacity && !Grow()) return false;
    items[(head + count) % capacity] = message;
    ++count;
    return true;
  }
  // The oldest entry, removed; null when the queue is empty.
  CSocketMsg* PopFront() {
    if (count == 0) return nullptr;
    CSocketMsg* message = items[head];
    head = (head + 1) % capacity;
    --count;
    return message;
  }

  CSocketMsg** items = nullptr;  // `capacity` slots from malloc; null before the first push.
  int capacity = 0;              // Slots in `items`.
  int head = 0;                  // The slot of the oldest entry.
  int count = 0;                 // Entries, from `head` on, wrapping around.

 private:
  // Moves the entries, oldest first, into a block of twice the slots (16 at first).
  bool Grow() {
    const int slots = capacity == 0 ? 16 : capacity * 2;
    if (slots <= capacity || static_cast<unsigned>(slots) > ~0u / sizeof(CSocketMsg*)) {
      return false;
    }
    auto* block = static_cast<CSocketMsg**>(std::malloc(sizeof(CSocketMsg*) * slots));
    if (block == nullptr) return false;
    for (int i = 0; i < count; ++i) block[i] = items[(head + i) % capacity];
    std::free(items);
    items = block;
    capacity = slots;
    head = 0;
    return true;
  }
  void CopyFrom(const CMsgQueue& other) {
    if (other.count == 0) return;
    items = static_cast<CSocketMsg**>(std::malloc(sizeof(CSocketMsg*) * other.count));
    if (items == nullptr) return;
    for (int i = 0; i < other.count; ++i) items[i] = other.items[(other.head + i) % other.capacity];
    capacity = count = other.count;
  }
};

// Cuts a stream of chunks into packets and queues them. The subclass supplies the message
// objects (CreateMessage) and takes the finished ones with Pop; the library never destroys a
// message object, not even in the destructor, so the subclass keeps track of those it created.
//
// Threads: AddMessage has one caller at a time (typically a CClientSocket's receive thread in
// OnReceive); a consumer on another thread may call GetQueueSize and Pop at the same time. `lock`
// guards both queues and nothing else.
class TERN_API CSocketMsgReceiver {
 public:
  CSocketMsgReceiver();
  // Copies `current`, shares `lock`'s section, and copies both queues' message pointers. The
  // two receivers then hand out the same message objects; copy only what nobody else uses at
  // the moment, and feed and consume only one of them.
  CSocketMsgReceiver(CSocketMsgReceiver const& other);
  CSocketMsgReceiver& operator=(CSocketMsgReceiver const& other);
  // Releases the queues' storage and the lock; the message objects stay, `current` included.
  virtual ~CSocketMsgReceiver();

  // Feeds a chunk of the stream: a chunk may hold any number of packets and a piece of the next,
  // and a packet may span any number of chunks. True if at least one message went to the ready
  // queue in this call. Null data or a size of 0 or less gives false and changes nothing.
  bool AddMessage(void* data, int size);
  // Messages in the ready queue.
  int GetQueueSize();

 protected:
  // A new message object. Runs under the queue lock, on the thread that calls AddMessage: a
  // consumer's Pop, GetQueueSize or LockQueue on another thread waits until it returns, so it
  // must not wait for such a thread. Must not give null (a null result makes AddMessage drop the
  // chunk and give false).
  virtual CSocketMsg* CreateMessage() = 0;

  // Appends to the ready queue; the queue's size afterwards.
  unsigned int Push(CSocketMsg* message);
  // The oldest ready message, or null. The message also goes to the reusable queue, where the
  // next NewMessage may take it and reset it: it stays intact only until AddMessage needs a
  // new message. To read it safely while AddMessage runs elsewhere, hold LockQueue from before
  // Pop until done with it (the lock is recursive).
  CSocketMsg* Pop();
  void LockQueue();
  void UnlockQueue();

  CSocketMsg* current;  // Under assembly; null between packets. Not guarded by `lock`.
  CLock lock;           // Guards `ready` and `reusable`.
  CMsgQueue ready;      // Oldest first.
  CMsgQueue reusable;   // Handed out by Pop, oldest first.

 private:
  // The oldest reusable message, reset, or else a new one from CreateMessage.
  CSocketMsg* NewMessage();
};

}  // namespace KVT

#endif  // TERNCORELIB_NET_SOCKET_MSG_H_
