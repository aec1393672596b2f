// The log sink: the system log without a root, else one syslog-style
// datagram per line to the root's log collector.
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "PlatformInternal.h"
#include "PlatformRoot.h"
#include "PlatformSocket.h"
#include "TevClock.h"

namespace {

enum class LogSink { Syslog, Socket, None };

// Where log lines go: the system log without a root (or with "/"), else
// $TEVD_ROOT/dev/log in `addr`, or nowhere when that path does not fit.
// Plain C on purpose, like its caller below.
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

}  // namespace

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

// Each thread sends on a datagram socket of its own, connected to the
// collector, the way the C library's syslog does: addressing every line by
// path made the kernel look the path up once per datagram, the largest single
// cost of a busy log. The connection is made anew when the root's collector
// path changes, when the collector went away (ECONNREFUSED, ENOTCONN), and at
// least once a second, so a collector bound again at the same path gets the
// lines of the next second even if the old one was never closed. Plain
// thread-local data and a key destructor, not C++ objects, for the reason
// given below PlatformLog_Unbatch.
struct ThreadSink {
  bool open;
  bool connected;
  int fd;
  time_t since;  // the second of the last connect
  char path[sizeof(((struct sockaddr_un *)nullptr)->sun_path)];
};

thread_local ThreadSink threadSink;
pthread_key_t sinkKey;
pthread_once_t sinkKeyOnce = PTHREAD_ONCE_INIT;

void CloseThreadSink(void *fdPlusOne) {
  close(static_cast<int>(reinterpret_cast<intptr_t>(fdPlusOne)) - 1);
}
void MakeSinkKey() { (void)pthread_key_create(&sinkKey, CloseThreadSink); }

// This thread's socket, connected to `addr`; -1 when there is none or the
// collector cannot be reached (the line is then dropped silently).
int ConnectedSocket(const struct sockaddr_un *addr) {
  ThreadSink &s = threadSink;
  if (!s.open) {
    s.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s.fd < 0) {
      return -1;
    }
    // A collector that falls behind fills its queue (ten datagrams by
    // default): wait a little for it rather than lose lines. One that lets a
    // wait run out is taken as stopped (see SendLine) and costs no more
    // waiting.
    struct timeval timeout = {0, 250000};
    (void)setsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    (void)pthread_once(&sinkKeyOnce, MakeSinkKey);
    (void)pthread_setspecific(sinkKey, reinterpret_cast<void *>(static_cast<intptr_t>(s.fd) + 1));
    s.open = true;
    s.connected = false;
  }
  time_t now = lastHead.secs;
  if (s.connected && s.since == now && strcmp(s.path, addr->sun_path) == 0) {
    return s.fd;
  }
  s.connected = false;
  if (connect(s.fd, reinterpret_cast<const struct sockaddr *>(addr), sizeof *addr) != 0) {
    return -1;
  }
  memcpy(s.path, addr->sun_path, sizeof s.path);
  s.since = now;
  s.connected = true;
  return s.fd;
}

// After a failed send: true when the line is worth one more try on a fresh
// connection (the collector was replaced) or a fresh socket (ours was closed
// behind our back).
bool ReconnectAfter(int err) {
  ThreadSink &s = threadSink;
  if (err == ECONNREFUSED || err == ENOTCONN) {
    s.connected = false;
    return true;
  }
  if (err == EBADF || err == ENOTSOCK) {
    s.open = false;
    s.connected = false;
    return true;
  }
  return false;
}

// Set when a wait for room in the collector's queue ran out: from then on
// lines that find the queue full are dropped at once and counted, until a
// send goes through again. Plain integers with atomic builtins (see below).
int collectorStalled = 0;
unsigned long long droppedLines = 0;
// Every line dropped for a full queue since start, for the daemon's counters
// (droppedLines goes back to 0 once reported).
std::atomic<unsigned long long> droppedTotal{0};

