// tevnet: options, the watch loop, and what is done with the daemon's
// link-flapping verdicts.
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "PlatformRoot.h"
#include "TevLib.h"
#include "tevdVersion.h"
#include "tevnet.h"

namespace tevnet {

namespace {

const char kUsage[] =
    "Usage: tevnet [--include PATTERN]... [--exclude PATTERN]... [--enforce[=all]]\n"
    "              [--domain N] [--once]\n"
    "Posts the link state of this host's physical NICs, and the uplink transitions\n"
    "of the port groups of its Linux bridges and bonds, to tevd under TEVD_ROOT\n"
    "(default /), and keeps the host model's network part current.\n"
    "  --include PATTERN  watch only NICs whose name matches (shell pattern; repeatable)\n"
    "  --exclude PATTERN  never watch NICs whose name matches (repeatable)\n"
    "  --enforce          when tevd writes 1 to a NIC's linkFlapping node, set the NIC\n"
    "                     administratively down (needs CAP_NET_ADMIN); 0 brings it up.\n"
    "                     Refused (and logged) when no other uplink of the NIC's switch\n"
    "                     has carrier, or when the NIC is no switch's uplink.\n"
    "  --enforce=all      the same without that refusal: can cut off a host reached\n"
    "                     over the NIC\n"
    "  --domain N         asynchronous context to post to (0..21, default 0)\n"
    "  --once             post the current state of every NIC and exit\n"
    "  --help, --version\n"
    "Without --enforce a link-flapping verdict is only logged.\n"
    "SIGHUP writes the host model's network part afresh from the link table; SIGUSR1\n"
    "logs the switches and uplinks seen. SIGTERM or SIGINT stops. One tevnet per\n"
    "root: a second one refuses to start (var/run/orlan/tevnet.lock).\n";

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

bool ParseOptions(int argc, char **argv, Options *opts, int *exitCode) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char *name, std::string *out) {
      std::string prefix = std::string(name) + "=";
      if (a.compare(0, prefix.size(), prefix) == 0) {
        *out = a.substr(prefix.size());
        return true;
      }
      if (a == name && i + 1 < argc) {
        *out = argv[++i];
        return true;
      }
      return false;
    };
    std::string v;
    if (a == "--help" || a == "-h") {
      printf("tevnet %s\n%s", TEVD_VERSION, kUsage);
      *exitCode = 0;
      return false;
    } else if (a == "--version") {
      printf("tevnet %s\n", TEVD_VERSION);
      *exitCode = 0;
      return false;
    } else if (a == "--once") {
      opts->once = true;
    } else if (a == "--enforce") {
      opts->enforce = 1;
    } else if (a == "--enforce=all") {
      opts->enforce = 2;
    } else if (value("--include", &v)) {
      opts->include.push_back(v);
    } else if (value("--exclude", &v)) {
      opts->exclude.push_back(v);
    } else if (value("--domain", &v)) {
      char *end = nullptr;
      unsigned long d = strtoul(v.c_str(), &end, 10);
      if (v.empty() || *end != '\0' || d > 21) {
        fprintf(stderr, "tevnet: --domain must be 0..21, not \"%s\"\n", v.c_str());
        *exitCode = 2;
        return false;
      }
      opts->domain = static_cast<uint32_t>(d);
    } else {
      fprintf(stderr, "tevnet: unknown option \"%s\" (try --help)\n", a.c_str());
      *exitCode = 2;
      return false;
    }
  }
  return true;
}

void PostAll(Poster &poster, const std::vector<Observation> &obs) {
  for (const Observation &o : obs) poster.Post(o);
}

void Describe(const NetState &state) {
  std::string nics;
  for (const auto &n : state.nics) {
    nics +=
        (nics.empty() ? "" : ", ") + n.first + (n.second.carrier ? " (carrier)" : " (no carrier)");
  }
  Log("watching %zu NIC%s: %s", state.nics.size(), state.nics.size() == 1 ? "" : "s",
      nics.empty() ? "none" : nics.c_str());
  for (const auto &sw : state.switches) {
    std::string members;
    for (const std::string &m : sw.second) members += (members.empty() ? "" : " ") + m;
    Log("switch %s: uplinks %s", sw.first.c_str(), members.empty() ? "none" : members.c_str());
  }
}

void LogTransitions(const NetState &before, const NetState &after) {
  for (const auto &n : after.nics) {
    auto old = before.nics.find(n.first);
    if (old == before.nics.end() || old->second.carrier == n.second.carrier) continue;
    if (n.second.vswitch.empty()) {
      Log("%s: carrier %s", n.first.c_str(), n.second.carrier ? "up" : "down");
    } else {
      Log("%s: carrier %s; switch %s has %d of %zu uplinks with carrier", n.first.c_str(),
          n.second.carrier ? "up" : "down", n.second.vswitch.c_str(),
          after.UplinksWithCarrier(n.second.vswitch), after.switches.at(n.second.vswitch).size());
    }
  }
}

