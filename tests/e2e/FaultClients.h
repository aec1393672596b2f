// Misbehaving peers for the fault-injection tests: a management agent that
// listens and never accepts, a log collector that stops reading, a local
// user who is not root, and the measurements that tell a wedged daemon from
// a busy one (CPU time, thread signal masks). Built on ReliabilityHarness.h.
#pragma once

#include <dirent.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <iterator>
#include <memory>
#include <set>
#include <sstream>

#include "PlatformSocket.h"
#include "ReliabilityHarness.h"

namespace reltest {

// A management agent whose listener is full and never accepted from: every
// further connect blocks in the kernel until it gives up.
class StuckAgent {
 public:
  explicit StuckAgent(const ScratchRoot &root)
      : path_(PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::QprobAgent)) {
    PlatformListen how;
    how.backlog = 0;
    fd_ = PlatformSocket_Listen(path_, how);
    if (fd_ < 0) {
      return;
    }
    // Backlog 0 still queues one connection: take that place ourselves.
    filler_ = PlatformSocket_Connect(path_, SOCK_STREAM | SOCK_NONBLOCK);
  }
  ~StuckAgent() { Gone(); }
  bool ok() const { return fd_ >= 0; }
  // Its socket file goes, so later connects fail at once; a connect already
  // waiting stays waiting, since the listener is still there.
  void Unlink() { unlink(path_.c_str()); }
  // The agent goes away entirely.
  void Gone() {
    if (fd_ >= 0) {
      Unlink();
      close(filler_);
      close(fd_);
      fd_ = -1;
    }
  }

 private:
  std::string path_;
  int fd_ = -1;
  int filler_ = -1;
};

// A log collector on dev/log that reads nothing until Resume().
class StoppedCollector : public LineStore {
 public:
  explicit StoppedCollector(const ScratchRoot &root) {
    fd_ = PlatformSocket_Listen(
        PlatformEndpoint_PathUnder(root.path(), PlatformEndpoint::LogCollector), SOCK_DGRAM);
  }
  ~StoppedCollector() {
    stop_ = true;
    if (reader_.joinable()) {
      reader_.join();
    }
    close(fd_);
  }
  void Resume() {
    reader_ = std::thread([this] {
      char buf[65536];
      while (!stop_) {
        struct pollfd pfd = {fd_, POLLIN, 0};
        if (poll(&pfd, 1, 20) > 0) {
          ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
          if (n > 0) {
            Add(std::string(buf, static_cast<size_t>(n)));
          }
        }
      }
    });
  }

 private:
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread reader_;
};

// Runs `body` in a forked child as uid/gid 65534 ("nobody"), a member of
// the sockets' group (gid 0) when `inGroup`. Returns the child's exit
// status, or -1 when the identity could not be taken (the caller skips).
inline int AsNobody(bool inGroup, const std::function<int()> &body) {
  pid_t pid = fork();
  if (pid == 0) {
    gid_t groups[1] = {0};
    if (setgroups(inGroup ? 1 : 0, groups) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
      _exit(125);
    }
    _exit(body());
  }
  int st = 0;
  waitpid(pid, &st, 0);
  if (!WIFEXITED(st) || WEXITSTATUS(st) == 125) {
    return -1;
  }
  return WEXITSTATUS(st);
}

// User plus system CPU time of a process, in clock ticks.
inline long CpuTicks(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t close = all.rfind(')');
  if (close == std::string::npos) {
    return -1;
  }
  std::istringstream fields(all.substr(close + 2));
  std::string f;
  long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> f; ++i) {
    if (i == 14) utime = std::stol(f);
    if (i == 15) stime = std::stol(f);
  }
  return utime + stime;
}

// CPU share (0..1 of one core) the process used over `ms` milliseconds.
inline double CpuShare(pid_t pid, int ms) {
  long before = CpuTicks(pid);
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  long after = CpuTicks(pid);
  return static_cast<double>(after - before) / sysconf(_SC_CLK_TCK) / (ms / 1000.0);
}

// The blocked-signal mask ("SigBlk", hexadecimal) of each thread but the
// first (the reader).
inline std::vector<unsigned long long> WorkerSignalMasks(pid_t pid) {
  std::vector<unsigned long long> masks;
  std::string dir = "/proc/" + std::to_string(pid) + "/task";
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) {
    return masks;
  }
  while (struct dirent *e = readdir(d)) {
    if (e->d_name[0] == '.' || std::to_string(pid) == e->d_name) {
      continue;
    }
    std::ifstream in(dir + "/" + e->d_name + "/status");
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind("SigBlk:", 0) == 0) {
        masks.push_back(std::stoull(line.substr(7), nullptr, 16));
      }
    }
  }
  closedir(d);
  return masks;
}

// A well-formed record of exactly `size` bytes (its message is padded).
inline std::vector<uint8_t> RecordOfSize(const std::string &id, size_t size) {
  std::string msg;
  std::vector<uint8_t> r = TevRecord_Encode(id, msg, 1, {});
  while (r.size() < size) {
    msg.append(size - r.size(), 'x');
    r = TevRecord_Encode(id, msg, 1, {});
  }
  while (r.size() > size && !msg.empty()) {
    msg.pop_back();
    r = TevRecord_Encode(id, msg, 1, {});
  }
  return r;
}

}  // namespace reltest