// Tells the collector, once it takes lines again, how many it missed.
void ReportDropped(int fd) {
  unsigned long long n = __atomic_exchange_n(&droppedLines, 0, __ATOMIC_ACQ_REL);
  if (n == 0) {
    return;
  }
  char line[128];
  int head = LogHeadText(line, sizeof line);
  if (head < 0) {
    return;
  }
  int len =
      snprintf(line + head, sizeof line - static_cast<size_t>(head), "%llu log lines dropped\n", n);
  // The collector has just taken a line, so the report may wait for room
  // (bounded by the socket's send time-out): sent without waiting it could
  // find the queue refilled by that line and stay unreported while the
  // daemon is quiet.
  if (len > 0 && send(fd, line, static_cast<size_t>(head + len), MSG_NOSIGNAL) < 0) {
    __atomic_add_fetch(&droppedLines, n, __ATOMIC_ACQ_REL);  // still full: report later
  }
}

void SendLine(const char *datagram, size_t size, const struct sockaddr_un *addr) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    int fd = ConnectedSocket(addr);
    if (fd < 0) {
      return;  // no collector: dropped silently
    }
    bool stalled = __atomic_load_n(&collectorStalled, __ATOMIC_ACQUIRE) != 0;
    int flags = MSG_NOSIGNAL | (stalled ? MSG_DONTWAIT : 0);
    if (send(fd, datagram, size, flags) >= 0) {
      if (stalled) {
        __atomic_store_n(&collectorStalled, 0, __ATOMIC_RELEASE);
      }
      if (__atomic_load_n(&droppedLines, __ATOMIC_ACQUIRE) != 0) {
        ReportDropped(fd);
      }
      return;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      // Full after the wait, or full while taken as stopped: dropped, counted.
      __atomic_store_n(&collectorStalled, 1, __ATOMIC_RELEASE);
      __atomic_add_fetch(&droppedLines, 1, __ATOMIC_ACQ_REL);
      droppedTotal.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    if (!ReconnectAfter(errno)) {
      return;
    }
  }
}

// Lines of one thread waiting to be sent together (PlatformLog_BatchLines).
// Plain thread-local buffers, no destructor: see below on cancellation.
struct LineQueue {
  static constexpr unsigned kLines = 32;
  static constexpr size_t kBytes = 16 * 1024;
  bool on;
  unsigned count;
  size_t used;
  struct sockaddr_un addr;  // every queued line goes to this collector
  size_t offset[kLines];
  size_t length[kLines];
  char bytes[kBytes];
};

thread_local LineQueue lineQueue;

