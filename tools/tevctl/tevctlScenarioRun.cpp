// tevctl scenario: the runner. One thread, one poll loop: it plays the
// management agent (qprob socket, one message per connection), the log
// collector ($ROOT/dev/log: the kernel queues only a few datagrams, so it is
// read on every turn of the loop), reads the daemon's stdout and stderr, plays
// the timeline when each step falls due and watches the files that `expect
// file` names. Expectations are judged at the end from what was recorded, so
// the report can show what arrived instead.
#include <fnmatch.h>
#include <ftw.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "PlatformModel.h"
#include "PlatformSocket.h"
#include "Qprob.h"
#include "QprobReceive.h"
#include "TevRecord.h"
#include "tevctl.h"
#include "tevctlScenario.h"
#include "tevctlScenarioRunner.h"

namespace tevctl {
namespace scenario {

namespace {

// "<PRI>Mmm dd hh:mm:ss TAG: text" -> "text".
std::string StripSyslog(const std::string &line) {
  if (line.empty() || line[0] != '<') return line;
  size_t close = line.find('>');
  if (close == std::string::npos || line.size() < close + 17) return line;
  size_t colon = line.find(": ", close + 17);
  return colon == std::string::npos ? line : line.substr(colon + 2);
}

std::string ReadModel(const std::string &rel, bool *exists) {
  std::string v;
  *exists = PlatformModel_Read(rel, &v);
  return v;
}

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

}  // namespace

bool Runner::Setup() {
  char tmpl[] = "/tmp/tevd-scn.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    problems_.push_back(std::string("cannot make a root: ") + strerror(errno));
    return false;
  }
  root_ = tmpl;
  setenv("TEVD_ROOT", root_.c_str(), 1);
  fflush(stdout);
  if (CmdHost({"init"}) != 0) {
    problems_.push_back("host init failed");
    return false;
  }
  for (const auto &words : sc_.setup) {
    if (CmdHost(words) != 0) {
      problems_.push_back("setup \"host " + words[0] + " ...\" failed");
      return false;
    }
  }
  logFd_ = PlatformSocket_Listen(PlatformEndpoint_Path(PlatformEndpoint::LogCollector), SOCK_DGRAM);
  if (logFd_ < 0) {
    problems_.push_back(std::string("cannot bind dev/log: ") + strerror(errno));
    return false;
  }
  fcntl(logFd_, F_SETFL, O_NONBLOCK);
  AgentStart();
  return agentFd_ >= 0;
}

void Runner::AgentStart() {
  if (agentFd_ >= 0) return;
  agentFd_ =
      PlatformSocket_Listen(PlatformEndpoint_Path(PlatformEndpoint::QprobAgent), SOCK_STREAM);
  if (agentFd_ < 0) {
    problems_.push_back(std::string("cannot listen on the qprob socket: ") + strerror(errno));
    return;
  }
  fcntl(agentFd_, F_SETFL, O_NONBLOCK);
}

void Runner::AgentStop() {
  if (agentFd_ < 0) return;
  close(agentFd_);
  agentFd_ = -1;
  unlink(PlatformEndpoint_Path(PlatformEndpoint::QprobAgent).c_str());
}

void Runner::ReadPipe(int *fd, std::string *into) {
  if (*fd < 0) return;
  char buf[4096];
  for (;;) {
    ssize_t n = read(*fd, buf, sizeof buf);
    if (n > 0) {
      into->append(buf, static_cast<size_t>(n));
      continue;
    }
    if (n == 0) {
      close(*fd);
      *fd = -1;
    }
    return;
  }
}

void Runner::Service(int timeoutMs) {
  std::vector<pollfd> p;
  p.push_back({logFd_, POLLIN, 0});
  p.push_back({agentFd_, POLLIN, 0});
  p.push_back({outFd_, POLLIN, 0});
  p.push_back({errFd_, POLLIN, 0});
  for (const Conn &c : conns_) p.push_back({c.fd, POLLIN, 0});
  int rc = poll(p.data(), p.size(), timeoutMs);
  if (rc <= 0) return;
  // The log first: its queue is the shortest.
  static char buf[1 << 16];
  for (;;) {
    ssize_t n = recv(logFd_, buf, sizeof buf, 0);
    if (n < 0) break;
    std::string line(buf, static_cast<size_t>(n));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\0')) line.pop_back();
    line = StripSyslog(line);
    logs_.push_back({Now(), line});
    Note("LOG", line);
  }
  for (size_t i = 4; i < p.size(); ++i) {
    if (!p[i].revents) continue;
    Conn &c = conns_[i - 4];
    int error = 0;
    if (Qprob_ReadAvailable(c.fd, kQprobReceiveMax, &c.data, &error) == QprobRead::Pending) {
      continue;
    }
    // EOF (or a failed read): the message is complete.
    EventSeen e{Now(), {}};
    std::string why;
    if (Qprob_Decode(c.data.data(), c.data.size(), &e.msg, &why)) {
      Note("OUT", EventText(e));
      events_.push_back(e);
    } else {
      Note("ERROR", "malformed message of " + std::to_string(c.data.size()) + " bytes: " + why);
      problems_.push_back("the daemon sent a malformed message: " + why);
    }
    close(c.fd);
    c.fd = -1;
  }
  conns_.erase(std::remove_if(conns_.begin(), conns_.end(), [](const Conn &c) { return c.fd < 0; }),
               conns_.end());
  if (agentFd_ >= 0 && p[1].revents) {
    for (;;) {
      int fd = accept4(agentFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd < 0) break;
      conns_.push_back({fd, ""});
    }
  }
  ReadPipe(&outFd_, &out_);
  ReadPipe(&errFd_, &err_);
}

void Runner::Play(const Step &s) {
  switch (s.kind) {
    case Step::Post: {
      std::vector<uint8_t> rec = TevRecord_Encode(s.id, s.message, NowUs(), s.values);
      int rc = TevRecord_Post(s.user ? TEVLIB_USER_DOMAIN : s.domain, rec);
      std::string where = s.user ? "user" : "async-" + std::to_string(s.domain);
      Note("IN", s.id + " " + ArgsText(s.values) + " (" + where + ")");
      if (rc != 0) {
        Note("ERROR", "post of " + s.id + " failed: " + strerror(rc));
        problems_.push_back("line " + std::to_string(s.line) + ": post failed: " + strerror(rc));
      }
      break;
    }
    case Step::Host: {
      std::string text = "host";
      for (const std::string &w : s.words) text += " " + w;
      Note("HOST", text);
      fflush(stdout);
      if (CmdHost(s.words) != 0)
        problems_.push_back("line " + std::to_string(s.line) + ": " + text + " failed");
      break;
    }
    case Step::AgentStop:
      Note("AGENT", "management agent stopped");
      AgentStop();
      break;
    case Step::AgentStart:
      Note("AGENT", "management agent started");
      AgentStart();
      break;
  }
}

void Runner::WatchFiles() {
  double now = Now();
  for (size_t i = 0; i < sc_.expects.size(); ++i) {
    const Expect &x = sc_.expects[i];
    if (x.kind != Expect::File || fileHit_[i] >= 0 || now < x.from || now > x.to) continue;
    bool exists;
    std::string v = ReadModel(x.pattern, &exists);
    fileLast_[i] = exists ? "\"" + v + "\"" : "(no file)";
    if (exists && fnmatch(x.value.c_str(), v.c_str(), 0) == 0) {
      fileHit_[i] = now;
      Note("FILE", "platform/" + x.pattern + " = \"" + v + "\"");
    }
  }
}

bool Runner::Go() {
  printf("scenario %s\n", sc_.file.c_str());
  bool ok = Setup() && StartDaemon();
  fileHit_.assign(sc_.expects.size(), -1);
  fileLast_.assign(sc_.expects.size(), "(not looked at: the window never opened)");
  if (ok) {
    // Every repetition of every step, in time order.
    std::vector<std::pair<double, const Step *>> due;
    for (const Step &s : sc_.steps) {
      for (int r = 0; r < s.repeat; ++r) due.push_back({s.at + r * s.every, &s});
    }
    std::stable_sort(due.begin(), due.end(),
                     [](const std::pair<double, const Step *> &a,
                        const std::pair<double, const Step *> &b) { return a.first < b.first; });
    size_t next = 0;
    while (Now() < sc_.end) {
      while (next < due.size() && due[next].first <= Now()) Play(*due[next++].second);
      WatchFiles();
      if (DaemonGone()) break;
      double until = next < due.size() ? due[next].first : sc_.end;
      int ms = static_cast<int>((until - Now()) * 1000);
      Service(std::max(0, std::min(ms, 20)));
    }
    if (exited_ && !HasExitExpect(sc_)) {
      problems_.push_back("tevd ended during the scenario at " + std::to_string(exitAt_) +
                          " s: " + StatusText(status_));
    }
  }
  if (pid_ > 0) Stop();
  bool pass = Judge();
  Cleanup();
  return pass;
}

bool Runner::Judge() {
  int failed = JudgeExpectations(sc_, {events_, logs_, fileHit_, fileLast_, exited_, status_});
  // A daemon stopped by us must end cleanly unless the scenario says otherwise.
  if (!HasExitExpect(sc_) && exited_ && stopping_ &&
      !(WIFEXITED(status_) && WEXITSTATUS(status_) == 0)) {
    problems_.push_back("tevd ended with " + StatusText(status_) + " after SIGTERM");
  }
  for (const std::string &p : problems_) printf("  ERROR %s\n", p.c_str());
  if (!problems_.empty() && !err_.empty()) {
    printf("  tevd stderr:\n");
    std::stringstream ss(err_);
    std::string l;
    while (std::getline(ss, l)) printf("    | %s\n", l.c_str());
  }
  printf("  timeline (seconds from the start; IN observations, OUT events):\n");
  for (const Line &l : lines_) printf("  %8.3f %-5s %s\n", l.t, l.tag.c_str(), l.text.c_str());
  bool pass = failed == 0 && problems_.empty();
  if (pass) {
    printf("  result: PASS (%zu expectations)\n", sc_.expects.size());
  } else {
    printf("  result: FAIL (%d of %zu expectations failed, %zu errors)\n", failed,
           sc_.expects.size(), problems_.size());
  }
  if (opts_.keep && !root_.empty()) printf("  root kept at %s\n", root_.c_str());
  fflush(stdout);
  return pass;
}

void Runner::Cleanup() {
  for (Conn &c : conns_) close(c.fd);
  conns_.clear();
  for (int *fd : {&logFd_, &outFd_, &errFd_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
  AgentStop();
  if (!opts_.keep && !root_.empty()) nftw(root_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool Run(const Scenario &sc, const RunOptions &opts) {
  Runner r(sc, opts);
  return r.Go();
}

}  // namespace scenario
}  // namespace tevctl
