// Trace server.
//
// DESIGN: traceMutex guards the history (oldest first, at most 131072 bytes
// of text but always the newest line) and the listener map keyed by client
// descriptor. Producers (the main loop for "IN", correlator threads for
// "OUT") build their line without the lock, then append it to the history
// and to every listener's pending list and broadcast traceUpdated.
// Each client has two threads: the serving thread (detached) queues the
// replay, then only watches for the hang-up; the writer thread takes the
// pending lines under the lock and writes them with the lock released, so a
// slow or vanished client never blocks a producer or another client. Writes
// use MSG_NOSIGNAL: a client that went away yields EPIPE, never a signal.
#include "tevdTrace.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>

#include "PlatformSocket.h"
#include "TevClock.h"
#include "TevMutex.h"
#include "tevdLog.h"

namespace {

struct Listener {
  std::vector<std::string> pending;
  size_t pendingBytes = 0;  // of `pending`, not of the batch being written
  bool closing = false;
  bool overflowed = false;  // cut off for falling too far behind
};

// A client that does not read must not make the daemon's memory grow without
// bound: past this many bytes waiting for it, it is disconnected. Only tests
// change it (TEVD_TRACE_PENDING_MAX, in bytes).
constexpr size_t kDefaultPendingMax = 16u << 20;
// Each client costs two threads; beyond this many clients a new one is
// closed at once.
constexpr int kMaxClients = 16;

size_t PendingMax() {
  static const size_t max = [] {
    const char *env = getenv("TEVD_TRACE_PENDING_MAX");
    char *end = nullptr;
    unsigned long long v = env != nullptr ? strtoull(env, &end, 10) : 0;
    return env != nullptr && end != env && *end == '\0' && v > 0 ? static_cast<size_t>(v)
                                                                 : kDefaultPendingMax;
  }();
  return max;
}

std::atomic<int> clientCount{0};
TevdLogLimiter writeErrorLimiter;
TevdLogLimiter refusedLimiter;

// Taken last: the reader holds the stream lock when it traces "IN"; nothing
// else is taken with it held, and no write waits under it.
TevMutex traceMutex;
pthread_cond_t traceUpdated = PTHREAD_COND_INITIALIZER;
// Never destroyed: the process may exit() (self-test) while client threads
// and producers still run, and they must not meet destructed containers.
std::deque<std::string> &history GUARDED_BY(traceMutex) = *new std::deque<std::string>;
uint64_t historySize GUARDED_BY(traceMutex) = 0;
std::map<int, Listener> &listeners GUARDED_BY(traceMutex) = *new std::map<int, Listener>;

constexpr int kBacklog = 128;

const char *ErrorText(int err, char *buf, size_t size) {
  return strerror_r(err, buf, size);  // GNU form: returns the text
}

int FdOf(void *arg) { return static_cast<int>(reinterpret_cast<intptr_t>(arg)); }
void *ArgOf(int fd) { return reinterpret_cast<void *>(static_cast<intptr_t>(fd)); }

// Decimal digits of `magnitude`, after a '-' when `negative`: what
// printf's %d/%u family writes, without its format parsing.
void AppendDecimal(std::string *line, uint64_t magnitude, bool negative) {
  char digits[24];
  char *end = digits + sizeof digits;
  char *p = end;
  do {
    *--p = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (negative) {
    *--p = '-';
  }
  line->append(p, static_cast<size_t>(end - p));
}

void AppendSigned(std::string *line, int64_t value) {
  // The magnitude in unsigned arithmetic, so that INT64_MIN is exact too.
  uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  AppendDecimal(line, magnitude, value < 0);
}

// ",\"text\"" with the inner quotes doubled.
void AppendQuoted(std::string *line, const char *p) {
  line->append(",\"");
  for (;;) {
    const char *quote = strchr(p, '"');
    if (quote == nullptr) {
      line->append(p);
      break;
    }
    line->append(p, static_cast<size_t>(quote - p) + 1);
    line->push_back('"');
    p = quote + 1;
  }
  line->push_back('"');
}

// One trace line, or false when a string argument cannot be read. Built by
// appending into one string sized up front (formerly an ostringstream, which
// cost several allocations and locale look-ups per line); the bytes are the
// same: "secs.nnnnnnnnn,DIR,stamp,id," then ",value" per argument, strings
// quoted with inner quotes doubled.
bool BuildLine(const char *direction, uint64_t timeStamp, const char *id, const void *args,
               size_t argsSize, int numArgs, std::string *line) {
  struct timespec now;
  TevClock_GetRealtime(&now);
  size_t idLen = strlen(id);
  line->clear();
  line->reserve(48 + idLen + 24 * static_cast<size_t>(numArgs > 0 ? numArgs : 0));
  AppendSigned(line, static_cast<int64_t>(now.tv_sec));
  line->push_back('.');
  // Nanoseconds right-aligned in nine places with zeros in front, also for
  // the odd value out of range (a stream's setw/setfill did the same).
  std::string nsec;
  AppendSigned(&nsec, static_cast<int64_t>(now.tv_nsec));
  for (size_t i = nsec.size(); i < 9; i++) {
    line->push_back('0');
  }
  line->append(nsec);
  line->push_back(',');
  line->append(direction);
  line->push_back(',');
  AppendDecimal(line, timeStamp, false);
  line->push_back(',');
  line->append(id, idLen);
  line->push_back(',');
  for (int i = 0; i < numArgs; i++) {
    MsgFmt_Arg slot = MsgFmt_ReadSlot(args, i);
    switch (slot.type) {
      case MSGFMT_TYPE_INT32:
        line->push_back(',');
        AppendSigned(line, static_cast<int32_t>(slot.value));
        break;
      case MSGFMT_TYPE_INT64:
        line->push_back(',');
        AppendSigned(line, static_cast<int64_t>(slot.value));
        break;
      case MSGFMT_TYPE_UINT32:
        line->push_back(',');
        AppendDecimal(line, static_cast<uint32_t>(slot.value), false);
        break;
      case MSGFMT_TYPE_UINT64:
        line->push_back(',');
        AppendDecimal(line, slot.value, false);
        break;
      case MSGFMT_TYPE_STRING: {
        const char *str = nullptr;
        if (MsgFmt_GetSwizzledString(args, argsSize, numArgs, i, &str) != 0) {
          TevdLog("Invalid argument in tev with ID %s", id);
          return false;
        }
        AppendQuoted(line, str != nullptr ? str : "(null)");
        break;
      }
      default: line->append(",???"); break;
    }
  }
  line->push_back('\n');
  return true;
}

// Writes all of `line`; false (errno set) on failure.
bool WriteAll(int fd, const std::string &line) {
  size_t done = 0;
  while (done < line.size()) {
    ssize_t n = send(fd, line.data() + done, line.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) {
      n = write(fd, line.data() + done, line.size() - done);
    }
    if (n < 1) {
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

int TevdTrace_Open(const char *path) {
  PlatformListen how;
  how.type = SOCK_STREAM;
  how.mode = 0660;  // trace clients see every observation: the daemon's user and group only
  how.backlog = kBacklog;
  return PlatformSocket_Listen(
      path != nullptr ? std::string(path) : PlatformEndpoint_Path(PlatformEndpoint::Trace), how);
}

int TevdTrace_Accept(int listenFd) {
  char err[128];
  int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    return errno;  // the caller reports it, once per interval
  }
  if (clientCount.fetch_add(1) >= kMaxClients) {
    clientCount.fetch_sub(1);
    close(fd);
    uint64_t skipped = 0;
    if (TevdLog_Allow(&refusedLimiter, &skipped)) {
      TevdLog(
          "Trace client refused: %d clients already connected (%llu more refused since the "
          "last report)\n",
          kMaxClients, static_cast<unsigned long long>(skipped));
    }
    return 0;
  }
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  // The client's threads must never take the reader's terminating signals.
  sigset_t block, old;
  sigemptyset(&block);
  for (int sig : {SIGTERM, SIGINT, SIGPIPE}) {
    sigaddset(&block, sig);
  }
  pthread_sigmask(SIG_BLOCK, &block, &old);
  pthread_t thread;
  int rc = pthread_create(&thread, &attr, TevdTraceServeMain, ArgOf(fd));
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    clientCount.fetch_sub(1);
    TevdLog("pthread_create failed: %s", ErrorText(rc, err, sizeof err));
    close(fd);
  }
  return 0;
}

int TevdTrace_ClientCount(void) { return clientCount.load(std::memory_order_relaxed); }

void TevdTrace_Record(const char *direction, uint64_t timeStamp, const char *id, const void *args,
                      size_t argsSize, int numArgs) {
  std::string line;
  if (!BuildLine(direction, timeStamp, id, args, argsSize, numArgs, &line)) {
    return;
  }
  int cutOff[kMaxClients];
  int numCutOff = 0;
  size_t max = PendingMax();
  traceMutex.lock();
  for (auto &entry : listeners) {
    Listener &l = entry.second;
    if (l.closing) {
      continue;
    }
    if (l.pendingBytes + line.size() > max) {
      // Shutting the socket down wakes both of its threads; the serving
      // thread then removes the entry and closes the descriptor.
      std::vector<std::string>().swap(l.pending);
      l.pendingBytes = 0;
      l.closing = true;
      l.overflowed = true;
      shutdown(entry.first, SHUT_RDWR);
      if (numCutOff < kMaxClients) {
        cutOff[numCutOff++] = entry.first;
      }
      continue;
    }
    l.pending.push_back(line);
    l.pendingBytes += line.size();
  }
  historySize += line.size();
  history.push_back(std::move(line));  // the history keeps the one built
  // Keep at most 128 KiB, but never drop the newest line.
  while (historySize > TEVD_TRACE_HISTORY_MAX && history.size() > 1) {
    historySize -= history.front().size();
    history.pop_front();
  }
  traceMutex.unlock();
  pthread_cond_broadcast(&traceUpdated);
  for (int i = 0; i < numCutOff; i++) {
    TevdLog("Trace client fd %d disconnected: more than %zu bytes waiting for it.\n", cutOff[i],
            max);
  }
}

namespace {

// The end of a client: no writer uses its descriptor any more.
void ForgetClient(int fd) {
  traceMutex.lock();
  listeners.erase(fd);
  traceMutex.unlock();
  close(fd);
  clientCount.fetch_sub(1);
}

}  // namespace

void *TevdTraceServeMain(void *arg) {
  int fd = FdOf(arg);
  traceMutex.lock();
  Listener &listener = listeners[fd];
  listener.pending.insert(listener.pending.end(), history.begin(), history.end());
  listener.pending.push_back("\n");  // separates the replay from live lines
  listener.pendingBytes = historySize + 1;
  traceMutex.unlock();

  pthread_t writer;
  int rc = pthread_create(&writer, nullptr, TevdTraceWriter, arg);
  if (rc != 0) {
    char err[128];
    TevdLog("pthread_create failed: %s", ErrorText(rc, err, sizeof err));
    ForgetClient(fd);
    return nullptr;
  }

  // Clients send nothing meaningful: read and discard until the hang-up.
  for (;;) {
    struct pollfd pfd = {fd, POLLIN, 0};
    if (poll(&pfd, 1, -1) < 0 && errno == EINTR) {
      continue;
    }
    char byte;
    if (read(fd, &byte, 1) <= 0) {
      break;
    }
  }

  traceMutex.lock();
  listeners[fd].closing = true;
  traceMutex.unlock();
  pthread_cond_broadcast(&traceUpdated);
  pthread_join(writer, nullptr);
  ForgetClient(fd);
  return nullptr;
}

void *TevdTraceWriter(void *arg) {
  int fd = FdOf(arg);
  for (;;) {
    std::vector<std::string> lines;
    traceMutex.lock();
    for (;;) {
      Listener &listener = listeners[fd];
      if (listener.overflowed) {
        traceMutex.unlock();
        return nullptr;
      }
      lines.swap(listener.pending);
      listener.pendingBytes = 0;
      if (!lines.empty()) {
        break;
      }
      if (listener.closing) {
        traceMutex.unlock();
        return nullptr;
      }
      traceMutex.Wait(&traceUpdated);
    }
    traceMutex.unlock();

    for (const std::string &line : lines) {
      if (!WriteAll(fd, line)) {
        // Clients that go away with unread data yield ECONNRESET: churn of
        // them must not flood the log.
        uint64_t skipped = 0;
        if (errno != EPIPE && TevdLog_Allow(&writeErrorLimiter, &skipped)) {
          char err[128];
          const char *text = ErrorText(errno, err, sizeof err);
          if (skipped == 0) {
            TevdLog("Unexpected write error %s", text);
          } else {
            TevdLog("Unexpected write error %s (%llu more since the last report)", text,
                    static_cast<unsigned long long>(skipped));
          }
        }
        return nullptr;
      }
    }
  }
}
