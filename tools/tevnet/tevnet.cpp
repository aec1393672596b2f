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
#include "tevnet.h"

namespace tevnet {

namespace {

using Clock = std::chrono::steady_clock;

// The daemon gathers a NIC's port-group transitions until the second two
// whole seconds after the first of them (so at most 2 s) and then reports
// them kind by kind, in the order each kind first came: after a burst the
// last word may be the wrong one, and the present state is told again once
// that window has surely closed. Half a second more than the window: each
// step here adds to the time a fault takes to show.
constexpr auto kSettle = std::chrono::milliseconds(2500);
// A NIC the last tevnet told of this recently (or whose carrier changed
// while none ran) may be in a window the daemon has still open.
constexpr int kUnsettledSec = 6;
// How long a removed NIC is told as gone again to a daemon that is new.
constexpr auto kDepartedKept = std::chrono::seconds(60);
// A delivery that failed is made good by the whole present state this much later.
constexpr auto kResyncRetry = std::chrono::milliseconds(1000);

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

void PostAll(Poster &poster, const std::vector<Observation> &obs) {
  for (const Observation &o : obs) poster.Post(o);
}

// The link table, the state posted from it, and what is still owed to the daemon.
class Watcher {
 public:
  Watcher(const Options &opts, Poster &poster) : opts_(opts), poster_(poster) {}

  const NetState &State() const { return state_; }

  // Every watched NIC's present state, in ifindex order. False when some of it
  // could not be delivered: it is tried again shortly.
  bool PostPresent(bool bare) {
    uint64_t dropped = poster_.Dropped();
    std::vector<std::pair<int, std::string>> order;
    for (const auto &n : state_.nics) order.emplace_back(n.second.ifindex, n.first);
    std::sort(order.begin(), order.end());
    if (!bare) TellDeparted();
    std::vector<std::string> nics;
    for (const auto &n : order) {
      if (bare) {
        PostAll(poster_, TransitionObservations(state_, n.second,
                                                state_.nics.at(n.second).carrier, &PortGroupsOf));
      }
      nics.push_back(n.second);
    }
    if (!bare) PostAll(poster_, StateObservations(state_, nics, &PortGroupsOf));
    for (const std::string &nic : nics) lastTold_[nic] = Clock::now();
    bool ok = poster_.Dropped() == dropped;
    resyncAt_ = ok ? Clock::time_point::max() : Clock::now() + kResyncRetry;
    return ok;
  }

  // One notification: applied and posted on its own, so that no change is
  // merged with the next.
  void Apply(const LinkMessage &m) {
    if (m.deleted) {
      table_.erase(m.link.ifindex);
    } else {
      table_[m.link.ifindex] = m.link;
    }
    Advance(BuildState(Links(), opts_));
  }

  // After an overrun: the table read afresh, its differences posted.
  void Replace(const std::vector<Link> &links) {
    table_.clear();
    for (const Link &l : links) table_[l.ifindex] = l;
    Advance(BuildState(Links(), opts_));
  }

  // At start: the daemon may still gather an episode from the tevnet that
  // ran before (a burst whose restatement died with it), and what is posted
  // now joins that episode rather than following it, so the episode's last
  // word may be the burst's. The NICs the last tevnet told of lately, or
  // whose carrier changed while none ran, are told again once that has
  // settled. Found before the host model is written afresh.
  void Reset(const std::vector<Link> &links) {
    table_.clear();
    for (const Link &l : links) table_[l.ifindex] = l;
    state_ = BuildState(Links(), opts_);
    const std::vector<std::string> unsettled = UnsettledNics(state_, kUnsettledSec);
    // NICs removed while no tevnet ran: gone from the kernel, still in the
    // model; their end is told with the present state.
    std::set<std::string> names;
    for (const Link &l : links) names.insert(l.name);
    for (const auto &m : ModelNics()) {
      if (names.count(m.first) == 0) departed_[m.first] = {m.second, Clock::now()};
    }
    SyncHostModel(state_);
    for (const auto &n : state_.nics) lastChange_[n.first] = Clock::now();
    for (const std::string &nic : unsettled) Restate(nic, false);
  }

  // A take-down by --enforce falls inside the flap's own burst: the loss is told
  // again after it, so that the daemon's last word is the NIC being down.
  void TookDown(const std::string &nic) { Restate(nic, false); }

  // Restatements and retries that are due; marks of NICs that have been quiet.
  void Tick(FlapNodes &flaps) {
    Clock::time_point now = Clock::now();
    std::vector<std::string> due;
    for (auto it = restate_.begin(); it != restate_.end();) {
      if (it->second.at > now) {
        ++it;
        continue;
      }
      if (state_.nics.count(it->first) != 0) {
        if (it->second.bare) {
          PostAll(poster_, TransitionObservations(state_, it->first,
                                                  state_.nics.at(it->first).carrier, &PortGroupsOf));
        } else {
          due.push_back(it->first);
        }
      }
      it = restate_.erase(it);
    }
    PostAll(poster_, StateObservations(state_, due, &PortGroupsOf));
    for (const std::string &nic : due) lastTold_[nic] = now;
    if (resyncAt_ <= now) {
      Log("posting the present state again after a failed delivery");
      PostPresent(false);
    } else if (drops_ != poster_.Dropped() && resyncAt_ == Clock::time_point::max()) {
      resyncAt_ = now + kResyncRetry;
    }
    drops_ = poster_.Dropped();
    if (opts_.flapQuietSec <= 0) return;
    for (const auto &n : state_.nics) {
      // A NIC held down says nothing of its link: its mark stays until an
      // operator clears it.
      if (!flaps.Marked(n.first) || !n.second.adminUp ||
          now - lastChange_[n.first] < std::chrono::seconds(opts_.flapQuietSec)) {
        continue;
      }
      if (flaps.Clear(n.first)) {
        Log("%s: no link change for %d s: link-flapping mark cleared", n.first.c_str(),
            opts_.flapQuietSec);
      }
    }
  }

