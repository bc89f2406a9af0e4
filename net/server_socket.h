#ifndef TERNCORELIB_NET_SERVER_SOCKET_H_
#define TERNCORELIB_NET_SERVER_SOCKET_H_

#include "foundation/export.h"
#include "net/socket.h"

namespace KVT {

class CServerSocket;

// What the application supplies to a CServerSocket; every operation that the library calls runs
// on the listening thread. The object must outlive that thread. The library ignores the results
// of OnAccept, OnListening and OnError.
class ISOListener {
 public:
  // The stop test: asked after OnListening, after every accept and after every OnAccept; true
  // ends the loop.
  virtual bool IsStopping() = 0;
  // For the application's own notices to its listener (for example from its Pause and Resume
  // logic, or from another part of the program): the library never calls it, and the default
  // does nothing, so a listener that has no use for it need not implement it.
  virtual void OnApplicationEvent(int event, void* data) {
    (void)event;
    (void)data;
  }
  // A new connection; `accepted` belongs to the application from here on (wrap it in a
  // CClientSocket, or close it). The next accept waits until this returns.
  virtual bool OnAccept(CServerSocket* socket, unsigned int accepted) = 0;
  // The socket listens. The texts are the object's host (the reverse lookup's name of the bound
  // address, if there is one) and dotted address; `port` is the one that was asked for, so 0
  // stays 0 even though the platform chose a port.
  virtual bool OnListening(wchar_t const* host, wchar_t const* ipAddress,
                           unsigned short port) = 0;
  // The loop couldn't start or can't go on; `error` is a Windows Sockets error number.
  virtual bool OnError(CServerSocket* socket, int error) = 0;

 protected:
  // The library never destroys a listener.
  ~ISOListener() = default;
};

// A listening socket. Listen starts a thread that creates the socket, binds it, listens and
// accepts in a loop, reporting to an ISOListener. Each accepted connection gets SO_DONTLINGER and
// goes to OnAccept; nothing else is done with it.
//
// Unlike a client socket, destroying a server socket closes its socket.
class TERN_API CServerSocket : public CSocket {
 public:
  // `listener` must not be null once Listen is called: the loop calls it without a test. A null
  // `info` describes a TCP socket on all addresses and port 0.
  CServerSocket(ISOListener* listener, int bufferSize, TSOSocketInfo* info);
  // The alias of CSocket's copy, with the same listener and listen argument.
  CServerSocket(CServerSocket const& other);
  ~CServerSocket() override;
  // Takes `other`'s listener and listen argument, nothing else.
  CServerSocket& operator=(CServerSocket& other);

  // Starts the listening thread. `value` is only stored; the backlog is always SOMAXCONN.
  //  1: the thread runs.
  //  0: the thread couldn't be started, or had ended already when it was looked at right after
  //     its start (it fails quickly when bind or listen fail). A message box "TernProbe thread
  //     fail" tells the user, and Listen may be called again.
  // -1: the object has a thread already, running or ended; nothing changes.
  // A failed bind or listen reaches OnError in either case, so rely on OnError, not on 0.
  //
  // The loop, and where it leaves the listening socket (exit code in brackets):
  // - bind fails (a port in use: WSAEADDRINUSE), or no address block: OnError, nothing
  //   recorded, socket open (0). listen fails: the error recorded, OnError, socket open (0).
  // - IsStopping after OnListening: no accept, socket open (1).
  // - accept fails, no stop: the error recorded, OnError, socket open (1).
  // - IsStopping after accept: a connection that came is closed unseen; the listening socket
  //   is closed and its handle 0 (1). A failed accept is recorded, not reported.
  // - IsStopping after OnAccept: socket open (1).
  // "Open" sockets are closed by Shutdown or destruction. A failed SO_DONTLINGER is recorded
  // and the connection goes to OnAccept all the same.
  virtual int Listen(int value);
  // Give true and do nothing: the loop goes on accepting.
  virtual bool Pause();
  virtual bool Resume();

 protected:
  // The thread's entry: ListenProc on the object that `parameter` points to.
  static unsigned long __stdcall ListenThreadProc(void* parameter);
  // The loop that Listen describes; gives the thread's exit code.
  unsigned long ListenProc();

  ISOListener* listener;  // Not owned.
  int listenArgument;     // Stored by Listen; no effect.
};

}  // namespace KVT

#endif  // TERNCORELIB_NET_SERVER_SOCKET_H_
