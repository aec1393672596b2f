// tevnet's watcher: the link table, the state posted from it, and what is
// still owed to the daemon (restatements, removed NICs, a failed delivery).
// Used by tevnet.cpp's loop only.
#pragma once

#include <algorithm>
#include <chrono>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tevnet.h"

namespace tevnet {

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

inline void PostAll(Poster &poster, const std::vector<Observation> &obs) {
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
        PostAll(poster_, TransitionObservations(state_, n.second, state_.nics.at(n.second).carrier,
                                                &PortGroupsOf));
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
    // NICs removed while no tevnet ran (gone from the kernel, still in the
    // model) have their end told with the present state.
    std::set<std::string> names;
    for (const Link &l : links) names.insert(l.name);
    std::vector<std::string> unsettled;
    const time_t now = time(nullptr);
    for (const auto &m : ModelNics()) {
      auto nic = state_.nics.find(m.first);
      if (nic == state_.nics.end()) {
        if (names.count(m.first) == 0) departed_[m.first] = {m.second.nic, Clock::now()};
      } else if (m.second.nic.carrier != nic->second.carrier ||
                 now - m.second.written < kUnsettledSec) {
        unsettled.push_back(m.first);
      }
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
          PostAll(poster_,
                  TransitionObservations(state_, it->first, state_.nics.at(it->first).carrier,
                                         &PortGroupsOf));
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

}  // namespace tevnet
