// Kept for the forwarder's end-to-end test only, which still uses these older
// helpers; moving it onto tests/support/Harness.h is open work (docs/testing.md).
// Helpers for the end-to-end tests of tevctl and the self-test: a private
// root directory per test, and real child processes (tevctl, tevd) whose
// stdout and stderr are collected through pipes and polled with short
// deadlines, never with fixed sleeps.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

extern char **environ;

namespace tevctltest {

inline long long NowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

inline void PauseMs(int ms) {
  timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, nullptr);
}

// Polls `cond` every 10 ms until it holds or `timeoutMs` passes.
inline bool WaitFor(const std::function<bool()> &cond, int timeoutMs) {
  long long end = NowMs() + timeoutMs;
  for (;;) {
    if (cond()) return true;
    if (NowMs() >= end) return false;
    PauseMs(10);
  }
}

inline bool PathExists(const std::string &p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0;
}

inline std::string ReadFileText(const std::string &p) {
  std::string out;
  int fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return out;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  close(fd);
  return out;
}

// A binary under test: env NAME (set by ctest), else `rel` next to the test
// binary's build directory (tests/ -> ../rel).
inline std::string BinaryPath(const char *envName, const char *rel) {
  const char *v = getenv(envName);
  if (v != nullptr && *v != '\0') return v;
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return rel;
  self[n] = '\0';
  std::string dir(self);
  dir = dir.substr(0, dir.find_last_of('/'));       // .../build/tests
  dir = dir.substr(0, dir.find_last_of('/'));       // .../build
  return dir + "/" + rel;
}
inline std::string TevctlBin() { return BinaryPath("TEVCTL_BIN", "tools/tevctl/tevctl"); }
inline std::string TevdBin() { return BinaryPath("TEVD_BIN", "apps/tevd/tevd"); }
inline std::string TevdSelftestBin() {
  return BinaryPath("TEVD_SELFTEST_BIN", "apps/tevd/tevd-selftest");
}

// A private root directory, removed with everything in it at the end.
class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/tmp/tevctl-e2e-XXXXXX";
    const char *made = mkdtemp(tmpl);
    path_ = made ? made : "";
  }
  ~TempRoot() {
    if (!path_.empty()) {
      nftw(path_.c_str(),
           [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
           FTW_DEPTH | FTW_PHYS);
    }
  }
  const std::string &path() const { return path_; }
  std::string Abs(const std::string &rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
};

// A child process with its stdout and stderr collected.
class Child {
 public:
  Child(const std::vector<std::string> &argv,
        const std::vector<std::pair<std::string, std::string>> &env) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    if (pipe2(err, O_CLOEXEC) != 0) {
      close(out[0]);
      close(out[1]);
      return;
    }
    std::vector<std::string> envStrings;
    for (char **e = environ; *e != nullptr; ++e) {
      std::string kv(*e);
      bool overridden = false;
      for (const auto &p : env) overridden |= kv.compare(0, p.first.size() + 1, p.first + "=") == 0;
      if (!overridden) envStrings.push_back(kv);
    }
    for (const auto &p : env) envStrings.push_back(p.first + "=" + p.second);
    std::vector<char *> av, ev;
    for (const auto &a : argv) av.push_back(const_cast<char *>(a.c_str()));
    av.push_back(nullptr);
    for (const auto &e : envStrings) ev.push_back(const_cast<char *>(e.c_str()));
    ev.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(err[1], STDERR_FILENO);
      execve(av[0], av.data(), ev.data());
      _exit(127);
    }
    close(out[1]);
    close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
  }
  ~Child() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (outFd_ >= 0) close(outFd_);
    if (errFd_ >= 0) close(errFd_);
  }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  const std::string &out() const { return out_; }
  const std::string &err() const { return err_; }

  // Reads whatever is available within `ms` milliseconds.
  void Pump(int ms) {
    pollfd p[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    if (poll(p, 2, ms) <= 0) return;
    char buf[8192];
    for (int i = 0; i < 2; ++i) {
      if (p[i].fd < 0 || !(p[i].revents & (POLLIN | POLLHUP))) continue;
      ssize_t n = read(p[i].fd, buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? out_ : err_).append(buf, static_cast<size_t>(n));
      } else if (n == 0) {
        close(i == 0 ? outFd_ : errFd_);
        (i == 0 ? outFd_ : errFd_) = -1;
      }
    }
  }
  // Until stdout contains `text` (true) or `timeoutMs` passes (false).
  bool WaitForOutput(const std::string &text, int timeoutMs) {
    long long end = NowMs() + timeoutMs;
    while (out_.find(text) == std::string::npos) {
      if (NowMs() >= end || (outFd_ < 0 && errFd_ < 0)) return false;
      Pump(20);
    }
    return true;
  }
  // Exit status (0..255), 128+signal, or -1 when still running after
  // `timeoutMs` (the child is then stopped: SIGTERM, then SIGKILL after 1 s).
  // Output is collected to the end.
  int Wait(int timeoutMs) {
    long long end = NowMs() + timeoutMs;
    int status = 0;
    for (;;) {
      Pump(10);
      pid_t r = waitpid(pid_, &status, WNOHANG);
      if (r == pid_) break;
      if (NowMs() >= end) {
        // SIGTERM first: a daemon that stops cleanly flushes the output that
        // explains why it was still running.
        kill(pid_, SIGTERM);
        long long grace = NowMs() + 1000;
        while (waitpid(pid_, nullptr, WNOHANG) != pid_) {
          if (NowMs() >= grace) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            break;
          }
          Pump(10);
        }
        reaped_ = true;
        while (outFd_ >= 0 || errFd_ >= 0) Pump(100);
        return -1;
      }
    }
    reaped_ = true;
    while (outFd_ >= 0 || errFd_ >= 0) Pump(100);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
  }
  void Signal(int sig) {
    if (pid_ > 0 && !reaped_) kill(pid_, sig);
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int outFd_ = -1, errFd_ = -1;
  std::string out_, err_;
};

struct RunResult {
  int status = -1;
  std::string out, err;
};

// Runs tevctl with `args` under `root` and waits (at most 5 s).
inline RunResult RunTevctl(const std::string &root, const std::vector<std::string> &args,
                           int timeoutMs = 5000) {
  std::vector<std::string> argv = {TevctlBin()};
  argv.insert(argv.end(), args.begin(), args.end());
  Child c(argv, {{"TEVD_ROOT", root}});
  RunResult r;
  if (!c.started()) return r;
  r.status = c.Wait(timeoutMs);
  r.out = c.out();
  r.err = c.err();
  return r;
}

inline size_t CountLines(const std::string &text) {
  size_t n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

inline size_t CountOccurrences(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
  return n;
}

}  // namespace tevctltest
