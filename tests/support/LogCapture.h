// Receives the daemon's log datagrams at $TEVD_ROOT/dev/log of a scratch root.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "TevdTestSupport.h"

namespace tevdtest {

class LogCapture {
 public:
  explicit LogCapture(const ScratchRoot &root) {
    root.MakeDir("dev");
    fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string p = root.Abs("dev/log");
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", p.c_str());
    bind(fd_, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
    struct timeval tv = {2, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  ~LogCapture() { close(fd_); }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  // The next line, or "" after two seconds without one.
  std::string Next() {
    char buf[8192];
    ssize_t n = recv(fd_, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
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
  int fd_ = -1;
};

}  // namespace tevdtest
