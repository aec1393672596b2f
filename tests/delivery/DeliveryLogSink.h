// A stand-in for the system log of a scratch root: a datagram socket bound at
// $TEVD_ROOT/dev/log. Lines come back without the syslog head and without
// TevdLog's time prefix, so tests compare them with the daemon's literal
// texts. The kernel keeps only a few datagrams queued, so tests call
// Collect() after every step that logs.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "TevdTestSupport.h"

namespace delivery {

class LogSink {
 public:
  explicit LogSink(const tevdtest::ScratchRoot &root) {
    root.MakeDir("dev");
    path_ = root.Abs("dev/log");
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
    unlink(path_.c_str());
    bound_ = bind(fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0;
    int big = 8 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  }
  ~LogSink() {
    close(fd_);
    unlink(path_.c_str());
  }
  bool ok() const { return fd_ >= 0 && bound_; }

  // Moves every queued line into the collected list (waits up to `waitMs`
  // for the first one when nothing is queued).
  void Collect(int waitMs = 0) {
    struct pollfd pfd = {fd_, POLLIN, 0};
    if (waitMs > 0) {
      poll(&pfd, 1, waitMs);
    }
    std::vector<char> buf(1 << 16);
    for (;;) {
      ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
      if (n < 0) {
        return;
      }
      lines_.push_back(Strip(std::string(buf.data(), static_cast<size_t>(n))));
    }
  }
  // Everything collected so far, then forgotten.
  std::vector<std::string> Take() {
    Collect();
    std::vector<std::string> out;
    out.swap(lines_);
    return out;
  }
  // Waits (bounded) until a line equal to `line` has been collected.
  bool WaitFor(const std::string &line, int timeoutMs = 5000) {
    for (int waited = 0; waited <= timeoutMs; waited += 10) {
      Collect(10);
      for (const auto &l : lines_) {
        if (l == line) {
          return true;
        }
      }
    }
    return false;
  }

 private:
  // "<14>Mmm dd hh:mm:ss tevd: 2024-..-..Thh:mm:ss.mmmZ: text" -> "text".
  static std::string Strip(const std::string &datagram) {
    size_t head = datagram.find("tevd: ");
    size_t start = head == std::string::npos ? 0 : head + 6;
    size_t stamp = datagram.find("Z: ", start);
    if (stamp != std::string::npos) {
      start = stamp + 3;
    }
    return datagram.substr(start);
  }

  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
  std::vector<std::string> lines_;
};

}  // namespace delivery
