#include "net/socket.h"

#include <cstring>

#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "net/internal/socket_fields.h"
#include "sync/internal/lock_share.h"

namespace KVT {

CSocket::CSocket(unsigned int socket, int bufferSize) {
  Init(bufferSize);
  this->socket = socket;
  socketClass = SocketClassClient;
  address = static_cast<sockaddr_in*>(MemAlloc(sizeof(sockaddr_in)));
  if (address == nullptr) return;  // Usable for Send all the same.
  int length = sizeof(sockaddr_in);
  ::getpeername(socket, reinterpret_cast<sockaddr*>(address), &length);
  CSocketUtil::GetNameInfo(reinterpret_cast<sockaddr*>(address), sizeof(sockaddr_in), 0, host,
                           nullptr);
  internal::CopyBounded(ipAddress, CSocketUtil::IP4SockIPToStrIP(address));
}

CSocket::CSocket(TSOSocketInfo* info, int bufferSize) {
  Init(bufferSize);
  socketClass = SocketClassServer;
  if (info == nullptr) return;
  family = info->family;
  protocol = info->protocol;
  type = info->type;
  port = info->port;
  // The record's text may fill all its elements; copy what fits before our terminator.
  std::memcpy(host, info->host, sizeof(host) - sizeof(host[0]));
  host[internal::kTextElements - 1] = L'\0';
}

CSocket::CSocket(CSocket const& other)
    : family(other.family),
      protocol(other.protocol),
      type(other.type),
      port(other.port),
      address(other.address),
      socket(other.socket),
      bufferSize(other.bufferSize),
      buffer(other.buffer),
      lock(other.lock),
      socketClass(other.socketClass),
      thread(other.thread),
      lastError(other.lastError) {
  std::memcpy(host, other.host, sizeof(host));
  std::memcpy(ipAddress, other.ipAddress, sizeof(ipAddress));
}

CSocket::~CSocket() {
  // Copies share everything that is released here; the last of them releases it. The count is
  // read before `lock` goes, which happens after this body.
  if (internal::LockShareCount(lock) > 1) return;
  Shutdown();
  MemFree(buffer);
  buffer = nullptr;
  if (thread != nullptr) ::CloseHandle(thread);
  thread = nullptr;
  MemFree(address);
  address = nullptr;
}

CSocket& CSocket::operator=(CSocket&) { return *this; }

wchar_t const* CSocket::GetIPAddress() { return ipAddress; }

wchar_t const* CSocket::GetHost() { return host; }

unsigned short CSocket::GetPort() { return port; }

void CSocket::Shutdown() {
  // The field goes to 0 before the handle is closed: a loop that a closed handle releases then
  // always finds 0 and knows that it was stopped. Two threads that shut down at once close the
  // handle once.
  const unsigned int handle = internal::ExchangeSocket(socket, 0);
  if (handle == 0) return;
  ::shutdown(handle, SD_BOTH);
  ::closesocket(handle);
}

SocketClass CSocket::GetClass() { return socketClass; }

void CSocket::WaitForThreadExit(int timeout) {
  if (thread != nullptr) ::WaitForSingleObject(thread, static_cast<DWORD>(timeout));
}

void* CSocket::GetThread() { return thread; }

void CSocket::Lock() { lock.Lock(); }

void CSocket::Unlock() { lock.Unlock(); }

int CSocket::SetBufferSize(int size) {
  if (size < 1) size = internal::kDefaultBufferSize;
  if (size <= bufferSize) return bufferSize;
  // A copy that shares the buffer would keep a pointer to the freed block.
  if (internal::LockShareCount(lock) > 1) return bufferSize;
  lock.Lock();
  void* grown = buffer != nullptr ? MemRealloc(buffer, static_cast<std::uint32_t>(size))
                                  : MemAlloc(static_cast<std::uint32_t>(size));
  // On failure the old buffer stays in force, with its size.
  if (grown != nullptr) {
    buffer = static_cast<char*>(grown);
    bufferSize = size;
  }
  lock.Unlock();
  return bufferSize;
}

int CSocket::GetBufferSize() { return bufferSize; }

unsigned long CSocket::GetLastError() { return lastError; }

void CSocket::Init(int bufferSize) {
  family = AF_INET;
  protocol = static_cast<IPPROTO>(IPPROTO_TCP);
  type = SOCK_STREAM;
  port = 0;
  std::memset(host, 0, sizeof(host));
  std::memset(ipAddress, 0, sizeof(ipAddress));
  address = nullptr;
  socket = 0;
  thread = nullptr;
  lastError = 0;
  if (bufferSize < 1) bufferSize = internal::kDefaultBufferSize;
  this->bufferSize = bufferSize;
  buffer = static_cast<char*>(MemAlloc(static_cast<std::uint32_t>(bufferSize)));
}

void CSocket::SetSocketError(int error) { lastError = static_cast<unsigned long>(error); }

}  // namespace KVT
