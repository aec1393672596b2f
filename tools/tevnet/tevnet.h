// tevnet: the network observation producer of a Linux host. It watches the
// kernel's link table over rtnetlink and posts what a hypervisor kernel would
// post about its physical NICs and the uplinks of its virtual switches (Linux
// bridges and bonds), keeps the host model's network part true, and acts on
// the daemon's link-flapping verdicts.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "MsgFmt.h"

namespace tevnet {

// One interface as the kernel's link table has it.
struct Link {
  int ifindex = 0;
  std::string name;
  std::string kind;  // IFLA_INFO_KIND: "" for hardware, "veth", "bridge", "bond", ...
  bool loopback = false;
  bool ether = false;      // ARPHRD_ETHER
  bool adminUp = false;    // IFF_UP
  bool carrier = false;    // IFF_LOWER_UP: administratively up and the link has carrier
  int master = 0;          // ifindex of the bridge or bond it is enslaved to, 0 for none
  bool hasDevice = false;  // /sys/class/net/NAME/device exists: hardware behind it
};

// One link notification (or one entry of a dump), in the kernel's order.
struct LinkMessage {
  bool deleted = false;  // RTM_DELLINK
  Link link;
};

// ---- command line (tevnetOptions.cpp) -----------------------------------------
struct Options {
  std::vector<std::string> include;  // fnmatch patterns; empty: the NICs with a device
  std::vector<std::string> exclude;
  int flapQuietSec = 300;  // a link-flapping mark ends after this long without a change
  bool once = false;
  int enforce = 0;      // 0 log only, 1 act, 2 act even on a switch's last uplink
  uint32_t domain = 0;  // asynchronous context the observations go to
  int dropLogSec = 10;
};
// Reads the command line into `opts`. False, with the exit status, when the
// program is to end: after --help or --version (0) or a bad option (2, said
// on standard error).
bool ParseOptions(int argc, char **argv, Options *opts, int *exitCode);

// The network part of the host as the producer reports it.
struct NetState {
  struct Nic {
    int ifindex = 0;
    bool carrier = false;
    bool adminUp = false;
    std::string vswitch;  // "" when not an uplink of a switch
    bool operator==(const Nic &o) const {
      return ifindex == o.ifindex && carrier == o.carrier && adminUp == o.adminUp &&
             vswitch == o.vswitch;
    }
  };
  std::map<std::string, Nic> nics;                           // by name
  std::map<std::string, std::vector<std::string>> switches;  // switch -> member NICs, by name
  int UplinksWithCarrier(const std::string &vswitch) const;
  bool operator==(const NetState &o) const { return nics == o.nics && switches == o.switches; }
};

// The NICs watched: without --include the Ethernet interfaces with a device
// behind them (not veth, tap, bridge or bond ends); with it, the Ethernet
// interfaces whose names match, switches excepted; never an --exclude match.
bool IsWatchedNic(const Link &link, const Options &opts);
bool IsVirtualSwitch(const Link &link);
NetState BuildState(const std::vector<Link> &links, const Options &opts);
// Logs the NICs watched and each switch's uplinks.
void Describe(const NetState &state);
// Logs each carrier change from `before` to `after`.
void LogTransitions(const NetState &before, const NetState &after);

// One observation to post.
struct Observation {
  std::string id;
  std::string message;
  std::vector<MsgFmt_Value> args;
};

// Port groups of a switch, by name. Supplied by the host model.
typedef std::vector<std::string> (*PortGroupsFn)(const std::string &vswitch);

// The observations for NIC `nic` changing to carrier `up` in `state`, which
// already holds the new carrier: the port-group transitions of its switch
// (with the switch's uplinks that have carrier), then the bare link state.
std::vector<Observation> TransitionObservations(const NetState &state, const std::string &nic,
                                                bool up, PortGroupsFn portGroups);
// What tells the daemon the present state of `nics` (in this order): the
// port-group transitions of those with port groups (the bare link state would
// count as one more link-down for the flap detection, and the daemon ignores
// it then anyway), else the bare link state. A switch's uplinks told as down
// count its uplinks down one by one, the last of them with the present count.
std::vector<Observation> StateObservations(const NetState &state,
                                           const std::vector<std::string> &nics,
                                           PortGroupsFn portGroups);
// Carrier changes from `before` to `after`, applied one NIC at a time in
// ifindex order, so that two uplinks lost in one batch count down as a kernel
// would report them one after the other.
std::vector<Observation> DiffObservations(const NetState &before, const NetState &after,
                                          PortGroupsFn portGroups);

// ---- netlink (tevnetNetlink.cpp) --------------------------------------------
class Netlink {
 public:
  Netlink();
  ~Netlink();
  Netlink(const Netlink &) = delete;
  Netlink &operator=(const Netlink &) = delete;
  // Subscribes to link changes. False with `why`.
  bool Open(std::string *why);
  int Fd() const;
  // Appends the waiting notifications, in order. False when the kernel
  // dropped some (receive buffer overrun): the table must be read again.
  bool Read(std::vector<LinkMessage> *out);
  uint64_t Overruns() const;
  // The whole link table.
  bool Dump(std::vector<Link> *links, std::string *why);
  // Sets the administrative state of `ifindex`. 0 or a negative libnl error.
  int SetAdminUp(int ifindex, bool up, std::string *why);

