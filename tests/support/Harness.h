// The one harness of the tests that meet the daemon from outside; every wait has a deadline.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PlatformSocket.h"
#include "Qprob.h"
#include "QprobReceive.h"
#include "TevdTestSupport.h"

namespace tevdtest {

// A root with every host-model entry the daemon reads at start.
inline void MakeHost(const ScratchRoot &root) {
  root.Write("platform/nodes/system/systemUuid", "6f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
  root.Write("platform/options/Net/LinkFlappingThreshold", "3");
  root.Write("platform/options/PageRetire/ThresholdInterval", "10");
  root.Write("platform/options/PageRetire/ApeiLoggingEnabled", "1");
  root.Write("platform/options/Misc/TevAsyncEnable", "0");
  root.Write("platform/nodes/system/pageRetire/threshold", "1000");
  root.MakeDir("kfs/volumes");
}

// Senders block while the daemon is behind (the back-pressure under test), never for ever.
inline int ConnectTo(const std::string &path, int type) {
  struct timeval tv = {30, 0};
  return PlatformSocket_Connect(path, type, &tv);
}
inline int ConnectUser(const ScratchRoot &root) {
  return ConnectTo(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext),
                   SOCK_SEQPACKET);
}
inline int ConnectTrace(const ScratchRoot &root) {
  return ConnectTo(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace), SOCK_STREAM);
}
// A connected datagram socket on asynchronous context `domain` (0..21).
inline int ConnectAsync(const ScratchRoot &root, int domain) {
  return ConnectTo(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::AsyncContext,
                                              static_cast<uint32_t>(domain)),
                   SOCK_DGRAM);
}

inline bool SendRecord(int fd, const std::vector<uint8_t> &r) {
  ssize_t n;
  while ((n = send(fd, r.data(), r.size(), MSG_NOSIGNAL)) < 0 && errno == EINTR) {}
  return n == static_cast<ssize_t>(r.size());
}

// Sanitizer builds, 5 to 20 times slower, run the same code paths at a fraction of the volume.
#if defined(__SANITIZE_THREAD__)
inline int Scaled(int normal) { return normal / 10; }
#elif defined(__SANITIZE_ADDRESS__)
inline int Scaled(int normal) { return normal / 4; }
#else
inline int Scaled(int normal) { return normal; }
#endif

