// A stand-in for the system log of a scratch root: a datagram socket bound at
// $TEVD_ROOT/dev/log. Lines come back without the syslog head and without
// TevdLog's time prefix, so tests compare them with the daemon's literal
// texts. The kernel keeps only a few datagrams queued, so tests call Take()
// after every step that logs.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "PlatformSocket.h"
#include "TevdTestSupport.h"

namespace delivery {

class LogSink {
 public:
  explicit LogSink(const tevdtest::ScratchRoot &root)
      : path_(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::LogCollector)) {
    fd_ = PlatformSocket_Listen(path_, SOCK_DGRAM);
    bound_ = fd_ >= 0;
    int big = 8 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  }
  ~LogSink() {
    close(fd_);
    unlink(path_.c_str());
  }
  bool ok() const { return fd_ >= 0 && bound_; }

  // Every line queued since the last call.
  std::vector<std::string> Take() {
    std::vector<std::string> lines;
    std::vector<char> buf(1 << 16);
    for (ssize_t n; (n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT)) >= 0;) {
      // "<14>Mmm dd hh:mm:ss tevd: 2024-..-..Thh:mm:ss.mmmZ: text" -> "text".
      std::string datagram(buf.data(), static_cast<size_t>(n));
      size_t head = datagram.find("tevd: ");
      size_t start = head == std::string::npos ? 0 : head + 6;
      size_t stamp = datagram.find("Z: ", start);
      lines.push_back(datagram.substr(stamp == std::string::npos ? start : stamp + 3));
    }
    return lines;
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
};

}  // namespace delivery
