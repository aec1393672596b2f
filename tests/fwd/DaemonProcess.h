// Kept for the forwarder's end-to-end test only, which still uses these older
// helpers; moving it onto tests/support/Harness.h is open work (docs/testing.md).
// Runs the real tevd binary under a scratch root for end-to-end tests: its
// standard output and error go to files in the root, its log lines to a
// LogCapture. The binary's path comes from TEVD_BIN (set by ctest).
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PlatformSocket.h"
#include "TevdTestSupport.h"

namespace tevdtest {

inline std::string BinaryPath(const char *env, const char *fallback) {
  const char *p = getenv(env);
  return p != nullptr && *p != '\0' ? p : fallback;
}

class DaemonProcess {
 public:
  DaemonProcess(const ScratchRoot &root, std::vector<std::string> args = {},
                std::vector<std::string> env = {})
      : root_(root) {
    std::string bin = BinaryPath("TEVD_BIN", "apps/tevd/tevd");
    pid_ = fork();
    if (pid_ == 0) {
      std::string out = root.Abs("tevd.stdout");
      std::string err = root.Abs("tevd.stderr");
      if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) {
        _exit(126);
      }
      setenv("TEVD_ROOT", root.path().c_str(), 1);
      for (const std::string &e : env) {
        putenv(strdup(e.c_str()));
      }
      std::vector<char *> argv;
      argv.push_back(const_cast<char *>(bin.c_str()));
      for (std::string &a : args) {
        argv.push_back(const_cast<char *>(a.c_str()));
      }
      argv.push_back(nullptr);
      execv(bin.c_str(), argv.data());
      _exit(127);
    }
  }
  ~DaemonProcess() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGKILL);
      Wait(5000);
    }
  }
  pid_t pid() const { return pid_; }
  void Signal(int sig) { kill(pid_, sig); }
  // Waits for the process to end; false on time-out.
  bool Wait(int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!exited_) {
      int st = 0;
      pid_t r = waitpid(pid_, &st, WNOHANG);
      if (r == pid_) {
        exited_ = true;
        status_ = st;
        break;
      }
      if (std::chrono::steady_clock::now() > end) {
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }
  bool Running() {
    if (exited_) {
      return false;
    }
    int st = 0;
    if (waitpid(pid_, &st, WNOHANG) == pid_) {
      exited_ = true;
      status_ = st;
    }
    return !exited_;
  }
  int status() const { return status_; }
  std::string Stdout() const { return Slurp(root_.Abs("tevd.stdout")); }
  std::string Stderr() const { return Slurp(root_.Abs("tevd.stderr")); }

  // Waits until the user-level socket exists: the daemon is reading.
  bool WaitReady(int timeoutMs = 5000) {
    std::string sock = PlatformEndpoint_PathUnder(root_.path(), PlatformEndpoint::UserContext);
    for (int i = 0; i < timeoutMs / 5; ++i) {
      if (access(sock.c_str(), F_OK) == 0) {
        // Agents start right after the contexts open; give them a moment.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return true;
      }
      if (!Running()) {
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  static std::string Slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

 private:
  const ScratchRoot &root_;
  pid_t pid_ = -1;
  bool exited_ = false;
  int status_ = 0;
};

}  // namespace tevdtest
