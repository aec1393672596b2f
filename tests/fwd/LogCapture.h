// Kept for the forwarder's end-to-end test only, which still uses these older
// helpers; moving it onto tests/support/Harness.h is open work (docs/testing.md).
// Receives the daemon's log datagrams at $TEVD_ROOT/dev/log of a scratch root.
// A thread drains the socket as lines arrive, so the kernel's short datagram
// queue never fills and never slows the code under test.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "PlatformSocket.h"
#include "TevdTestSupport.h"

namespace tevdtest {

class LogCapture {
 public:
  explicit LogCapture(const ScratchRoot &root) {
    fd_ = PlatformSocket_Listen(
        PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::LogCollector), SOCK_DGRAM);
    reader_ = std::thread([this] { Drain(); });
  }
  ~LogCapture() {
    stop_ = true;
    reader_.join();
    close(fd_);
  }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  // The next line, or "" after two seconds without one.
  std::string Next() {
    std::unique_lock<std::mutex> lock(mu_);
    if (!cv_.wait_for(lock, std::chrono::seconds(2), [this] { return !lines_.empty(); })) {
      return std::string();
    }
    std::string line = lines_.front();
    lines_.pop_front();
    return line;
  }
  // Skips lines until one contains `text`; "" when none came.
  std::string WaitFor(const std::string &text) {
    for (;;) {
      std::string line = Next();
      if (line.empty() || line.find(text) != std::string::npos) {
        return line;
      }
    }
  }

 private:
  void Drain() {
    char buf[65536];
    while (!stop_) {
      struct pollfd pfd = {fd_, POLLIN, 0};
      if (poll(&pfd, 1, 20) <= 0) {
        continue;
      }
      ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
      if (n > 0) {
        std::lock_guard<std::mutex> lock(mu_);
        lines_.emplace_back(buf, static_cast<size_t>(n));
        cv_.notify_all();
      }
    }
  }

  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<std::string> lines_;
  std::thread reader_;
};

}  // namespace tevdtest
