// tevctl scenario: starting the daemon under the private root, waiting until
// it is ready, and stopping it at the end.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "PlatformSocket.h"
#include "tevctlScenarioRunner.h"

extern char **environ;

namespace tevctl {
namespace scenario {

bool Runner::StartDaemon() {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    problems_.push_back(std::string("pipe: ") + strerror(errno));
    return false;
  }
  // Everything the child needs is built before fork.
  std::vector<std::string> argStore = {opts_.tevd};
  argStore.insert(argStore.end(), sc_.tevdArgs.begin(), sc_.tevdArgs.end());
  std::vector<std::string> envStore;
  for (char **e = environ; *e; ++e) envStore.push_back(*e);
  envStore.insert(envStore.end(), sc_.tevdEnv.begin(), sc_.tevdEnv.end());
  std::vector<char *> argv, envp;
  for (auto &s : argStore) argv.push_back(&s[0]);
  for (auto &s : envStore) envp.push_back(&s[0]);
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  fflush(stdout);
  pid_ = fork();
  if (pid_ < 0) {
    problems_.push_back(std::string("fork: ") + strerror(errno));
    return false;
  }
  if (pid_ == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  outFd_ = out[0];
  errFd_ = err[0];
  fcntl(outFd_, F_SETFL, O_NONBLOCK);
  fcntl(errFd_, F_SETFL, O_NONBLOCK);
  // Ready when both context sockets exist; then a moment for the agents to
  // subscribe (a record read before that reaches nobody).
  t0_ = NowMs();
  std::string user = PlatformEndpoint_Path(PlatformEndpoint::UserContext);
  std::string async0 = PlatformEndpoint_Path(PlatformEndpoint::AsyncContext, 0);
  struct stat st;
  while (stat(user.c_str(), &st) != 0 || stat(async0.c_str(), &st) != 0) {
    if (DaemonGone()) return EndedEarly();
    if (NowMs() - t0_ > 20000) {
      problems_.push_back("tevd did not open its context sockets within 20 s");
      return false;
    }
    Service(20);
  }
  int64_t settle = NowMs() + 300;
  while (NowMs() < settle) {
    if (DaemonGone()) return EndedEarly();
    Service(20);
  }
  t0_ = NowMs();
  lines_.clear();
  logs_.clear();
  return true;
}

bool Runner::DaemonGone() {
  if (exited_) return true;
  pid_t r = waitpid(pid_, &status_, WNOHANG);
  if (r != pid_) return false;
  exited_ = true;
  exitAt_ = Now();
  Note("EXIT", "tevd ended: " + StatusText(status_));
  return true;
}

// The daemon ended before it was ready: a failure unless the scenario
// expects an exit (it then judges the status), and no timeline is played.
bool Runner::EndedEarly() {
  int64_t drain = NowMs() + 200;
  while (NowMs() < drain && (outFd_ >= 0 || errFd_ >= 0)) Service(20);
  if (!HasExitExpect(sc_))
    problems_.push_back("tevd ended before it was ready: " + StatusText(status_));
  return false;
}

void Runner::Stop() {
  if (!exited_) {
    stopping_ = true;
    kill(pid_, SIGTERM);
    int64_t deadline = NowMs() + 10000;
    while (!DaemonGone()) {
      if (NowMs() > deadline) {
        problems_.push_back("tevd did not stop within 10 s of SIGTERM; killed");
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
        exited_ = true;
        break;
      }
      Service(20);
    }
  }
  // Whatever is still in flight.
  int64_t drain = NowMs() + 200;
  while (NowMs() < drain && (outFd_ >= 0 || errFd_ >= 0 || !conns_.empty())) Service(20);
  Service(0);
}

}  // namespace scenario
}  // namespace tevctl
