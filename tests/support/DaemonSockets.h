// The host model the daemon needs at start, and producers on its sockets.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "PlatformSocket.h"
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

// Senders block while the daemon is behind (the back-pressure under test), never for ever.
inline int ConnectTo(const std::string &path, int type) {
  struct timeval tv = {30, 0};
  return PlatformSocket_Connect(path, type, &tv);
}
inline int ConnectUser(const ScratchRoot &root) {
  return ConnectTo(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext),
                   SOCK_SEQPACKET);
}
inline int ConnectTrace(const ScratchRoot &root) {
  return ConnectTo(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace), SOCK_STREAM);
}
// A connected datagram socket on asynchronous context `domain` (0..21).
inline int ConnectAsync(const ScratchRoot &root, int domain) {
  return ConnectTo(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::AsyncContext,
                                              static_cast<uint32_t>(domain)),
                   SOCK_DGRAM);
}

inline bool SendRecord(int fd, const std::vector<uint8_t> &r) {
  ssize_t n;
  while ((n = send(fd, r.data(), r.size(), MSG_NOSIGNAL)) < 0 && errno == EINTR) {}
  return n == static_cast<ssize_t>(r.size());
}

}  // namespace tevdtest
