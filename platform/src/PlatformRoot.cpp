// The root prefix (TEVD_ROOT), host-model file access and the log sink. Every
// path of the emulated platform is built here so that daemons with different
// roots never meet. Nothing here caches: the host model is read at each call.
#include "PlatformRoot.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "PlatformInternal.h"
#include "TevClock.h"

namespace {

std::string RootDir() {
  const char *root = getenv("TEVD_ROOT");
  if (root == nullptr || root[0] == '\0') {
    return "";
  }
  std::string r(root);
  while (r.size() > 1 && r.back() == '/') {
    r.pop_back();
  }
  return r == "/" ? "" : r;
}

}  // namespace

std::string PlatformRoot_Path(const std::string &absolute) {
  std::string root = RootDir();
  if (root.empty()) {
    return absolute;
  }
  if (absolute.empty() || absolute[0] != '/') {
    return root + "/" + absolute;
  }
  return root + absolute;
}

int PlatformRoot_MakeDirs(const std::string &path) {
  if (path.empty()) {
    return EINVAL;
  }
  std::string partial;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == std::string::npos) {
      slash = path.size();
    }
    partial = path.substr(0, slash);
    pos = slash + 1;
    if (partial.empty()) {
      continue;
    }
    if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
      return errno;
    }
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    return errno;
  }
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

std::string PlatformModel_EscapeName(const std::string &name) {
  // "." and ".." would leave the model's directory: spell their dots out too.
  if (name == "." || name == "..") {
    std::string out;
    for (size_t i = 0; i < name.size(); i++) {
      out += "%2E";
    }
    return out;
  }
  std::string out;
  for (char c : name) {
    if (c == '/') {
      out += "%2F";
    } else {
      out += c;
    }
  }
  return out;
}

std::string PlatformModel_Path(const std::string &relative) {
  return PlatformRoot_Path("/platform/" + relative);
}

bool PlatformModel_Read(const std::string &relative, std::string *value) {
  std::string content;
  if (!platform_internal::ReadFile(PlatformModel_Path(relative), &content)) {
    return false;
  }
  if (value != nullptr) {
    *value = platform_internal::TrimValue(content);
  }
  return true;
}

