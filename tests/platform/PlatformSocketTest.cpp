// The named endpoints are the exact paths other programs use to reach the
// daemon, so they are checked here against the written contract, once; every
// other test names its sockets through them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "PlatformSocket.h"
#include "TevdTestSupport.h"

TEST(PlatformSocket, EndpointsAreTheContractPaths) {
  const struct {
    PlatformEndpoint endpoint;
    uint32_t domain;
    const char *relative;
  } rows[] = {
      {PlatformEndpoint::UserContext, 0, "var/run/orlan/tevd-user.sock"},
      {PlatformEndpoint::AsyncContext, 0, "var/run/orlan/tev/async-00.sock"},
      {PlatformEndpoint::AsyncContext, 21, "var/run/orlan/tev/async-21.sock"},
      {PlatformEndpoint::Trace, 0, "var/run/orlan/tevd-trace.sock"},
      {PlatformEndpoint::QprobAgent, 0, "var/run/orlan/marshd-qprob.sock"},
      {PlatformEndpoint::LogCollector, 0, "dev/log"},
  };
  tevdtest::ScratchRoot root;
  for (const auto &row : rows) {
    EXPECT_EQ(row.relative, PlatformEndpoint_Relative(row.endpoint, row.domain));
    EXPECT_EQ(root.Abs(row.relative), PlatformEndpoint_Path(row.endpoint, row.domain));
    EXPECT_EQ("/r/" + std::string(row.relative),
              PlatformEndpoint_PathUnder("/r", row.endpoint, row.domain));
  }
}

TEST(PlatformSocket, ListenMakesDirectoriesSetsTheModeAndConnects) {
  tevdtest::ScratchRoot root;
  std::string path = root.Abs("a/b/c.sock");
  PlatformListen how;
  how.type = SOCK_SEQPACKET;
  how.mode = 0640;
  int lfd = PlatformSocket_Listen(path, how);
  ASSERT_GE(lfd, 0) << strerror(errno);
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  int cfd = PlatformSocket_Connect(path, SOCK_SEQPACKET);
  EXPECT_GE(cfd, 0) << strerror(errno);
  close(cfd);
  close(lfd);
}

TEST(PlatformSocket, PathWithoutRoomForItsNulFailsWithNameTooLong) {
  tevdtest::ScratchRoot root;
  std::string longPath = root.Abs("d/");
  ASSERT_LT(longPath.size(), 100u);
  longPath += std::string(108 - longPath.size(), 'p');  // 108 bytes: no room for the NUL
  errno = 0;
  EXPECT_EQ(-1, PlatformSocket_Listen(longPath, SOCK_DGRAM));
  EXPECT_EQ(ENAMETOOLONG, errno);
  errno = 0;
  EXPECT_EQ(-1, PlatformSocket_Connect(longPath, SOCK_STREAM));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_NE(0, access(root.Abs("d").c_str(), F_OK));  // nothing was created
}