 private:
  struct Impl;
  Impl *impl_;
};

// ---- host model (tevnetHost.cpp) ---------------------------------------------
std::vector<std::string> PortGroupsOf(const std::string &vswitch);
// Writes the NIC and switch entries of `state`, removes the ones this
// producer wrote for interfaces that are gone, and gives each switch without
// a port group one named after it.
void SyncHostModel(const NetState &state);
// The NICs the host model has from a tevnet, by name: carrier and switch as
// it last wrote them, and when it last wrote the carrier.
struct ModelNic {
  NetState::Nic nic;
  time_t written = 0;
};
std::map<std::string, ModelNic> ModelNics();

// Watches nodes/net/pNics/NIC/linkFlapping for the daemon's verdicts.
class FlapNodes {
 public:
  struct Verdict {
    std::string nic;
    bool down;  // 1 written: take the NIC down; 0: bring it back
  };
  // New writes since the last call (a value that changed, or 1 written again).
  std::vector<Verdict> Check(const NetState &state);
  bool Marked(const std::string &nic) const;
  // Writes 0 as the end of the mark; not a verdict of the daemon's.
  bool Clear(const std::string &nic);

 private:
  struct Seen {
    std::string value;
    int64_t mtimeNs = 0;
  };
  std::map<std::string, Seen> seen_;
};

// Acts on one write to a NIC's link-flapping node as --enforce says; true
// when it took the NIC down.
bool Enforce(Netlink &nl, const Options &opts, const NetState &state, const FlapNodes::Verdict &v);

// ---- posting (tevnetPost.cpp) -------------------------------------------------
// Sends observations as datagrams to the daemon's asynchronous context without
// ever waiting: a daemon that is slow, absent or restarting costs a counted
// drop, and the next send finds the socket again by its path.
class Poster {
 public:
  Poster(uint32_t domain, int dropLogSec);
  ~Poster();
  Poster(const Poster &) = delete;
  Poster &operator=(const Poster &) = delete;
  bool Post(const Observation &obs);
  // True when a socket is at the context's path and it is not the one the
  // last call saw: a daemon started since.
  bool DaemonIsNew();
  // Logs the drops of the interval once it has passed (or at once with `now`).
  void ReportDrops(bool now);
  uint64_t Dropped() const { return droppedTotal_; }
  uint64_t Posted() const { return postedTotal_; }
  int64_t LastPostUs() const { return lastPostUs_; }

 private:
  std::string path_;
  int fd_ = -1;
  int dropLogSec_;
  uint64_t droppedTotal_ = 0;
  uint64_t postedTotal_ = 0;
  int64_t lastPostUs_ = 0;
  uint64_t droppedInterval_ = 0;
  std::string lastReason_;
  int64_t intervalStart_ = 0;
  std::string socketId_;  // device, inode and change time of the socket file
};

void Log(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tevnet
