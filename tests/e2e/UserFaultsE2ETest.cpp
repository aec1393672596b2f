// Bad input on user-level connections of the real daemon: garbage, half a
// record and an oversized record each cost only themselves; the connection
// (or, for the oversized record, the other connections) stay served.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <cstdio>
#include <string>
#include <vector>

#include "DaemonSockets.h"
#include "Harness.h"
#include "TevdTestSupport.h"

using namespace tevdtest;

namespace {

std::vector<uint8_t> Good(const std::string &id, const std::string &msg) {
  return TevRecord_Encode(id, msg, 1, {MsgFmt_Value::Str("x")});
}

}  // namespace

TEST(UserFaultsE2ETest, GarbageAndHalfRecordAreDroppedAndTheConnectionStaysServed) {
  ScratchRoot root;
  MakeHost(root);
  LogLines log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady());
  int fd = ConnectUser(root);
  ASSERT_GE(fd, 0);
  std::string garbage = "this is not a record at all, not even close to one";
  ASSERT_TRUE(SendRecord(fd, std::vector<uint8_t>(garbage.begin(), garbage.end())));
  EXPECT_NE("", log.WaitFor("dropped a malformed record on user"));
  std::vector<uint8_t> whole = Good("tev.vm.half", "half");
  ASSERT_TRUE(
      SendRecord(fd, std::vector<uint8_t>(whole.begin(), whole.begin() + whole.size() / 2)));
  ASSERT_TRUE(SendRecord(fd, Good("tev.vm.after", "after the bad ones")));
  EXPECT_NE("", log.WaitFor("[tev.vm.after] after the bad ones"));
  close(fd);
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(5000));
  ASSERT_TRUE(WIFEXITED(d.status()));
  EXPECT_EQ(0, WEXITSTATUS(d.status()));
}

TEST(UserFaultsE2ETest, OversizedRecordOnOneConnectionLeavesTheOthersServed) {
  ScratchRoot root;
  MakeHost(root);
  LogLines log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady());
  int big = ConnectUser(root);
  ASSERT_GE(big, 0);
  int sndbuf = 1 << 20;
  setsockopt(big, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  std::vector<uint8_t> huge =
      TevRecord_Encode("tev.vm.huge", "h", 1, {MsgFmt_Value::Str(std::string(131200, 'b'))});
  ASSERT_GT(huge.size(), 131072u);
  ASSERT_TRUE(SendRecord(big, huge));
  int other = ConnectUser(root);
  ASSERT_GE(other, 0);
  ASSERT_TRUE(SendRecord(other, Good("tev.vm.other", "other connection")));
  EXPECT_NE("", log.WaitFor("[tev.vm.other] other connection"));
  EXPECT_TRUE(d.Running());
  // The connection that can never be read is closed instead of spinning.
  struct timeval tv = {5, 0};
  setsockopt(big, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char c;
  ssize_t r = recv(big, &c, 1, 0);
  // Closed with our record unread, the end may show as a reset.
  EXPECT_TRUE(r == 0 || (r < 0 && errno == ECONNRESET)) << r << " " << strerror(errno);
  close(big);
  close(other);
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(5000));
  ASSERT_TRUE(WIFEXITED(d.status()));
  EXPECT_EQ(0, WEXITSTATUS(d.status()));
}