// Polls `done` every 5 ms until it holds or `timeoutMs` passed.
inline bool Eventually(const std::function<bool()> &done, int timeoutMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

inline std::string Slurp(const std::string &path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline bool PathExists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

inline size_t CountOccurrences(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
  return n;
}

// A binary under test, from the variable ctest sets.
inline std::string BinaryPath(const char *env, const char *fallback) {
  const char *p = getenv(env);
  return p != nullptr && *p != '\0' ? p : fallback;
}
inline std::string TevdBin() { return BinaryPath("TEVD_BIN", "apps/tevd/tevd"); }
inline std::string TevdSelftestBin() {
  return BinaryPath("TEVD_SELFTEST_BIN", "apps/tevd/tevd-selftest");
}
inline std::string TevctlBin() { return BinaryPath("TEVCTL_BIN", "tools/tevctl/tevctl"); }
inline std::string TevnetBin() { return BinaryPath("TEVNET_BIN", "tools/tevnet/tevnet"); }

// A child under `root`, its output in files named after `tag` (a chatty child never blocks).
// `listenFd` >= 0 is handed over as a service manager hands a socket unit's
// socket (descriptor 3, LISTEN_FDS=1, LISTEN_PID).
class Process {
 public:
  Process(const ScratchRoot &root, const std::string &bin, std::vector<std::string> args = {},
          std::vector<std::string> env = {}, const std::string &tag = "tevd", int listenFd = -1)
      : outPath_(root.Abs(tag + ".stdout")), errPath_(root.Abs(tag + ".stderr")) {
    pid_ = fork();
    if (pid_ == 0) {
      if (!freopen(outPath_.c_str(), "w", stdout) || !freopen(errPath_.c_str(), "w", stderr)) {
        _exit(126);
      }
      if (listenFd >= 0) {
        if ((listenFd != 3 && dup2(listenFd, 3) != 3) || fcntl(3, F_SETFD, 0) != 0) _exit(125);
        setenv("LISTEN_FDS", "1", 1);
        setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
      }
      setenv("TEVD_ROOT", root.path().c_str(), 1);
      for (const std::string &e : env) putenv(strdup(e.c_str()));
      std::vector<char *> argv = {const_cast<char *>(bin.c_str())};
      for (std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
      argv.push_back(nullptr);
      execv(bin.c_str(), argv.data());
      _exit(127);
    }
    sockPath_ = PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::UserContext);
  }
  ~Process() {
    if (Running()) kill(pid_, SIGKILL), Wait(5000);
  }
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;
  pid_t pid() const { return pid_; }
  void Signal(int sig) {
    if (!exited_) kill(pid_, sig);
  }
  bool Wait(int timeoutMs) {
    return Eventually([&] { return !Running(); }, timeoutMs);
  }
  // Exit status, 128+signal, or -1 when still running after `timeoutMs` (then stopped).
  int ExitCode(int timeoutMs) {
    if (!Wait(timeoutMs)) {
      kill(pid_, SIGTERM);
      if (!Wait(1000)) kill(pid_, SIGKILL), Wait(5000);
      return -1;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
  }
  bool Running() {
    int st = 0;
    if (!exited_ && waitpid(pid_, &st, WNOHANG) == pid_) exited_ = true, status_ = st;
    return !exited_;
  }
  std::string Stdout() const { return Slurp(outPath_); }
  std::string Stderr() const { return Slurp(errPath_); }
  bool WaitStderr(const std::string &text, int timeoutMs = 5000) const {
    return Eventually([&] { return Stderr().find(text) != std::string::npos; }, timeoutMs);
  }
  // Waits until the user-level socket exists: the daemon is reading.
  bool WaitReady(int timeoutMs = 5000) {
    if (!Eventually([&] { return PathExists(sockPath_) || !Running(); }, timeoutMs) || !Running()) {
      return false;
    }
    // Agents start right after the contexts open; give them a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return true;
  }

 private:
  std::string outPath_, errPath_, sockPath_;
  pid_t pid_ = -1;
  bool exited_ = false;
  int status_ = 0;
};

class DaemonProcess : public Process {
 public:
  DaemonProcess(const ScratchRoot &root, std::vector<std::string> args = {},
                std::vector<std::string> env = {})
      : Process(root, TevdBin(), std::move(args), std::move(env)) {}
};

struct RunResult {
  int status = -1;
  std::string out, err;
};

// Runs tevctl with `args` under `root` to its end (at most `timeoutMs`).
inline RunResult RunTevctl(const ScratchRoot &root, const std::vector<std::string> &args,
                           int timeoutMs = 5000) {
  static int serial = 0;
  Process p(root, TevctlBin(), args, {}, "run" + std::to_string(++serial));
  int status = p.ExitCode(timeoutMs);
  return {status, p.Stdout(), p.Stderr()};
}

// SIGTERM, then exit status 0 within `timeoutMs` and no sanitizer report.
inline void ExpectCleanExit(Process &d, int timeoutMs = 20000) {
  d.Signal(SIGTERM);
  EXPECT_EQ(0, d.ExitCode(timeoutMs)) << d.Stderr();
  std::string err = d.Stderr();
  EXPECT_TRUE(err.find("Sanitizer") == err.npos && err.find("runtime error:") == err.npos) << err;
}

// Lines gathered by a reader thread, waited on by count of a substring.
class LineStore {
 public:
  size_t Count(const std::string &text) { return Matching(text).size(); }
  // True once at least `n` lines contain `text`.
  bool WaitCount(const std::string &text, size_t n, int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(mu_);
    size_t seen = 0, cursor = 0;
    auto enough = [&] {
      for (; cursor < lines_.size(); ++cursor)
        seen += lines_[cursor].find(text) != std::string::npos;
      return seen >= n;
    };
    while (!enough()) {
      if (cv_.wait_until(lock, end) == std::cv_status::timeout) return enough();
    }
    return true;
  }
  std::vector<std::string> Matching(const std::string &text) {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> out;
    for (const std::string &l : lines_) {
      if (l.find(text) != std::string::npos) out.push_back(l);
    }
    return out;
  }
  // The next line not yet returned, or "" after two seconds without one.
  std::string Next() {
    std::unique_lock<std::mutex> lock(mu_);
    if (!cv_.wait_for(lock, std::chrono::seconds(2), [this] { return next_ < lines_.size(); })) {
      return std::string();
    }
    return lines_[next_++];
  }
  // Skips lines until one contains `text`; "" when none came.
  std::string WaitFor(const std::string &text) {
    for (;;) {
      std::string line = Next();
      if (line.empty() || line.find(text) != std::string::npos) return line;
    }
  }

 protected:
  void AddLocked(std::string line) {
    lines_.push_back(std::move(line));
    cv_.notify_all();
  }
  void Add(std::string line) {
    std::lock_guard<std::mutex> lock(mu_);
    AddLocked(std::move(line));
  }
  std::mutex mu_;
  std::vector<std::string> lines_;

 private:
  std::condition_variable cv_;
  size_t next_ = 0;
};

// The root's system log. The daemon waits at most 250 ms for room, so a thread empties the socket;
// Take() empties it too, so a line logged before is seen. `Stopped` reads nothing until Resume().
class LogLines : public LineStore {
 public:
  enum Start { Reading, Stopped };
  explicit LogLines(const ScratchRoot &root, Start start = Reading)
      : LogLines(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::LogCollector), start) {}
  // Any datagram socket, e.g. a service manager's notification socket.
  explicit LogLines(const std::string &path, Start start = Reading) : path_(path) {
    fd_ = PlatformSocket_Listen(path_, SOCK_DGRAM);
    if (start == Reading && fd_ >= 0) {
      int big = 4 << 20;
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
      Resume();
    }
  }
  ~LogLines() {
    stop_ = true;
    if (reader_.joinable()) reader_.join();
    close(fd_);
    unlink(path_.c_str());
  }
  bool ok() const { return fd_ >= 0; }
  void Resume() {
    reading_ = true;
    reader_ = std::thread([this] {
      while (!stop_) {
        struct pollfd pfd = {fd_, POLLIN, 0};
        if (poll(&pfd, 1, 20) > 0) {
          std::lock_guard<std::mutex> lock(mu_);
          DrainLocked();
        }
      }
    });
  }
  // The text (see Text) of every line since the last call.
  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> lock(mu_);
    if (reading_) DrainLocked();
    std::vector<std::string> out;
    for (; taken_ < lines_.size(); ++taken_) out.push_back(Text(lines_[taken_]));
    return out;
  }
  // True when a line not yet taken is exactly `message` or, for SawEnding, ends with `suffix`.
  bool Saw(const std::string &message) { return Seen(Text(message), false); }
  bool SawEnding(const std::string &suffix) { return Seen(suffix, true); }
  // The lines not yet taken that are not observation or event lines ("[thread] Nus: [id] text").
  std::vector<std::string> TakeDiagnostics() {
    std::vector<std::string> out;
    for (const std::string &line : Take()) {
      if (line.empty() || line[0] != '[' || line.find("us: [") == std::string::npos) {
        out.push_back(line);
      }
    }
    return out;
  }
  // "<14>Mmm dd hh:mm:ss tevd: 2024-05-06T07:08:09.123Z: text\n" -> "text"
  static std::string Text(const std::string &datagram) {
    std::string line = datagram;
    size_t tag = line.find("tevd: ");
    if (tag != std::string::npos) line = line.substr(tag + 6);
    size_t zone = line.find("Z: ");
    if (zone != std::string::npos && zone < 32) line = line.substr(zone + 3);
    while (!line.empty() && line.back() == '\n') line.pop_back();
    return line;
  }

 private:
  bool Seen(const std::string &want, bool suffix) {
    std::lock_guard<std::mutex> lock(mu_);
    if (reading_) DrainLocked();
    for (size_t i = taken_; i < lines_.size(); ++i) {
      std::string t = Text(lines_[i]);
      size_t n = want.size();
      if (suffix ? t.size() >= n && t.compare(t.size() - n, n, want) == 0 : t == want) return true;
    }
    return false;
  }
  void DrainLocked() {
    char buf[65536];
    for (ssize_t n; (n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
      AddLocked(std::string(buf, static_cast<size_t>(n)));
    }
  }
  std::string path_;
  int fd_ = -1;
  bool reading_ = false;
  size_t taken_ = 0;
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

// A trace client that reads every line as it comes.
class TraceReader : public LineStore {
 public:
  explicit TraceReader(const ScratchRoot &root) : fd_(ConnectTrace(root)) {
    if (fd_ >= 0) reader_ = std::thread([this] { Read(); });
  }
  ~TraceReader() { Close(); }
  void Close() {
    if (fd_ < 0) return;
    shutdown(fd_, SHUT_RDWR);
    reader_.join();
    close(fd_);
    fd_ = -1;
  }
  // After the history, the daemon writes one empty line; live lines follow.
  bool WaitLive(int timeoutMs) { return WaitCount("\x01", 1, timeoutMs); }

 private:
  void Read() {
    std::string partial;
    char buf[65536];
    for (ssize_t n; (n = read(fd_, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR);) {
      partial.append(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
      size_t start = 0;
      for (size_t nl; (nl = partial.find('\n', start)) != std::string::npos; start = nl + 1) {
        Add(nl == start ? std::string("\x01") : partial.substr(start, nl - start));
      }
      partial.erase(0, start);
    }
  }
  int fd_ = -1;
  std::thread reader_;
};

// The management agent's stand-in: Read decodes each connection's message, HoldUnread never
// reads, Stuck never accepts and has a full backlog (every further connect waits).
class AgentStandIn {
 public:
  enum Mode { Read, HoldUnread, Stuck };
  AgentStandIn(const ScratchRoot &root, Mode mode)
      : path_(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent)), mode_(mode) {
    PlatformListen how;
    how.backlog = mode == Stuck ? 0 : 128;
    fd_ = PlatformSocket_Listen(path_, how);
    if (fd_ < 0) return;
    if (mode == Stuck) {
      // Backlog 0 still queues one connection: take that place ourselves.
      filler_ = PlatformSocket_Connect(path_, SOCK_STREAM | SOCK_NONBLOCK);
      return;
    }
    thread_ = std::thread([this] { Serve(); });
  }
  ~AgentStandIn() { Stop(); }
  bool ok() const { return fd_ >= 0; }
  // Later connects fail at once; one already waiting on a stuck agent stays waiting.
  void Unlink() { unlink(path_.c_str()); }
  void Stop() {
    if (fd_ < 0) return;
    Unlink();
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (filler_ >= 0) close(filler_);
    close(fd_);
    fd_ = -1;
    for (int c : held_) close(c);
  }
  std::vector<QprobMessage> Messages() {
    std::lock_guard<std::mutex> lock(mu_);
    return messages_;
  }
  size_t Accepted() const { return accepted_.load(); }
  size_t Bad() const { return bad_.load(); }

 private:
  void Serve() {
    while (!stop_) {
      struct pollfd pfd = {fd_, POLLIN, 0};
      int c = poll(&pfd, 1, 20) > 0 ? accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (c < 0) continue;
      ++accepted_;
      if (mode_ == HoldUnread) {
        held_.push_back(c);
        continue;
      }
      std::string bytes, why;
      int error = 0;
      QprobRead r = Qprob_ReadToEnd(c, 5000, kQprobReceiveMax, &bytes, &error);
      close(c);
      QprobMessage m;
      if (r != QprobRead::Whole || !Qprob_Decode(bytes.data(), bytes.size(), &m, &why)) {
        ++bad_;
        continue;
      }
      std::lock_guard<std::mutex> lock(mu_);
      messages_.push_back(m);
    }
  }
  std::string path_;
  Mode mode_;
  int fd_ = -1, filler_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> accepted_{0}, bad_{0};
  std::vector<int> held_;
  std::mutex mu_;
  std::vector<QprobMessage> messages_;
  std::thread thread_;
};

// A fresh root with the host model, its log collected; Start() runs tevd under it.
class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest() : log_((MakeHost(root_), std::make_unique<LogLines>(root_))) {}
  bool Start(std::vector<std::string> args = {}, std::vector<std::string> env = {}) {
    tevd_ = std::make_unique<DaemonProcess>(root_, std::move(args), std::move(env));
    return tevd_->WaitReady(20000);
  }
  ScratchRoot root_;
  std::unique_ptr<LogLines> log_;
  std::unique_ptr<DaemonProcess> tevd_;
};

// A loopback TCP listener, its port in `*port`. Never accepted from, it
// stands for a peer that takes connections and never answers.
inline int ListenLoopback(int *port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  listen(fd, 16);
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  *port = ntohs(a.sin_port);
  return fd;
}

// A free loopback TCP port.
inline int FreePort() {
  int port = 0;
  close(ListenLoopback(&port));
  return port;
}

// A network namespace of the test's own, deleted with it; `why` says why none could be made.
class Netns {
 public:
  Netns() : name_("tevt-" + std::to_string(getpid()) + "-" + std::to_string(++serial_)) {
    for (const char *p : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
      if (ip_.empty() && access(p, X_OK) == 0) ip_ = p;
    why = ip_.empty()                 ? "no ip binary (package iproute2)"
          : !Ip("netns add " + name_) ? "cannot create a network namespace (needs root)"
                                      : "";
  }
  ~Netns() {
    if (why.empty()) Ip("netns del " + name_);
  }
  bool Ip(const std::string &args) const {
    return system((ip_ + " " + args + " >/dev/null 2>&1").c_str()) == 0;
  }
  bool In(const std::string &args) const { return Ip("-n " + name_ + " " + args); }
  bool AddBridge(const std::string &sw) const {
    return In("link add " + sw + " type bridge") && In("link set " + sw + " up");
  }
  // Uplink hwnic<n> of bridge `sw`, a veth whose other end, lnk<n>, is its cable.
  bool AddUplink(int n, const std::string &sw) const {
    const std::string nic = "hwnic" + std::to_string(n), lnk = "lnk" + std::to_string(n);
    return In("link add " + nic + " type veth peer name " + lnk) &&
           In("link set " + nic + " master " + sw) && In("link set " + nic + " up") &&
           In("link set " + lnk + " up");
  }
  // `argv` run in the namespace, as a child under `root`.
  std::unique_ptr<Process> Run(const ScratchRoot &root, std::vector<std::string> argv,
                               const std::string &tag) const {
    argv.insert(argv.begin(), {"netns", "exec", name_});
    return std::make_unique<Process>(root, ip_, std::move(argv), std::vector<std::string>{}, tag);
  }
  const std::string &ip() const { return ip_; }
  const std::string &name() const { return name_; }
  std::string why;

 private:
  static inline int serial_ = 0;
  std::string ip_, name_;
};

const char *const kFaketimeLib = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";

// For a test that needs the daemon's clock sped up. Under ThreadSanitizer it
// cannot be (libfaketime bypasses its pthread_cond_timedwait interceptor), a
// skip by design; without libfaketime it is a missing package.
#if defined(__SANITIZE_THREAD__)
#define TEVD_NEED_FAST_CLOCK() \
  GTEST_SKIP() << "libfaketime bypasses ThreadSanitizer's pthread_cond_timedwait interceptor"
#else
#define TEVD_NEED_FAST_CLOCK()                                                                    \
  do {                                                                                            \
    if (access(::tevdtest::kFaketimeLib, R_OK) != 0)                                              \
      TEVD_SKIP_MISSING(std::string(::tevdtest::kFaketimeLib) + " is absent (package faketime)"); \
  } while (0)
#endif

// Runs the daemon's wall clock 180 times faster: a 180-second retry interval takes a second.
inline std::vector<std::string> FastClockEnv() {
  const char *asan = getenv("ASAN_OPTIONS");
  // The preload comes before the sanitizer runtime in the library order.
  return {
      std::string("LD_PRELOAD=") + kFaketimeLib, "FAKETIME=+0 x180",
      std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0"};
}

// A field of /proc/PID/status ("VmRSS", "Threads") as a number, or -1.
inline long ProcStatus(pid_t pid, const std::string &field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
  }
  return -1;
}

// How often each message text follows "[ID] " in the daemon's observation log lines.
inline std::map<std::string, int> HandledTexts(LineStore &log, const std::string &id) {
  std::map<std::string, int> out;
  std::string mark = "[" + id + "] ";
  for (const std::string &l : log.Matching(mark))
    ++out[LogLines::Text(l.substr(l.find(mark) + mark.size()))];
  return out;
}

}  // namespace tevdtest
