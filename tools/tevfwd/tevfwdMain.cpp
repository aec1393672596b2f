// tevfwd: the management agent for hosts whose events go to Alertmanager.
// The main thread owns the qprob socket and only decodes, maps and spools,
// so tevd is never held up by a slow or absent Alertmanager; one sender
// thread per replica drains the spool to it in order and re-sends the firing
// alerts, so a replica that is away or never answers holds back no other.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PlatformLog.h"
#include "PlatformRoot.h"
#include "PlatformSocket.h"
#include "PromText.h"
#include "Qprob.h"
#include "QprobReceive.h"
#include "ToolLog.h"
#include "tevfwdCore.h"
#include "tevfwdHttp.h"
#include "tevfwdOptions.h"
#include "tevfwdSend.h"

namespace {

using tevfwd::Forwarder;
using tevfwd::Log;
using tevfwd::NowMs;
using tevfwd::Replica;
using tevfwd::ReplicaLoop;
using tevfwd::SendOnce;
using tevfwd::Shared;

std::atomic<bool> gCounters{false};
std::atomic<bool> gHangup{false};

void OnSignal(int sig) {
  (sig == SIGUSR1 ? gCounters : sig == SIGHUP ? gHangup : tevfwd::gStop) = true;
}

// The platform's diagnostics (a skipped spool file) on our log.
void LogV(const char *fmt, va_list ap) __attribute__((format(printf, 1, 0)));
void LogV(const char *fmt, va_list ap) { ToolLog_Diagnostic("tevfwd", fmt, ap); }

void PrintCounters(Shared *s) {
  TevLock lock(&s->mu);
  const tevfwd::Counters &c = s->fwd->counters();
  auto u = [](uint64_t v) { return static_cast<unsigned long long>(v); };
  Log("counters: received %llu sent %llu resolved %llu spooled %llu unspooled %llu dropped %llu "
      "expired %llu malformed %llu capped %llu retimed %llu; waiting %zu, active %zu",
      u(c.received), u(c.sent), u(c.resolved), u(c.spooled), u(c.unspooled), u(c.dropped),
      u(c.expired), u(c.malformed), u(c.capped), u(c.retimed), s->fwd->SpoolLength(),
      s->fwd->ActiveCount());
}

// The counters file that `tevctl fwd` prints, rewritten when they change.
void SaveCounters(Shared *s, const std::string &path, std::string *last) {
  std::string now;
  {
    TevLock lock(&s->mu);
    now = s->fwd->CountersJson();
  }
  if (now != *last && tevfwd::WriteFileAtomic(path, now + "\n")) *last = now;
}

// The counters file for Prometheus (docs/metrics.md), rewritten every
// kMetricsEveryMs; removed at a clean exit, so a file whose writer is gone
// tells of a forwarder that died.
constexpr int64_t kMetricsEveryMs = 2000;
const char kMetricsPath[] = "/var/run/orlan/metrics/tevfwd.prom";

void WriteMetrics(Shared *s, int64_t startedSec) {
  std::string text;
  {
    TevLock lock(&s->mu);
    text = s->fwd->MetricsText(NowMs(), startedSec);
  }
  PromText_WriteFile(kMetricsPath, text);
}

void FlushLog(Shared *s) {
  std::vector<std::string> lines;
  {
    TevLock lock(&s->mu);
    lines = s->fwd->TakeLogLines();
  }
  for (const std::string &l : lines) Log("%s", l.c_str());
}

// The listening socket the service manager handed over (socket activation:
// LISTEN_PID is this process, LISTEN_FDS counts descriptors from 3), or -1.
// The socket outlives the forwarder, so tevd's connections made while it
// restarts wait in the backlog instead of in tevd's retry list.
int InheritedListener() {
  const char *pid = getenv("LISTEN_PID");
  const char *fds = getenv("LISTEN_FDS");
  if (pid == nullptr || fds == nullptr || atol(pid) != static_cast<long>(getpid()) ||
      atoi(fds) < 1) {
    return -1;
  }
  unsetenv("LISTEN_PID");
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_FDNAMES");
  const int fd = 3;
  int type = 0, listening = 0;
  socklen_t len = sizeof type;
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0 || type != SOCK_STREAM) return -1;
  len = sizeof listening;
  if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) != 0 || listening == 0) return -1;
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  return fd;
}