// Sends the queued lines with as few sendmmsg() calls as the collector
// allows. A line the socket refuses is dropped, as one send() would have
// dropped it, and the rest still go.
void SendQueued(LineQueue &q) {
  struct mmsghdr msgs[LineQueue::kLines];
  struct iovec iovs[LineQueue::kLines];
  memset(msgs, 0, sizeof msgs);
  for (unsigned i = 0; i < q.count; ++i) {
    iovs[i].iov_base = q.bytes + q.offset[i];
    iovs[i].iov_len = q.length[i];
    msgs[i].msg_hdr.msg_iov = &iovs[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  unsigned done = 0;
  bool retried = false;
  while (done < q.count) {
    int fd = ConnectedSocket(&q.addr);
    if (fd < 0) {
      break;  // no collector: dropped silently
    }
    bool stalled = __atomic_load_n(&collectorStalled, __ATOMIC_ACQUIRE) != 0;
    int n = sendmmsg(fd, msgs + done, q.count - done, MSG_NOSIGNAL | (stalled ? MSG_DONTWAIT : 0));
    if (n > 0) {
      done += static_cast<unsigned>(n);
      if (stalled) {
        __atomic_store_n(&collectorStalled, 0, __ATOMIC_RELEASE);
      }
      if (__atomic_load_n(&droppedLines, __ATOMIC_ACQUIRE) != 0) {
        ReportDropped(fd);
      }
      continue;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      // As in SendLine: the rest of the batch is dropped and counted at once,
      // not one wait per line.
      __atomic_store_n(&collectorStalled, 1, __ATOMIC_RELEASE);
      __atomic_add_fetch(&droppedLines, q.count - done, __ATOMIC_ACQ_REL);
      droppedTotal.fetch_add(q.count - done, std::memory_order_relaxed);
      break;
    }
    if (!retried && ReconnectAfter(errno)) {
      retried = true;
      continue;
    }
    ++done;  // refused for another reason: this line is dropped silently
  }
  q.count = 0;
  q.used = 0;
}

// Queues a finished datagram; false when the calling thread does not batch.
bool QueueLine(const char *datagram, size_t size, const struct sockaddr_un *addr) {
  LineQueue &q = lineQueue;
  if (!q.on) {
    return false;
  }
  if (q.count > 0 && (q.count == LineQueue::kLines || q.used + size > LineQueue::kBytes ||
                      strcmp(q.addr.sun_path, addr->sun_path) != 0)) {
    SendQueued(q);
  }
  if (size > LineQueue::kBytes) {
    return false;  // sent on its own, after the lines before it
  }
  if (q.count == 0) {
    q.addr = *addr;
  }
  memcpy(q.bytes + q.used, datagram, size);
  q.offset[q.count] = q.used;
  q.length[q.count] = size;
  q.used += size;
  ++q.count;
  return true;
}

}  // namespace

void PlatformLog_BatchLines(void) { lineQueue.on = true; }

unsigned long long PlatformLog_DroppedLines(void) {
  return droppedTotal.load(std::memory_order_relaxed);
}

void PlatformLog_Flush(void) {
  LineQueue &q = lineQueue;
  if (q.count > 0) {
    SendQueued(q);
  }
}

void PlatformLog_Unbatch(void) {
  PlatformLog_Flush();
  lineQueue.on = false;
}

// The daemon cancels its agents at exit, and send() here is a
// cancellation point where a busy agent is often stopped. The function holds
// no object with a destructor (plain buffers and malloc only), so such a
// stop unwinds nothing of ours and stays cheap and safe, whichever way the
// program that links this library cancels its threads.
//
// Cost per line in the common case: the formatting into a stack buffer and
// one send(), or, on a batching thread, a copy into its queue and a share
// of one sendmmsg(); a line too long for the stack buffer is formatted again
// into a malloc'd one.
void PlatformLog_Vsyslog(const char *format, va_list ap) {
  struct sockaddr_un addr;
  LogSink sink = LogSocketAddr(&addr);
  if (sink == LogSink::Syslog) {
    vsyslog(LOG_INFO, format, ap);
    return;
  }
  if (sink == LogSink::None) {
    return;
  }
  char stackBuf[2048];
  int headLen = LogHeadText(stackBuf, sizeof stackBuf);
  if (headLen < 0) {
    return;
  }
  size_t room = sizeof stackBuf - static_cast<size_t>(headLen);
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(stackBuf + headLen, room, format, copy);
  va_end(copy);
  if (n < 0) {
    return;
  }
  size_t size = static_cast<size_t>(headLen) + static_cast<size_t>(n);
  if (static_cast<size_t>(n) < room) {
    if (!QueueLine(stackBuf, size, &addr)) {
      SendLine(stackBuf, size, &addr);
    }
    return;
  }
  char *datagram = static_cast<char *>(malloc(size + 1));
  if (datagram == nullptr) {
    return;
  }
  memcpy(datagram, stackBuf, static_cast<size_t>(headLen));
  vsnprintf(datagram + headLen, static_cast<size_t>(n) + 1, format, ap);
  if (!QueueLine(datagram, size, &addr)) {
    SendLine(datagram, size, &addr);
  }
  free(datagram);
}

namespace platform_internal {

void Syslog(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  PlatformLog_Vsyslog(format, ap);
  va_end(ap);
}

}  // namespace platform_internal
