// End-to-end measurements of the real tevd, observed only from outside:
//   ingest  - N observations over K asynchronous contexts (blocking datagram
//             sends, one sender thread per context), timed until the N-th
//             observation line arrives at the root's dev/log;
//   floor   - the same input through a minimal child process doing only the
//             unavoidable work (receive, one pipe write, read on another
//             thread, one log datagram), timed the same way;
//   latency - observation sent -> qprob event received by a listener on the
//             root's marshd-qprob.sock, for a direct translation, closed loop,
//             1000 events per daemon run (the posting rate limit) over several
//             runs;
//   memory  - tevd's VmRSS idle, sampled under load, after the run, and with a
//             trace client attached.
// Results are printed as "RESULT key value" lines for bench/run.sh.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "MsgFmt.h"
#include "PlatformSocket.h"
#include "Qprob.h"
#include "TevRecord.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> roots;  // removed at the end of the run

struct Options {
  long n = 1000000;
  int contexts = 4;
  int latencyRuns = 10;
  int latencyPerRun = 1000;
  std::string tevd = "apps/tevd/tevd";
  std::string tevctl = "tools/tevctl/tevctl";
};

[[noreturn]] void Die(const std::string &why) {
  fprintf(stderr, "ingest: %s\n", why.c_str());
  exit(1);
}

void Result(const char *key, double value) { printf("RESULT %s %.6g\n", key, value); }

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

std::string MakeRoot(const char *tag) {
  std::string tmpl = std::string("/tmp/tevd-bench-") + tag + "-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    Die("mkdtemp failed");
  }
  roots.push_back(buf.data());
  return buf.data();
}

void MakeDirs(const std::string &path) {
  std::string cmd = "mkdir -p '" + path + "'";
  if (system(cmd.c_str()) != 0) {
    Die("cannot create " + path);
  }
}

// Stream sockets listen (backlog 64) as well.
int BindSocket(const std::string &path, int type) {
  int fd = PlatformSocket_Listen(path, type);
  if (fd < 0) {
    Die("cannot bind " + path + ": " + strerror(errno));
  }
  return fd;
}

std::string EndpointPath(const std::string &root, PlatformEndpoint endpoint, int domain = 0) {
  return PlatformEndpoint_PathUnder(root, endpoint, static_cast<uint32_t>(domain));
}

// ---- corpus -------------------------------------------------------------------
// Mixed log-only domains, 1 to 4 arguments of mixed types, distinct values.
std::vector<std::vector<uint8_t>> BuildCorpus(size_t distinct) {
  struct Shape {
    const char *id;
    const char *message;
  };
  static const Shape kShapes[] = {
      {"tev.hardware.mce.corrected", "CPU %d bank %u corrected error status %s count %ld"},
      {"tev.cpu.thermal.throttle", "CPU %d throttled at %u degrees"},
      {"tev.vm.heartbeat.lost", "VM %s lost its heartbeat"},
      {"tev.uw.process.crash", "Process %s (pid %d) crashed with signal %d"},
      {"tev.swap.usage.high", "Swap usage %u%% on %s"},
      {"tev.migrate.precopy.slow", "Precopy of %s: %ld pages, %u iterations, %s"},
  };
  std::vector<std::vector<uint8_t>> out;
  for (size_t i = 0; i < distinct; ++i) {
    const Shape &s = kShapes[i % (sizeof kShapes / sizeof kShapes[0])];
    int k = static_cast<int>(i);
    std::string name = "obj-" + std::to_string(k);
    std::vector<MsgFmt_Value> args;
    switch (i % 6) {
      case 0:
        args = {MsgFmt_Value::I32(k % 64), MsgFmt_Value::U32(7), MsgFmt_Value::Str("0xbe00" + name),
                MsgFmt_Value::I64(k)};
        break;
      case 1: args = {MsgFmt_Value::I32(k % 64), MsgFmt_Value::U32(90)}; break;
      case 2: args = {MsgFmt_Value::Str("vm-" + name)}; break;
      case 3:
        args = {MsgFmt_Value::Str("/bin/" + name), MsgFmt_Value::I32(k), MsgFmt_Value::I32(11)};
        break;
      case 4: args = {MsgFmt_Value::U32(93), MsgFmt_Value::Str("datastore-" + name)}; break;
      default:
        args = {MsgFmt_Value::Str(name), MsgFmt_Value::I64(k * 4096L), MsgFmt_Value::U32(12),
                MsgFmt_Value::Str("converging")};
        break;
    }
    out.push_back(TevRecord_Encode(s.id, s.message, 1700000000000000ull + i, args));
  }
  return out;
}

