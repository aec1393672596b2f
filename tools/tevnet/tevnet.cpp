// tevnet: start-up, the watch loop, and the counters it writes.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "PlatformLog.h"
#include "PlatformRoot.h"
#include "PromText.h"
#include "ToolLog.h"
#include "tevnet.h"
#include "tevnetWatcher.h"

namespace tevnet {

namespace {

volatile sig_atomic_t gStop = 0;
volatile sig_atomic_t gHangup = 0;
volatile sig_atomic_t gUsr1 = 0;

void OnSignal(int sig) {
  if (sig == SIGHUP) {
    gHangup = 1;
  } else if (sig == SIGUSR1) {
    gUsr1 = 1;
  } else {
    gStop = 1;
  }
}

// Installed before anything else is done: from then on a SIGHUP or a SIGUSR1
// can no longer end the program without a word.
void HandleSignals() {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnSignal;
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaction(sig, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

// The counters file (docs/metrics.md), rewritten every kCountersEvery by the
// loop; removed when tevnet stops.
constexpr auto kCountersEvery = std::chrono::seconds(2);
const char kCountersPath[] = "/var/run/orlan/metrics/tevnet.prom";

void WriteCounters(const Watcher &watch, const Poster &poster, const Netlink &nl, int64_t started) {
  PromText text;
  auto one = [&text](const char *name, const char *type, const char *help, long long value) {
    text.One(name, type, help, static_cast<uint64_t>(value));
  };
  one("tevnet_nics_watched", "gauge", "NICs whose link tevnet watches.",
      static_cast<long long>(watch.State().nics.size()));
  one("tevnet_transitions_posted_total", "counter",
      "Observations posted to tevd (each link transition posts one or more).",
      static_cast<long long>(poster.Posted()));
  one("tevnet_posts_dropped_total", "counter",
      "Observations dropped: tevd absent or its context's queue full.",
      static_cast<long long>(poster.Dropped()));
  one("tevnet_netlink_overruns_total", "counter",
      "Receive buffer overruns of the netlink socket (link table read again).",
      static_cast<long long>(nl.Overruns()));
  one("tevnet_last_transition_timestamp_seconds", "gauge",
      "Time of the last observation posted (0: none yet).",
      static_cast<long long>(poster.LastPostUs() / 1000000));
  one("tevnet_start_time_seconds", "gauge", "Time tevnet started.",
      static_cast<long long>(started));
  one("tevnet_pid", "gauge", "Process id of the tevnet that wrote these counters.",
      static_cast<long long>(getpid()));
  PromText_WriteFile(kCountersPath, text.text());
}

void LogV(const char *format, va_list ap) __attribute__((format(printf, 1, 0)));
void LogV(const char *format, va_list ap) { ToolLog_Diagnostic("tevnet", format, ap); }

// Overruns of the netlink socket are logged once per interval.
struct OverrunLog {
  uint64_t logged = 0;
  int64_t at = 0;
};

// Applies the link notifications waiting on the socket.
void ReadLinks(Netlink &nl, Watcher &watch, const Options &opts, OverrunLog *overruns) {
  std::vector<LinkMessage> messages;
  bool complete = nl.Read(&messages);
  for (const LinkMessage &m : messages) watch.Apply(m);
  if (complete) return;
  // Transitions were lost in the kernel: what they led to is read from the
  // table and posted as differences.
  std::vector<Link> links;
  std::string why;
  if (nl.Dump(&links, &why)) {
    watch.Replace(links);
  } else {
    Log("netlink: %s", why.c_str());
  }
  int64_t now =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count();
  if (overruns->logged == 0 || now - overruns->at >= opts.dropLogSec) {
    Log("netlink: receive buffer overrun, link notifications lost (%llu overrun%s in all); "
        "link table read again",
        static_cast<unsigned long long>(nl.Overruns()), nl.Overruns() == 1 ? "" : "s");
    overruns->logged = nl.Overruns();
    overruns->at = now;
  }
}

// Until SIGTERM or SIGINT: link notifications, the daemon's restarts, the
// signals' requests and the link-flapping nodes. The exit status.
int WatchLoop(Netlink &nl, Watcher &watch, Poster &poster, const Options &opts) {
  FlapNodes flaps;
  flaps.Check(watch.State());
  OverrunLog overruns;
  const int64_t started = static_cast<int64_t>(time(nullptr));
  Clock::time_point countersAt = Clock::now();
  while (!gStop) {
    if (Clock::now() >= countersAt) {
      WriteCounters(watch, poster, nl, started);
      countersAt = Clock::now() + kCountersEvery;
    }
    struct pollfd pfd = {nl.Fd(), POLLIN, 0};
    // The link-flapping nodes are files: looked at four times a second.
    int r = poll(&pfd, 1, 250);
    if (r < 0 && errno != EINTR) {
      Log("poll: %s", strerror(errno));
      return 1;
    }
    if (r > 0) ReadLinks(nl, watch, opts, &overruns);
    if (poster.DaemonIsNew()) {
      Log("tevd started again: posting the present state");
      watch.PostPresent(false);
    }
    if (gHangup != 0) {
      gHangup = 0;
      Log("SIGHUP: writing the host model afresh from the link table");
      SyncHostModel(watch.State());
    }
    if (gUsr1 != 0) {
      gUsr1 = 0;
      Describe(watch.State());
    }
    for (const FlapNodes::Verdict &v : flaps.Check(watch.State())) {
      if (Enforce(nl, opts, watch.State(), v)) watch.TookDown(v.nic);
    }
    watch.Tick(flaps);
    poster.ReportDrops(false);
  }
  Log("stopping");
  unlink(PlatformRoot_Path(kCountersPath).c_str());
  return 0;
}

int Run(const Options &opts) {
  HandleSignals();
  // Skipped host-model files are reported on our log.
  PlatformLog_SetDiagnosticSink(LogV);
  // A second producer would post every transition twice and fight over the
  // host model.
  std::string lockWhy;
  if (PlatformRoot_LockProgram("tevnet", &lockWhy) < 0) {
    Log("%s; not starting", lockWhy.c_str());
    return 1;
  }
  Netlink nl;
  std::string why;
  std::vector<Link> links;
  if (!nl.Open(&why) || !nl.Dump(&links, &why)) {
    Log("%s", why.c_str());
    return 1;
  }
  Poster poster(opts.domain, opts.dropLogSec);
  Watcher watch(opts, poster);
  watch.Reset(links);
  if (opts.once) {
    watch.PostPresent(true);
    return poster.Dropped() == 0 ? 0 : 1;
  }
  Describe(watch.State());
  // What is wrong now is posted now: a link that is down before tevnet
  // starts is a fault like any other.
  poster.DaemonIsNew();
  watch.PostPresent(false);
  return WatchLoop(nl, watch, poster, opts);
}

}  // namespace

}  // namespace tevnet

int main(int argc, char **argv) {
  tevnet::Options opts;
  int exitCode = 0;
  if (!tevnet::ParseOptions(argc, argv, &opts, &exitCode)) return exitCode;
  return tevnet::Run(opts);
}
