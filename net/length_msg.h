#ifndef TERNCORELIB_NET_LENGTH_MSG_H_
#define TERNCORELIB_NET_LENGTH_MSG_H_

// The most common framing, ready made: every frame is a 4-byte little-endian length, then that
// many bytes, with no trailer. CLengthMsg reads that header for the message layer, and
// CLengthMsgReceiver is the whole receiving side of a connection: the receiver of a
// CClientSocket that cuts its stream into such frames and hands each on, and the owner of the
// message objects. An application with another format derives from CSocketMsg and
// CSocketMsgReceiver itself.
//
// Limits, all of them the application's to choose or to live with:
// - A frame carries at most `maxLength` bytes, which the application gives, and never more than
//   LengthLimit (2^31 - 5), so that a packet's size fits an int. A frame of length 0 is a frame.
// - There is no trailer, checksum or way back into step: a header that declares more than
//   `maxLength` is refused, and with it the rest of the stream (see CLengthMsgReceiver).
// - Memory per connection: one message object for each frame that a chunk completes, plus the
//   one under assembly, made once and reused; each keeps a block of up to about twice the
//   largest frame it held (the message layer grows a block by what it is given). A refused
//   header costs its 4 bytes.

#include "foundation/export.h"
#include "net/client_socket.h"
#include "net/socket_msg.h"

namespace KVT {

// One frame under assembly: ParseHeader reads the 4-byte little-endian length once 4 bytes have
// come, and refuses a length above the message's maximum.
class TERN_API CLengthMsg : public CSocketMsg {
 public:
  // Bytes of the length prefix.
  static const int HeaderSize = 4;
  // The largest maximum a message accepts: 2^31 - 1 less the header.
  static const int LengthLimit = 0x7FFFFFFF - HeaderSize;

  // A message that accepts frames of up to `maxLength` bytes; below 0 counts as 0, above
  // LengthLimit as LengthLimit.
  explicit CLengthMsg(int maxLength);
  // Shares `other`'s block, as CSocketMsg's copy does, and takes its maximum. The copy belongs
  // to no receiver.
  CLengthMsg(CLengthMsg const& other);
  // As CSocketMsg's assignment, and takes the maximum; the target stays with its receiver.
  CLengthMsg& operator=(CLengthMsg const& other);
  // Releases the block unless a copy still uses it.
  ~CLengthMsg() override;

  // Whether the header has come and was refused: it declares more than the maximum. Such a
  // message never completes: every further byte it is given is taken and awaited for ever. Reset
  // clears it.
  bool IsRefused();
  // The largest length this message accepts.
  int GetMaxLength();

  // Writes the header of a frame of `length` bytes, little-endian, to the 4 bytes at `header`;
  // nothing if `header` is null. The other half of the framing, for the frames an application
  // sends.
  static void WriteHeader(void* header, unsigned int length);

 protected:
  // Gives 0 until 4 bytes have come, then sets the lengths (header 4, message as declared, no
  // trailer) and gives 0, or refuses: sets nothing and gives 2^31 - 1, "more awaited".
  int ParseHeader(int* msgLength, int* headerSize, int* trailerSize) override;
  // Gives 0; the library never calls it.
  int Process(void* context) override;

 private:
  friend class CLengthMsgReceiver;

  int maxLength;          // Longest message accepted.
  CLengthMsg* nextOwned;  // The next message that the same receiver made; null at the end.
};

// The receiving side of one connection in this framing: pass the object as a CClientSocket's
// ISOReceiver, and its OnReceive cuts the stream into frames with AddMessage and hands each
// finished frame to OnMessage, on the receive thread, in the order of the stream. The subclass
// supplies IsStopping (ISOReceiver's stop test) and OnMessage, and may supply OnRefused.
//
// A refused frame ends the stream: OnReceive first hands on the frames before the refused header,
// then calls OnRefused once, whose default shuts the connection, and ends the receive loop; no
// further byte of the connection is read. That is the rule of a server that answers a client's
// refused frame: answer once (in OnRefused, or by a worker that OnRefused asks to), then shut the
// connection, since nothing behind such a header can be trusted.
//
// The receiver makes its message objects itself (CreateMessage), reuses them, and deletes them
// when it goes. It serves one connection: frames of one stream only, fed by one thread at a
// time. It can't be copied.
//
// CreateMessage runs under the queue lock, as every CSocketMsgReceiver's does; this one only
// allocates there.
class TERN_API CLengthMsgReceiver : public CSocketMsgReceiver, public ISOReceiver {
 public:
  // Frames of up to `maxLength` bytes (limited as CLengthMsg's constructor says).
  explicit CLengthMsgReceiver(int maxLength);
  CLengthMsgReceiver(CLengthMsgReceiver const& other) = delete;
  CLengthMsgReceiver& operator=(CLengthMsgReceiver const& other) = delete;
  // Deletes every message object it made, those in the queues and under assembly included.
  ~CLengthMsgReceiver() override;

  // Takes one chunk of the stream, on the receive thread (or from an application that feeds
  // chunks itself; `socket` may then be null, and only OnMessage and OnRefused see it): frames
  // it with AddMessage, a frame at a time (so that no message copies the frames behind its
  // own), pops each finished frame and hands it to OnMessage. False ends the receive loop: when
  // OnMessage gave false (the frames behind it stay queued for the next call), when the chunk
  // brought a refused header (after OnRefused), and for every chunk after a refusal, which it
  // doesn't look at. Null data or a length below 1 hands on nothing.
  bool OnReceive(CClientSocket* socket, void* data, int length) override;

  // Whether the stream has brought a refused header.
  bool IsRefused();
  // The largest length accepted.
  int GetMaxLength();

 protected:
  // One finished frame: `length` bytes at `message`, inside the message object's block, good
  // until OnMessage returns (the object is then reused); not null, also for a frame of length 0,
  // where nothing may be read. True asks for the next frame; false ends the receive loop and
  // leaves the connection open (call socket->Shutdown() first to close it).
  virtual bool OnMessage(CClientSocket* socket, char* message, int length) = 0;
  // The stream brought a header that declares more than the maximum. Answer here if the
  // protocol wants an answer, then shut the connection; the default only shuts it
  // (socket->Shutdown(), nothing if `socket` is null). The receive loop ends after it either way.
  virtual void OnRefused(CClientSocket* socket);

  // A new CLengthMsg, kept on the receiver's list; null if memory runs out (AddMessage then
  // drops the chunk). Runs under the queue lock.
  CSocketMsg* CreateMessage() final;

 private:
  // Bytes of `length` at `bytes` that belong to the frame under assembly (or the next).
  int NextPiece(const char* bytes, int length);

  int maxLength;     // Longest message accepted.
  CLengthMsg* made;  // The messages made, newest first, linked by nextOwned.
};

}  // namespace KVT

#endif  // TERNCORELIB_NET_LENGTH_MSG_H_
