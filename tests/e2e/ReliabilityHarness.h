// Tools for the fault and load tests of the real daemon: producers on the
// user-level and asynchronous sockets, a log collector that keeps up with
// thousands of lines, a trace reader, and a stand-in for the management agent
// that can read, hold connections unread, or be absent. Every wait polls with
// a deadline; nothing here sleeps a fixed time to let the daemon catch up.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PlatformSocket.h"
#include "DaemonSockets.h"
#include "Qprob.h"
#include "TevdTestSupport.h"

namespace reltest {

using tevdtest::ScratchRoot;

// How much work a test does: sanitizer builds run the same code paths at a
// fraction of the volume, since they are 5 to 20 times slower on two cores.
inline int Scaled(int normal) {
#if defined(__SANITIZE_THREAD__)
  return normal / 10;
#elif defined(__SANITIZE_ADDRESS__)
  return normal / 4;
#else
  return normal;
#endif
}

inline bool UnderSanitizer() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  return true;
#else
  return false;
#endif
}

using tevdtest::ConnectAsync;
using tevdtest::ConnectTo;
using tevdtest::ConnectUser;
using tevdtest::MakeHost;
using tevdtest::SendRecord;

// Polls `done` every 5 ms until it holds or `timeoutMs` passed.
inline bool Eventually(const std::function<bool()> &done, int timeoutMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Lines gathered by a reader thread, waited on by count of a substring.
class LineStore {
 public:
  void SetOnLine(std::function<void(const std::string &)> f) { onLine_ = std::move(f); }
  size_t Count(const std::string &text) {
    std::lock_guard<std::mutex> lock(mu_);
    size_t n = 0;
    for (const std::string &l : lines_) {
      n += l.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
  }
  // True once at least `n` lines contain `text`.
  bool WaitCount(const std::string &text, size_t n, int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(mu_);
    size_t seen = 0;
    size_t cursor = 0;
    for (;;) {
      for (; cursor < lines_.size(); ++cursor) {
        seen += lines_[cursor].find(text) != std::string::npos ? 1 : 0;
      }
      if (seen >= n) {
        return true;
      }
      if (cv_.wait_until(lock, end) == std::cv_status::timeout) {
        for (; cursor < lines_.size(); ++cursor) {
          seen += lines_[cursor].find(text) != std::string::npos ? 1 : 0;
        }
        return seen >= n;
      }
    }
  }
  std::vector<std::string> Matching(const std::string &text) {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> out;
    for (const std::string &l : lines_) {
      if (l.find(text) != std::string::npos) {
        out.push_back(l);
      }
    }
    return out;
  }
  size_t Size() {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_.size();
  }

 protected:
  void Add(std::string line) {
    if (onLine_) {
      onLine_(line);
    }
    std::lock_guard<std::mutex> lock(mu_);
    lines_.push_back(std::move(line));
    cv_.notify_all();
  }

 private:
  std::function<void(const std::string &)> onLine_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::string> lines_;
};

// The daemon's log under the root: $ROOT/dev/log. The queue of a datagram
// socket holds ten datagrams here, and the daemon waits at most 250 ms for
// room, so the reader empties it in a tight loop.
class LogLines : public LineStore {
 public:
  explicit LogLines(const ScratchRoot &root) {
    fd_ = PlatformSocket_Listen(
        PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::LogCollector), SOCK_DGRAM);
    int big = 4 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    reader_ = std::thread([this] { Drain(); });
  }
  ~LogLines() {
    stop_ = true;
    reader_.join();
    close(fd_);
  }
  LogLines(const LogLines &) = delete;
  LogLines &operator=(const LogLines &) = delete;

 private:
  void Drain() {
    std::vector<char> buf(65536);
    while (!stop_) {
      struct pollfd pfd = {fd_, POLLIN, 0};
      if (poll(&pfd, 1, 20) <= 0) {
        continue;
      }
      for (;;) {
        ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n <= 0) {
          break;
        }
        Add(std::string(buf.data(), static_cast<size_t>(n)));
      }
    }
  }
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

// A trace client that reads every line as it comes.
class TraceReader : public LineStore {
 public:
  explicit TraceReader(const ScratchRoot &root) {
    fd_ = ConnectTo(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::Trace), SOCK_STREAM);
    if (fd_ >= 0) {
      reader_ = std::thread([this] { Read(); });
    }
  }
  ~TraceReader() { Close(); }
  bool ok() const { return fd_ >= 0; }
  void Close() {
    if (fd_ >= 0) {
      shutdown(fd_, SHUT_RDWR);
      reader_.join();
      close(fd_);
      fd_ = -1;
    }
  }
  // After the history, the daemon writes one empty line; live lines follow.
  bool WaitLive(int timeoutMs) { return WaitCount("\x01", 1, timeoutMs); }

 private:
  void Read() {
    std::string partial;
    char buf[65536];
    for (;;) {
      ssize_t n = read(fd_, buf, sizeof buf);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return;
      }
      partial.append(buf, static_cast<size_t>(n));
      size_t start = 0;
      for (size_t nl; (nl = partial.find('\n', start)) != std::string::npos; start = nl + 1) {
        std::string line = partial.substr(start, nl - start);
        Add(line.empty() ? std::string("\x01") : line);  // mark the separator
      }
      partial.erase(0, start);
    }
  }
  int fd_ = -1;
  std::thread reader_;
};

