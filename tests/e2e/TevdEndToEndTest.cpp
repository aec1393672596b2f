// The real tevd binary under a private root, driven only through its sockets
// and files.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "DaemonProcess.h"
#include "LogCapture.h"
#include "TevdTestSupport.h"

using namespace tevdtest;

namespace {

int ConnectUser(const ScratchRoot &root) {
  int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  std::string p = root.Abs("var/run/orlan/tevd-user.sock");
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", p.c_str());
  if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  struct timeval tv = {2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  return fd;
}

bool SendRecord(int fd, const std::string &id, const std::string &msg) {
  std::vector<uint8_t> r = TevRecord_Encode(id, msg, 1234, {MsgFmt_Value::Str("x")});
  return send(fd, r.data(), r.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(r.size());
}

// A root with a host model the daemon accepts.
void MakeHost(const ScratchRoot &root) {
  root.Write("platform/nodes/system/systemUuid", "6f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
  root.Write("platform/options/Net/LinkFlappingThreshold", "3");
  root.Write("platform/options/PageRetire/ThresholdInterval", "10");
  root.Write("platform/options/PageRetire/ApeiLoggingEnabled", "1");
  root.Write("platform/options/Misc/TevAsyncEnable", "0");
  root.Write("platform/nodes/system/pageRetire/threshold", "1000");
  root.MakeDir("kfs/volumes");
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
    EXPECT_NE(std::string::npos, out.find(" [options]\nvalid options are:\n\t--help|-h - display this help\n"))
        << out;
    EXPECT_EQ(0u, out.find("Usage: ")) << out;
  }
}

TEST(TevdEndToEndTest, SignalsStopCleanlyAndSigpipeIsIgnored) {
  for (int sig : {SIGTERM, SIGINT}) {
    ScratchRoot root;
    MakeHost(root);
    LogCapture log(root);
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

TEST(TevdEndToEndTest, AsyncAndUserObservationsReachTheirCorrelator) {
  ScratchRoot root;
  MakeHost(root);
  LogCapture log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady());
  std::vector<uint8_t> r = TevRecord_Encode("tev.hardware.ipmi.sel", "sel entry", 1234, {MsgFmt_Value::I32(3)});
  ASSERT_EQ(0, TevRecord_Post(5, r));
  EXPECT_NE("", log.WaitFor("[HardwareCorrelator] 1234us: [tev.hardware.ipmi.sel] sel entry"));
  int fd = ConnectUser(root);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(SendRecord(fd, "tev.cpu.mce.logged", "over the user context"));
  EXPECT_NE("", log.WaitFor("[cpuCorrelator] 1234us: [tev.cpu.mce.logged] over the user context"));
  close(fd);
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(5000));
}

TEST(TevdEndToEndTest, NinthUserConnectionIsClosedAndMovedConnectionStaysServed) {
  ScratchRoot root;
  MakeHost(root);
  LogCapture log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady());
  std::vector<int> fds;
  for (int i = 0; i < 8; ++i) {
    int fd = ConnectUser(root);
    ASSERT_GE(fd, 0);
    fds.push_back(fd);
    // Make sure the daemon accepted it before the next one.
    ASSERT_TRUE(SendRecord(fd, "tev.vm.conn." + std::to_string(i), "hello " + std::to_string(i)));
    ASSERT_NE("", log.WaitFor("hello " + std::to_string(i)));
  }
  int ninth = ConnectUser(root);
  ASSERT_GE(ninth, 0);
  char c;
  EXPECT_EQ(0, recv(ninth, &c, 1, 0));  // closed at once by the daemon
  close(ninth);
  // Close a middle one: the last connection moves into its slot and is served.
  close(fds[3]);
  usleep(100000);
  ASSERT_TRUE(SendRecord(fds[7], "tev.vm.moved", "moved connection"));
  EXPECT_NE("", log.WaitFor("[tev.vm.moved] moved connection"));
  // A slot is free again: a new client is accepted and served.
  int again = ConnectUser(root);
  ASSERT_TRUE(SendRecord(again, "tev.vm.again", "new client"));
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
  LogCapture log(root);
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

TEST(TevdEndToEndTest, KernelBuildMismatchPanics) {
  ScratchRoot root;
  MakeHost(root);
  root.Write("platform/kernel-build", "other-signature Jan  1 2020 00:00:00\n");
  DaemonProcess d(root);
  ASSERT_TRUE(d.Wait(5000));
  ASSERT_TRUE(WIFSIGNALED(d.status()));
  EXPECT_EQ(SIGABRT, WTERMSIG(d.status()));
  EXPECT_NE(std::string::npos,
            d.Stderr().find("Tevd - Panic: md5 signature mismatch with running mantle built on Jan  1 2020 00:00:00 (my build date: "))
      << d.Stderr();
}
