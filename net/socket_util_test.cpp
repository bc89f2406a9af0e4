#include "net/socket_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "foundation/memory.h"
#include "net/scoped_socket.h"

namespace {

using KVT::CSocketUtil;

// Owns an address block of GetHostAddress.
struct Block {
  explicit Block(sockaddr_in* block) : get(block) {}
  ~Block() { KVT::MemFree(get); }
  sockaddr_in* get;
};

sockaddr_in* HostAddress(const wchar_t* host, unsigned short port) {
  return CSocketUtil::GetHostAddress(host, AF_INET, static_cast<IPPROTO>(IPPROTO_TCP),
                                     SOCK_STREAM, port);
}

sockaddr_in Loopback(unsigned short port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = ::htons(port);
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  return address;
}

TEST(PrintSocketError, HasEightyNineSentencesInTwoRanges) {
  const std::wstring unknown = L"Unknown socket error";
  std::set<std::wstring> sentences;
  int rows = 0;
  for (int code = 9000; code < 12000; ++code) {
    const std::wstring text = CSocketUtil::PrintSocketError(code);
    if (text == unknown) continue;
    ++rows;
    sentences.insert(text);
    EXPECT_TRUE((code >= 10004 && code <= 10112) || (code >= 11001 && code <= 11031)) << code;
  }
  EXPECT_EQ(rows, 89);
  EXPECT_EQ(sentences.size(), 87u);  // Two pairs share a sentence.
}

TEST(PrintSocketError, WorkedExamples) {
  const struct {
    int code;
    const wchar_t* text;
  } rows[] = {
      {0, L"Unknown socket error"},
      {-10048, L"Unknown socket error"},
      {10005, L"Unknown socket error"},
      {10072, L"Unknown socket error"},
      {10090, L"Unknown socket error"},
      {10100, L"Unknown socket error"},
      {10113, L"Unknown socket error"},
      {11000, L"Unknown socket error"},
      {11032, L"Unknown socket error"},
      {10004, L"A blocking operation was interrupted by a call to WSACancelBlockingCall."},
      {10038, L"An operation was attempted on something that is not a socket."},
      {10048,
       L"Only one usage of each socket address (protocol/network address/port) is normally "
       L"permitted."},
      {10054, L"An existing connection was forcibly closed by the remote host."},
      {10102, L"No more results can be returned by WSALookupServiceNext."},
      {10110, L"No more results can be returned by WSALookupServiceNext."},
      {10103,
       L"A call to WSALookupServiceEnd was made while this call was still processing. The call "
       L"has been canceled."},
      {11001, L"No such host is known."},
      {11031, L"A reserved policy element was found in the QOS provider-specific buffer."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.code);
    EXPECT_STREQ(CSocketUtil::PrintSocketError(row.code), row.text);
  }
  EXPECT_EQ(CSocketUtil::PrintSocketError(10111), CSocketUtil::PrintSocketError(10103));
}

TEST(GetHostAddress, WildcardTextsGiveTheAnyAddressWithThePortInNetworkOrder) {
  for (const wchar_t* host : {static_cast<const wchar_t*>(nullptr), L"", L"any", L"ANY", L"aNy"}) {
    SCOPED_TRACE(host == nullptr ? "null" : std::string(host, host + std::wcslen(host)));
    Block block(HostAddress(host, 0x1234));
    ASSERT_NE(block.get, nullptr);
    EXPECT_EQ(block.get->sin_family, AF_INET);
    EXPECT_EQ(block.get->sin_port, ::htons(0x1234));
    EXPECT_EQ(block.get->sin_addr.s_addr, INADDR_ANY);
    const sockaddr_in zero = {};
    EXPECT_EQ(std::memcmp(block.get->sin_zero, zero.sin_zero, sizeof(zero.sin_zero)), 0);
  }
}

TEST(GetHostAddress, NumericHostComesFromTheResolver) {
  Block block(HostAddress(L"127.0.0.1", 8080));
  ASSERT_NE(block.get, nullptr);
  EXPECT_EQ(block.get->sin_addr.s_addr, ::htonl(INADDR_LOOPBACK));
  EXPECT_EQ(block.get->sin_port, ::htons(8080));
}

TEST(GetHostAddress, UnresolvableHostGivesTheWildcardBlock) {
  // Not a name the resolver can accept: the lookup fails without asking the network.
  Block block(HostAddress(L"no such host..invalid", 99));
  ASSERT_NE(block.get, nullptr);
  EXPECT_EQ(block.get->sin_addr.s_addr, INADDR_ANY);
  EXPECT_EQ(block.get->sin_port, ::htons(99));
}

TEST(AddressText, ConvertsBothWays) {
  sockaddr_in address = Loopback(1);
  EXPECT_STREQ(CSocketUtil::IP4SockIPToStrIP(&address), L"127.0.0.1");
  EXPECT_EQ(CSocketUtil::IP4SockIPToStrIP(nullptr), nullptr);
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L"127.0.0.1"), ::htonl(INADDR_LOOPBACK));
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L"10.1.2.3"), ::inet_addr("10.1.2.3"));
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(nullptr), 0u);
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L""), INADDR_NONE);
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L"300.1.2.3"), INADDR_NONE);
}