// ---- the observation-line collector at dev/log ----------------------------------
class LogCounter {
 public:
  explicit LogCounter(const std::string &root) {
    fd_ = BindSocket(EndpointPath(root, PlatformEndpoint::LogCollector), SOCK_DGRAM);
    int big = 4 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    thread_ = std::thread([this] { Run(); });
  }
  ~LogCounter() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  long Observations() const { return observations_.load(); }
  long Lines() const { return lines_.load(); }
  // Waits until `target` observation lines arrived; false when none came for
  // `stallSeconds`.
  bool WaitFor(long target, double stallSeconds, Clock::time_point *last) {
    long seen = -1;
    Clock::time_point progress = Clock::now();
    for (;;) {
      long now = observations_.load();
      if (now >= target) {
        *last = lastAt();
        return true;
      }
      if (now != seen) {
        seen = now;
        progress = Clock::now();
      } else if (Seconds(progress, Clock::now()) > stallSeconds) {
        *last = lastAt();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }

 private:
  Clock::time_point lastAt() {
    std::lock_guard<std::mutex> g(m_);
    return last_;
  }
  void Run() {
    char buf[8192];
    while (!stop_) {
      pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) {
        continue;
      }
      for (;;) {
        ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n <= 0) {
          break;
        }
        lines_.fetch_add(1, std::memory_order_relaxed);
        // "[NameCorrelator] TSus: [tev.id] message"
        // (the latency probe's tev.net lines are not part of the corpus)
        if (memmem(buf, static_cast<size_t>(n), "us: [tev.", 9) != nullptr &&
            memmem(buf, static_cast<size_t>(n), "us: [tev.net.", 13) == nullptr) {
          observations_.fetch_add(1, std::memory_order_relaxed);
          std::lock_guard<std::mutex> g(m_);
          last_ = Clock::now();
        }
      }
    }
  }
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<long> observations_{0};
  std::atomic<long> lines_{0};
  std::mutex m_;
  Clock::time_point last_;
  std::thread thread_;
};