// Acts on one write to a NIC's link-flapping node.
void Enforce(Netlink &nl, const Options &opts, const NetState &state, const FlapNodes::Verdict &v) {
  auto it = state.nics.find(v.nic);
  if (it == state.nics.end()) return;
  const NetState::Nic &nic = it->second;
  if (v.down) {
    if (opts.enforce == 0) {
      Log("%s: tevd reports the link flapping; would set it administratively down (not enforcing)",
          v.nic.c_str());
      return;
    }
    // A flapping link still carries traffic between its flaps: when no other
    // uplink of its switch has carrier (or it serves no switch, so nothing is
    // known of the host's other ways out), taking it down can cut the host off.
    int others =
        nic.vswitch.empty() ? 0 : state.UplinksWithCarrier(nic.vswitch) - (nic.carrier ? 1 : 0);
    if (opts.enforce == 1 && others == 0) {
      Log("%s: tevd reports the link flapping; NOT taking it down: %s (--enforce=all would)",
          v.nic.c_str(),
          nic.vswitch.empty()
              ? "it is not an uplink of a switch, and may be the host's only way out"
              : ("no other uplink of switch " + nic.vswitch + " has carrier").c_str());
      return;
    }
    if (!nic.adminUp) {
      Log("%s: tevd reports the link flapping; it is already administratively down", v.nic.c_str());
      return;
    }
  } else {
    if (nic.adminUp) return;
    if (opts.enforce == 0) {
      Log("%s: link-flapping node cleared; would set it administratively up (not enforcing)",
          v.nic.c_str());
      return;
    }
  }
  std::string why;
  if (nl.SetAdminUp(nic.ifindex, !v.down, &why) < 0) {
    Log("%s: cannot set it administratively %s: %s", v.nic.c_str(), v.down ? "down" : "up",
        why.c_str());
  } else if (v.down) {
    Log("%s: link flapping: set administratively down (write 0 to its linkFlapping node to bring it back)",
        v.nic.c_str());
  } else {
    Log("%s: link-flapping node cleared: set administratively up", v.nic.c_str());
  }
}

void LogV(const char *format, va_list ap) __attribute__((format(printf, 1, 0)));
void LogV(const char *format, va_list ap) {
  char line[2048];
  vsnprintf(line, sizeof line, format, ap);
  size_t n = strlen(line);
  if (n > 0 && line[n - 1] == '\n') line[n - 1] = '\0';  // the platform's lines end in one
  Log("%s", line);
}

int Run(const Options &opts) {
  HandleSignals();
  // Skipped host-model files are reported on our log.
  TevLib_SetLogFunction(LogV);
  // A second producer would post every transition twice and fight over the
  // host model.
  std::string lockWhy;
  if (PlatformRoot_LockProgram("tevnet", &lockWhy) < 0) {
    Log("%s; not starting", lockWhy.c_str());
    return 1;
  }
  Netlink nl;
  std::string why;
  if (!nl.Open(&why)) {
    Log("%s", why.c_str());
    return 1;
  }
  Poster poster(opts.domain, opts.dropLogSec);
  NetState state = BuildState(nl.Links(), opts);
  SyncHostModel(state);
  if (opts.once) {
    std::vector<std::pair<int, std::string>> order;
    for (const auto &n : state.nics) order.emplace_back(n.second.ifindex, n.first);
    std::sort(order.begin(), order.end());
    for (const auto &n : order) {
      PostAll(poster, TransitionObservations(state, n.second, state.nics.at(n.second).carrier,
                                             &PortGroupsOf));
    }
    return poster.Dropped() == 0 ? 0 : 1;
  }
  Describe(state);

  FlapNodes flaps;
  flaps.Check(state);
  while (!gStop) {
    struct pollfd pfd = {nl.Fd(), POLLIN, 0};
    // The link-flapping nodes are files: looked at four times a second.
    int r = poll(&pfd, 1, 250);
    if (r < 0 && errno != EINTR) {
      Log("poll: %s", strerror(errno));
      return 1;
    }
    if (r > 0 && nl.Poll()) {
      NetState next = BuildState(nl.Links(), opts);
      // The model first: a port group made for a new switch must exist when
      // the daemon looks up the switch of the transitions below.
      SyncHostModel(next);
      LogTransitions(state, next);
      PostAll(poster, DiffObservations(state, next, &PortGroupsOf));
      if (next.nics.size() != state.nics.size() || next.switches != state.switches) Describe(next);
      state = std::move(next);
    }
    if (gHangup != 0) {
      gHangup = 0;
      Log("SIGHUP: writing the host model afresh from the link table");
      SyncHostModel(state);
    }
    if (gUsr1 != 0) {
      gUsr1 = 0;
      Describe(state);
    }
    for (const FlapNodes::Verdict &v : flaps.Check(state)) Enforce(nl, opts, state, v);
    poster.ReportDrops(false);
  }
  Log("stopping");
  return 0;
}

}  // namespace

}  // namespace tevnet

int main(int argc, char **argv) {
  tevnet::Options opts;
  int exitCode = 0;
  if (!tevnet::ParseOptions(argc, argv, &opts, &exitCode)) return exitCode;
  return tevnet::Run(opts);
}
