#include "net/client_socket.h"

#include "net/internal/socket_fields.h"

namespace KVT {
namespace {

// Failures of recv that the receive loop records; any other ends the loop unrecorded.
bool IsRecordedReceiveError(int error) {
  switch (error) {
    case WSAEFAULT:
    case WSAEINVAL:
    case WSAENOTSOCK:
    case WSAENOTCONN:
    case WSANOTINITIALISED:
      return true;
    default:
      return false;
  }
}

}  // namespace

CClientSocket::CClientSocket(ISOReceiver* receiver, unsigned int socket, int bufferSize)
    : CSocket(socket, bufferSize), receiver(receiver) {}

CClientSocket::CClientSocket(CClientSocket const& other)
    : CSocket(other), receiver(other.receiver) {}

CClientSocket::~CClientSocket() {
  receiver = nullptr;
  // The handle belongs to whoever connected or accepted it; CSocket's destructor must not close
  // it.
  internal::StoreSocket(socket, 0);
}

CClientSocket& CClientSocket::operator=(CClientSocket& other) {
  receiver = other.receiver;
  return *this;
}

int CClientSocket::Send(void const* data, int length) {
  const unsigned int handle = internal::LoadSocket(socket);
  if (handle == 0) return 0;
  const int sent = ::send(handle, static_cast<char const*>(data), length, 0);
  if (sent == SOCKET_ERROR) SetSocketError(::WSAGetLastError());
  return sent;
}

void* CClientSocket::Receive(unsigned long flags) {
  if (thread != nullptr) return nullptr;
  thread = ::CreateThread(nullptr, 0, &CClientSocket::ReceiverThreadProc, this, flags, nullptr);
  return thread;
}

unsigned long __stdcall CClientSocket::ReceiverThreadProc(void* parameter) {
  return static_cast<CClientSocket*>(parameter)->ReceiverProc();
}

unsigned long CClientSocket::ReceiverProc() {
  u_long blocking = 0;
  ::ioctlsocket(internal::LoadSocket(socket), FIONBIO, &blocking);
  if (buffer == nullptr || internal::LoadSocket(socket) == 0) return 0;
  lastError = 0;
  for (;;) {
    // Buffer, size and socket are read anew for every read: OnReceive may grow the buffer.
    const int received = ::recv(internal::LoadSocket(socket), buffer, bufferSize, 0);
    if (internal::LoadSocket(socket) == 0) return 1;  // Shut down by another thread.
    if (receiver == nullptr) return 1;
    if (receiver->IsStopping()) return 1;
    if (received == 0) return 1;  // The peer closed the connection.
    if (received == SOCKET_ERROR) {
      const int error = ::WSAGetLastError();
      if (IsRecordedReceiveError(error)) SetSocketError(error);
      return 1;
    }
    if (!receiver->OnReceive(this, buffer, received)) {
      lastError = 0;
      return 1;
    }
  }
}

}  // namespace KVT