// ---- processes ----------------------------------------------------------------------
pid_t Spawn(const std::string &root, const std::vector<std::string> &argv) {
  pid_t pid = fork();
  if (pid == 0) {
    std::string out = root + "/" + "child.out";
    if (!freopen(out.c_str(), "a", stdout) || !freopen(out.c_str(), "a", stderr)) {
      _exit(126);
    }
    setenv("TEVD_ROOT", root.c_str(), 1);
    std::vector<char *> args;
    for (const std::string &a : argv) {
      args.push_back(const_cast<char *>(a.c_str()));
    }
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

int RunAndWait(const std::string &root, const std::vector<std::string> &argv) {
  pid_t pid = Spawn(root, argv);
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

void Stop(pid_t pid) {
  kill(pid, SIGTERM);
  for (int i = 0; i < 500; ++i) {
    int st = 0;
    if (waitpid(pid, &st, WNOHANG) == pid) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

long RssKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) {
      return std::stol(line.substr(6));
    }
  }
  return -1;
}

// utime + stime of a process (and its threads), in seconds.
double CpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t close = all.rfind(')');
  if (close == std::string::npos) {
    return 0;
  }
  std::istringstream rest(all.substr(close + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; rest >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) {
      stime = std::stoull(field);
      break;
    }
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string AsyncPath(const std::string &root, int domain) {
  return EndpointPath(root, PlatformEndpoint::AsyncContext, domain);
}

bool WaitForFile(const std::string &path, double seconds) {
  auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (Clock::now() < end) {
    if (access(path.c_str(), F_OK) == 0) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

pid_t StartTevd(const Options &o, const std::string &root) {
  const std::string user = EndpointPath(root, PlatformEndpoint::UserContext);
  unlink(user.c_str());
  pid_t pid = Spawn(root, {o.tevd});
  if (!WaitForFile(user, 10)) {
    Die("tevd did not open its contexts under " + root);
  }
  // The agents subscribe right after the contexts open.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  return pid;
}

int ConnectDgram(const std::string &path) {
  int fd = PlatformSocket_Connect(path, SOCK_DGRAM);
  if (fd < 0) {
    Die("cannot connect to " + path + ": " + strerror(errno));
  }
  return fd;
}

// Sends that found their context's queue full, over the last SendAll.
std::atomic<long> fullQueueSends{0};

// K sender threads, thread t sending records t, t+K, ... with blocking sends.
void SendAll(const std::string &root, const Options &o,
             const std::vector<std::vector<uint8_t>> &corpus) {
  std::vector<std::thread> senders;
  for (int t = 0; t < o.contexts; ++t) {
    senders.emplace_back([&, t] {
      int fd = ConnectDgram(AsyncPath(root, t));
      for (long i = t; i < o.n; i += o.contexts) {
        const std::vector<uint8_t> &r = corpus[static_cast<size_t>(i) % corpus.size()];
        // A first try without waiting tells whether the context's queue was
        // full (the daemon behind); the send then waits as before.
        if (send(fd, r.data(), r.size(), MSG_DONTWAIT) >= 0) {
          continue;
        }
        if (errno == EAGAIN) {
          fullQueueSends.fetch_add(1, std::memory_order_relaxed);
        }
        while (send(fd, r.data(), r.size(), 0) < 0) {
          if (errno != EINTR && errno != EAGAIN) {
            Die(std::string("send failed: ") + strerror(errno));
          }
        }
      }
      close(fd);
    });
  }
  for (std::thread &s : senders) {
    s.join();
  }
}

// Counts a process's system calls (every thread) over a span with
// `perf stat -e raw_syscalls:sys_enter -p PID`; -1 when perf cannot.
class SyscallCounter {
 public:
  explicit SyscallCounter(pid_t pid) {
    char tmpl[] = "/tmp/tevd-bench-perf-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) return;
    close(fd);
    out_ = tmpl;
    perf_ = fork();
    if (perf_ == 0) {
      int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, 1);
      dup2(devnull, 2);
      std::string p = std::to_string(pid);
      execlp("perf", "perf", "stat", "-x", ",", "-e", "raw_syscalls:sys_enter", "-o", out_.c_str(),
             "-p", p.c_str(), static_cast<char *>(nullptr));
      _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // perf attaches
  }
  // Stops counting; the number of system calls, or -1.
  double Stop() {
    if (perf_ <= 0) return -1;
    kill(perf_, SIGINT);
    int st = 0;
    waitpid(perf_, &st, 0);
    perf_ = -1;
    std::ifstream in(out_);
    std::string line;
    double n = -1;
    while (std::getline(in, line)) {
      if (line.find("raw_syscalls:sys_enter") != std::string::npos && !line.empty() &&
          isdigit(static_cast<unsigned char>(line[0]))) {
        n = std::stod(line.substr(0, line.find(',')));
      }
    }
    unlink(out_.c_str());
    return n;
  }

 private:
  pid_t perf_ = -1;
  std::string out_;
};

struct IngestFigures {
  double seconds = 0;
  long handled = 0;
  double cpuSeconds = 0;
  long fullQueueSends = 0;
  long readerSamples = 0;      // samples of the reading thread's kernel wait
  long readerInPipeWrite = 0;  // ... blocked writing to an agent's full pipe
  long readerInPoll = 0;       // ... waiting for input
  double syscalls = -1;        // system calls of every thread over the span
};

// Where a thread sleeps in the kernel ("pipe_write", "do_sys_poll", ...); ""
// while it runs.
std::string WaitChannel(pid_t pid, pid_t tid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/wchan");
  std::string w;
  std::getline(in, w);
  return w == "0" ? "" : w;
}

IngestFigures MeasureIngest(const std::string &root, pid_t pid, LogCounter &log, const Options &o,
                            const std::vector<std::vector<uint8_t>> &corpus,
                            std::vector<long> *rssSamples) {
  long before = log.Observations();
  double cpu0 = CpuSeconds(pid);
  std::atomic<bool> sampling{rssSamples != nullptr};
  std::thread sampler([&] {
    while (sampling) {
      rssSamples->push_back(RssKiB(pid));
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  // The reading thread (the process's first) is sampled every millisecond:
  // in a burst it should wait on full pipes, not on its input.
  std::atomic<bool> watching{true};
  long readerSamples = 0, inPipeWrite = 0, inPoll = 0;
  std::thread watcher([&] {
    while (watching) {
      std::string w = WaitChannel(pid, pid);
      ++readerSamples;
      if (w == "pipe_write") ++inPipeWrite;
      if (w.find("poll") != std::string::npos) ++inPoll;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  fullQueueSends = 0;
  SyscallCounter syscalls(pid);
  Clock::time_point t0 = Clock::now();
  SendAll(root, o, corpus);
  Clock::time_point last;
  bool all = log.WaitFor(before + o.n, 10, &last);
  double calls = syscalls.Stop();
  watching = false;
  watcher.join();
  sampling = false;
  sampler.join();
  IngestFigures f;
  f.fullQueueSends = fullQueueSends.load();
  f.readerSamples = readerSamples;
  f.readerInPipeWrite = inPipeWrite;
  f.readerInPoll = inPoll;
  f.syscalls = calls;
  f.handled = log.Observations() - before;
  f.seconds = Seconds(t0, last);
  f.cpuSeconds = CpuSeconds(pid) - cpu0;
  if (!all) {
    fprintf(stderr, "ingest: only %ld of %ld observations were logged\n", f.handled, o.n);
  }
  return f;
}

// ---- the floors -------------------------------------------------------------------
// Receives every datagram of K contexts (non-blocking, one poll), writes each
// whole into a pipe with its length in the same write, reads it on a second
// thread and sends one log datagram per record over a connected socket.
// Batched: the same work with the fewest system calls the path allows: up to
// kBatch datagrams per recvmmsg, one pipe write per poll pass, one large pipe
// read per wake-up on the consuming thread and its log lines sent together
// with sendmmsg before it reads again.
constexpr unsigned kBatch = 16;
constexpr size_t kFloorSlot = 64 * 1024;  // the corpus' records are far smaller

[[noreturn]] void FloorMain(const std::string &root, int contexts, bool batched) {
  std::vector<pollfd> set;
  for (int d = 0; d < contexts; ++d) {
    int fd = BindSocket(AsyncPath(root, d), SOCK_DGRAM);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    set.push_back({fd, POLLIN, 0});
  }
  int pipeFds[2];
  if (pipe(pipeFds) != 0) {
    _exit(2);
  }
  std::thread reader([&] {
    int logFd = ConnectDgram(EndpointPath(root, PlatformEndpoint::LogCollector));
    static char rec[TEV_RECORD_MAX_SIZE];
    char line[512];
    auto format = [&](const char *r, char *out, size_t size) {
      uint64_t ts = 0;
      memcpy(&ts, r + 8, sizeof ts);
      return snprintf(out, size, "<14>floor: [FloorCorrelator] %lluus: [%s]",
                      static_cast<unsigned long long>(ts), r + TEV_RECORD_HEADER_SIZE);
    };
    if (batched) {
      static char chunk[1 << 20];
      static char lines[kBatch][512];
      mmsghdr msgs[kBatch];
      iovec iovs[kBatch];
      size_t have = 0;
      for (;;) {
        ssize_t n = read(pipeFds[0], chunk + have, sizeof chunk - have);
        if (n <= 0) {
          _exit(3);
        }
        have += static_cast<size_t>(n);
        size_t off = 0;
        unsigned queued = 0;
        auto flush = [&] {
          if (queued > 0 && sendmmsg(logFd, msgs, queued, 0) < 0) {
            _exit(5);
          }
          queued = 0;
        };
        for (;;) {
          uint32_t len = 0;
          if (have - off < sizeof len) break;
          memcpy(&len, chunk + off, sizeof len);
          if (have - off < sizeof len + len) break;
          int k = format(chunk + off + sizeof len, lines[queued], sizeof lines[queued]);
          iovs[queued] = {lines[queued], static_cast<size_t>(k)};
          msgs[queued] = {};
          msgs[queued].msg_hdr.msg_iov = &iovs[queued];
          msgs[queued].msg_hdr.msg_iovlen = 1;
          if (++queued == kBatch) flush();
          off += sizeof len + len;
        }
        flush();
        memmove(chunk, chunk + off, have - off);
        have -= off;
      }
    }
    for (;;) {
      uint32_t len = 0;
      if (read(pipeFds[0], &len, sizeof len) != sizeof len || len > sizeof rec) {
        _exit(3);
      }
      size_t got = 0;
      while (got < len) {
        ssize_t n = read(pipeFds[0], rec + got, len - got);
        if (n <= 0) {
          _exit(3);
        }
        got += static_cast<size_t>(n);
      }
      int n = format(rec, line, sizeof line);
      send(logFd, line, static_cast<size_t>(n), 0);
    }
  });
  if (batched) {
    // Each slot keeps 4 bytes in front of the datagram for its length.
    std::vector<char> slots(kBatch * (4 + kFloorSlot));
    std::vector<char> out;
    mmsghdr msgs[kBatch];
    iovec iovs[kBatch];
    for (;;) {
      if (poll(set.data(), set.size(), -1) <= 0) {
        continue;
      }
      out.clear();
      for (pollfd &p : set) {
        if ((p.revents & POLLIN) == 0) {
          continue;
        }
        for (;;) {
          for (unsigned i = 0; i < kBatch; ++i) {
            iovs[i] = {slots.data() + i * (4 + kFloorSlot) + 4, kFloorSlot};
            msgs[i] = {};
            msgs[i].msg_hdr.msg_iov = &iovs[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
          }
          int got = recvmmsg(p.fd, msgs, kBatch, MSG_DONTWAIT, nullptr);
          if (got <= 0) {
            break;
          }
          for (int i = 0; i < got; ++i) {
            uint32_t len = msgs[i].msg_len;
            const char *d = static_cast<const char *>(iovs[i].iov_base);
            out.insert(out.end(), reinterpret_cast<const char *>(&len),
                       reinterpret_cast<const char *>(&len) + 4);
            out.insert(out.end(), d, d + len);
          }
          if (static_cast<unsigned>(got) < kBatch) {
            break;  // drained; poll tells if more came meanwhile
          }
        }
      }
      size_t done = 0;
      while (done < out.size()) {
        ssize_t w = write(pipeFds[1], out.data() + done, out.size() - done);
        if (w <= 0) {
          _exit(4);
        }
        done += static_cast<size_t>(w);
      }
    }
  }
  std::vector<char> buf(4 + TEV_RECORD_MAX_SIZE);
  for (;;) {
    if (poll(set.data(), set.size(), -1) <= 0) {
      continue;
    }
    for (pollfd &p : set) {
      if ((p.revents & POLLIN) == 0) {
        continue;
      }
      for (;;) {
        ssize_t n = recv(p.fd, buf.data() + 4, TEV_RECORD_MAX_SIZE, 0);
        if (n <= 0) {
          break;
        }
        uint32_t len = static_cast<uint32_t>(n);
        memcpy(buf.data(), &len, sizeof len);
        if (write(pipeFds[1], buf.data(), len + 4) != static_cast<ssize_t>(len + 4)) {
          _exit(4);
        }
      }
    }
  }
}

// ---- latency ------------------------------------------------------------------------
// Accepts qprob connections at the root's marshd-qprob.sock and timestamps
// each complete, decodable message.
class QprobListener {
 public:
  explicit QprobListener(const std::string &root) {
    fd_ = BindSocket(EndpointPath(root, PlatformEndpoint::QprobAgent), SOCK_STREAM);
    thread_ = std::thread([this] { Run(); });
  }
  ~QprobListener() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  // Waits for the next event; false after `seconds` without one.
  bool Next(double seconds, Clock::time_point *at, std::string *id) {
    std::unique_lock<std::mutex> g(m_);
    if (!cv_.wait_for(g, std::chrono::duration<double>(seconds),
                      [this] { return !got_.empty(); })) {
      return false;
    }
    *at = got_.front().first;
    *id = got_.front().second;
    got_.erase(got_.begin());
    return true;
  }

 private:
  void Run() {
    while (!stop_) {
      pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) {
        continue;
      }
      int c = accept(fd_, nullptr, nullptr);
      if (c < 0) {
        continue;
      }
      std::string bytes;
      char buf[4096];
      ssize_t n;
      while ((n = read(c, buf, sizeof buf)) > 0) {
        bytes.append(buf, static_cast<size_t>(n));
      }
      Clock::time_point at = Clock::now();
      close(c);
      QprobMessage msg;
      std::string why;
      std::string id =
          Qprob_Decode(bytes.data(), bytes.size(), &msg, &why) ? msg.id : "bad: " + why;
      std::lock_guard<std::mutex> g(m_);
      got_.emplace_back(at, id);
      cv_.notify_one();
    }
  }
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<std::pair<Clock::time_point, std::string>> got_;
  std::thread thread_;
};

// One direct-translation observation at a time on context `domain`, at most
// one per 10 ms (the next leaves when the event arrived and 10 ms passed),
// until `count` were sent or `stop` is set. Latencies in µs go to `us`.
void LatencyLoop(const std::string &root, int domain, QprobListener &listener, int count,
                 const std::atomic<bool> &stop, std::vector<double> *us, long *lost, long *wrong) {
  int fd = ConnectDgram(AsyncPath(root, domain));
  for (int i = 0; i < count && !stop; ++i) {
    std::string n = std::to_string(i);
    std::vector<uint8_t> rec = TevRecord_Encode(
        "tev.net.mtlnic.ip.duplicate", "Duplicate IP %s on %s, owner %s", 1700000000000000ull + i,
        {MsgFmt_Value::Str("10.0." + n), MsgFmt_Value::Str("mtlnic1"),
         MsgFmt_Value::Str("owner-" + n)});
    Clock::time_point t0 = Clock::now();
    if (send(fd, rec.data(), rec.size(), 0) != static_cast<ssize_t>(rec.size())) {
      Die("latency send failed");
    }
    Clock::time_point at;
    std::string id;
    if (!listener.Next(2.0, &at, &id)) {
      ++*lost;
      continue;
    }
    if (id != "kos.problem.net.mtlnic.ip.duplicate") {
      ++*wrong;
    }
    us->push_back(std::chrono::duration<double, std::micro>(at - t0).count());
    std::this_thread::sleep_until(t0 + std::chrono::milliseconds(10));
  }
  close(fd);
}

void LatencyResults(const char *prefix, std::vector<double> us, long lost, long wrong) {
  std::sort(us.begin(), us.end());
  auto pct = [&](double q) {
    return us.empty() ? 0.0
                      : us[std::min(us.size() - 1,
                                    static_cast<size_t>(q * static_cast<double>(us.size())))];
  };
  std::string k = prefix;
  Result((k + "events").c_str(), static_cast<double>(us.size()));
  Result((k + "lost").c_str(), static_cast<double>(lost));
  Result((k + "wrong_id").c_str(), static_cast<double>(wrong));
  Result((k + "p50_us").c_str(), pct(0.50));
  Result((k + "p99_us").c_str(), pct(0.99));
  Result((k + "max_us").c_str(), us.empty() ? 0.0 : us.back());
}

void MeasureLatency(const Options &o) {
  std::string root = MakeRoot("latency");
  if (RunAndWait(root, {o.tevctl, "host", "init"}) != 0) {
    Die("tevctl host init failed");
  }
  LogCounter log(root);  // keeps the daemon's log lines off the system log
  QprobListener listener(root);
  std::vector<double> us;
  long lost = 0, wrong = 0;
  std::atomic<bool> never{false};
  for (int run = 0; run < o.latencyRuns; ++run) {
    pid_t pid = StartTevd(o, root);
    LatencyLoop(root, 0, listener, o.latencyPerRun, never, &us, &lost, &wrong);
    Stop(pid);
  }
  Result("latency_runs", o.latencyRuns);
  LatencyResults("latency_", us, lost, wrong);
}

// ---- ingest, floor and memory ------------------------------------------------------------
void MeasureIngestAndFloor(const Options &o) {
  std::vector<std::vector<uint8_t>> corpus = BuildCorpus(600);
  size_t bytes = 0;
  for (const auto &r : corpus) {
    bytes += r.size();
  }
  Result("corpus_mean_record_bytes",
         static_cast<double>(bytes) / static_cast<double>(corpus.size()));

  // The floors first, each on its own root.
  for (bool batched : {false, true}) {
    std::string root = MakeRoot(batched ? "floor-batched" : "floor");
    LogCounter log(root);
    MakeDirs(root + "/var/run/orlan/tev");
    pid_t pid = fork();
    if (pid == 0) {
      FloorMain(root, o.contexts, batched);
    }
    if (!WaitForFile(AsyncPath(root, o.contexts - 1), 5)) {
      Die("floor did not start");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    IngestFigures f = MeasureIngest(root, pid, log, o, corpus, nullptr);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    std::string k = batched ? "floor_batched_" : "floor_";
    Result((k + "handled").c_str(), static_cast<double>(f.handled));
    Result((k + "seconds").c_str(), f.seconds);
    Result((k + "obs_per_s").c_str(), static_cast<double>(f.handled) / f.seconds);
    Result((k + "cpu_us_per_obs").c_str(), f.cpuSeconds * 1e6 / static_cast<double>(f.handled));
    Result((k + "full_queue_sends").c_str(), static_cast<double>(f.fullQueueSends));
    Result((k + "syscalls_per_obs").c_str(), f.syscalls / static_cast<double>(f.handled));
  }

  std::string root = MakeRoot("ingest");
  if (RunAndWait(root, {o.tevctl, "host", "init"}) != 0) {
    Die("tevctl host init failed");
  }
  LogCounter log(root);
  pid_t pid = StartTevd(o, root);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  Result("rss_idle_kib", static_cast<double>(RssKiB(pid)));
  std::vector<long> samples;
  // Latency under load: the direct translation on a context of its own while
  // the ingest corpus floods the others.
  QprobListener listener(root);
  std::atomic<bool> loaded{false};
  std::vector<double> loadUs;
  long loadLost = 0, loadWrong = 0;
  std::thread prober([&] {
    LatencyLoop(root, o.contexts, listener, 1000, loaded, &loadUs, &loadLost, &loadWrong);
  });
  IngestFigures f = MeasureIngest(root, pid, log, o, corpus, &samples);
  loaded = true;
  prober.join();
  LatencyResults("load_latency_", loadUs, loadLost, loadWrong);
  Result("tevd_handled", static_cast<double>(f.handled));
  Result("tevd_seconds", f.seconds);
  Result("tevd_obs_per_s", static_cast<double>(f.handled) / f.seconds);
  Result("tevd_cpu_us_per_obs", f.cpuSeconds * 1e6 / static_cast<double>(f.handled));
  Result("tevd_full_queue_sends", static_cast<double>(f.fullQueueSends));
  Result("tevd_reader_samples", static_cast<double>(f.readerSamples));
  Result("tevd_reader_in_pipe_write", static_cast<double>(f.readerInPipeWrite));
  Result("tevd_reader_in_poll", static_cast<double>(f.readerInPoll));
  Result("tevd_syscalls_per_obs", f.syscalls / static_cast<double>(f.handled));
  if (!samples.empty()) {
    size_t q = samples.size() / 4;
    Result("rss_load_first_quarter_max_kib",
           static_cast<double>(*std::max_element(
               samples.begin(), samples.begin() + static_cast<long>(std::max<size_t>(q, 1)))));
    Result("rss_load_max_kib",
           static_cast<double>(*std::max_element(samples.begin(), samples.end())));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  Result("rss_after_kib", static_cast<double>(RssKiB(pid)));

  // A trace client: connect, take the history replay and stay attached.
  int tfd = PlatformSocket_Connect(EndpointPath(root, PlatformEndpoint::Trace), SOCK_STREAM);
  if (tfd < 0) {
    Die("cannot attach a trace client");
  }
  std::atomic<bool> tracing{true};
  std::atomic<long> traceBytes{0};
  std::thread drain([&] {
    char buf[65536];
    while (tracing) {
      pollfd p = {tfd, POLLIN, 0};
      if (poll(&p, 1, 50) > 0) {
        ssize_t n = read(tfd, buf, sizeof buf);
        if (n <= 0) break;
        traceBytes += n;
      }
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  Result("rss_trace_client_kib", static_cast<double>(RssKiB(pid)));
  Result("trace_history_bytes", static_cast<double>(traceBytes.load()));
  tracing = false;
  drain.join();
  close(tfd);
  Stop(pid);
}

}  // namespace

int main(int argc, char **argv) {
  Options o;
  bool ingest = true, latency = true;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) Die("missing value for " + a);
      return argv[++i];
    };
    if (a == "--n") o.n = std::stol(value());
    else if (a == "--contexts") o.contexts = std::stoi(value());
    else if (a == "--latency-runs") o.latencyRuns = std::stoi(value());
    else if (a == "--latency-per-run") o.latencyPerRun = std::stoi(value());
    else if (a == "--tevd") o.tevd = value();
    else if (a == "--tevctl") o.tevctl = value();
    else if (a == "--no-latency") latency = false;
    else if (a == "--no-ingest") ingest = false;
    else if (a == "--serve-batched-floor") {
      // Stands in for tevd under $TEVD_ROOT (bench/sec.sh): the batched floor
      // on the first context, the user context bound last as the ready sign.
      const char *root = getenv("TEVD_ROOT");
      if (root == nullptr) Die("--serve-batched-floor needs TEVD_ROOT");
      std::thread ready([root] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        BindSocket(EndpointPath(root, PlatformEndpoint::UserContext), SOCK_STREAM);
      });
      ready.detach();
      FloorMain(root, 1, true);
    } else
      Die("unknown option " + a +
          " (--n N --contexts K --latency-runs R --latency-per-run M --tevd P --tevctl P"
          " --no-latency --no-ingest --serve-batched-floor)");
  }
  if (o.contexts < 1 || o.contexts > 21 || o.n < 1 || o.latencyPerRun > 1000) {
    Die("bad option value");
  }
  signal(SIGPIPE, SIG_IGN);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Result("n", static_cast<double>(o.n));
  Result("contexts", o.contexts);
  if (ingest) MeasureIngestAndFloor(o);
  if (latency) MeasureLatency(o);
  for (const std::string &r : roots) {
    std::string cmd = "rm -rf '" + r + "'";
    if (system(cmd.c_str()) != 0) {
      fprintf(stderr, "ingest: could not remove %s\n", r.c_str());
    }
  }
  return 0;
}
