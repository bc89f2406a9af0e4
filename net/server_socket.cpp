#include "net/server_socket.h"

#include "foundation/memory.h"
#include "net/internal/socket_fields.h"

namespace KVT {
namespace {

// What a SOCKET becomes in the 32-bit handle field: INVALID_SOCKET is kept recognisable on
// 64-bit as 0xFFFFFFFF, which no call accepts as a socket either.
unsigned int ToHandle(SOCKET socket) { return static_cast<unsigned int>(socket); }

}  // namespace

CServerSocket::CServerSocket(ISOListener* listener, int bufferSize, TSOSocketInfo* info)
    : CSocket(info, bufferSize), listener(listener), listenArgument(0) {}

CServerSocket::CServerSocket(CServerSocket const& other)
    : CSocket(other), listener(other.listener), listenArgument(other.listenArgument) {}

CServerSocket::~CServerSocket() { listener = nullptr; }

CServerSocket& CServerSocket::operator=(CServerSocket& other) {
  listener = other.listener;
  listenArgument = other.listenArgument;
  return *this;
}

int CServerSocket::Listen(int value) {
  if (thread != nullptr) return -1;
  listenArgument = value;
  thread = ::CreateThread(nullptr, 0, &CServerSocket::ListenThreadProc, this, 0, nullptr);
  if (thread != nullptr) {
    DWORD code = 0;
    if (::GetExitCodeThread(thread, &code) && code == STILL_ACTIVE) return 1;
    ::CloseHandle(thread);
    thread = nullptr;
  }
  ::MessageBoxW(nullptr, L"TernProbe thread fail", L"Attach", MB_OK);
  return 0;
}

bool CServerSocket::Pause() { return true; }

bool CServerSocket::Resume() { return true; }

unsigned long __stdcall CServerSocket::ListenThreadProc(void* parameter) {
  return static_cast<CServerSocket*>(parameter)->ListenProc();
}

unsigned long CServerSocket::ListenProc() {
  // A Listen after a failed start finds the socket and the address block of the attempt before,
  // whose thread has ended: release them rather than lose them.
  const unsigned int stale = internal::ExchangeSocket(socket, 0);
  if (stale != 0) ::closesocket(stale);
  MemFree(address);
  address = nullptr;

  internal::StoreSocket(socket, ToHandle(::socket(family, type, protocol)));
  address = CSocketUtil::GetHostAddress(host, family, protocol, type, port);
  if (address == nullptr ||
      ::bind(internal::LoadSocket(socket), reinterpret_cast<sockaddr*>(address),
             sizeof(sockaddr_in)) == SOCKET_ERROR) {
    listener->OnError(this, ::WSAGetLastError());
    return 0;
  }
  if (::listen(internal::LoadSocket(socket), SOMAXCONN) == SOCKET_ERROR) {
    SetSocketError(::WSAGetLastError());
    listener->OnError(this, ::WSAGetLastError());
    return 0;
  }
  internal::CopyBounded(ipAddress, CSocketUtil::IP4SockIPToStrIP(address));
  // Only a successful lookup replaces the host text.
  CSocketUtil::GetNameInfo(reinterpret_cast<sockaddr*>(address), sizeof(sockaddr_in), 0, host,
                           nullptr);
  listener->OnListening(host, ipAddress, port);
  lastError = 0;
  if (listener->IsStopping()) return 1;

  for (;;) {
    // No length: the platform writes no peer address into the block.
    const SOCKET result =
        ::accept(internal::LoadSocket(socket), reinterpret_cast<sockaddr*>(address), nullptr);
    unsigned int accepted = 0;
    if (result == INVALID_SOCKET) {
      SetSocketError(::WSAGetLastError());
    } else {
      accepted = ToHandle(result);
    }
    if (listener->IsStopping()) {
      if (accepted != 0) ::closesocket(accepted);
      const unsigned int listening = internal::ExchangeSocket(socket, 0);
      if (listening != 0) ::closesocket(listening);
      return 1;
    }
    if (accepted == 0) {
      listener->OnError(this, ::WSAGetLastError());
      return 1;
    }
    int dont_linger = 1;
    if (::setsockopt(accepted, SOL_SOCKET, SO_DONTLINGER, reinterpret_cast<char*>(&dont_linger),
                     sizeof(dont_linger)) != 0) {
      SetSocketError(::WSAGetLastError());
    }
    listener->OnAccept(this, accepted);
    if (listener->IsStopping()) return 1;
  }
}

}  // namespace KVT
