// Socket utilities, error texts and the socket base class; Windows Sockets for the whole test
// program, which the library never starts itself.
#include "net/socket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "foundation/memory.h"
#include "net/loopback_test_support.h"
#include "net/socket_util.h"

namespace {

using KVT::CSocket;
using KVT::CSocketUtil;
using tern_test::ConnectedPair;
using tern_test::LoopbackAddress;
using tern_test::TcpInfo;

class WinsockEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(::WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
  void TearDown() override { ::WSACleanup(); }
};
const auto* const kWinsock = ::testing::AddGlobalTestEnvironment(new WinsockEnvironment);

// Rows at the ends of both ranges and the two pairs that share a sentence; the gaps, 0, negative
// numbers and everything beyond the ranges have none.
TEST(PrintSocketError, WorkedExamples) {
  for (int code : {0, -10048, 10005, 10072, 10090, 10100, 10113, 11000, 11032}) {
    EXPECT_STREQ(CSocketUtil::PrintSocketError(code), L"Unknown socket error") << code;
  }
  const struct { int code; const wchar_t* text; } rows[] = {
      {10004, L"A blocking operation was interrupted by a call to WSACancelBlockingCall."},
      {10054, L"An existing connection was forcibly closed by the remote host."},
      {10102, L"No more results can be returned by WSALookupServiceNext."},
      {10110, L"No more results can be returned by WSALookupServiceNext."},
      {11001, L"No such host is known."},
      {11031, L"A reserved policy element was found in the QOS provider-specific buffer."},
  };
  for (const auto& row : rows) {
    EXPECT_STREQ(CSocketUtil::PrintSocketError(row.code), row.text) << row.code;
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
  KVT::internal::ScopedAddrInfo owner(result);
  EXPECT_EQ(reinterpret_cast<sockaddr_in*>(result->ai_addr)->sin_port, ::htons(4321));
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"", 1, &hints, &result));
  KVT::internal::ScopedAddrInfo local_owner(result);

  hints.ai_flags = AI_NUMERICHOST;
  ASSERT_TRUE(CSocketUtil::GetAddrInfo(L"127.0.0.1", L"5000", &hints, &result));
  KVT::internal::ScopedAddrInfo service_owner(result);
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

KVT::TSOSocketInfo* const kNoInfo = nullptr;

// A CSocket with its fields in view.
class OpenSocket : public CSocket {
 public:
  using CSocket::CSocket;
  char* buffer_bytes() { return buffer; }
  unsigned int socket_handle() { return socket; }
  sockaddr_in* address_block() { return address; }
  unsigned short family_field() { return family; }
  IPPROTO protocol_field() { return protocol; }
  unsigned short type_field() { return type; }
  using CSocket::SetSocketError;
};

// Whether `socket` is still an open socket.
bool IsOpenSocket(SOCKET socket) {
  int type = 0;
  int length = sizeof(type);
  return ::getsockopt(socket, SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &length) == 0;
}

// The accepted end of a fresh loopback pair, whose owner the caller becomes (0 on failure).
unsigned int AcceptedHandle() {
  return static_cast<unsigned int>(ConnectedPair().far_end.Take());
}

TEST(CSocket, BufferSizeBelowOneMeansTheDefaultAndTheBufferOnlyGrows) {
  const struct { int asked, given; } rows[] = {
      {0, 8912}, {-1, 8912}, {-100000, 8912}, {1, 1}, {8192, 8192}, {65536, 65536}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.asked);
    OpenSocket described(kNoInfo, row.asked);
    EXPECT_EQ(described.GetBufferSize(), row.given);
    ASSERT_NE(described.buffer_bytes(), nullptr);
    EXPECT_EQ(std::string(described.buffer_bytes(), static_cast<size_t>(row.given)),
              std::string(static_cast<size_t>(row.given), '\0'));
    EXPECT_EQ(OpenSocket(0u, row.asked).GetBufferSize(), row.given);
  }
  // The buffer only grows, keeping its bytes; an ask below 1 means the default there too.
  OpenSocket socket(kNoInfo, 0);
  std::memset(socket.buffer_bytes(), 'k', 8912);
  for (int smaller : {100, 0, -5, 8912}) EXPECT_EQ(socket.SetBufferSize(smaller), 8912);
  EXPECT_EQ(socket.SetBufferSize(10000), 10000);
  EXPECT_EQ(socket.GetBufferSize(), 10000);
  EXPECT_EQ(std::string(socket.buffer_bytes(), 8912), std::string(8912, 'k'));
  EXPECT_EQ(std::string(socket.buffer_bytes() + 8912, 1088), std::string(1088, '\0'));
  EXPECT_EQ(OpenSocket(kNoInfo, 100).SetBufferSize(0), 8912);
}

