// From the kernel's link table to the host's network as the daemon knows it,
// and from a change of carrier to the observations a hypervisor kernel posts.
#include <fnmatch.h>

#include <algorithm>

#include "tevnet.h"

namespace tevnet {

namespace {

const char kPgDownId[] = "tev.net.pg.uplink.transition.down";
const char kPgDownFmt[] = "Uplink %s of port group %s is down, %d active uplinks left (%d)";
const char kPgUpId[] = "tev.net.pg.uplink.transition.up";
const char kPgUpFmt[] = "Uplink %s of port group %s is up, %d active uplinks";
const char kLinkDownId[] = "tev.net.hwnic.linkstate.down";
const char kLinkDownFmt[] = "Physical NIC %s linkstate is down";
const char kLinkUpId[] = "tev.net.hwnic.linkstate.up";
const char kLinkUpFmt[] = "Physical NIC %s linkstate is up";

bool MatchesAny(const std::vector<std::string> &patterns, const std::string &name) {
  for (const std::string &p : patterns) {
    if (fnmatch(p.c_str(), name.c_str(), 0) == 0) return true;
  }
  return false;
}

Observation Make(const char *id, const char *format, std::vector<MsgFmt_Value> args) {
  Observation o;
  o.id = id;
  o.message = MsgFmt_FormatValues(format, args);
  o.args = std::move(args);
  return o;
}

}  // namespace

bool IsVirtualSwitch(const Link &link) { return link.kind == "bridge" || link.kind == "bond"; }

bool IsWatchedNic(const Link &link, const Options &opts) {
  if (link.loopback || !link.ether || IsVirtualSwitch(link)) return false;
  if (MatchesAny(opts.exclude, link.name)) return false;
  // A veth or tap end comes and goes with containers and guests: it is
  // watched only when named.
  return opts.include.empty() ? link.hasDevice : MatchesAny(opts.include, link.name);
}

int NetState::UplinksWithCarrier(const std::string &vswitch) const {
  auto sw = switches.find(vswitch);
  if (sw == switches.end()) return 0;
  int n = 0;
  for (const std::string &member : sw->second) {
    auto nic = nics.find(member);
    n += nic != nics.end() && nic->second.carrier ? 1 : 0;
  }
  return n;
}

NetState BuildState(const std::vector<Link> &links, const Options &opts) {
  NetState state;
  std::map<int, std::string> switchByIndex;
  for (const Link &l : links) {
    if (IsVirtualSwitch(l)) {
      switchByIndex[l.ifindex] = l.name;
      state.switches[l.name];
    }
  }
  for (const Link &l : links) {
    if (!IsWatchedNic(l, opts)) continue;
    NetState::Nic nic;
    nic.ifindex = l.ifindex;
    nic.carrier = l.carrier;
    nic.adminUp = l.adminUp;
    auto sw = switchByIndex.find(l.master);
    if (l.master != 0 && sw != switchByIndex.end()) {
      nic.vswitch = sw->second;
      state.switches[sw->second].push_back(l.name);
    }
    state.nics[l.name] = nic;
  }
  for (auto &sw : state.switches) std::sort(sw.second.begin(), sw.second.end());
  return state;
}

std::vector<Observation> TransitionObservations(const NetState &state, const std::string &nic,
                                                bool up, PortGroupsFn portGroups) {
  std::vector<Observation> out;
  auto it = state.nics.find(nic);
  if (it == state.nics.end()) return out;
  const std::string &vswitch = it->second.vswitch;
  if (!vswitch.empty()) {
    int uplinks = state.UplinksWithCarrier(vswitch);
    int members = static_cast<int>(state.switches.at(vswitch).size());
    for (const std::string &pg : portGroups(vswitch)) {
      if (up) {
        out.push_back(
            Make(kPgUpId, kPgUpFmt,
                 {MsgFmt_Value::Str(nic), MsgFmt_Value::Str(pg), MsgFmt_Value::I32(uplinks)}));
      } else {
        // The fourth argument, which the daemon carries but never reads, is
        // the switch's number of uplinks.
        out.push_back(Make(kPgDownId, kPgDownFmt,
                           {MsgFmt_Value::Str(nic), MsgFmt_Value::Str(pg),
                            MsgFmt_Value::I32(uplinks), MsgFmt_Value::I32(members)}));
      }
    }
  }
  out.push_back(up ? Make(kLinkUpId, kLinkUpFmt, {MsgFmt_Value::Str(nic)})
                   : Make(kLinkDownId, kLinkDownFmt, {MsgFmt_Value::Str(nic)}));
  return out;
}

std::vector<Observation> StateObservations(const NetState &state,
                                           const std::vector<std::string> &nics,
                                           PortGroupsFn portGroups) {
  // The uplinks told as down count down as if lost one after another: told
  // all with the switch's present count, a switch that lost every uplink at
  // once would get its connectivity lost and never its redundancy, which is
  // what is left lost when one uplink comes back.
  NetState work = state;
  for (const std::string &nic : nics) {
    auto it = work.nics.find(nic);
    if (it != work.nics.end() && !it->second.vswitch.empty()) it->second.carrier = true;
  }
  std::vector<Observation> out;
  for (const std::string &nic : nics) {
    auto it = state.nics.find(nic);
    if (it == state.nics.end()) continue;
    bool up = it->second.carrier;
    work.nics[nic].carrier = up;
    // One that is up is told with the present count: a count that took the
    // later ones as still up would restore their switch's redundancy.
    std::vector<Observation> obs = TransitionObservations(up ? state : work, nic, up, portGroups);
    if (obs.size() > 1) obs.pop_back();
    out.insert(out.end(), obs.begin(), obs.end());
  }
  return out;
}

std::vector<Observation> DiffObservations(const NetState &before, const NetState &after,
                                          PortGroupsFn portGroups) {
  std::vector<std::pair<int, std::string>> changed;
  for (const auto &n : after.nics) {
    auto old = before.nics.find(n.first);
    if (old != before.nics.end() && old->second.carrier != n.second.carrier) {
      changed.emplace_back(n.second.ifindex, n.first);
    }
  }
  std::sort(changed.begin(), changed.end());
  // Start from the new membership with the old carriers and apply the
  // changes one by one.
  NetState work = after;
  for (auto &n : work.nics)
    n.second.carrier =
        before.nics.count(n.first) ? before.nics.at(n.first).carrier : n.second.carrier;
  std::vector<Observation> out;
  for (const auto &c : changed) {
    bool up = after.nics.at(c.second).carrier;
    work.nics[c.second].carrier = up;
    std::vector<Observation> obs = TransitionObservations(work, c.second, up, portGroups);
    out.insert(out.end(), obs.begin(), obs.end());
  }
  return out;
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

}  // namespace tevnet
