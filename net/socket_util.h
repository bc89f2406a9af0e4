#ifndef TERNCORELIB_NET_SOCKET_UTIL_H_
#define TERNCORELIB_NET_SOCKET_UTIL_H_

#include "foundation/export.h"
#include "net/winsock.h"

namespace KVT {

// The records below are plain values: no constructor, and assignment copies every element, also
// what lies behind a text's terminator. The name lengths are those of getnameinfo (NI_MAXHOST,
// NI_MAXSERV), terminator included.

// A host name, narrow.
struct TERN_API TSOHostNameA {
  char name[1025];  // Terminated.
};

// A host name, wide.
struct TERN_API TSOHostNameW {
  wchar_t name[1025];  // Terminated.
};

// A service name, narrow.
struct TERN_API TSOServiceNameA {
  char name[32];  // Terminated.
};

// A service name, wide.
struct TERN_API TSOServiceNameW {
  wchar_t name[32];  // Terminated.
};

// The description of a socket that a CServerSocket creates.
struct TERN_API TSOSocketInfo {
  unsigned short family;  // AF_INET for the library's own use.
  IPPROTO protocol;       // IPPROTO_TCP, ...
  unsigned short type;    // SOCK_STREAM, ...
  // A host name or dotted IPv4 text, terminated. Empty or "any" (in any case) means all local
  // addresses.
  wchar_t host[1025];
  unsigned short port;  // In host byte order.
};

// What CSocket::GetClass tells about how a socket object was built.
enum SocketClass : int {
  SocketClassServer = 0,  // From a TSOSocketInfo, or a null pointer to one.
  SocketClassClient = 1,  // Over an existing socket handle.
};

// A thin layer over Windows Sockets for callers in wide text. Every member is static and may be
// called from any thread; none keeps state, shows a message or writes a log. Windows Sockets must
// have been started by the application (WSAStartup): the library never does it.
//
// Socket handles are `unsigned int`. Narrow text goes to and comes from the platform through
// StrConvert with the ANSI code page, so texts that these members return are temporary strings
// (see foundation/temp_string.h), except PrintSocketError's, which are constant.
//
// An address block is a 16-byte sockaddr_in on the process heap, zero-filled
// (foundation/memory.h); whoever receives one releases it with MemFree (or HeapFree on the
// process heap).
class TERN_API CSocketUtil {
 public:
  // Copies nothing: the class has no data.
  CSocketUtil& operator=(CSocketUtil const& other);

  // getsockname, getpeername, setsockopt: the platform's result, 0 or -1 (SOCKET_ERROR) with the
  // cause for WSAGetLastError on the same thread. Pointers go to the platform unchecked, which
  // reports bad ones as WSAEFAULT.
  static int GetSockName(unsigned int socket, sockaddr* name, int* nameLength);
  static int GetPeerName(unsigned int socket, sockaddr* name, int* nameLength);
  static int SetOptions(unsigned int socket, int level, int option, void* value, int valueLength);
  // getsockopt, on a copy of `valueLength`: the length that the platform writes back is lost, so
  // the caller must know the option's size.
  static int GetOptions(unsigned int socket, int level, int option, void* value, int valueLength);

  // Dotted text of the block's IPv4 address, as a temporary wide string; null for a null block.
  static wchar_t const* IP4SockIPToStrIP(sockaddr_in* address);
  // inet_addr of the text: the address in network byte order. A null text gives 0; empty, bad
  // or malformed text gives INADDR_NONE (0xFFFFFFFF), which is also what "255.255.255.255" gives.
  static unsigned long IP4StrIPToSockIP(wchar_t const* text);

  // The host name, or the service name, of an address, by getnameinfo with `flags`. The result
  // is getnameinfo's: 0, or an error number, in which case the record is untouched. A null
  // record still makes the lookup and gives its result. A null address gives WSAEFAULT without
  // a lookup. A name that comes back empty leaves an empty record.
  static int GetHostNameW(sockaddr const* address, int addressLength, TSOHostNameW* hostName,
                          int flags);
  static int GetServName(sockaddr const* address, int addressLength,
                         TSOServiceNameW* serviceName, int flags);

  // getaddrinfo for a host and a service given as texts; true when it succeeds, and then the
  // caller releases `*result` with freeaddrinfo. On false there is nothing to release. Null
  // texts, and empty ones (StrConvert gives null for them), reach getaddrinfo as null. A null
  // `result` gives false without a lookup.
  static bool GetAddrInfo(wchar_t const* host, wchar_t const* service, addrinfo const* hints,
                          addrinfo** result);
  // The same with the service given as a port number. A null host gives false without a
  // lookup; an empty host reaches getaddrinfo as null (the local host).
  static bool GetAddrInfo(wchar_t const* host, unsigned short port, addrinfo const* hints,
                          addrinfo** result);

  // A new address block for `host` and `port` (host byte order; the block holds it in network
  // byte order). A null or empty host, or "any" in any case, gives the wildcard address without
  // a lookup. Otherwise the block takes family, port and address from the resolver's first
  // result (further results are ignored); a host that can't be resolved gives the wildcard
  // block all the same, and no error is reported. Null only when the heap is exhausted.
  static sockaddr_in* GetHostAddress(wchar_t const* host, unsigned short family,
                                     IPPROTO protocol, unsigned short type,
                                     unsigned short port);

  // A constant English sentence for a Windows Sockets error number; "Unknown socket error" for
  // any number without one (0, negative numbers, gaps). Lives as long as the library.
  static wchar_t const* PrintSocketError(int code);

 private:
  friend class CSocket;
  friend class CServerSocket;

  // getnameinfo into narrow buffers, then the texts into the wide outputs that are given:
  // `host` of 1025 elements, `service` of 32. On an error the outputs are untouched.
  static int GetNameInfo(sockaddr const* address, int addressLength, int flags, wchar_t* host,
                         wchar_t* service);
};

}  // namespace KVT

#endif  // TERNCORELIB_NET_SOCKET_UTIL_H_