TEST(CSocket, DescriptionDefaultsAndCopy) {
  OpenSocket defaults(kNoInfo, 0);
  EXPECT_EQ(defaults.GetClass(), KVT::SocketClassServer);
  EXPECT_EQ(defaults.family_field(), AF_INET);
  EXPECT_EQ(defaults.protocol_field(), IPPROTO_TCP);
  EXPECT_EQ(defaults.type_field(), SOCK_STREAM);
  EXPECT_STREQ(defaults.GetHost(), L"");
  EXPECT_STREQ(defaults.GetIPAddress(), L"");
  EXPECT_EQ(defaults.GetPort(), 0);
  EXPECT_EQ(defaults.socket_handle(), 0u);
  EXPECT_EQ(defaults.address_block(), nullptr);
  EXPECT_EQ(defaults.GetLastError(), 0u);
  EXPECT_EQ(defaults.GetThread(), nullptr);
  defaults.WaitForThreadExit(-1);  // No thread: returns, though INFINITE would never end.

  KVT::TSOSocketInfo info = TcpInfo(L"example.invalid", 4321);
  info.type = SOCK_DGRAM;
  OpenSocket described(&info, 0);
  EXPECT_STREQ(described.GetHost(), L"example.invalid");
  EXPECT_EQ(described.GetPort(), 4321);
  EXPECT_EQ(described.type_field(), SOCK_DGRAM);
  EXPECT_EQ(described.socket_handle(), 0u);

  // A host text without a terminator is cut before the last element.
  std::wmemset(info.host, L'h', 1025);
  EXPECT_EQ(std::wcslen(OpenSocket(&info, 0).GetHost()), 1024u);
}

TEST(CSocket, OverAConnectedHandleTakesThePeersAddressButNotItsPort) {
  tern_test::SocketPair pair = ConnectedPair();
  ASSERT_TRUE(pair.IsValid());
  OpenSocket socket(static_cast<unsigned int>(pair.far_end.Take()), 0);
  EXPECT_EQ(socket.GetClass(), KVT::SocketClassClient);
  EXPECT_STREQ(socket.GetIPAddress(), L"127.0.0.1");
  EXPECT_STRNE(socket.GetHost(), L"");  // The resolver's name for 127.0.0.1.
  EXPECT_EQ(socket.GetPort(), 0);
  ASSERT_NE(socket.address_block(), nullptr);
  EXPECT_NE(socket.address_block()->sin_port, 0);
}

TEST(CSocket, OverSomethingThatIsNoSocketStaysQuiet) {
  KVT::internal::ScopedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  {
    OpenSocket socket(tern_test::HandleNumber(event), 0);
    EXPECT_STREQ(socket.GetHost(), L"");
    EXPECT_STREQ(socket.GetIPAddress(), L"0.0.0.0");
    EXPECT_EQ(socket.GetLastError(), 0u);
    // Its destructor would "close" the handle as a socket; it isn't one.
    socket.Shutdown();
  }
  EXPECT_EQ(::WaitForSingleObject(event.Get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

// Copies share everything, and the last one releases it by Shutdown or destruction; an
// assignment carries nothing.
TEST(CSocket, CopiesShareEverythingAndAssignmentCarriesNothing) {
  KVT::TSOSocketInfo info_a = TcpInfo(L"a-host", 1);
  KVT::TSOSocketInfo info_b = TcpInfo(L"b-host", 2);
  OpenSocket a(&info_a, 100);
  OpenSocket b(&info_b, 200);
  char* a_buffer = a.buffer_bytes();
  b.SetSocketError(WSAECONNRESET);
  a = b;
  EXPECT_STREQ(a.GetHost(), L"a-host");
  EXPECT_EQ(a.GetPort(), 1);
  EXPECT_EQ(a.GetBufferSize(), 100);
  EXPECT_EQ(a.buffer_bytes(), a_buffer);
  EXPECT_EQ(a.GetLastError(), 0u);

  const unsigned int handle = AcceptedHandle();
  auto original = std::make_unique<OpenSocket>(handle, 0);
  {
    OpenSocket copy(*original);
    EXPECT_EQ(copy.buffer_bytes(), original->buffer_bytes());
    EXPECT_EQ(copy.socket_handle(), handle);
    EXPECT_STREQ(copy.GetIPAddress(), original->GetIPAddress());
    EXPECT_EQ(copy.SetBufferSize(20000), 8912);  // A shared buffer doesn't move.
  }
  EXPECT_TRUE(IsOpenSocket(handle));
  OpenSocket survivor(*original);
  original.reset();
  EXPECT_TRUE(IsOpenSocket(handle));
  EXPECT_EQ(survivor.SetBufferSize(20000), 20000);
  survivor.Shutdown();
  EXPECT_EQ(survivor.socket_handle(), 0u);
  EXPECT_FALSE(IsOpenSocket(handle));
  survivor.Shutdown();  // Once is enough.
  // Without Shutdown, the last one's destruction closes the socket.
  const unsigned int second = AcceptedHandle();
  { OpenSocket alone(second, 0); }
  EXPECT_FALSE(IsOpenSocket(second));
}

}  // namespace
