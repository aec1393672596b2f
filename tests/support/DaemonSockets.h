// Sockets and host model shared by the end-to-end tests of the real daemon:
// a root the daemon accepts, and producers on its user-level and
// asynchronous sockets.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "TevdTestSupport.h"

namespace tevdtest {

// A root with every host-model entry the daemon reads at start.
inline void MakeHost(const ScratchRoot &root) {
  root.Write("platform/nodes/system/systemUuid", "6f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
  root.Write("platform/options/Net/LinkFlappingThreshold", "3");
  root.Write("platform/options/PageRetire/ThresholdInterval", "10");
  root.Write("platform/options/PageRetire/ApeiLoggingEnabled", "1");
  root.Write("platform/options/Misc/TevAsyncEnable", "0");
  root.Write("platform/nodes/system/pageRetire/threshold", "1000");
  root.MakeDir("kfs/volumes");
}

inline bool FillAddr(const std::string &path, struct sockaddr_un *addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof addr->sun_path) {
    return false;
  }
  memcpy(addr->sun_path, path.c_str(), path.size());
  return true;
}

inline int ConnectTo(const std::string &path, int type) {
  struct sockaddr_un addr;
  if (!FillAddr(path, &addr)) {
    return -1;
  }
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  // Senders block while the daemon is behind (that is the back-pressure under
  // test) but never forever.
  struct timeval tv = {30, 0};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  return fd;
}

inline int ConnectUser(const ScratchRoot &root) {
  return ConnectTo(root.Abs("var/run/orlan/tevd-user.sock"), SOCK_SEQPACKET);
}

// A connected datagram socket on asynchronous context `domain` (0..21).
inline int ConnectAsync(const ScratchRoot &root, int domain) {
  char rel[64];
  snprintf(rel, sizeof rel, "var/run/orlan/tev/async-%02d.sock", domain);
  return ConnectTo(root.Abs(rel), SOCK_DGRAM);
}

inline bool SendRecord(int fd, const std::vector<uint8_t> &r) {
  for (;;) {
    ssize_t n = send(fd, r.data(), r.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    return n == static_cast<ssize_t>(r.size());
  }
}

}  // namespace tevdtest
