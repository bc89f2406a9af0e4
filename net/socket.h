#ifndef TERNCORELIB_NET_SOCKET_H_
#define TERNCORELIB_NET_SOCKET_H_

#include "foundation/export.h"
#include "net/socket_util.h"
#include "sync/lock.h"

namespace KVT {

// The interface of every socket object of the library.
class ISOSocket {
 public:
  // The dotted IPv4 text of the socket's address (the peer's, for an accepted connection).
  virtual wchar_t const* GetIPAddress() = 0;
  // The host name of that address, as far as it is known; the text may be empty.
  virtual wchar_t const* GetHost() = 0;
  // The port in host byte order; 0 where none was given.
  virtual unsigned short GetPort() = 0;
  // Shuts down and closes the socket; safe from any thread, also more than once.
  virtual void Shutdown() = 0;
  // Whether the object was built from a description (server) or over a handle (client).
  virtual SocketClass GetClass() = 0;
  virtual ~ISOSocket() = default;
};

// One socket with its description, a receive buffer on the process heap, a lock for the
// application's use, the handle of the thread that serves it (CClientSocket, CServerSocket) and
// the last Windows Sockets error that it recorded. CSocket itself starts no thread, creates no
// socket and never connects. A socket handle of 0 means that there is none.
//
// Lifetime: a socket object serves at most one thread in its life, and its destructor neither
// stops nor awaits that thread. End it in this order: make the stop test of its listener or
// receiver answer true, call Shutdown to release a blocking call, WaitForThreadExit, destroy.
//
// Threads: the fields are read and written without the lock, also by the serving thread. Shutdown
// may come from any thread at any time; everything else belongs to the thread that owns the
// object, or to the serving thread where CClientSocket and CServerSocket say so.
class TERN_API CSocket : public ISOSocket {
 public:
  // Over an existing socket (a CClientSocket): `host` gets the peer's name and `ipAddress` its
  // dotted address, by getpeername and a reverse lookup, which may wait for the name service.
  // Either failing is silent: the address stays zero, `host` empty, and `ipAddress` then reads
  // "0.0.0.0". The description keeps its defaults, so GetPort gives 0 whatever the peer's port.
  // A `bufferSize` below 1 means 8912 bytes.
  CSocket(unsigned int socket, int bufferSize);
  // From a description, with no socket yet (a CServerSocket). A null `info` gives the defaults:
  // AF_INET, IPPROTO_TCP, SOCK_STREAM, empty host, port 0. A host text that fills all 1025
  // elements without a terminator is cut to 1024 characters.
  CSocket(TSOSocketInfo* info, int bufferSize);
  // An alias of `other`: it shares the socket, the buffer, the address block, the thread handle
  // and the lock, and duplicates nothing. Whichever of the family is destroyed last releases
  // them (the shared lock counts the family); the others only let go of their share. A change
  // made through one member is not seen by the others, so Shutdown, Receive and Listen belong
  // to one of them, and SetBufferSize doesn't grow a buffer that copies share.
  CSocket(CSocket const& other);
  // Shuts down and closes the socket, frees the buffer and the address block, closes the thread
  // handle (without stopping or awaiting the thread) - unless copies share them, see above.
  ~CSocket() override;

  // Changes nothing: the target keeps its own description, socket, buffer and lock.
  CSocket& operator=(CSocket& other);

  // `ipAddress`: the peer's dotted address over a handle, the bound address once a server
  // socket listens; empty before.
  wchar_t const* GetIPAddress() override;
  // `host`: the peer's name over a handle; the description's host, then the bound address's
  // name, for a server socket. The text may be empty.
  wchar_t const* GetHost() override;
  // In host byte order.
  unsigned short GetPort() override;
  // shutdown (both directions) and closesocket; the handle becomes 0. Results are ignored. A
  // second call, or one without a socket, does nothing. Safe from any thread: this is how
  // another thread releases a receive or accept loop that blocks.
  void Shutdown() override;
  SocketClass GetClass() override;

  // Waits for the serving thread to end, for `timeout` milliseconds (-1 is INFINITE). Returns
  // at once without a thread. The outcome isn't reported, and the handle stays.
  void WaitForThreadExit(int timeout);
  // The serving thread's handle, owned by the object; null before a thread was started. It
  // stays after the thread has ended, and the exit code can be read from it.
  void* GetThread();

  // The object's recursive lock (CLock), for the application; within the library only
  // SetBufferSize takes it.
  void Lock();
  void Unlock();

  // Grows the buffer to `size` bytes (below 1 means 8912): the old bytes stay and the new ones
  // are zero. A size that isn't greater changes nothing. The result is the size in force, which
  // is also what a failed growth leaves (the old buffer stays) and what a buffer shared with a
  // copy keeps. Call it from the receive thread (in OnReceive) or while no receive thread runs.
  int SetBufferSize(int size);
  int GetBufferSize();
  // The last Windows Sockets error that the object recorded; 0 for none.
  unsigned long GetLastError();

 protected:
  // Sets the fields to their defaults and allocates the buffer; the lock and the class are left
  // alone. Without memory the buffer is null, which a receive loop refuses to start with.
  void Init(int bufferSize);
  void SetSocketError(int error);

  unsigned short family;        // Address family (AF_INET).
  IPPROTO protocol;             // Protocol (IPPROTO_TCP).
  unsigned short type;          // Socket type (SOCK_STREAM).
  unsigned short port;          // In host byte order.
  wchar_t host[1025];           // Host text, terminated (see GetHost).
  wchar_t ipAddress[1025];      // Dotted IPv4 text, terminated (see GetIPAddress).
  sockaddr_in* address;         // Address block (see CSocketUtil), owned.
  unsigned int socket;          // 0 for none.
  int bufferSize;               // Bytes in `buffer`.
  char* buffer;                 // Zero-filled block on the process heap, owned.
  CLock lock;                   // The object's lock (see Lock).
  SocketClass socketClass;      // Set by the constructor (see GetClass).
  void* thread;                 // The serving thread, owned; null for none.
  unsigned long lastError;      // The last recorded Windows Sockets error; 0 for none.
};

}  // namespace KVT

#endif  // TERNCORELIB_NET_SOCKET_H_
