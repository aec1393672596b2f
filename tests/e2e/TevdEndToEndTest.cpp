// The real tevd binary under a private root, driven only through its sockets
// and files.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Harness.h"

using namespace tevdtest;

namespace {

// A user-level connection whose reads give up after two seconds.
int ConnectUserTimed(const ScratchRoot &root) {
  int fd = ConnectUser(root);
  struct timeval tv = {2, 0};
  if (fd >= 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  return fd;
}

bool SendText(int fd, const std::string &id, const std::string &msg) {
  return SendRecord(fd, TevRecord_Encode(id, msg, 1234, {MsgFmt_Value::Str("x")}));
}

}  // namespace

TEST(TevdEndToEndTest, UsageOptionsPrintUsageAndExitZero) {
  for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
           {"-h"}, {"--help"}, {"-l", "3"}, {"-t"}, {"--bogus"}, {"-e", "-t"}}) {
    ScratchRoot root;
    DaemonProcess d(root, args);
    ASSERT_TRUE(d.Wait(5000)) << args[0];
    ASSERT_TRUE(WIFEXITED(d.status()));
    EXPECT_EQ(0, WEXITSTATUS(d.status())) << args[0];
    std::string out = d.Stdout();
    EXPECT_NE(std::string::npos,
              out.find(" [options]\nvalid options are:\n\t--help|-h - display this help\n"))
        << out;
    EXPECT_EQ(0u, out.find("Usage: ")) << out;
  }
}

TEST(TevdEndToEndTest, SignalsStopCleanlyAndSigpipeIsIgnored) {
  for (int sig : {SIGTERM, SIGINT}) {
    ScratchRoot root;
    MakeHost(root);
    LogLines log(root);
    DaemonProcess d(root, {"-e", "-e"});
    ASSERT_TRUE(d.WaitReady());
    d.Signal(SIGPIPE);
    usleep(100000);
    ASSERT_TRUE(d.Running());
    d.Signal(sig);
    ASSERT_TRUE(d.Wait(5000));
    ASSERT_TRUE(WIFEXITED(d.status()));
    EXPECT_EQ(0, WEXITSTATUS(d.status()));
    EXPECT_NE("", log.WaitFor("Exiting due to signal."));
    EXPECT_NE("", log.WaitFor("Exiting. rc:0"));
    std::string enabled;
    ASSERT_TRUE(root.Read("platform/options/Misc/TevAsyncEnable", &enabled));
    EXPECT_EQ("1", enabled.substr(0, 1));
  }
}

TEST(TevdEndToEndTest, NinthUserConnectionIsClosedAndMovedConnectionStaysServed) {
  ScratchRoot root;
  MakeHost(root);
  LogLines log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady());
  std::vector<int> fds;
  for (int i = 0; i < 8; ++i) {
    int fd = ConnectUserTimed(root);
    ASSERT_GE(fd, 0);
    fds.push_back(fd);
    // Make sure the daemon accepted it before the next one.
    ASSERT_TRUE(SendText(fd, "tev.vm.conn." + std::to_string(i), "hello " + std::to_string(i)));
    ASSERT_NE("", log.WaitFor("hello " + std::to_string(i)));
  }
  int ninth = ConnectUserTimed(root);
  ASSERT_GE(ninth, 0);
  char c;
  EXPECT_EQ(0, recv(ninth, &c, 1, 0));  // closed at once by the daemon
  close(ninth);
  // Close a middle one: the last connection moves into its slot and is served.
  close(fds[3]);
  usleep(100000);
  ASSERT_TRUE(SendText(fds[7], "tev.vm.moved", "moved connection"));
  EXPECT_NE("", log.WaitFor("[tev.vm.moved] moved connection"));
  // A slot is free again: a new client is accepted and served.
  int again = ConnectUserTimed(root);
  ASSERT_TRUE(SendText(again, "tev.vm.again", "new client"));
  EXPECT_NE("", log.WaitFor("[tev.vm.again] new client"));
  for (int fd : fds) {
    close(fd);
  }
  close(again);
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(5000));
  EXPECT_EQ(0, WEXITSTATUS(d.status()));
}

TEST(TevdEndToEndTest, OversizedRecordResetsItsContextAndTheDaemonGoesOn) {
  ScratchRoot root;
  MakeHost(root);
  LogLines log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady());
  std::string big(131200, 'b');
  std::vector<uint8_t> huge = TevRecord_Encode("tev.swap.huge", "h", 1, {MsgFmt_Value::Str(big)});
  ASSERT_GT(huge.size(), 131072u);
  ASSERT_EQ(0, TevRecord_Post(3, huge));
  // The reset discards whatever is pending on that context: let it happen first.
  usleep(300000);
  std::vector<uint8_t> ok = TevRecord_Encode("tev.swap.after", "after the reset", 1, {});
  ASSERT_EQ(0, TevRecord_Post(3, ok));
  EXPECT_NE("", log.WaitFor("[tev.swap.after] after the reset"));
  EXPECT_TRUE(d.Running());
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(5000));
  EXPECT_EQ(0, WEXITSTATUS(d.status()));
}
