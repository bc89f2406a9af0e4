#ifndef TERNCORELIB_NET_WINSOCK_H_
#define TERNCORELIB_NET_WINSOCK_H_

// Windows Sockets 2 as the socket classes see it. <windows.h> comes lean from foundation/win.h, so
// that it doesn't pull in the old <winsock.h>; <winsock2.h> then fits after it, and an
// application may include this, TernCoreLib.h or <winsock2.h> in any order. What doesn't work is
// a <windows.h> of the application's own, without WIN32_LEAN_AND_MEAN, before any of them: it
// brings <winsock.h>, whose declarations clash with <winsock2.h>.

#include "foundation/win.h"

#if defined(_WINSOCKAPI_) && !defined(_WINSOCK2API_)
#error "<winsock.h> is in already: define WIN32_LEAN_AND_MEAN before including <windows.h>"
#endif

#include <winsock2.h>
#include <ws2tcpip.h>

// <ws2tcpip.h> turns these names into its A/W functions, which would rename CSocketUtil's members
// of the same names depending on UNICODE. The platform's functions stay reachable under their
// own names (getaddrinfo, GetAddrInfoW, getnameinfo, GetNameInfoW).
#undef GetAddrInfo
#undef GetNameInfo

#if defined(__MINGW32__)
// The Windows SDK gives the protocol numbers a type of their own, which the socket records and
// classes use; MinGW's headers only have the IPPROTO_* numbers. Cast those to it:
// static_cast<IPPROTO>(IPPROTO_TCP).
enum IPPROTO : int {};
#endif

#endif  // TERNCORELIB_NET_WINSOCK_H_
