#include "net/socket_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "foundation/memory.h"
#include "net/loopback_test_support.h"

namespace {

using KVT::CSocketUtil;
using tern_test::LoopbackAddress;

TEST(PrintSocketError, HasEightyNineSentencesInTwoRanges) {
  std::set<std::wstring> sentences;
  int rows = 0;
  for (int code = 9000; code < 12000; ++code) {
    const std::wstring text = CSocketUtil::PrintSocketError(code);
    if (text == L"Unknown socket error") continue;
    ++rows;
    sentences.insert(text);
    EXPECT_TRUE((code >= 10004 && code <= 10112) || (code >= 11001 && code <= 11031)) << code;
  }
  EXPECT_EQ(rows, 89);
  EXPECT_EQ(sentences.size(), 87u);  // Two pairs share a sentence.
}

TEST(PrintSocketError, WorkedExamples) {
  for (int code : {0, -10048, 10005, 10072, 10090, 10100, 10113, 11000, 11032}) {
    EXPECT_STREQ(CSocketUtil::PrintSocketError(code), L"Unknown socket error") << code;
  }
  const struct {
    int code;
    const wchar_t* text;
  } rows[] = {
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

// Wildcard texts, a numeric host (from the resolver), and a name the resolver can't accept,
// which fails without asking the network: the any-address block, the port in network order.
TEST(GetHostAddress, GivesABlockForEveryHost) {
  const struct {
    const wchar_t* host;
    unsigned long address;
  } rows[] = {{nullptr, INADDR_ANY}, {L"", INADDR_ANY}, {L"any", INADDR_ANY},
              {L"ANY", INADDR_ANY},  {L"aNy", INADDR_ANY}, {L"127.0.0.1", INADDR_LOOPBACK},
              {L"no such host..invalid", INADDR_ANY}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.host == nullptr ? L"(null)" : row.host);
    sockaddr_in* block = CSocketUtil::GetHostAddress(
        row.host, AF_INET, static_cast<IPPROTO>(IPPROTO_TCP), SOCK_STREAM, 0x1234);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->sin_family, AF_INET);
    EXPECT_EQ(block->sin_port, ::htons(0x1234));
    EXPECT_EQ(block->sin_addr.s_addr, ::htonl(row.address));
    EXPECT_EQ(std::string(block->sin_zero, sizeof(block->sin_zero)), std::string(8, '\0'));
    KVT::MemFree(block);
  }
}

TEST(AddressText, ConvertsBothWays) {
  sockaddr_in address = LoopbackAddress(1);
  EXPECT_STREQ(CSocketUtil::IP4SockIPToStrIP(&address), L"127.0.0.1");
  EXPECT_EQ(CSocketUtil::IP4SockIPToStrIP(nullptr), nullptr);
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L"127.0.0.1"), ::htonl(INADDR_LOOPBACK));
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L"10.1.2.3"), ::inet_addr("10.1.2.3"));
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(nullptr), 0u);
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L""), INADDR_NONE);
  EXPECT_EQ(CSocketUtil::IP4StrIPToSockIP(L"300.1.2.3"), INADDR_NONE);
}

// The port form needs a host, and an empty host reaches the platform as null: the local host,
// which always resolves. The service form passes nulls on, and the platform refuses both.
TEST(GetAddrInfo, PortAndServiceForms) {
  const wchar_t* const kNone = nullptr;
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* result = nullptr;
  EXPECT_FALSE(CSocketUtil::GetAddrInfo(kNone, 80, &hints, &result));
  EXPECT_EQ(result, nullptr);
  EXPECT_FALSE(CSocketUtil::GetAddrInfo(L"127.0.0.1", 1, &hints, nullptr));
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"127.0.0.1", 4321, &hints, &result));
  KVT::ScopedAddrInfo owner(result);
  EXPECT_EQ(reinterpret_cast<sockaddr_in*>(result->ai_addr)->sin_port, ::htons(4321));
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"", 1, &hints, &result));
  KVT::ScopedAddrInfo local_owner(result);

  hints.ai_flags = AI_NUMERICHOST;
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"127.0.0.1", L"5000", &hints, &result));
  KVT::ScopedAddrInfo service_owner(result);
  EXPECT_EQ(reinterpret_cast<sockaddr_in*>(result->ai_addr)->sin_port, ::htons(5000));
  EXPECT_FALSE(CSocketUtil::GetAddrInfo(kNone, kNone, &hints, &result));
}

TEST(NameLookup, NumericLookupFillsTheRecordsAndFailureLeavesThemAlone) {
  sockaddr_in address = LoopbackAddress(4242);
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  KVT::TSOHostNameW host;
  KVT::TSOServiceNameW service;
  EXPECT_EQ(CSocketUtil::GetHostNameW(name, sizeof(address), &host, NI_NUMERICHOST), 0);
  EXPECT_STREQ(host.name, L"127.0.0.1");
  EXPECT_EQ(CSocketUtil::GetServName(name, sizeof(address), &service, NI_NUMERICSERV), 0);
  EXPECT_STREQ(service.name, L"4242");
  // Without a record the lookup still runs.
  EXPECT_EQ(CSocketUtil::GetHostNameW(name, sizeof(address), nullptr, NI_NUMERICHOST), 0);
  EXPECT_EQ(CSocketUtil::GetServName(name, sizeof(address), nullptr, NI_NUMERICSERV), 0);

  std::wmemset(host.name, L'#', 1025);
  address.sin_family = 12345;  // No such family.
  EXPECT_NE(CSocketUtil::GetHostNameW(name, sizeof(address), &host, 0), 0);
  EXPECT_EQ(CSocketUtil::GetHostNameW(nullptr, 16, &host, 0), WSAEFAULT);
  EXPECT_EQ(host.name[0], L'#');
}

TEST(SocketOptions, WrappersGiveThePlatformsResult) {
  unsigned short port = 0;
  KVT::ScopedSocket socket = tern_test::BoundToFreePort(port);
  ASSERT_TRUE(socket.IsValid());
  const auto handle = static_cast<unsigned int>(socket.Get());
  int on = 1;
  EXPECT_EQ(CSocketUtil::SetOptions(handle, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)), 0);
  int value = 0;
  EXPECT_EQ(CSocketUtil::GetOptions(handle, SOL_SOCKET, SO_KEEPALIVE, &value, sizeof(value)), 0);
  EXPECT_NE(value, 0);
  sockaddr_in name = {};
  int length = sizeof(name);
  EXPECT_EQ(CSocketUtil::GetSockName(handle, reinterpret_cast<sockaddr*>(&name), &length), 0);
  EXPECT_EQ(name.sin_port, ::htons(port));
  // Not connected: getpeername fails.
  EXPECT_EQ(CSocketUtil::GetPeerName(handle, reinterpret_cast<sockaddr*>(&name), &length), -1);
  EXPECT_EQ(::WSAGetLastError(), WSAENOTCONN);
}

}  // namespace