// Stands in for the management agent on var/run/orlan/marshd-qprob.sock.
// Read: read each connection to its end and decode the message.
// HoldUnread: accept and keep every connection open without reading it.
class AgentStandIn {
 public:
  enum Mode { Read, HoldUnread };
  AgentStandIn(const ScratchRoot &root, Mode mode)
      : path_(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent)), mode_(mode) {
    PlatformListen how;
    how.backlog = 128;
    fd_ = PlatformSocket_Listen(path_, how);
    if (fd_ < 0) {
      return;
    }
    thread_ = std::thread([this] { Serve(); });
  }
  ~AgentStandIn() { Stop(); }
  AgentStandIn(const AgentStandIn &) = delete;
  AgentStandIn &operator=(const AgentStandIn &) = delete;
  bool ok() const { return fd_ >= 0; }
  // Gone: the socket file is removed first, so a later connect fails.
  void Stop() {
    if (fd_ < 0) {
      return;
    }
    unlink(path_.c_str());
    stop_ = true;
    thread_.join();
    close(fd_);
    fd_ = -1;
    for (int c : held_) {
      close(c);
    }
    held_.clear();
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
      if (poll(&pfd, 1, 20) <= 0) {
        continue;
      }
      int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) {
        continue;
      }
      ++accepted_;
      if (mode_ == HoldUnread) {
        held_.push_back(c);
        continue;
      }
      struct timeval tv = {5, 0};
      setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
      std::vector<uint8_t> bytes;
      uint8_t buf[4096];
      for (;;) {
        ssize_t n = read(c, buf, sizeof buf);
        if (n < 0 && errno == EINTR) {
          continue;
        }
        if (n <= 0) {
          break;
        }
        bytes.insert(bytes.end(), buf, buf + n);
      }
      close(c);
      QprobMessage m;
      std::string why;
      if (Qprob_Decode(bytes.data(), bytes.size(), &m, &why)) {
        std::lock_guard<std::mutex> lock(mu_);
        messages_.push_back(m);
      } else {
        ++bad_;
      }
    }
  }
  std::string path_;
  Mode mode_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> accepted_{0};
  std::atomic<size_t> bad_{0};
  std::vector<int> held_;
  std::mutex mu_;
  std::vector<QprobMessage> messages_;
  std::thread thread_;
};

const char *const kFaketimeLib = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";

// The environment that runs the daemon's wall clock 180 times faster: one
// 180-second retry interval takes one real second.
inline std::vector<std::string> FastClockEnv() {
  std::vector<std::string> env = {std::string("LD_PRELOAD=") + kFaketimeLib, "FAKETIME=+0 x180"};
  // The preload comes before the sanitizer runtime in the library order.
  const char *asan = getenv("ASAN_OPTIONS");
  env.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") +
                ":verify_asan_link_order=0");
  return env;
}

// A field of /proc/PID/status ("VmRSS", "Threads") as a number, or -1.
inline long ProcStatus(pid_t pid, const std::string &field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field + ":", 0) == 0) {
      return std::stol(line.substr(field.size() + 1));
    }
  }
  return -1;
}

// How often each message text follows "[ID] " in the daemon's observation
// log lines ("[VMCorrelator] 1us: [tev.vm.x] text").
inline std::map<std::string, int> HandledTexts(LineStore &log, const std::string &id) {
  std::map<std::string, int> out;
  std::string mark = "[" + id + "] ";
  for (const std::string &l : log.Matching(mark)) {
    std::string text = l.substr(l.find(mark) + mark.size());
    while (!text.empty() && text.back() == '\n') {
      text.pop_back();
    }
    ++out[text];
  }
  return out;
}

// A sanitizer's report in the daemon's standard error, or "".
inline std::string SanitizerReport(const std::string &err) {
  for (const char *mark : {"ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
    size_t at = err.find(mark);
    if (at != std::string::npos) {
      return err.substr(at > 200 ? at - 200 : 0, 3000);
    }
  }
  return std::string();
}

}  // namespace reltest
