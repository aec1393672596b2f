// tevd and tevd-selftest under a private root, met through sockets, files and output: options,
// signals, the user-level connection limit, the sockets' modes and the self-test.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Harness.h"
#include "TevRecord.h"

using namespace tevdtest;

namespace {

bool SendText(int fd, const std::string &msg) {
  return SendRecord(fd, TevRecord_Encode("tev.vm.conn", msg, 1234, {MsgFmt_Value::Str("x")}));
}

int ModeOf(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return -1;
  return static_cast<int>(st.st_mode & 07777);
}

// Runs `tevctl selftest` against `bin` under a root made by `tevctl host init`: the daemon's
// exit status (-1: still running after `waitMs`) and output.
RunResult RunSelftest(const std::string &bin, int waitMs) {
  ScratchRoot root;
  EXPECT_EQ(RunTevctl(root, {"host", "init"}).status, 0);
  // The variable once switched the agents on; it must stay without effect.
  Process tevd(root, bin, {}, {"TEVD_EXTRA_AGENTS=1"});
  RunResult post = RunTevctl(root, {"selftest", "--wait", "5"}, 8000);
  EXPECT_EQ(post.status, 0) << post.err;
  EXPECT_EQ(CountOccurrences(post.out, "posted "), 25u) << post.out;
  int status = tevd.ExitCode(waitMs);  // the end marker ends a self-test run
  return {status, tevd.Stdout(), tevd.Stderr()};
}

using TevdEndToEndTest = DaemonTest;

}  // namespace

TEST_F(TevdEndToEndTest, UsageOptionsPrintUsageAndExitZeroAFailingDashEDoesNot) {
  for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
           {"-h"}, {"--help"}, {"-l", "3"}, {"-t"}, {"--bogus"}, {"-e", "-t"}}) {
    DaemonProcess d(root_, args);
    EXPECT_EQ(0, d.ExitCode(5000)) << args[0];
    std::string out = d.Stdout();
    EXPECT_EQ(0u, out.find("Usage: ")) << out;
    EXPECT_TRUE(Contains(out, " [options]\nvalid options are:\n\t--help|-h - display this help\n"));
  }
  // -e with an option that cannot be written.
  unlink(root_.Abs("platform/options/Misc/TevAsyncEnable").c_str());
  root_.MakeDir("platform/options/Misc/TevAsyncEnable");
  DaemonProcess e(root_, {"-e"});
  int status = e.ExitCode(20000);
  EXPECT_TRUE(status > 0 && status < 128) << status;
  EXPECT_TRUE(log_->WaitCount("Failed to enable asynchronous observations: ", 1, 20000));
}

// The sockets' modes, a connection's credentials in the log, the ninth user-level connection
// closed and a moved one served; -e enables asynchronous observations, SIGINT stops cleanly
// (SIGTERM ends every reliability test, SIGPIPE storms one).
TEST_F(TevdEndToEndTest, SocketsConnectionLimitAndSignals) {
  ASSERT_TRUE(Start({"-e", "-e"})) << tevd_->Stderr();
  EXPECT_EQ(0660, ModeOf(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::UserContext)));
  EXPECT_EQ(0660, ModeOf(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::Trace)));
  // A context table that opened one domain twice would leave another without a socket.
  for (uint32_t domain = 0; domain <= 21; ++domain) {
    EXPECT_EQ(0600, ModeOf(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::AsyncContext,
                                                      domain)))
        << "domain " << domain;
  }
  std::vector<int> fds;
  for (int i = 0; i < 8; ++i) {
    fds.push_back(ConnectUser(root_));
    // Accepted before the next one comes.
    ASSERT_TRUE(SendText(fds.back(), "hello " + std::to_string(i)));
    ASSERT_NE("", log_->WaitFor("hello " + std::to_string(i)));
  }
  char expected[128];
  snprintf(expected, sizeof expected, "User-level connection from pid %d uid %u gid %u",
           static_cast<int>(getpid()), static_cast<unsigned>(getuid()),
           static_cast<unsigned>(getgid()));
  EXPECT_EQ(8u, log_->Count(expected));
  int ninth = ConnectUser(root_);
  struct timeval tv = {2, 0};
  setsockopt(ninth, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  char c;
  EXPECT_EQ(0, recv(ninth, &c, 1, 0));  // closed at once by the daemon
  close(ninth);
  // Close a middle one: the last connection moves into its slot and is served.
  close(fds[3]);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(SendText(fds[7], "moved connection"));
  EXPECT_NE("", log_->WaitFor("[tev.vm.conn] moved connection"));
  // A slot is free again: a new client is accepted and served.
  fds[3] = ConnectUser(root_);
  ASSERT_TRUE(SendText(fds[3], "new client"));
  EXPECT_NE("", log_->WaitFor("[tev.vm.conn] new client"));
  for (int fd : fds) close(fd);
  tevd_->Signal(SIGINT);
  EXPECT_EQ(0, tevd_->ExitCode(5000));
  EXPECT_NE("", log_->WaitFor("Exiting due to signal."));
  EXPECT_NE("", log_->WaitFor("Exiting. rc:0"));
  std::string enabled;
  ASSERT_TRUE(root_.Read("platform/options/Misc/TevAsyncEnable", &enabled));
  EXPECT_EQ("1", enabled.substr(0, 1));
}

// tevd-selftest, fed by `tevctl selftest`, prints PASS/FAIL lines and exits with the number of
// failures (the correlator's rows are unit-tested); the production tevd must not run it.
TEST(Selftest, FullSequencePassesAll21RowsAndExitsZero) {
  RunResult run = RunSelftest(TevdSelftestBin(), 8000);
  EXPECT_EQ(CountOccurrences(run.out, "PASS: ["), 21u) << run.out;
  for (const char *line : {"PASS: [0]: tev.tests.async.noData\n",
                           "PASS: [20]: tev.tests.corrupt.format.tag.notreally2\n",
                           "INFO: Tests completed. Failures = 0\n"}) {
    EXPECT_TRUE(Contains(run.out, line));
  }
  EXPECT_FALSE(Contains(run.out, "FAIL"));
  EXPECT_EQ(run.status, 0) << run.out;
}

TEST(Selftest, ProductionDaemonIgnoresTheSequenceAndKeepsRunning) {
  RunResult run = RunSelftest(TevdBin(), 1500);
  EXPECT_FALSE(Contains(run.out, "PASS"));
  EXPECT_FALSE(Contains(run.out, "Tests completed"));
  EXPECT_EQ(run.status, -1) << "ended at the end marker: " << run.out;
}
