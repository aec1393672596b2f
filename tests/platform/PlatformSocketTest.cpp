// The named endpoints are the exact paths other programs use to reach the
// daemon: checked here against the written contract, once.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "PlatformSocket.h"
#include "TevdTestSupport.h"

using namespace tevdtest;

TEST(PlatformSocket, EndpointsAreTheContractPaths) {
  const std::tuple<PlatformEndpoint, uint32_t, std::string> rows[] = {
      {PlatformEndpoint::UserContext, 0, "var/run/orlan/tevd-user.sock"},
      {PlatformEndpoint::AsyncContext, 0, "var/run/orlan/tev/async-00.sock"},
      {PlatformEndpoint::AsyncContext, 21, "var/run/orlan/tev/async-21.sock"},
      {PlatformEndpoint::Trace, 0, "var/run/orlan/tevd-trace.sock"},
      {PlatformEndpoint::QprobAgent, 0, "var/run/orlan/marshd-qprob.sock"},
      {PlatformEndpoint::LogCollector, 0, "dev/log"},
  };
  ScratchRoot root;
  for (const auto &[endpoint, domain, relative] : rows) {
    EXPECT_EQ(relative, PlatformEndpoint_Relative(endpoint, domain));
    EXPECT_EQ(root.Abs(relative), PlatformEndpoint_Path(endpoint, domain));
    EXPECT_EQ("/r/" + relative, PlatformEndpoint_PathUnder("/r", endpoint, domain));
  }
}

// Modes and made directories are checked on the daemon's own sockets (SocketAccessE2E).
TEST(PlatformSocket, PathTooLongIsRefusedAndNothingIsCreated) {
  ScratchRoot root;
  std::string longPath = root.Abs("d/");
  longPath += std::string(108 - longPath.size(), 'p');  // 108 bytes: no room for the NUL
  errno = 0;
  EXPECT_EQ(-1, PlatformSocket_Listen(longPath, SOCK_DGRAM));
  EXPECT_EQ(ENAMETOOLONG, errno);
  errno = 0;
  EXPECT_EQ(-1, PlatformSocket_Connect(longPath, SOCK_STREAM));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_NE(0, access(root.Abs("d").c_str(), F_OK));
}