int Listen(const std::string &path) {
  PlatformListen how;
  how.type = SOCK_STREAM;
  how.flags = SOCK_NONBLOCK;
  how.backlog = 128;
  return PlatformSocket_Listen(path, how);
}

// Reads one connection to EOF within 2 s: tevd writes one message and closes.
bool ReadMessage(int fd, std::string *data, std::string *why) {
  int error = 0;
  switch (Qprob_ReadToEnd(fd, 2000, kQprobReceiveMax, data, &error)) {
    case QprobRead::Whole: return true;
    case QprobRead::TimedOut: *why = "the sender did not finish within 2 s"; break;
    case QprobRead::TooLarge:
      *why = "message over " + std::to_string(kQprobReceiveMax) + " bytes";
      break;
    default: *why = std::string("read failed: ") + strerror(error); break;
  }
  return false;
}

void AcceptAll(Shared *s, int lfd) {
  for (;;) {
    int cfd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
    if (cfd < 0) return;  // EAGAIN: no more waiting
    std::string data, why;
    bool whole = ReadMessage(cfd, &data, &why);
    close(cfd);
    QprobMessage msg;
    if (whole && Qprob_Decode(data.data(), data.size(), &msg, &why)) {
      TevLock lock(&s->mu);
      try {
        s->fwd->Accept(msg, NowMs());
      } catch (const std::exception &e) {
        // Never expected; one event is lost, not the forwarder.
        Log("could not forward %s: %s", msg.id.c_str(), e.what());
        s->fwd->CountMalformed();
      }
    } else {
      Log("ignoring a message of %zu bytes: %s", data.size(), why.c_str());
      TevLock lock(&s->mu);
      s->fwd->CountMalformed();
    }
    s->wake.notify_all();
  }
}

