// tevctl scenario: the runner. One thread, one poll loop: it plays the
// management agent (qprob socket, one message per connection), the log
// collector ($ROOT/dev/log: the kernel queues only a few datagrams, so it is
// read on every turn of the loop), reads the daemon's stdout and stderr, plays
// the timeline when each step falls due and watches the files that `expect
// file` names. Expectations are judged at the end from what was recorded, so
// the report can show what arrived instead.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fnmatch.h>
#include <fstream>
#include <ftw.h>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Qprob.h"
#include "TevLib.h"
#include "tevctl.h"
#include "tevctlScenario.h"

extern char **environ;

namespace tevctl {
namespace scenario {

namespace {

struct EventSeen {
  double t;
  QprobMessage msg;
};
struct Conn {
  int fd;
  std::string data;
};
struct Line {
  double t;
  std::string tag, text;
};

std::string ValueText(const MsgFmt_Value &v) {
  char buf[64];
  switch (v.type) {
    case MSGFMT_TYPE_INT32:
    case MSGFMT_TYPE_INT64:
      snprintf(buf, sizeof buf, "%lld", static_cast<long long>(static_cast<int64_t>(v.bits)));
      return buf;
    case MSGFMT_TYPE_UINT32:
    case MSGFMT_TYPE_UINT64:
      snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(v.bits));
      return buf;
    case MSGFMT_TYPE_DOUBLE: {
      double d;
      memcpy(&d, &v.bits, sizeof d);
      snprintf(buf, sizeof buf, "%g", d);
      return buf;
    }
    case MSGFMT_TYPE_STRING:
      return v.isNull ? "NULL" : v.str;
    default:
      return "?";
  }
}

std::string ArgsText(const std::vector<MsgFmt_Value> &args) {
  std::string s = "[";
  for (size_t i = 0; i < args.size(); ++i) {
    if (i) s += ", ";
    s += args[i].type == MSGFMT_TYPE_STRING && !args[i].isNull
             ? "\"" + Qprob_JsonEscape(args[i].str) + "\""
             : ValueText(args[i]);
  }
  return s + "]";
}

std::string EventText(const EventSeen &e) {
  return (e.msg.className.empty() ? std::string("?") : e.msg.className) + " " + e.msg.id + " " +
         ArgsText(e.msg.args);
}

// A word of an expectation against one decoded argument: "*" takes anything,
// numbers compare by value (so 0x201 matches 513), strings exactly.
bool ArgMatches(const std::string &word, const MsgFmt_Value &v) {
  if (word == "*") return true;
  if (v.type == MSGFMT_TYPE_STRING) return !v.isNull && word == v.str;
  if (word == ValueText(v)) return true;
  MsgFmt_Value parsed;
  std::string why;
  return ParseValue(v.type, word, false, &parsed, &why) && parsed.bits == v.bits;
}

bool EventMatches(const Expect &x, const EventSeen &e) {
  if (x.cls != "*" && x.cls != e.msg.className) return false;
  if (fnmatch(x.pattern.c_str(), e.msg.id.c_str(), 0) != 0) return false;
  if (x.anyArgs) return true;
  if (x.args.size() != e.msg.args.size()) return false;
  for (size_t i = 0; i < x.args.size(); ++i) {
    if (!ArgMatches(x.args[i], e.msg.args[i])) return false;
  }
  return true;
}

bool InWindow(const Expect &x, double t) { return t >= x.from && t <= x.to; }

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

bool HasExitExpect(const Scenario &sc) {
  for (const Expect &x : sc.expects) {
    if (x.kind == Expect::Exit) return true;
  }
  return false;
}

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

std::string StatusText(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) {
    return "signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
  }
  return "status " + std::to_string(status);
}

class Runner {
 public:
  Runner(const Scenario &sc, const RunOptions &opts) : sc_(sc), opts_(opts) {}
  bool Go();

 private:
  double Now() const { return static_cast<double>(NowMs() - t0_) / 1000.0; }
  void Note(const std::string &tag, const std::string &text) { lines_.push_back({Now(), tag, text}); }
  bool Setup();
  bool StartDaemon();
  void Service(int timeoutMs);
  void ReadPipe(int *fd, std::string *into);
  void AgentStart();
  void AgentStop();
  void Play(const Step &s);
  void WatchFiles();
  bool DaemonGone();
  bool EndedEarly();
  void Stop();
  bool Judge();
  void Cleanup();

