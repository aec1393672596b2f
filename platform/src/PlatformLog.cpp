// The log sink: the system log without a root, else one syslog-style
// datagram per line to the root's log collector.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
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
#include "PlatformLog.h"
#include "PlatformLogWire.h"
#include "PlatformRoot.h"
#include "PlatformSocket.h"
#include "TevClock.h"
#include "TevMutex.h"

using platform_internal::kSendTimeoutUs;
using platform_internal::LogHeadText;
using platform_internal::LogSink;
using platform_internal::LogSocketAddr;
using platform_internal::NowUs;
using platform_internal::SendLines;

namespace {

// DESIGN: every line of the process goes through one queue under one lock
// (`queueLock`), and is sent from it in the order it was queued, by whichever
// thread finds it due: the thread that logged it when it does not batch, a
// batching thread whose line does not fit, PlatformLog_Flush, or the flusher
// thread, which sends any line that has waited kMaxWaitUs. The time prefix
// of a line is taken under the same lock (PlatformLog_VsyslogWithPrefix), so
// the collector receives lines in call order with non-decreasing prefixes,
// whatever thread logged them. A Panic flushes everything queued, from every
// thread.
//
// One datagram socket, connected to the collector the way the C library's
// syslog does: addressing every line by path made the kernel look the path
// up once per datagram, the largest single cost of a busy log. The
// connection is made anew when the root's collector path changes, when the
// collector went away (ECONNREFUSED, ENOTCONN), and at least once a second,
// so a collector bound again at the same path gets the lines of the next
// second even if the old one was never closed. Used only under queueLock.
struct ThreadSink {
  bool open;
  bool connected;
  int fd;
  time_t since;  // the second of the last connect
  char path[sizeof(((struct sockaddr_un *)nullptr)->sun_path)];
};

TevMutex queueLock;
ThreadSink threadSink GUARDED_BY(queueLock);

// This thread's socket, connected to `addr`; -1 when there is none or the
// collector cannot be reached (the line is then dropped silently).
int ConnectedSocket(const struct sockaddr_un *addr) REQUIRES(queueLock) {
  ThreadSink &s = threadSink;
  if (!s.open) {
    s.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s.fd < 0) {
      return -1;
    }
    // A collector that falls behind fills its queue (ten datagrams by
    // default): wait a little for it rather than lose lines. One that lets a
    // wait run out is taken as stopped (see SendQueued) and costs no more
    // waiting.
    struct timeval timeout = {0, kSendTimeoutUs};
    (void)setsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    s.open = true;
    s.connected = false;
  }
  struct timespec ts;
  TevClock_GetRealtime(&ts);
  time_t now = ts.tv_sec;
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
bool ReconnectAfter(int err) REQUIRES(queueLock) {
  ThreadSink &s = threadSink;
  if (err == ECONNREFUSED || err == ENOTCONN) {
    s.connected = false;
    return true;
  }
  if (err == EBADF || err == ENOTSOCK) {
    if (s.fd >= 0 && err == ENOTSOCK) close(s.fd);
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

// The process's lines waiting to be sent together. Plain buffers, no
// destructor: see below on cancellation.
struct LineQueue {
  static constexpr unsigned kLines = 32;
  static constexpr size_t kBytes = 16 * 1024;
  unsigned count;
  size_t used;
  int64_t firstUs;          // when the oldest queued line was queued (TevClock)
  struct sockaddr_un addr;  // every queued line goes to this collector
  size_t offset[kLines];
  size_t length[kLines];
  char bytes[kBytes];
};

LineQueue lineQueue GUARDED_BY(queueLock);
thread_local bool batching;  // this thread leaves its lines queued
pthread_cond_t queueNonEmpty = PTHREAD_COND_INITIALIZER;
pthread_once_t flusherOnce = PTHREAD_ONCE_INIT;
// Longest a queued line waits for a thread to flush before the flusher
// thread sends it.
constexpr int64_t kMaxWaitUs = 5000;

// Sends the queued lines with as few sendmmsg() calls as the collector
// allows. A line the socket refuses is dropped, as one send() would have
// dropped it, and the rest still go.
void SendQueued(LineQueue &q) REQUIRES(queueLock) {
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
    int n = SendLines(fd, msgs + done, q.count - done, MSG_NOSIGNAL | (stalled ? MSG_DONTWAIT : 0));
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
      // Full after the wait, or full while taken as stopped: the rest of the
      // batch is dropped and counted at once, not one wait per line.
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

void FlushLocked() REQUIRES(queueLock) {
  if (lineQueue.count > 0) {
    SendQueued(lineQueue);
  }
}

// Holds queueLock with cancellation off: send() is a cancellation point, and
// a thread cancelled there would leave the lock held for ever.
struct SCOPED_CAPABILITY QueueGuard {
  int oldState;
  QueueGuard() ACQUIRE(queueLock) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    queueLock.lock();
  }
  ~QueueGuard() RELEASE() {
    queueLock.unlock();
    pthread_setcancelstate(oldState, nullptr);
  }
};

// Sends what has waited kMaxWaitUs (by TevClock, so a fake clock that does
// not move holds lines until a flush). Signals stay blocked here: they are
// meant for the program's own threads.
void *FlusherMain(void *) {
  queueLock.lock();
  for (;;) {
    if (lineQueue.count == 0) {
      queueLock.Wait(&queueNonEmpty);
      continue;
    }
    int64_t now = NowUs();
    if (now - lineQueue.firstUs >= kMaxWaitUs || now < lineQueue.firstUs) {
      FlushLocked();
      continue;
    }
    struct timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_nsec += 1000000;  // the age is TevClock's: look again in a millisecond
    if (until.tv_nsec >= 1000000000) {
      until.tv_sec += 1;
      until.tv_nsec -= 1000000000;
    }
    queueLock.WaitUntil(&queueNonEmpty, &until);
  }
  return nullptr;
}

// A child of fork() has no flusher and must find the lock free: the fork
// waits for the lock, and the child starts its own flusher when it batches.
void BeforeFork() ACQUIRE(queueLock) { queueLock.lock(); }
void AfterForkParent() RELEASE(queueLock) { queueLock.unlock(); }
void AfterForkChild() RELEASE(queueLock) {
  queueLock.unlock();
  flusherOnce = PTHREAD_ONCE_INIT;
}

void StartFlusher() {
  static bool forkHandlers = false;  // a child starting its flusher has them already
  if (!forkHandlers) {
    forkHandlers = true;
    pthread_atfork(BeforeFork, AfterForkParent, AfterForkChild);
  }
  // The wait above counts on the monotonic clock (a wall clock set back
  // would stretch it). Signalled only under the lock, so set up under it.
  {
    QueueGuard guard;
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    // Not destroyed first: in a child of fork() it may still count the
    // parent's flusher as a waiter, and a destroy would wait for it.
    pthread_cond_init(&queueNonEmpty, &attr);
    pthread_condattr_destroy(&attr);
  }
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &old);
  pthread_t t;
  if (pthread_create(&t, nullptr, FlusherMain, nullptr) == 0) {
    pthread_detach(t);
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// Queues a line: the syslog head and `prefix` (when given) are written at
// this moment, under the lock, then `body`. Sent at once unless this thread
// batches.
void QueueLine(int (*prefix)(char *, size_t), const char *body, size_t bodyLen,
               const struct sockaddr_un *addr) {
  if (batching) {
    (void)pthread_once(&flusherOnce, StartFlusher);
  }
  QueueGuard guard;
  char start[160];
  int headLen = LogHeadText(start, sizeof start);
  if (headLen < 0) {
    return;
  }
  size_t startLen = static_cast<size_t>(headLen);
  if (prefix != nullptr) {
    int n = prefix(start + startLen, sizeof start - startLen);
    if (n > 0) startLen += static_cast<size_t>(n);
  }
  size_t size = startLen + bodyLen;
  LineQueue &q = lineQueue;
  if (q.count > 0 && (q.count == LineQueue::kLines || q.used + size > LineQueue::kBytes ||
                      strcmp(q.addr.sun_path, addr->sun_path) != 0)) {
    SendQueued(q);
  }
  if (size > LineQueue::kBytes) {
    // Sent on its own, after the lines before it.
    char *datagram = static_cast<char *>(malloc(size));
    if (datagram == nullptr) {
      return;
    }
    memcpy(datagram, start, startLen);
    memcpy(datagram + startLen, body, bodyLen);
    struct mmsghdr msg;
    struct iovec iov = {datagram, size};
    memset(&msg, 0, sizeof msg);
    msg.msg_hdr.msg_iov = &iov;
    msg.msg_hdr.msg_iovlen = 1;
    for (int attempt = 0; attempt < 2; ++attempt) {
      int fd = ConnectedSocket(addr);
      if (fd < 0) break;
      bool stalled = __atomic_load_n(&collectorStalled, __ATOMIC_ACQUIRE) != 0;
      if (SendLines(fd, &msg, 1, MSG_NOSIGNAL | (stalled ? MSG_DONTWAIT : 0)) == 1) {
        if (stalled) __atomic_store_n(&collectorStalled, 0, __ATOMIC_RELEASE);
        break;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        __atomic_store_n(&collectorStalled, 1, __ATOMIC_RELEASE);
        __atomic_add_fetch(&droppedLines, 1, __ATOMIC_ACQ_REL);
        droppedTotal.fetch_add(1, std::memory_order_relaxed);
        break;
      }
      if (!ReconnectAfter(errno)) break;
    }
    free(datagram);
    return;
  }
  if (q.count == 0) {
    q.addr = *addr;
    q.firstUs = NowUs();
    pthread_cond_signal(&queueNonEmpty);
  }
  memcpy(q.bytes + q.used, start, startLen);
  memcpy(q.bytes + q.used + startLen, body, bodyLen);
  q.offset[q.count] = q.used;
  q.length[q.count] = size;
  q.used += size;
  ++q.count;
  if (!batching) {
    SendQueued(q);
  }
}

}  // namespace

void PlatformLog_BatchLines(void) { batching = true; }

unsigned long long PlatformLog_DroppedLines(void) {
  return droppedTotal.load(std::memory_order_relaxed);
}

void PlatformLog_Flush(void) {
  QueueGuard guard;
  FlushLocked();
}

void PlatformLog_Unbatch(void) {
  batching = false;
  PlatformLog_Flush();
}

// The daemon cancels its agents at exit; the log path turns cancellation off
// while it holds the queue's lock (QueueGuard) and holds no object with a
// destructor beyond that guard, so a stop never leaves the lock held.
//
// Cost per line in the common case: the formatting into a stack buffer, then
// under the lock the head, the prefix and a copy into the queue, and one
// sendmmsg() for the line (or, on a batching thread, a share of one); a line
// too long for the stack buffer is formatted again into a malloc'd one.
void PlatformLog_VsyslogWithPrefix(int (*prefix)(char *buf, size_t size), const char *format,
                                   va_list ap) {
  struct sockaddr_un addr;
  LogSink sink = LogSocketAddr(&addr);
  if (sink == LogSink::None) {
    return;
  }
  char stackBuf[2048];
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(stackBuf, sizeof stackBuf, format, copy);
  va_end(copy);
  if (n < 0) {
    return;
  }
  char *body = stackBuf;
  if (static_cast<size_t>(n) >= sizeof stackBuf) {
    body = static_cast<char *>(malloc(static_cast<size_t>(n) + 1));
    if (body == nullptr) {
      return;
    }
    vsnprintf(body, static_cast<size_t>(n) + 1, format, ap);
  }
  if (sink == LogSink::Syslog) {
    char start[64] = "";
    if (prefix != nullptr && prefix(start, sizeof start) < 0) start[0] = '\0';
    syslog(LOG_INFO, "%s%s", start, body);
  } else {
    QueueLine(prefix, body, static_cast<size_t>(n), &addr);
  }
  if (body != stackBuf) {
    free(body);
  }
}

void PlatformLog_Vsyslog(const char *format, va_list ap) {
  PlatformLog_VsyslogWithPrefix(nullptr, format, ap);
}