TEST(GetAddrInfo, PortFormNeedsAHostAndEmptyHostMeansLocal) {
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* result = nullptr;
  EXPECT_FALSE(CSocketUtil::GetAddrInfo(static_cast<const wchar_t*>(nullptr), 80, &hints,
                                        &result));
  EXPECT_EQ(result, nullptr);
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"127.0.0.1", 4321, &hints, &result));
  KVT::ScopedAddrInfo owner(result);
  ASSERT_NE(result->ai_addr, nullptr);
  EXPECT_EQ(reinterpret_cast<sockaddr_in*>(result->ai_addr)->sin_port, ::htons(4321));
  addrinfo* local = nullptr;
  // An empty host reaches the platform as null: the local host, which always resolves.
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"", 1, &hints, &local));
  KVT::ScopedAddrInfo local_owner(local);
  EXPECT_FALSE(CSocketUtil::GetAddrInfo(L"127.0.0.1", 1, &hints, nullptr));
}

TEST(GetAddrInfo, ServiceFormPassesNullsOn) {
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* result = nullptr;
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"127.0.0.1", L"5000", &hints, &result));
  KVT::ScopedAddrInfo owner(result);
  EXPECT_EQ(reinterpret_cast<sockaddr_in*>(result->ai_addr)->sin_port, ::htons(5000));
  addrinfo* none = nullptr;
  // Neither a host nor a service: the platform refuses.
  EXPECT_FALSE(CSocketUtil::GetAddrInfo(static_cast<const wchar_t*>(nullptr),
                                        static_cast<const wchar_t*>(nullptr), &hints, &none));
}

TEST(NameLookup, NumericLookupFillsTheRecordsAndNullRecordsStillLookUp) {
  const sockaddr_in address = Loopback(4242);
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  KVT::TSOHostNameW host;
  std::wmemset(host.name, L'#', 1025);
  KVT::TSOServiceNameW service;
  EXPECT_EQ(CSocketUtil::GetHostNameW(name, sizeof(address), &host, NI_NUMERICHOST), 0);
  EXPECT_STREQ(host.name, L"127.0.0.1");
  EXPECT_EQ(CSocketUtil::GetServName(name, sizeof(address), &service, NI_NUMERICSERV), 0);
  EXPECT_STREQ(service.name, L"4242");
  EXPECT_EQ(CSocketUtil::GetHostNameW(name, sizeof(address), nullptr, NI_NUMERICHOST), 0);
  EXPECT_EQ(CSocketUtil::GetServName(name, sizeof(address), nullptr, NI_NUMERICSERV), 0);
}

TEST(NameLookup, FailureLeavesTheRecordAlone) {
  sockaddr_in address = Loopback(1);
  address.sin_family = 12345;  // No such family.
  KVT::TSOHostNameW host;
  std::wmemset(host.name, L'#', 1025);
  EXPECT_NE(CSocketUtil::GetHostNameW(reinterpret_cast<sockaddr*>(&address), sizeof(address),
                                      &host, 0),
            0);
  EXPECT_EQ(host.name[0], L'#');
  EXPECT_EQ(CSocketUtil::GetHostNameW(nullptr, 16, &host, 0), WSAEFAULT);
  EXPECT_EQ(host.name[0], L'#');
}

TEST(SocketOptions, WrappersGiveThePlatformsResult) {
  KVT::ScopedSocket socket(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  ASSERT_TRUE(socket.IsValid());
  const auto handle = static_cast<unsigned int>(socket.Get());
  int on = 1;
  EXPECT_EQ(CSocketUtil::SetOptions(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)), 0);
  int value = 0;
  EXPECT_EQ(CSocketUtil::GetOptions(handle, SOL_SOCKET, SO_REUSEADDR, &value, sizeof(value)), 0);
  EXPECT_NE(value, 0);
  sockaddr_in bound = Loopback(0);
  ASSERT_EQ(::bind(socket.Get(), reinterpret_cast<sockaddr*>(&bound), sizeof(bound)), 0);
  sockaddr_in name = {};
  int length = sizeof(name);
  EXPECT_EQ(CSocketUtil::GetSockName(handle, reinterpret_cast<sockaddr*>(&name), &length), 0);
  EXPECT_NE(name.sin_port, 0);
  // Not connected: getpeername fails.
  EXPECT_EQ(CSocketUtil::GetPeerName(handle, reinterpret_cast<sockaddr*>(&name), &length), -1);
  EXPECT_EQ(::WSAGetLastError(), WSAENOTCONN);
}

}  // namespace
