// The host model's network part, written from the kernel's link table:
//   platform/nodes/net/pNics/NIC/            one per NIC (the daemon writes
//                                            linkFlapping there)
//   platform/nodes/net/pNics/NIC/carrier     1 or 0; also marks the entry as
//                                            this producer's
//   platform/nodes/net/pNics/NIC/vswitch     the switch it is an uplink of, or empty
//   platform/network/vswitches/SW/uplinks    the switch's member NICs, one a line
//   platform/network/vswitches/SW/portgroup  the port group made for a switch
//                                            that had none (see below)
// The daemon's verdicts, written to linkFlapping, are watched here too, and
// acted on (Enforce) as --enforce says.
// Port groups are the operator's: a file of platform/network/portgroups/ is
// only ever written or removed when it is the one made for a switch without
// port groups and still names that switch.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "PlatformModel.h"
#include "PlatformRoot.h"
#include "tevnet.h"

namespace tevnet {

namespace {

const char kPNics[] = "nodes/net/pNics";
const char kPortGroups[] = "network/portgroups";
const char kSwitches[] = "network/vswitches";

std::vector<std::string> ListDir(const std::string &relative) {
  std::vector<std::string> names;
  DIR *d = opendir(PlatformModel_Path(relative).c_str());
  if (d == nullptr) return names;
  while (struct dirent *e = readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

std::string Unescape(const std::string &escaped) {
  std::string out;
  for (size_t i = 0; i < escaped.size(); ++i) {
    if (escaped.compare(i, 3, "%2F") == 0) {
      out += '/';
      i += 2;
    } else {
      out += escaped[i];
    }
  }
  return out;
}

bool Exists(const std::string &relative) {
  struct stat st;
  return stat(PlatformModel_Path(relative).c_str(), &st) == 0;
}

// Writes only what differs, so that readers see no needless changes.
void WriteIfChanged(const std::string &relative, const std::string &value) {
  std::string old;
  if (PlatformModel_Read(relative, &old) && old == value) return;
  if (!PlatformModel_Write(relative, value)) {
    Log("host model: cannot write %s: %s", PlatformModel_Path(relative).c_str(), strerror(errno));
  }
}

bool MakeDir(const std::string &relative) {
  int rc = PlatformRoot_MakeDirs(PlatformModel_Path(relative) + "/");
  if (rc != 0) {
    Log("host model: cannot create %s: %s", PlatformModel_Path(relative).c_str(), strerror(rc));
  }
  return rc == 0;
}

// Removes a directory of plain files (the entries this producer owns).
void RemoveEntry(const std::string &relative) {
  for (const std::string &f : ListDir(relative))
    unlink(PlatformModel_Path(relative + "/" + f).c_str());
  if (rmdir(PlatformModel_Path(relative).c_str()) != 0) {
    Log("host model: cannot remove %s: %s", PlatformModel_Path(relative).c_str(), strerror(errno));
  }
}

// The port group made for `vswitch` goes when it is no longer needed, unless
// someone has since pointed it at another switch.
void DropMadePortGroup(const std::string &vswitch) {
  std::string marker =
      std::string(kSwitches) + "/" + PlatformModel_EscapeName(vswitch) + "/portgroup";
  std::string pg;
  if (!PlatformModel_Read(marker, &pg)) return;
  std::string file = std::string(kPortGroups) + "/" + PlatformModel_EscapeName(pg);
  std::string target;
  if (PlatformModel_Read(file, &target) && target == vswitch)
    unlink(PlatformModel_Path(file).c_str());
  unlink(PlatformModel_Path(marker).c_str());
}

void SyncPortGroup(const std::string &vswitch) {
  std::string dir = std::string(kSwitches) + "/" + PlatformModel_EscapeName(vswitch);
  std::string made;
  bool haveMade = PlatformModel_Read(dir + "/portgroup", &made);
  std::vector<std::string> pgs = PortGroupsOf(vswitch);
  bool operatorPgs = std::any_of(pgs.begin(), pgs.end(),
                                 [&](const std::string &pg) { return !haveMade || pg != made; });
  if (operatorPgs) {
    if (haveMade) DropMadePortGroup(vswitch);
    return;
  }
  std::string file = std::string(kPortGroups) + "/" + PlatformModel_EscapeName(vswitch);
  if (haveMade) {
    if (!Exists(file)) WriteIfChanged(file, vswitch);  // removed by hand: the switch needs one
    return;
  }
  if (Exists(file)) {
    static std::set<std::string> warned;
    if (warned.insert(vswitch).second) {
      Log("host model: switch %s has no port group, and %s belongs to another switch; "
          "its uplinks are reported without port groups",
          vswitch.c_str(), PlatformModel_Path(file).c_str());
    }
    return;
  }
  WriteIfChanged(file, vswitch);
  WriteIfChanged(dir + "/portgroup", vswitch);
}

}  // namespace

std::vector<std::string> PortGroupsOf(const std::string &vswitch) {
  std::vector<std::string> out;
  for (const std::string &f : ListDir(kPortGroups)) {
    std::string target;
    if (PlatformModel_Read(std::string(kPortGroups) + "/" + f, &target) && target == vswitch) {
      out.push_back(Unescape(f));
    }
  }
  return out;
}

std::map<std::string, ModelNic> ModelNics() {
  std::map<std::string, ModelNic> out;
  for (const std::string &f : ListDir(kPNics)) {
    std::string dir = std::string(kPNics) + "/" + f, carrier, vswitch;
    struct stat st;
    if (!PlatformModel_Read(dir + "/carrier", &carrier) ||
        stat(PlatformModel_Path(dir + "/carrier").c_str(), &st) != 0) {
      continue;  // not tevnet's entry
    }
    ModelNic &m = out[Unescape(f)];
    m.nic.carrier = carrier == "1";
    if (PlatformModel_Read(dir + "/vswitch", &vswitch)) m.nic.vswitch = vswitch;
    m.written = st.st_mtime;
  }
  return out;
}

void SyncHostModel(const NetState &state) {
  if (!MakeDir(kPNics) || !MakeDir(kPortGroups) || !MakeDir(kSwitches)) return;
  for (const auto &n : state.nics) {
    std::string dir = std::string(kPNics) + "/" + PlatformModel_EscapeName(n.first);
    if (!MakeDir(dir)) continue;
    WriteIfChanged(dir + "/carrier", n.second.carrier ? "1" : "0");
    WriteIfChanged(dir + "/vswitch", n.second.vswitch);
  }
  for (const std::string &f : ListDir(kPNics)) {
    std::string dir = std::string(kPNics) + "/" + f;
    if (state.nics.count(Unescape(f)) == 0 && Exists(dir + "/carrier")) RemoveEntry(dir);
  }
  for (const auto &sw : state.switches) {
    std::string dir = std::string(kSwitches) + "/" + PlatformModel_EscapeName(sw.first);
    if (!MakeDir(dir)) continue;
    std::string members;
    for (const std::string &m : sw.second) members += (members.empty() ? "" : "\n") + m;
    WriteIfChanged(dir + "/uplinks", members);
    SyncPortGroup(sw.first);
  }
  for (const std::string &f : ListDir(kSwitches)) {
    std::string name = Unescape(f);
    if (state.switches.count(name) != 0) continue;
    DropMadePortGroup(name);
    RemoveEntry(std::string(kSwitches) + "/" + f);
  }
}

std::vector<FlapNodes::Verdict> FlapNodes::Check(const NetState &state) {
  std::vector<Verdict> out;
  for (const auto &n : state.nics) {
    std::string rel =
        std::string(kPNics) + "/" + PlatformModel_EscapeName(n.first) + "/linkFlapping";
    struct stat st;
    if (stat(PlatformModel_Path(rel).c_str(), &st) != 0) {
      seen_[n.first] = Seen{"", 0};
      continue;
    }
    Seen now;
    PlatformModel_Read(rel, &now.value);
    now.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    auto old = seen_.find(n.first);
    bool first = old == seen_.end();
    bool fresh = !first && (old->second.value != now.value || old->second.mtimeNs != now.mtimeNs);
    seen_[n.first] = now;
    // What was there before this producer first looked is history, not a verdict.
    if (first || !fresh) continue;
    if (now.value == "1") {
      out.push_back(Verdict{n.first, true});
    } else if (now.value == "0") {
      out.push_back(Verdict{n.first, false});
    } else {
      Log("%s: ignoring link-flapping value \"%s\" (expected 1 or 0)",
          PlatformModel_Path(rel).c_str(), now.value.c_str());
    }
  }
  return out;
}

bool FlapNodes::Marked(const std::string &nic) const {
  auto it = seen_.find(nic);
  return it != seen_.end() && it->second.value == "1";
}

bool FlapNodes::Clear(const std::string &nic) {
  std::string rel = std::string(kPNics) + "/" + PlatformModel_EscapeName(nic) + "/linkFlapping";
  if (!PlatformModel_Write(rel, "0")) {
    Log("host model: cannot write %s: %s", PlatformModel_Path(rel).c_str(), strerror(errno));
    return false;
  }
  struct stat st;
  Seen now{"0", 0};
  if (stat(PlatformModel_Path(rel).c_str(), &st) == 0)
    now.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  seen_[nic] = now;
  return true;
}

bool Enforce(Netlink &nl, const Options &opts, const NetState &state, const FlapNodes::Verdict &v) {
  auto it = state.nics.find(v.nic);
  if (it == state.nics.end()) return false;
  const NetState::Nic &nic = it->second;
  if (v.down) {
    if (opts.enforce == 0) {
      Log("%s: tevd reports the link flapping; would set it administratively down (not enforcing)",
          v.nic.c_str());
      return false;
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
      return false;
    }
    if (!nic.adminUp) {
      Log("%s: tevd reports the link flapping; it is already administratively down", v.nic.c_str());
      return false;
    }
  } else {
    if (nic.adminUp) return false;
    if (opts.enforce == 0) {
      Log("%s: link-flapping node cleared; would set it administratively up (not enforcing)",
          v.nic.c_str());
      return false;
    }
  }
  std::string why;
  if (nl.SetAdminUp(nic.ifindex, !v.down, &why) < 0) {
    Log("%s: cannot set it administratively %s: %s", v.nic.c_str(), v.down ? "down" : "up",
        why.c_str());
    return false;
  }
  if (v.down) {
    Log("%s: link flapping: set administratively down (write 0 to its linkFlapping node to bring it back)",
        v.nic.c_str());
  } else {
    Log("%s: link-flapping node cleared: set administratively up", v.nic.c_str());
  }
  return v.down;
}

}  // namespace tevnet
