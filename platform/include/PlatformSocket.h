// The UNIX sockets of the emulated platform: where each one lives under the
// root, and the one way to bind or reach one. Every program of the project
// (daemon, tools, tests, benchmarks) names a socket by its endpoint here, so
// the paths are written down once.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

enum class PlatformEndpoint {
  UserContext,   // SOCK_SEQPACKET, the daemon listens: user processes post records
  AsyncContext,  // SOCK_DGRAM, the daemon binds one per domain 00..21
  Trace,         // SOCK_STREAM, the daemon listens: trace history, then live lines
  QprobAgent,    // SOCK_STREAM, the management agent listens: one qprob message per connection
  LogCollector,  // SOCK_DGRAM, whoever collects the log binds it (only with a root)
};

// The log collector's relative path, for the log sink, which builds its
// address without allocating.
constexpr char kPlatformLogCollectorRelative[] = "dev/log";

// The endpoint's path relative to the root, without a leading slash
// ("var/run/orlan/tevd-user.sock"); `domain` numbers an asynchronous context.
std::string PlatformEndpoint_Relative(PlatformEndpoint endpoint, uint32_t domain = 0);
// The same under TEVD_ROOT (PlatformRoot_Path).
std::string PlatformEndpoint_Path(PlatformEndpoint endpoint, uint32_t domain = 0);
// The same under an explicit root directory (a scratch root, --root DIR).
std::string PlatformEndpoint_PathUnder(const std::string &root, PlatformEndpoint endpoint,
                                       uint32_t domain = 0);

// Fills `addr` for `path`. False, with errno ENAMETOOLONG, when the path and
// its NUL do not fit in sun_path: a socket is never bound or reached by a
// silently shortened name.
bool PlatformSocket_Address(const std::string &path, struct sockaddr_un *addr);

struct PlatformListen {
  int type = SOCK_STREAM;  // SOCK_STREAM, SOCK_SEQPACKET or SOCK_DGRAM
  int flags = 0;           // more socket() flags (SOCK_NONBLOCK); SOCK_CLOEXEC always
  mode_t mode = 0;         // 0: as the umask leaves it; else the socket file's mode
  int backlog = 64;        // not used for SOCK_DGRAM
};

// Creates the missing directories of `path`, replaces whatever file is there,
// binds a new socket and, unless it is a datagram socket, listens. A mode is
// set on the socket before bind (Linux gives the new file the unbound
// socket's mode, so no moment passes with the umask's) and stated with chmod
// after. The descriptor, or -1 with errno.
int PlatformSocket_Listen(const std::string &path, const PlatformListen &how);
// The same with the defaults: the umask's mode, a backlog of 64.
inline int PlatformSocket_Listen(const std::string &path, int type) {
  PlatformListen how;
  how.type = type;
  return PlatformSocket_Listen(path, how);
}
// Connects a new socket of `type` (SOCK_CLOEXEC added) to `path`. With
// `sendTimeout`, SO_SNDTIMEO is set before the connect, which bounds a
// connect to a listener whose backlog is full too. The descriptor, or -1 with
// errno.
int PlatformSocket_Connect(const std::string &path, int type,
                           const struct timeval *sendTimeout = nullptr);
// Sends one datagram from `fd` to the socket at `path` (MSG_NOSIGNAL added
// to `flags`, EINTR retried). 0, or an errno value; EMSGSIZE for a short send.
int PlatformSocket_SendTo(int fd, const std::string &path, const void *data, size_t size,
                          int flags);
