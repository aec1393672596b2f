// The real daemon's sockets under a private root: modes of the user-level,
// trace and asynchronous context sockets, and the peer credentials logged for
// a user-level connection.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "DaemonSockets.h"
#include "Harness.h"
#include "PlatformSocket.h"
#include "TevdTestSupport.h"

using namespace tevdtest;

namespace {

int ModeOf(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return -1;
  return static_cast<int>(st.st_mode & 07777);
}

}  // namespace

TEST(SocketAccessE2ETest, EveryContextHasItsSocketAndNoneIsWorldWritable) {
  ScratchRoot root;
  MakeHost(root);
  LogLines log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady());
  EXPECT_EQ(0660, ModeOf(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext)));
  EXPECT_EQ(0660, ModeOf(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace)));
  // Every asynchronous context has its own socket: a context table that
  // opened one domain twice would leave another without a listener.
  for (int domain = 0; domain <= 21; ++domain) {
    EXPECT_EQ(0600, ModeOf(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::AsyncContext,
                                                      static_cast<uint32_t>(domain))))
        << "domain " << domain;
  }

  int fd = PlatformSocket_Connect(
      PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext), SOCK_SEQPACKET);
  ASSERT_GE(fd, 0);
  char expected[128];
  snprintf(expected, sizeof expected, "User-level connection from pid %d uid %u gid %u",
           static_cast<int>(getpid()), static_cast<unsigned>(getuid()),
           static_cast<unsigned>(getgid()));
  std::string line = log.WaitFor("User-level connection from");
  EXPECT_NE(std::string::npos, line.find(expected)) << "got: " << line;
  close(fd);
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(5000));
}
