#include "net/socket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "net/loopback_test_support.h"

namespace {

using KVT::CSocket;
using tern_test::ConnectedPair;
using tern_test::TcpInfo;

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
  KVT::ScopedHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
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

TEST(CSocket, AssignmentCarriesNothing) {
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
}

TEST(CSocket, CopiesShareEverythingAndTheLastOneReleasesByShutdownOrDestruction) {
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
