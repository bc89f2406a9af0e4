#include "net/socket_util.h"

#include <cstring>

#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "net/internal/scoped_socket.h"

namespace KVT {
namespace {

constexpr int kHostChars = NI_MAXHOST;
constexpr int kServiceChars = NI_MAXSERV;

// Converts `narrow` (ANSI) into `output` of `elements` wide characters, terminated; an empty or
// unconvertible text leaves an empty output.
void StoreName(char const* narrow, wchar_t* output, int elements) {
  // StrSafeCopy empties the output for a null source, which StrConvert gives for empty text.
  StrSafeCopy(output, StrConvert(narrow, 0), elements - 1);
}

}  // namespace

CSocketUtil& CSocketUtil::operator=(CSocketUtil const&) { return *this; }

int CSocketUtil::GetSockName(unsigned int socket, sockaddr* name, int* nameLength) {
  return ::getsockname(socket, name, nameLength);
}

int CSocketUtil::GetPeerName(unsigned int socket, sockaddr* name, int* nameLength) {
  return ::getpeername(socket, name, nameLength);
}

int CSocketUtil::SetOptions(unsigned int socket, int level, int option, void* value,
                            int valueLength) {
  return ::setsockopt(socket, level, option, static_cast<char const*>(value), valueLength);
}

int CSocketUtil::GetOptions(unsigned int socket, int level, int option, void* value,
                            int valueLength) {
  int length = valueLength;
  return ::getsockopt(socket, level, option, static_cast<char*>(value), &length);
}

wchar_t const* CSocketUtil::IP4SockIPToStrIP(sockaddr_in* address) {
  if (address == nullptr) return nullptr;
  return StrConvert(::inet_ntoa(address->sin_addr), 0);
}

unsigned long CSocketUtil::IP4StrIPToSockIP(wchar_t const* text) {
  if (text == nullptr) return 0;
  char const* narrow = StrConvert(text, 0);
  // inet_addr's answer to an empty text is the same; not every implementation takes null.
  if (narrow == nullptr) return INADDR_NONE;
  return ::inet_addr(narrow);
}

int CSocketUtil::GetNameInfo(sockaddr const* address, int addressLength, int flags,
                             wchar_t* host, wchar_t* service) {
  if (address == nullptr) return WSAEFAULT;
  char narrow_host[kHostChars] = {};
  char narrow_service[kServiceChars] = {};
  const int result = ::getnameinfo(address, addressLength, narrow_host, kHostChars,
                                   narrow_service, kServiceChars, flags);
  if (result != 0) return result;
  if (host != nullptr) StoreName(narrow_host, host, kHostChars);
  if (service != nullptr) StoreName(narrow_service, service, kServiceChars);
  return 0;
}

int CSocketUtil::GetHostNameW(sockaddr const* address, int addressLength, TSOHostNameW* hostName,
                              int flags) {
  return GetNameInfo(address, addressLength, flags,
                     hostName != nullptr ? hostName->name : nullptr, nullptr);
}

int CSocketUtil::GetServName(sockaddr const* address, int addressLength,
                             TSOServiceNameW* serviceName, int flags) {
  return GetNameInfo(address, addressLength, flags, nullptr,
                     serviceName != nullptr ? serviceName->name : nullptr);
}

bool CSocketUtil::GetAddrInfo(wchar_t const* host, wchar_t const* service, addrinfo const* hints,
                              addrinfo** result) {
  if (result == nullptr) return false;
  // Two takes from the narrow ring: both texts stay good for the call.
  char const* narrow_host = host != nullptr ? StrConvert(host, 0) : nullptr;
  char const* narrow_service = service != nullptr ? StrConvert(service, 0) : nullptr;
  return ::getaddrinfo(narrow_host, narrow_service, hints, result) == 0;
}

bool CSocketUtil::GetAddrInfo(wchar_t const* host, unsigned short port, addrinfo const* hints,
                              addrinfo** result) {
  if (host == nullptr || result == nullptr) return false;
  char const* narrow_host = StrConvert(host, 0);
  char const* narrow_service = StrFormat("%d", static_cast<int>(port));
  return ::getaddrinfo(narrow_host, narrow_service, hints, result) == 0;
}

sockaddr_in* CSocketUtil::GetHostAddress(wchar_t const* host, unsigned short family,
                                         IPPROTO protocol, unsigned short type,
                                         unsigned short port) {
  auto* block = static_cast<sockaddr_in*>(MemAlloc(sizeof(sockaddr_in)));
  if (block == nullptr) return nullptr;
  block->sin_family = family;
  block->sin_port = ::htons(port);
  block->sin_addr.s_addr = ::htonl(INADDR_ANY);
  if (host == nullptr || host[0] == L'\0' || _wcsicmp(host, L"any") == 0) return block;

  addrinfo hints = {};
  hints.ai_family = family;
  hints.ai_socktype = type;
  hints.ai_protocol = protocol;
  addrinfo* result = nullptr;
  if (!GetAddrInfo(host, port, &hints, &result)) return block;
  internal::ScopedAddrInfo found(result);
  const addrinfo* first = found.Get();
  if (first != nullptr && first->ai_addr != nullptr) {
    // 16 bytes: an IPv4 address whole, or the head of a longer one. A shorter address (none of
    // the families that this block can describe has one) is copied as far as it goes.
    const size_t length = first->ai_addrlen < sizeof(sockaddr_in) ? first->ai_addrlen
                                                                  : sizeof(sockaddr_in);
    std::memcpy(block, first->ai_addr, length);
  }
  return block;
}

}  // namespace KVT