  const Scenario &sc_;
  const RunOptions &opts_;
  std::string root_;
  int64_t t0_ = 0;
  int agentFd_ = -1, logFd_ = -1, outFd_ = -1, errFd_ = -1;
  pid_t pid_ = -1;
  int status_ = 0;
  bool exited_ = false;
  double exitAt_ = 0;
  bool stopping_ = false;
  std::vector<Conn> conns_;
  std::vector<EventSeen> events_;
  std::vector<Line> lines_;      // the timeline: IN, OUT, LOG, HOST, AGENT, ERROR
  std::vector<std::pair<double, std::string>> logs_;
  std::string out_, err_;
  std::vector<std::string> problems_;   // run errors that fail the scenario
  std::vector<double> fileHit_;         // per expectation: first time the value was seen (-1)
  std::vector<std::string> fileLast_;
};

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
  agentFd_ = PlatformSocket_Listen(PlatformEndpoint_Path(PlatformEndpoint::QprobAgent), SOCK_STREAM);
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
    for (;;) {
      ssize_t n = read(c.fd, buf, sizeof buf);
      if (n > 0) {
        c.data.append(buf, static_cast<size_t>(n));
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
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
      break;
    }
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
      if (CmdHost(s.words) != 0) problems_.push_back("line " + std::to_string(s.line) + ": " + text + " failed");
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
  if (!HasExitExpect(sc_)) problems_.push_back("tevd ended before it was ready: " + StatusText(status_));
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
      problems_.push_back("tevd ended during the scenario at " + std::to_string(exitAt_) + " s: " +
                          StatusText(status_));
    }
  }
  if (pid_ > 0) Stop();
  bool pass = Judge();
  Cleanup();
  return pass;
}

bool Runner::Judge() {
  std::vector<bool> used(events_.size(), false);
  int failed = 0;
  for (size_t i = 0; i < sc_.expects.size(); ++i) {
    const Expect &x = sc_.expects[i];
    bool pass = false;
    std::vector<std::string> instead;
    char at[64] = "";
    switch (x.kind) {
      case Expect::Event: {
        for (size_t k = 0; k < events_.size() && !pass; ++k) {
          if (!used[k] && InWindow(x, events_[k].t) && EventMatches(x, events_[k])) {
            used[k] = pass = true;
            snprintf(at, sizeof at, " (at %.3f s)", events_[k].t);
          }
        }
        if (!pass) {
          for (const EventSeen &e : events_) {
            char t[32];
            snprintf(t, sizeof t, "%7.3f ", e.t);
            instead.push_back(t + EventText(e));
          }
          if (instead.empty()) instead.push_back("no event at all");
        }
        break;
      }
      case Expect::NoEvent:
        pass = true;
        for (const EventSeen &e : events_) {
          if (InWindow(x, e.t) && fnmatch(x.pattern.c_str(), e.msg.id.c_str(), 0) == 0) {
            pass = false;
            char t[32];
            snprintf(t, sizeof t, "%7.3f ", e.t);
            instead.push_back(t + EventText(e));
          }
        }
        break;
      case Expect::Log:
        for (const auto &l : logs_) {
          if (InWindow(x, l.first) && l.second.find(x.pattern) != std::string::npos) {
            pass = true;
            snprintf(at, sizeof at, " (at %.3f s)", l.first);
            break;
          }
        }
        if (!pass) {
          for (const auto &l : logs_) {
            if (!InWindow(x, l.first)) continue;
            char t[32];
            snprintf(t, sizeof t, "%7.3f ", l.first);
            instead.push_back(t + l.second);
          }
          if (instead.empty()) instead.push_back("no log line in the window");
        }
        break;
      case Expect::File:
        pass = fileHit_[i] >= 0;
        if (pass) snprintf(at, sizeof at, " (at %.3f s)", fileHit_[i]);
        else instead.push_back("platform/" + x.pattern + " was " + fileLast_[i]);
        break;
      case Expect::Exit: {
        bool match = exited_ && (x.exitSignal ? WIFSIGNALED(status_) && WTERMSIG(status_) == x.exitCode
                                              : WIFEXITED(status_) && WEXITSTATUS(status_) == x.exitCode);
        pass = match;
        if (!pass) instead.push_back(exited_ ? "tevd ended with " + StatusText(status_) : "tevd did not end");
        break;
      }
    }
    if (!pass) ++failed;
    printf("  %s  line %d: %s%s\n", pass ? "PASS" : "FAIL", x.line, x.text.c_str(), at);
    for (size_t k = 0; k < instead.size() && k < 12; ++k) {
      printf("        %s %s\n", k == 0 ? "got:" : "    ", instead[k].c_str());
    }
  }
  // A daemon stopped by us must end cleanly unless the scenario says otherwise.
  if (!HasExitExpect(sc_) && exited_ && stopping_ && !(WIFEXITED(status_) && WEXITSTATUS(status_) == 0)) {
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
    printf("  result: FAIL (%d of %zu expectations failed, %zu errors)\n", failed, sc_.expects.size(),
           problems_.size());
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

}  // namespace

bool Run(const Scenario &sc, const RunOptions &opts) {
  Runner r(sc, opts);
  return r.Go();
}

}  // namespace scenario
}  // namespace tevctl
