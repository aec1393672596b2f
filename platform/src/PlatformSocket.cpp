// Named endpoints and the bind/connect helpers of PlatformSocket.h.
#include "PlatformSocket.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "PlatformRoot.h"

std::string PlatformEndpoint_Relative(PlatformEndpoint endpoint, uint32_t domain) {
  switch (endpoint) {
    case PlatformEndpoint::UserContext: return "var/run/orlan/tevd-user.sock";
    case PlatformEndpoint::AsyncContext: {
      char name[64];
      snprintf(name, sizeof name, "var/run/orlan/tev/async-%02u.sock", domain);
      return name;
    }
    case PlatformEndpoint::Trace: return "var/run/orlan/tevd-trace.sock";
    case PlatformEndpoint::QprobAgent: return "var/run/orlan/marshd-qprob.sock";
    case PlatformEndpoint::LogCollector: return kPlatformLogCollectorRelative;
  }
  return "";
}

std::string PlatformEndpoint_Path(PlatformEndpoint endpoint, uint32_t domain) {
  return PlatformRoot_Path("/" + PlatformEndpoint_Relative(endpoint, domain));
}

std::string PlatformEndpoint_PathUnder(const std::string &root, PlatformEndpoint endpoint,
                                       uint32_t domain) {
  return root + "/" + PlatformEndpoint_Relative(endpoint, domain);
}

bool PlatformSocket_Address(const std::string &path, struct sockaddr_un *addr) {
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof addr->sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(addr->sun_path, path.c_str(), path.size());
  return true;
}

int PlatformSocket_SendTo(int fd, const std::string &path, const void *data, size_t size,
                          int flags) {
  struct sockaddr_un addr;
  if (!PlatformSocket_Address(path, &addr)) {
    return errno;
  }
  for (;;) {
    ssize_t n = sendto(fd, data, size, flags | MSG_NOSIGNAL,
                       reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    return n < 0 ? errno : (static_cast<size_t>(n) == size ? 0 : EMSGSIZE);
  }
}

namespace {

int CloseKeepingErrno(int fd) {
  int saved = errno;
  close(fd);
  errno = saved;
  return -1;
}

}  // namespace

int PlatformSocket_Listen(const std::string &path, const PlatformListen &how) {
  struct sockaddr_un addr;
  if (!PlatformSocket_Address(path, &addr)) {
    return -1;
  }
  size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    int err = PlatformRoot_MakeDirs(path.substr(0, slash));
    if (err != 0) {
      errno = err;
      return -1;
    }
  }
  unlink(path.c_str());
  int fd = socket(AF_UNIX, how.type | how.flags | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  if (how.mode != 0) {
    (void)fchmod(fd, how.mode);
  }
  if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0 ||
      (how.mode != 0 && chmod(path.c_str(), how.mode) != 0) ||
      (how.type != SOCK_DGRAM && listen(fd, how.backlog) != 0)) {
    return CloseKeepingErrno(fd);
  }
  return fd;
}

int PlatformSocket_Connect(const std::string &path, int type, const struct timeval *sendTimeout) {
  struct sockaddr_un addr;
  if (!PlatformSocket_Address(path, &addr)) {
    return -1;
  }
  int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  if (sendTimeout != nullptr &&
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, sendTimeout, sizeof *sendTimeout) != 0) {
    return CloseKeepingErrno(fd);
  }
  if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
    return CloseKeepingErrno(fd);
  }
  return fd;
}
