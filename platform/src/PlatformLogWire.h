// The log sink's pieces that hold no shared state (PlatformLogWire.cpp):
// where a line goes, the syslog head it starts with, and a send that a
// signal does not cut short. The queue, its lock and the connection are
// PlatformLog.cpp's.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>

namespace platform_internal {

enum class LogSink { Syslog, Socket, None };

// How long a send waits for room in the collector's queue.
constexpr int kSendTimeoutUs = 250000;

// Where log lines go: the system log without a root (or with "/"), else
// $TEVD_ROOT/dev/log in `addr`, or nowhere when that path does not fit.
LogSink LogSocketAddr(struct sockaddr_un *addr);
// Writes "<14>Mmm dd hh:mm:ss tevd: " of this second of local time to `out`;
// its length, or -1 when it does not fit in `size`.
int LogHeadText(char *out, size_t size);
// Microseconds since the epoch by TevClock (a fake clock too).
int64_t NowUs();
// sendmmsg() retried on EINTR until kSendTimeoutUs has passed in all, then
// taken as a wait that ran out (EAGAIN).
int SendLines(int fd, struct mmsghdr *msgs, unsigned count, int flags);

}  // namespace platform_internal
