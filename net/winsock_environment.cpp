// Windows Sockets for the whole test program: the library never starts it itself.
#include <gtest/gtest.h>

#include "net/winsock.h"

namespace {

class WinsockEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(::WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
  void TearDown() override { ::WSACleanup(); }
};

const auto* const kWinsock = ::testing::AddGlobalTestEnvironment(new WinsockEnvironment);

}  // namespace