bool PlatformModel_Write(const std::string &relative, const std::string &value) {
  // No directory is created: writing into an absent node is the call's failure.
  std::string path = PlatformModel_Path(relative);
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    return false;
  }
  std::string line = value + "\n";
  size_t done = 0;
  while (done < line.size()) {
    ssize_t n = write(fd, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return close(fd) == 0;
}

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
  int n = snprintf(addr->sun_path, sizeof addr->sun_path, "%.*s/dev/log", static_cast<int>(len), root);
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
    h.len = snprintf(h.text, sizeof h.text, "<14>%s %2d %02d:%02d:%02d tevd: ",
                     kMonths[tm.tm_mon % 12], tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
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

// One unconnected datagram socket for the whole process, made on first use
// and shared by every thread: concurrent sendto() calls on it are atomic per
// datagram, and the address given with each line keeps the old behaviour
// exactly (the collector is looked up anew per line, one that went away or
// was replaced is simply found or missed). A plain int with atomic builtins,
// not a C++ object, for the reason given below.
int logFd = -1;

int LogSocket() {
  int fd = __atomic_load_n(&logFd, __ATOMIC_ACQUIRE);
  if (fd >= 0) {
    return fd;
  }
  fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return -1;
  }
  // A collector that falls behind fills its queue (ten datagrams by default):
  // wait a little for it rather than lose lines. One that lets a wait run
  // out is taken as stopped (see SendLine) and costs no more waiting.
  struct timeval timeout = {0, 250000};
  (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  int expected = -1;
  if (!__atomic_compare_exchange_n(&logFd, &expected, fd, false, __ATOMIC_ACQ_REL,
                                   __ATOMIC_ACQUIRE)) {
    close(fd);   // another thread made one first
    return expected;
  }
  return fd;
}

// Forgets a shared socket that is no longer ours (closed behind our back).
void DropLogSocket(int fd) {
  int expected = fd;
  if (__atomic_compare_exchange_n(&logFd, &expected, -1, false, __ATOMIC_ACQ_REL,
                                  __ATOMIC_ACQUIRE)) {
    close(fd);
  }
}

// Set when a wait for room in the collector's queue ran out: from then on
// lines that find the queue full are dropped at once and counted, until a
// send goes through again. Plain integers with atomic builtins (see below).
int collectorStalled = 0;
unsigned long long droppedLines = 0;

// Tells the collector, once it takes lines again, how many it missed.
void ReportDropped(int fd, const struct sockaddr_un *addr) {
  unsigned long long n = __atomic_exchange_n(&droppedLines, 0, __ATOMIC_ACQ_REL);
  if (n == 0) {
    return;
  }
  char line[128];
  int head = LogHeadText(line, sizeof line);
  if (head < 0) {
    return;
  }
  int len = snprintf(line + head, sizeof line - static_cast<size_t>(head),
                     "%llu log lines dropped\n", n);
  // The collector has just taken a line, so the report may wait for room
  // (bounded by the socket's send time-out): sent without waiting it could
  // find the queue refilled by that line and stay unreported while the
  // daemon is quiet.
  if (len > 0 &&
      sendto(fd, line, static_cast<size_t>(head + len), MSG_NOSIGNAL,
             reinterpret_cast<const struct sockaddr *>(addr), sizeof *addr) < 0) {
    __atomic_add_fetch(&droppedLines, n, __ATOMIC_ACQ_REL);   // still full: report later
  }
}

void SendLine(const char *datagram, size_t size, const struct sockaddr_un *addr) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    int fd = LogSocket();
    if (fd < 0) {
      return;
    }
    bool stalled = __atomic_load_n(&collectorStalled, __ATOMIC_ACQUIRE) != 0;
    int flags = MSG_NOSIGNAL | (stalled ? MSG_DONTWAIT : 0);
    if (sendto(fd, datagram, size, flags, reinterpret_cast<const struct sockaddr *>(addr),
               sizeof *addr) >= 0) {
      if (stalled) {
        __atomic_store_n(&collectorStalled, 0, __ATOMIC_RELEASE);
      }
      if (__atomic_load_n(&droppedLines, __ATOMIC_ACQUIRE) != 0) {
        ReportDropped(fd, addr);
      }
      return;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      // Full after the wait, or full while taken as stopped: dropped, counted.
      __atomic_store_n(&collectorStalled, 1, __ATOMIC_RELEASE);
      __atomic_add_fetch(&droppedLines, 1, __ATOMIC_ACQ_REL);
      return;
    }
    if (errno != EBADF && errno != ENOTSOCK) {
      return;   // no collector, ...: dropped silently
    }
    DropLogSocket(fd);
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
  struct sockaddr_un addr;   // every queued line goes to this collector
  size_t offset[kLines];
  size_t length[kLines];
  char bytes[kBytes];
};

thread_local LineQueue lineQueue;

// Sends the queued lines with as few sendmmsg() calls as the collector
// allows. A line the socket refuses is dropped, as one sendto() would have
// dropped it, and the rest still go.
void SendQueued(LineQueue &q) {
  struct mmsghdr msgs[LineQueue::kLines];
  struct iovec iovs[LineQueue::kLines];
  memset(msgs, 0, sizeof msgs);
  for (unsigned i = 0; i < q.count; ++i) {
    iovs[i].iov_base = q.bytes + q.offset[i];
    iovs[i].iov_len = q.length[i];
    msgs[i].msg_hdr.msg_name = &q.addr;
    msgs[i].msg_hdr.msg_namelen = sizeof q.addr;
    msgs[i].msg_hdr.msg_iov = &iovs[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  unsigned done = 0;
  bool retried = false;
  while (done < q.count) {
    int fd = LogSocket();
    if (fd < 0) {
      break;
    }
    bool stalled = __atomic_load_n(&collectorStalled, __ATOMIC_ACQUIRE) != 0;
    int n = sendmmsg(fd, msgs + done, q.count - done, MSG_NOSIGNAL | (stalled ? MSG_DONTWAIT : 0));
    if (n > 0) {
      done += static_cast<unsigned>(n);
      if (stalled) {
        __atomic_store_n(&collectorStalled, 0, __ATOMIC_RELEASE);
      }
      if (__atomic_load_n(&droppedLines, __ATOMIC_ACQUIRE) != 0) {
        ReportDropped(fd, &q.addr);
      }
      continue;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      // As in SendLine: the rest of the batch is dropped and counted at once,
      // not one wait per line.
      __atomic_store_n(&collectorStalled, 1, __ATOMIC_RELEASE);
      __atomic_add_fetch(&droppedLines, q.count - done, __ATOMIC_ACQ_REL);
      break;
    }
    if ((errno == EBADF || errno == ENOTSOCK) && !retried) {
      retried = true;
      DropLogSocket(fd);
      continue;
    }
    ++done;   // no collector, ...: dropped silently
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
    return false;   // sent on its own, after the lines before it
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

// The daemon cancels its agents at exit, and sendto() here is a
// cancellation point where a busy agent is often stopped. The function holds
// no object with a destructor (plain buffers and malloc only), so such a
// stop unwinds nothing of ours and stays cheap and safe, whichever way the
// program that links this library cancels its threads.
//
// Cost per line in the common case: the formatting into a stack buffer and
// one sendto(), or, on a batching thread, a copy into its queue and a share
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

bool ReadFile(const std::string &path, std::string *content) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    close(fd);
    return false;
  }
  std::string out;
  char chunk[4096];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      close(fd);
      return false;
    }
    if (n == 0) {
      break;
    }
    out.append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  *content = out;
  return true;
}

std::string TrimValue(const std::string &value) {
  size_t end = value.size();
  while (end > 0 && (value[end - 1] == '\n' || value[end - 1] == '\r')) {
    end--;
  }
  return value.substr(0, end);
}

namespace {
std::string StripBlanks(const std::string &text) {
  size_t b = 0;
  size_t e = text.size();
  while (b < e && isspace(static_cast<unsigned char>(text[b]))) b++;
  while (e > b && isspace(static_cast<unsigned char>(text[e - 1]))) e--;
  return text.substr(b, e - b);
}
}  // namespace

bool ParseInt64(const std::string &text, int64_t *value) {
  std::string t = StripBlanks(text);
  if (t.empty()) {
    return false;
  }
  errno = 0;
  char *end = nullptr;
  long long v = strtoll(t.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') {
    return false;
  }
  *value = v;
  return true;
}

bool ParseUint64(const std::string &text, uint64_t *value) {
  std::string t = StripBlanks(text);
  if (t.empty() || t[0] == '-') {
    return false;
  }
  errno = 0;
  char *end = nullptr;
  unsigned long long v = strtoull(t.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0') {
    return false;
  }
  *value = v;
  return true;
}

}  // namespace platform_internal
