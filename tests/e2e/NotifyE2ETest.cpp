// tevd under a service manager played by the test: its own NOTIFY_SOCKET and
// WATCHDOG_USEC. Readiness must follow the sockets, the keep-alive must come
// while the loop runs and stop while the reader is blocked on an agent that
// cannot drain its pipe, and stopping must be announced on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "Harness.h"
#include "PlatformSocket.h"

using namespace tevdtest;
using tevdtest::DaemonProcess;
using Clock = std::chrono::steady_clock;

namespace {

const int kWait = 20000;

// The service manager's side: one datagram per notification, one line per
// assignment. At READY=1 it notes whether the daemon's sockets exist.
class NotifyListener : public LineStore {
 public:
  explicit NotifyListener(const ScratchRoot &root) : root_(root), path_(root.Abs("notify.sock")) {
    fd_ = PlatformSocket_Listen(path_, SOCK_DGRAM);
    if (fd_ < 0) {
      return;
    }
    reader_ = std::thread([this] { Read(); });
  }
  ~NotifyListener() {
    stop_ = true;
    if (reader_.joinable()) {
      reader_.join();
    }
    close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  const std::string &path() const { return path_; }
  bool socketsAtReady() const { return socketsAtReady_.load(); }
  Clock::time_point lastWatchdog() {
    std::lock_guard<std::mutex> lock(mu_);
    return lastWatchdog_;
  }

 private:
  void Read() {
    char buf[4096];
    while (!stop_) {
      struct pollfd pfd = {fd_, POLLIN, 0};
      if (poll(&pfd, 1, 20) <= 0) {
        continue;
      }
      ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
      if (n <= 0) {
        continue;
      }
      std::string all(buf, static_cast<size_t>(n));
      for (size_t start = 0; start < all.size();) {
        size_t nl = all.find('\n', start);
        std::string line =
            all.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
        start = nl == std::string::npos ? all.size() : nl + 1;
        if (line == "READY=1") {
          socketsAtReady_ =
              access(
                  PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::UserContext).c_str(),
                  F_OK) == 0 &&
              access(PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::Trace).c_str(),
                     F_OK) == 0;
        } else if (line == "WATCHDOG=1") {
          std::lock_guard<std::mutex> lock(mu_);
          lastWatchdog_ = Clock::now();
        }
        Add(line);
      }
    }
  }
  const ScratchRoot &root_;
  std::string path_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<bool> socketsAtReady_{false};
  std::mutex mu_;
  Clock::time_point lastWatchdog_;
  std::thread reader_;
};

// A management agent that listens with no backlog and never accepts: the
// first event's connection waits in the queue, the second one's connect
// blocks, and with it the agent that posts.
int ListenWithoutAccepting(const ScratchRoot &root) {
  PlatformListen how;
  how.backlog = 0;
  return PlatformSocket_Listen(
      PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent), how);
}

}  // namespace

TEST(NotifyE2ETest, ReadyAfterSocketsWatchdogOnlyWhileTheLoopRunsStoppingOnSigterm) {
#ifndef TEVD_WITH_SYSTEMD
  GTEST_SKIP() << "built with -DTEVD_WITH_SYSTEMD=OFF: tevd sends no notifications";
#endif
  ScratchRoot root;
  MakeHost(root);
  LogLines log(root);
  NotifyListener notify(root);
  ASSERT_TRUE(notify.ok());
  // A keep-alive every 100 ms.
  DaemonProcess d(root, {}, {"NOTIFY_SOCKET=" + notify.path(), "WATCHDOG_USEC=200000"});
  ASSERT_TRUE(notify.WaitCount("READY=1", 1, kWait)) << d.Stderr();
  EXPECT_TRUE(notify.socketsAtReady());

  // Idle: the poll loop wakes for the keep-alive by itself.
  size_t before = notify.Count("WATCHDOG=1");
  auto idleStart = Clock::now();
  ASSERT_TRUE(notify.WaitCount("WATCHDOG=1", before + 10, kWait));
  auto idleTook = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - idleStart);
  EXPECT_GE(idleTook.count(), 800) << "ten keep-alives at 100 ms apart came too fast";
  EXPECT_LT(idleTook.count(), 5000) << "the idle loop did not wake for its keep-alives";

  // Stuck: the user-level agent blocks in its post, its pipe fills, and the
  // reader blocks writing to it.
  int agent = ListenWithoutAccepting(root);
  ASSERT_GE(agent, 0);
  int user = ConnectUser(root);
  ASSERT_GE(user, 0);
  std::vector<uint8_t> big = TevRecord_Encode("tev.user.test.test1s", "%s", 1,
                                              {MsgFmt_Value::Str(std::string(1000, 'x'))});
  int sent = 0;
  for (int i = 0; i < 2000; ++i) {
    if (send(user, big.data(), big.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
      break;  // the daemon stopped reading
    }
    ++sent;
  }
  ASSERT_LT(sent, 2000) << "the daemon kept reading: the agent never blocked";
  ASSERT_TRUE(Eventually(
      [&] { return Clock::now() - notify.lastWatchdog() > std::chrono::seconds(1); }, kWait))
      << "the keep-alive went on while the reader was blocked";
  size_t silent = notify.Count("WATCHDOG=1");
  EXPECT_TRUE(d.Running());

  // Released: the agent's connect fails, it drains its pipe, the loop runs
  // and the keep-alive comes back.
  unlink(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent).c_str());
  close(agent);
  EXPECT_TRUE(notify.WaitCount("WATCHDOG=1", silent + 5, kWait))
      << "no keep-alive after the release";
  EXPECT_EQ(0u, notify.Count("STOPPING=1"));

  close(user);
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(kWait));
  ASSERT_TRUE(WIFEXITED(d.status())) << d.Stderr();
  EXPECT_EQ(0, WEXITSTATUS(d.status()));
  EXPECT_TRUE(notify.WaitCount("STOPPING=1", 1, kWait));
  EXPECT_EQ(1u, notify.Count("READY=1"));
  EXPECT_EQ("", SanitizerReport(d.Stderr()));
}