 private:
  struct Pending {
    Clock::time_point at;
    bool bare;  // a NIC new to the daemon: the bare link state too
  };

  std::vector<Link> Links() const {
    std::vector<Link> out;
    out.reserve(table_.size());
    for (const auto &e : table_) out.push_back(e.second);
    return out;
  }

  void Restate(const std::string &nic, bool bare) {
    Pending &p = restate_[nic];
    p.at = Clock::now() + kSettle;
    p.bare = p.bare || bare;
  }

  void Advance(NetState next) {
    if (next == state_) return;
    // The model first: a port group made for a new switch must exist when
    // the daemon looks up the switch of the transitions below.
    SyncHostModel(next);
    LogTransitions(state_, next);
    Clock::time_point now = Clock::now();
    for (const auto &n : next.nics) {
      auto old = state_.nics.find(n.first);
      if (old == state_.nics.end()) {
        // A new NIC is told once it has settled: a veth is made down, then
        // enslaved and brought up.
        lastChange_[n.first] = now;
        Restate(n.first, true);
      } else if (old->second.carrier != n.second.carrier) {
        // The daemon reports each NIC's episode on its own and, in one
        // second, in the order of their names: a switch whose uplinks
        // changed close together may be left with a word that came first in
        // time but last in that order (redundancy restored by one uplink
        // after the loss of another). The whole switch is told again.
        const std::string &sw = n.second.vswitch;
        std::vector<std::string> told = {n.first};
        if (!sw.empty()) told = next.switches.at(sw);
        bool unsettled = false;
        for (const std::string &nic : told) {
          auto last = lastTold_.find(nic);
          unsettled = unsettled || restate_.count(nic) != 0 ||
                      (last != lastTold_.end() && now - last->second < kSettle);
        }
        if (unsettled) {
          for (const std::string &nic : told) Restate(nic, false);
        }
        lastChange_[n.first] = now;
        lastTold_[n.first] = now;
      }
    }
    PostAll(poster_, DiffObservations(state_, next, &PortGroupsOf));
    for (const auto &n : state_.nics) {
      if (next.nics.count(n.first) == 0) Gone(n.first, n.second, next);
    }
    if (next.nics.size() != state_.nics.size() || next.switches != state_.switches) Describe(next);
    state_ = std::move(next);
  }

  // A NIC that went away ends its faults: it is told as coming up, among its
  // switch's uplinks as they now stand, whether it had carrier or not (one
  // with carrier may still have a flapping alert). Where none of them has
  // carrier the daemon would report no port group restored, and only the
  // bare link state names the NIC.
  void Gone(const std::string &name, NetState::Nic nic, const NetState &next) {
    restate_.erase(name);
    lastChange_.erase(name);
    lastTold_.erase(name);
    if (table_.count(nic.ifindex) != 0) return;  // still there, no longer watched
    Log("%s: removed (told as up: its alerts end)", name.c_str());
    departed_[name] = {nic, Clock::now()};
    TellGone(name, nic, next);
  }

  void TellGone(const std::string &name, NetState::Nic nic, const NetState &now) {
    NetState view = now;
    if (view.switches.count(nic.vswitch) == 0 || view.UplinksWithCarrier(nic.vswitch) == 0) {
      nic.vswitch.clear();
    }
    nic.carrier = true;
    view.nics[name] = nic;
    PostAll(poster_, TransitionObservations(view, name, true, &PortGroupsOf));
    // That recovery counts the uplinks left with carrier; a loss of
    // redundancy among them that it may have ended is told again.
    if (!nic.vswitch.empty()) {
      for (const std::string &member : now.switches.at(nic.vswitch)) Restate(member, false);
    }
  }

  // A daemon that was stopped within its settling time of a NIC's removal
  // never reported it, and the present state no longer names the NIC: the
  // NICs removed lately are told as gone to a new daemon too.
  void TellDeparted() {
    const Clock::time_point now = Clock::now();
    for (auto it = departed_.begin(); it != departed_.end();) {
      if (now - it->second.at > kDepartedKept || state_.nics.count(it->first) != 0) {
        it = departed_.erase(it);
        continue;
      }
      TellGone(it->first, it->second.nic, state_);
      ++it;
    }
  }

  const Options &opts_;
  Poster &poster_;
  std::map<int, Link> table_;
  NetState state_;
  std::map<std::string, Pending> restate_;
  std::map<std::string, Clock::time_point> lastChange_;
  // When the daemon was last told of each NIC: a change, a restatement or
  // the present state.
  std::map<std::string, Clock::time_point> lastTold_;
  struct Departed {
    NetState::Nic nic;
    Clock::time_point at;
  };
  std::map<std::string, Departed> departed_;  // NICs removed lately, by name
  Clock::time_point resyncAt_ = Clock::time_point::max();
  uint64_t drops_ = 0;
};

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
void LogV(const char *format, va_list ap) {
  char line[2048];
  vsnprintf(line, sizeof line, format, ap);
  size_t n = strlen(line);
  if (n > 0 && line[n - 1] == '\n') line[n - 1] = '\0';  // the platform's lines end in one
  Log("%s", line);
}

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