void HandleSignals() {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnSignal;  // no SA_RESTART: poll returns at once
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGUSR1, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

void SaveActive(Shared *s) {
  TevLock lock(&s->mu);
  s->fwd->SaveActive();
}

// --once: every replica until it has everything or fails once.
int SendSpooledAndExit(Shared *s, std::vector<Replica> *reps, int64_t retryMaxMs, long timeoutMs) {
  for (size_t r = 0; r < reps->size(); ++r) {
    while (SendOnce(s, r, &(*reps)[r], retryMaxMs, timeoutMs) && (*reps)[r].failures == 0) {}
  }
  // The spool's firing alerts are in the active set now; the next forwarder
  // re-sends them only if it finds them saved.
  SaveActive(s);
  PrintCounters(s);
  size_t left;
  {
    TevLock lock(&s->mu);
    left = s->fwd->SpoolLength();
  }
  if (left != 0)
    Log("%zu alert(s) not delivered to every Alertmanager; they stay in the spool", left);
  return left == 0 ? 0 : 1;
}

// Accepts from tevd until a terminating signal; the sender thread does the HTTP.
void AcceptLoop(Shared *s, int lfd, const std::string &countersPath, std::string *lastCounters,
                int64_t startedSec) {
  int64_t nextSave = 0, nextLog = 0, nextMetrics = 0;
  while (!tevfwd::gStop) {
    struct pollfd p = {lfd, POLLIN, 0};
    if (poll(&p, 1, 200) > 0) AcceptAll(s, lfd);
    int64_t now = NowMs();
    {
      TevLock lock(&s->mu);
      size_t before = s->fwd->SpoolLength();
      s->fwd->Tick(now);
      if (s->fwd->SpoolLength() != before) s->wake.notify_all();
    }
    if (now >= nextSave) {
      SaveActive(s);
      SaveCounters(s, countersPath, lastCounters);
      nextSave = now + 1000;
    }
    if (now >= nextMetrics) {
      WriteMetrics(s, startedSec);
      nextMetrics = now + kMetricsEveryMs;
    }
    if (now >= nextLog) {
      FlushLog(s);
      nextLog = now + tevfwd::kFailureLogIntervalMs / 6;
    }
    if (gCounters.exchange(false)) PrintCounters(s);
    if (gHangup.exchange(false))
      Log("SIGHUP: nothing to reload; ignored (SIGTERM or SIGINT stops)");
  }
}

// Everything before the forwarder starts: the log, the signals, the lock,
// the spool directory and the host name. False when it cannot start (said on
// standard error).
bool Prepare(tevfwd::CommandLine *cl) {
  tevfwd::Options &opt = cl->opt;
  // Skipped files (the spool, the host model) are reported on our log.
  PlatformLog_SetDiagnosticSink(LogV);
  // Signals first: from here on a SIGHUP or SIGUSR1 must not end the program.
  HandleSignals();
  // A second forwarder would take over the agent socket and share the spool.
  std::string lockWhy;
  if (PlatformRoot_LockProgram("tevfwd", &lockWhy) < 0) {
    fprintf(stderr, "tevfwd: %s; not starting\n", lockWhy.c_str());
    return false;
  }
  opt.spoolDir = cl->spool.empty() ? PlatformRoot_Path("/var/lib/tevfwd") : cl->spool;
  if (int rc = PlatformRoot_MakeDirs(opt.spoolDir)) {
    fprintf(stderr, "tevfwd: cannot create the spool %s: %s\n", opt.spoolDir.c_str(), strerror(rc));
    return false;
  }
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  opt.hostName = host;
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  tevfwd::CommandLine cl;
  int parsed = tevfwd::ParseCommandLine(argc, argv, &cl);
  if (parsed >= 0) return parsed;
  tevfwd::Options &opt = cl.opt;
  if (!Prepare(&cl)) return 1;
  tevfwd::HttpInit();
  const int64_t startedSec = NowMs() / 1000;
  Shared s;
  size_t recovered, firing, active;
  {
    TevLock lock(&s.mu);  // no other thread yet: for the analysis
    s.fwd = std::make_unique<Forwarder>(opt);
    recovered = s.fwd->Recover(NowMs());
    firing = s.fwd->RecoveredFiring();
    active = s.fwd->ActiveCount();
  }
  FlushLog(&s);
  std::vector<Replica> reps(opt.alertmanagers.size());
  for (size_t r = 0; r < reps.size(); ++r) {
    reps[r].poster = std::make_unique<tevfwd::AlertPoster>(opt.alertmanagers[r], &tevfwd::gStop);
  }
  const int64_t retryMaxMs = cl.retryMaxSec * 1000;
  const long timeoutMs = static_cast<long>(cl.timeoutSec * 1000);
  if (cl.once) return SendSpooledAndExit(&s, &reps, retryMaxMs, timeoutMs);
  std::string path = PlatformEndpoint_Path(PlatformEndpoint::QprobAgent);
  int lfd = InheritedListener();
  const bool inherited = lfd >= 0;
  if (!inherited) lfd = Listen(path);
  if (lfd < 0) {
    fprintf(stderr, "tevfwd: cannot listen on %s: %s\n", path.c_str(), strerror(errno));
    return 1;
  }
  // Both places an alert comes back from: the spool's entries and the saved
  // set of firing alerts (which the entries may have changed since).
  Log("listening on %s%s; %zu Alertmanager(s); recovered %zu alert(s) from the spool and %zu "
      "firing from active.json; %zu firing now",
      path.c_str(), inherited ? " (socket from the service manager)" : "", reps.size(), recovered,
      firing, active);
  std::vector<std::thread> senders;
  for (size_t r = 0; r < reps.size(); ++r) {
    senders.emplace_back(ReplicaLoop, &s, r, &reps[r], retryMaxMs, timeoutMs);
  }
  const std::string countersPath = PlatformRoot_Path("/var/run/orlan/tevfwd-counters.json");
  std::string lastCounters;
  AcceptLoop(&s, lfd, countersPath, &lastCounters, startedSec);
  // Connections still in the backlog of a handed-over socket are the next
  // forwarder's; our own socket goes with us.
  close(lfd);
  if (!inherited) unlink(path.c_str());
  {
    TevLock lock(&s.mu);
    s.wake.notify_all();
  }
  for (Replica &rep : reps) rep.poster->Wake();
  for (std::thread &t : senders) t.join();
  SaveActive(&s);
  SaveCounters(&s, countersPath, &lastCounters);
  unlink(PlatformRoot_Path(kMetricsPath).c_str());
  FlushLog(&s);
  PrintCounters(&s);
  return 0;
}
