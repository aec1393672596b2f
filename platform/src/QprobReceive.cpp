// Reading one qprob connection to the sender's close (see QprobReceive.h).
// Interrupted calls are retried; a wait is bounded by the caller's time.
#include "QprobReceive.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

namespace {

// One read of what is there. Pending also after bytes were appended: the
// caller decides whether to read on at once or to wait first.
QprobRead ReadOnce(int fd, size_t maxBytes, std::string *data, int *error, bool *got) {
  char buf[65536];
  *got = false;
  for (;;) {
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return QprobRead::Pending;
    if (n < 0) {
      *error = errno;
      return QprobRead::Failed;
    }
    if (n == 0) return QprobRead::Whole;
    if (data->size() + static_cast<size_t>(n) > maxBytes) return QprobRead::TooLarge;
    data->append(buf, static_cast<size_t>(n));
    *got = true;
    return QprobRead::Pending;
  }
}

}  // namespace

QprobRead Qprob_ReadAvailable(int fd, size_t maxBytes, std::string *data, int *error) {
  for (bool got = true; got;) {
    QprobRead r = ReadOnce(fd, maxBytes, data, error, &got);
    if (r != QprobRead::Pending) return r;
  }
  return QprobRead::Pending;
}

QprobRead Qprob_ReadToEnd(int fd, int timeoutMs, size_t maxBytes, std::string *data, int *error) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int wait = -1;
    if (timeoutMs >= 0) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      wait = left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }
    struct pollfd p = {fd, POLLIN, 0};
    int ready = poll(&p, 1, wait);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) {
      *error = errno;
      return QprobRead::Failed;
    }
    if (ready == 0) return QprobRead::TimedOut;
    // One read per wait, so that the time is looked at again between reads.
    bool got = false;
    QprobRead r = ReadOnce(fd, maxBytes, data, error, &got);
    if (r != QprobRead::Pending) return r;
  }
}
