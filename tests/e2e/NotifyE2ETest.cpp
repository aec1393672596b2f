// tevd under a service manager played by the test (its own NOTIFY_SOCKET and WATCHDOG_USEC):
// ready after the sockets, keep-alives while the loop runs and none while the reader is blocked
// on an agent that cannot drain its pipe, stopping announced on SIGTERM.
#include <gtest/gtest.h>

#include "Harness.h"

using namespace tevdtest;

namespace {

const int kWait = 20000;

long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The service manager's side: one line per assignment. At READY=1 it notes whether the
// daemon's sockets exist.
class NotifyListener : public LineStore {
 public:
  explicit NotifyListener(const ScratchRoot &root) : root_(root), path_(root.Abs("notify.sock")) {
    fd_ = PlatformSocket_Listen(path_, SOCK_DGRAM);
    if (fd_ >= 0) reader_ = std::thread([this] { Read(); });
  }
  ~NotifyListener() {
    stop_ = true;
    if (reader_.joinable()) reader_.join();
    close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  const std::string &path() const { return path_; }
  std::atomic<bool> socketsAtReady{false};
  std::atomic<long long> lastWatchdogMs{0};

 private:
  void Read() {
    char buf[4096];
    while (!stop_) {
      struct pollfd pfd = {fd_, POLLIN, 0};
      ssize_t n = poll(&pfd, 1, 20) > 0 ? recv(fd_, buf, sizeof buf, MSG_DONTWAIT) : 0;
      std::istringstream all(std::string(buf, static_cast<size_t>(std::max<ssize_t>(n, 0))));
      for (std::string line; std::getline(all, line); Add(line)) {
        if (line == "WATCHDOG=1") lastWatchdogMs = NowMs();
        if (line != "READY=1") continue;
        socketsAtReady =
            PathExists(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::UserContext)) &&
            PathExists(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::Trace));
      }
    }
  }
  const ScratchRoot &root_;
  std::string path_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

using NotifyE2ETest = DaemonTest;

}  // namespace

TEST_F(NotifyE2ETest, ReadyAfterSocketsWatchdogOnlyWhileTheLoopRunsStoppingOnSigterm) {
#ifndef TEVD_WITH_SYSTEMD
  GTEST_SKIP() << "built with -DTEVD_WITH_SYSTEMD=OFF: tevd sends no notifications";
#endif
  NotifyListener notify(root_);
  // A keep-alive every 100 ms.
  ASSERT_TRUE(Start({}, {"NOTIFY_SOCKET=" + notify.path(), "WATCHDOG_USEC=200000"}));
  ASSERT_TRUE(notify.WaitCount("READY=1", 1, kWait)) << tevd_->Stderr();
  EXPECT_TRUE(notify.socketsAtReady);

  // Idle: the poll loop wakes for the keep-alive by itself (its schedule is unit-tested).
  ASSERT_TRUE(notify.WaitCount("WATCHDOG=1", 3, kWait));
  // Stuck: the user-level agent blocks in its post, its pipe fills, and the reader blocks
  // writing to it.
  AgentStandIn agent(root_, AgentStandIn::Stuck);
  int user = ConnectUser(root_);
  std::vector<uint8_t> big = TevRecord_Encode("tev.user.test.test1s", "%s", 1,
                                              {MsgFmt_Value::Str(std::string(1000, 'x'))});
  int sent = 0;
  while (sent < 2000 && send(user, big.data(), big.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) ++sent;
  ASSERT_LT(sent, 2000) << "the daemon kept reading: the agent never blocked";
  // Silent: no keep-alive for a whole second.
  ASSERT_TRUE(Eventually([&] { return NowMs() - notify.lastWatchdogMs > 1000; }, kWait))
      << "the keep-alive went on while the reader was blocked";
  size_t silent = notify.Count("WATCHDOG=1");
  EXPECT_TRUE(tevd_->Running());

  // Released: the agent's connect fails, it drains its pipe and the keep-alive comes back.
  agent.Stop();
  EXPECT_TRUE(notify.WaitCount("WATCHDOG=1", silent + 5, kWait)) << "none after the release";
  EXPECT_EQ(0u, notify.Count("STOPPING=1"));
  close(user);
  ExpectCleanExit(*tevd_, kWait);
  EXPECT_TRUE(notify.WaitCount("STOPPING=1", 1, kWait));
  EXPECT_EQ(1u, notify.Count("READY=1"));
}
