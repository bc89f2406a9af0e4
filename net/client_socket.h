#ifndef TERNCORELIB_NET_CLIENT_SOCKET_H_
#define TERNCORELIB_NET_CLIENT_SOCKET_H_

#include "foundation/export.h"
#include "net/socket.h"

namespace KVT {

class CClientSocket;

// What the application supplies to a CClientSocket; both operations run on the receive thread.
// The object must outlive that thread.
class ISOReceiver {
 public:
  // Asked after every read, before its result is looked at: true ends the loop and drops what
  // the read brought.
  virtual bool IsStopping() = 0;
  // One chunk of the stream as it came, `length` >= 1 bytes at `data`, which is `socket`'s own
  // buffer and is overwritten by the next read: copy what you keep. True asks for the next read,
  // false ends the loop but leaves the connection open; to close it too (the peer then sees the
  // end of the stream), call socket->Shutdown() before returning false.
  virtual bool OnReceive(CClientSocket* socket, void* data, int length) = 0;

 protected:
  // The library never destroys a receiver.
  ~ISOReceiver() = default;
};

// A socket that is connected already: one that a CServerSocket accepted, or one that the
// application connected itself. Sends on the caller's thread; receives on a thread of its own,
// in blocking mode, handing each chunk to an ISOReceiver.
//
// Destroying a client socket closes nothing: the handle stays open unless Shutdown was called.
class TERN_API CClientSocket : public CSocket {
 public:
  // `receiver` may be null: the thread then reads once and ends without delivering anything.
  CClientSocket(ISOReceiver* receiver, unsigned int socket, int bufferSize);
  // The alias of CSocket's copy, with the same receiver.
  CClientSocket(CClientSocket const& other);
  // Leaves the socket open (see above); otherwise as CSocket.
  ~CClientSocket() override;
  // Takes `other`'s receiver and nothing else.
  CClientSocket& operator=(CClientSocket& other);

  // One send() of `length` bytes: its result, a short count included (there is no retry). 0
  // without a socket (also after Shutdown), with nothing recorded; -1 records the error.
  virtual int Send(void const* data, int length);
  // Starts the receive thread with CreateThread's `flags` (CREATE_SUSPENDED, ...) and gives its
  // handle, which the object owns. Null if the object has a thread already, ended or not, and
  // when CreateThread fails (then a later call may try again).
  //
  // The loop puts the socket into blocking mode, then reads until one of these ends it. Exit
  // code 0 if it never read (no buffer, no socket), else 1. `GetLastError` is cleared when the
  // loop starts and tells the cause afterwards:
  // - Shutdown from another thread: 1, nothing recorded, the last read's result unseen.
  // - null receiver, or IsStopping true: 1, nothing recorded, the read's data dropped.
  // - the peer closed the connection: 1, 0 recorded, no OnReceive for the end.
  // - recv failed: 1; WSAEFAULT, WSAEINVAL, WSAENOTSOCK, WSAENOTCONN and WSANOTINITIALISED are
  //   recorded, others (a reset or timed-out connection among them) are not, so those look like
  //   a closed connection.
  // - OnReceive gave false: 1, and GetLastError is 0.
  // The thread neither closes the socket nor tells the receiver when it ends; the application
  // learns it from the thread handle.
  void* Receive(unsigned long flags);

 protected:
  // The thread's entry: ReceiverProc on the object that `parameter` points to.
  static unsigned long __stdcall ReceiverThreadProc(void* parameter);
  // The receive loop that Receive describes; gives the thread's exit code.
  unsigned long ReceiverProc();

  ISOReceiver* receiver;  // Not owned; may be null.
};

}  // namespace KVT

#endif  // TERNCORELIB_NET_CLIENT_SOCKET_H_
