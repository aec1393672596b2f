// The log sink's pieces without shared state (see PlatformLogWire.h). Plain
// C on purpose, like the sink that calls them.
#include "PlatformLogWire.h"

#include <errno.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "PlatformInternal.h"
#include "PlatformLog.h"
#include "PlatformSocket.h"
#include "TevClock.h"

namespace platform_internal {

namespace {

// "<14>Mmm dd hh:mm:ss tevd: " of one second of local time, kept per thread
// so that only the first line of a second pays for localtime_r and glibc's
// time-zone lock. The zone globals are part of the key: a tzset() to another
// zone shows at once.
struct LogHead {
  bool valid;
  time_t secs;
  long zone;
  int daylight;
  const char *names[2];
  int len;
  char text[48];
};

thread_local LogHead lastHead;

}  // namespace

LogSink LogSocketAddr(struct sockaddr_un *addr) {
  const char *root = getenv("TEVD_ROOT");
  if (root == nullptr || root[0] == '\0') {
    return LogSink::Syslog;
  }
  size_t len = strlen(root);
  while (len > 1 && root[len - 1] == '/') {
    --len;
  }
  if (len == 1 && root[0] == '/') {
    return LogSink::Syslog;
  }
  memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  int n = snprintf(addr->sun_path, sizeof addr->sun_path, "%.*s/%s", static_cast<int>(len), root,
                   kPlatformLogCollectorRelative);
  return n > 0 && static_cast<size_t>(n) < sizeof addr->sun_path ? LogSink::Socket : LogSink::None;
}

int LogHeadText(char *out, size_t size) {
  static const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  struct timespec now;
  TevClock_GetRealtime(&now);
  LogHead &h = lastHead;
  if (!h.valid || h.secs != now.tv_sec || h.zone != timezone || h.daylight != daylight ||
      h.names[0] != tzname[0] || h.names[1] != tzname[1]) {
    h.valid = false;
    time_t secs = now.tv_sec;
    struct tm tm;
    localtime_r(&secs, &tm);
    h.len =
        snprintf(h.text, sizeof h.text, "<14>%s %2d %02d:%02d:%02d tevd: ", kMonths[tm.tm_mon % 12],
                 tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (h.len < 0 || static_cast<size_t>(h.len) >= sizeof h.text) {
      return -1;
    }
    h.secs = now.tv_sec;
    h.zone = timezone;
    h.daylight = daylight;
    h.names[0] = tzname[0];
    h.names[1] = tzname[1];
    h.valid = true;
  }
  if (static_cast<size_t>(h.len) >= size) {
    return -1;
  }
  memcpy(out, h.text, static_cast<size_t>(h.len));
  return h.len;
}

int64_t NowUs() {
  struct timespec ts;
  TevClock_GetRealtime(&ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// sendmmsg() that a signal does not cut short: the thread that flushes may be
// the one signals are meant for, and a SIGPIPE storm must not cost lines.
// Retried until the collector's send timeout has passed in all, then taken as
// a wait that ran out (EAGAIN).
int SendLines(int fd, struct mmsghdr *msgs, unsigned count, int flags) {
  int64_t start = -1;
  for (;;) {
    int n = sendmmsg(fd, msgs, count, flags);
    if (n >= 0 || errno != EINTR) return n;
    int64_t now = NowUs();
    if (start < 0 || now < start) start = now;
    if (now - start >= kSendTimeoutUs) {
      errno = EAGAIN;
      return -1;
    }
  }
}

}  // namespace platform_internal

// Diagnostics of the platform library itself (a skipped file, a refused
// record): to the program's own sink when it set one, else the log.
namespace {

std::atomic<PlatformLog_Fn> diagnosticSink{nullptr};

}  // namespace

void PlatformLog_SetDiagnosticSink(PlatformLog_Fn fn) { diagnosticSink.store(fn); }

namespace platform_internal {

void TevLibLog(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  PlatformLog_Fn fn = diagnosticSink.load();
  if (fn != nullptr) {
    fn(format, ap);
  } else {
    PlatformLog_Vsyslog(format, ap);
  }
  va_end(ap);
}

void Syslog(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  PlatformLog_Vsyslog(format, ap);
  va_end(ap);
}

}  // namespace platform_internal
