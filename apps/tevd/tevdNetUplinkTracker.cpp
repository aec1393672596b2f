// Uplink redundancy tracking for the "net" correlator.
//
// One physical NIC failure arrives as several observations (per port group,
// per distributed port, bare link state, maybe a watchdog time-out). Each kind
// sets a bit for the NIC and schedules one settling time-out (2 s port groups
// and distributed ports, 1 s bare link state, 7 s watchdog); the records of the
// episode are gathered meanwhile. When a time-out expires, one summary per kind
// is posted, classifying each port group by the uplinks it has left. A pending
// watchdog holds everything back; a NIC that went down and came back within
// the watchdog's time is reported as one transient failure.
//
// All of it runs on the "net" agent thread: in the handlers, and in
// TevdNetCorrelator_ProcessTimeouts when the alarm has woken the agent through
// its pipe. One alarm serves every NIC; it is armed for the nearest expiry.
#include <sys/time.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "HostCtl.h"
#include "TevClock.h"
#include "tevdAlarm.h"
#include "tevdLog.h"
#include "tevdNetInternal.h"
#include "tevdQprob.h"
#include "tevdUtil.h"

TevdNetTracker tevdNet;

// Testing a bit of an unknown NIC must not insert it.
bool TevdNetCorrelatorHasAny(const std::string &nic, HwnicStateType bits) {
  auto it = tevdNet.hwnicStates.find(nic);
  return it != tevdNet.hwnicStates.end() && (it->second & bits) != 0;
}

namespace {

void ClearBits(const std::string &nic, HwnicStateType bits) { tevdNet.hwnicStates[nic] &= ~bits; }

void ArmAlarm(uint32_t seconds, uint64_t now) {
  unsigned remaining = 0;
  TevdAlarm_Set(tevdNet.tevdNetAlarmId, 0, seconds, &remaining);
  tevdNet.alarmDuration = seconds;
  tevdNet.alarmArmedAt = now;
}

// "\"A\", \"B\", \"C\""
std::string QuotedList(const std::vector<std::string> &names) {
  std::string out;
  for (const std::string &name : names) {
    if (!out.empty()) {
      out += ", ";
    }
    out += "\"" + name + "\"";
  }
  return out;
}

// Loss: 0 uplinks left = connectivity, 1 = redundancy lost, 2+ = degraded.
struct LossLists {
  std::vector<std::string> connectivity, redundancyLost, degraded;
  void Add(const std::string &label, int32_t uplinks) {
    if (uplinks == 0) {
      connectivity.push_back(label);
    } else if (uplinks == 1) {
      redundancyLost.push_back(label);
    } else if (uplinks >= 2) {
      degraded.push_back(label);
    }
  }
};

// Recovery: 1 uplink active = connectivity back, 2+ = redundancy back.
struct RestoreLists {
  std::vector<std::string> connectivity, redundancy;
  void Add(const std::string &label, int32_t uplinks) {
    if (uplinks == 1) {
      connectivity.push_back(label);
    } else if (uplinks >= 2) {
      redundancy.push_back(label);
    }
  }
};

std::string DvPortLabel(const DvPortInfo &info) { return info.first + "/" + info.second; }

void PostLinkDown(const std::string &nic) {
  TevdQprob_Post(0, Problem, tevd_ev::ProblemNetHwnicLinkstateDown, nic.c_str());
}

void ReportPortgroupUp(const std::string &nic) {
  auto it = tevdNet.pgUpInfo.find(nic);
  if (it == tevdNet.pgUpInfo.end()) {
    return;
  }
  ClearBits(nic, HWNIC_PG_UP);
  std::string vswitch = TevdNetCorrelatorSwitchName(it->second.front().name);
  if (vswitch.empty()) {
    return;
  }
  RestoreLists lists;
  for (const PortgroupInfo &pg : it->second) {
    lists.Add(pg.name, pg.uplinks);
  }
  if (!lists.connectivity.empty()) {
    TevdQprob_Post(0, Clear, tevd_ev::ClearNetConnectivityRestored, vswitch.c_str(),
                   QuotedList(lists.connectivity).c_str(), nic.c_str());
  }
  if (!lists.redundancy.empty()) {
    TevdQprob_Post(0, Clear, tevd_ev::ClearNetRedundancyRestored, vswitch.c_str(),
                   QuotedList(lists.redundancy).c_str(), nic.c_str());
  }
  tevdNet.pgUpInfo.erase(it);
}

void ReportDvportUp(const std::string &nic) {
  auto it = tevdNet.dvPortUpInfo.find(nic);
  if (it == tevdNet.dvPortUpInfo.end()) {
    return;
  }
  ClearBits(nic, HWNIC_DVPORT_UP);
  RestoreLists lists;
  for (const DvPortInfo &port : it->second) {
    lists.Add(DvPortLabel(port), port.uplinks);
  }
  if (!lists.connectivity.empty()) {
    TevdQprob_Post(0, Clear, tevd_ev::ClearNetDvportConnectivityRestored,
                   QuotedList(lists.connectivity).c_str(), nic.c_str());
  }
  if (!lists.redundancy.empty()) {
    TevdQprob_Post(0, Clear, tevd_ev::ClearNetDvportRedundancyRestored,
                   QuotedList(lists.redundancy).c_str(), nic.c_str());
  }
  tevdNet.dvPortUpInfo.erase(it);
}

// The watchdog's own expiry: report what is still held back, or fold a
// down-and-up episode into one transient-failure event. The watchdog bit is
// only ever cleared by that full reset.
void HandleWatchdogExpiry(const std::string &nic) {
  auto found = tevdNet.hwnicStates.find(nic);
  HwnicStateType bits = found == tevdNet.hwnicStates.end() ? 0 : found->second;
  bool down = (bits & (HWNIC_PG_DOWN | HWNIC_DVPORT_DOWN | HWNIC_LINK_DOWN)) != 0;
  bool up = (bits & (HWNIC_PG_UP | HWNIC_DVPORT_UP | HWNIC_LINK_UP)) != 0;
  if (!up && down) {
    if (bits & HWNIC_PG_DOWN) {
      TevdNetCorrelatorReportPortgroupDown(nic);
    } else if (bits & HWNIC_DVPORT_DOWN) {
      TevdNetCorrelatorReportDvportDown(nic);
    } else if (bits & HWNIC_LINK_DOWN) {
      PostLinkDown(nic);
    } else {
      Panic("Unknown state: %x\n", bits);
    }
  } else if (up && down) {
    if (bits & HWNIC_PG_DOWN) {
      tevdNet.pgDownInfo.erase(nic);
    } else if (bits & HWNIC_DVPORT_DOWN) {
      tevdNet.dvPortDownInfo.erase(nic);
    }
    if (bits & HWNIC_PG_UP) {
      tevdNet.pgUpInfo.erase(nic);
    } else if (bits & HWNIC_DVPORT_UP) {
      tevdNet.dvPortUpInfo.erase(nic);
    }
    tevdNet.hwnicStates[nic] = 0;
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetHwnicWatchdogReset, nic.c_str());
  }
}

void HandleExpired(const std::string &nic, uint32_t state) {
  switch (state) {
    case HWNIC_PG_DOWN:
      if (!TevdNetCorrelatorHasAny(nic, HWNIC_WATCHDOG)) {
        TevdNetCorrelatorReportPortgroupDown(nic);
      }
      break;
    case HWNIC_PG_UP:
      if (!TevdNetCorrelatorHasAny(nic, HWNIC_WATCHDOG)) {
        ReportPortgroupUp(nic);
      }
      break;
    case HWNIC_DVPORT_DOWN:
      if (!TevdNetCorrelatorHasAny(nic, HWNIC_WATCHDOG)) {
        TevdNetCorrelatorReportDvportDown(nic);
      }
      break;
    case HWNIC_DVPORT_UP:
      if (!TevdNetCorrelatorHasAny(nic, HWNIC_WATCHDOG)) {
        ReportDvportUp(nic);
      }
      break;
    case HWNIC_LINK_UP:
      ClearBits(nic, HWNIC_LINK_UP);
      if (!TevdNetCorrelatorHasAny(nic, HWNIC_PG_UP | HWNIC_DVPORT_UP | HWNIC_WATCHDOG)) {
        TevdQprob_Post(0, Clear, tevd_ev::ClearNetHwnicLinkstateUp, nic.c_str());
      }
      break;
    case HWNIC_LINK_DOWN:
      ClearBits(nic, HWNIC_LINK_DOWN);
      if (!TevdNetCorrelatorHasAny(nic, HWNIC_PG_DOWN | HWNIC_DVPORT_DOWN | HWNIC_WATCHDOG)) {
        PostLinkDown(nic);
      }
      break;
    case HWNIC_WATCHDOG: HandleWatchdogExpiry(nic); break;
    default: Panic("Received timeout event for unknown state: %x\n", state);
  }
}

}  // namespace

std::string TevdNetCorrelatorSwitchName(const std::string &portGroup) {
  std::string name;
  try {
    std::unique_ptr<HostCtl::Network::PortGroup> pg =
        HostCtl::Network::NetworkFactory::GetPortGroupByName(portGroup);
    if (pg) {
      name = pg->GetVirtualSwitchName();
    }
  } catch (const HostCtl::Lib::HostCtlException &) {
    name.clear();
  } catch (const std::exception &) {
    name.clear();
  }
  return name;
}

void TevdNetCorrelatorSchedule(uint32_t timeout, const std::string &nic, HwnicStateType bit) {
  uint64_t now = static_cast<uint64_t>(TevClock_NowSeconds());
  tevdNet.hwnicStates[nic] |= bit;
  if (tevdNet.hwnicAlarms.empty()) {
    ArmAlarm(timeout, now);
  } else {
    // Unsigned 32-bit on purpose: an alarm re-armed here may fire later than
    // the new entry's expiry; the next pass then finds it expired.
    uint32_t d = static_cast<uint32_t>(timeout - tevdNet.alarmArmedAt + now);
    if (d < tevdNet.alarmDuration) {
      ArmAlarm(d, now);
    }
  }
  tevdNet.hwnicAlarms[nic].push_back(HwnicAlarmInfo{bit, timeout, now});
}

void TevdNetCorrelator_ProcessTimeouts(void) {
  if (tevdNet.hwnicAlarms.empty()) {
    return;
  }
  uint64_t now = static_cast<uint64_t>(TevClock_NowSeconds());
  uint64_t next = std::numeric_limits<uint64_t>::max();
  for (auto it = tevdNet.hwnicAlarms.begin(); it != tevdNet.hwnicAlarms.end();) {
    const std::string &nic = it->first;
    std::vector<HwnicAlarmInfo> &entries = it->second;
    for (size_t i = 0; i < entries.size();) {
      if (entries[i].timeout <= now - entries[i].start) {
        uint32_t state = entries[i].state;
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(i));
        HandleExpired(nic, state);
      } else {
        uint64_t left = static_cast<uint32_t>(entries[i].start + entries[i].timeout - now);
        next = std::min(next, left);
        i++;
      }
    }
    if (entries.empty()) {
      it = tevdNet.hwnicAlarms.erase(it);
    } else {
      ++it;
    }
  }
  if (next != std::numeric_limits<uint64_t>::max()) {
    ArmAlarm(static_cast<uint32_t>(next), now);
  }
}

void TevdNetCorrelatorReportPortgroupDown(const std::string &nic) {
  auto it = tevdNet.pgDownInfo.find(nic);
  if (it == tevdNet.pgDownInfo.end()) {
    return;
  }
  ClearBits(nic, HWNIC_PG_DOWN);
  // One look-up names the switch for the whole episode; unknown: keep records.
  std::string vswitch = TevdNetCorrelatorSwitchName(it->second.front().name);
  if (vswitch.empty()) {
    return;
  }
  LossLists lists;
  for (const PortgroupInfo &pg : it->second) {
    lists.Add(pg.name, pg.uplinks);
  }
  if (!lists.connectivity.empty()) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetConnectivityLost, vswitch.c_str(), nic.c_str(),
                   QuotedList(lists.connectivity).c_str());
  }
  if (!lists.redundancyLost.empty()) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetRedundancyLost, vswitch.c_str(), nic.c_str(),
                   QuotedList(lists.redundancyLost).c_str());
  }
  if (!lists.degraded.empty()) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetRedundancyDegraded, vswitch.c_str(), nic.c_str(),
                   QuotedList(lists.degraded).c_str());
  }
  tevdNet.pgDownInfo.erase(it);
}

void TevdNetCorrelatorReportDvportDown(const std::string &nic) {
  auto it = tevdNet.dvPortDownInfo.find(nic);
  if (it == tevdNet.dvPortDownInfo.end()) {
    return;
  }
  ClearBits(nic, HWNIC_DVPORT_DOWN);
  LossLists lists;
  for (const DvPortInfo &port : it->second) {
    lists.Add(DvPortLabel(port), port.uplinks);
  }
  if (!lists.connectivity.empty()) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetDvportConnectivityLost,
                   QuotedList(lists.connectivity).c_str(), nic.c_str());
  }
  if (!lists.redundancyLost.empty()) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetDvportRedundancyLost,
                   QuotedList(lists.redundancyLost).c_str(), nic.c_str());
  }
  if (!lists.degraded.empty()) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemNetDvportRedundancyDegraded,
                   QuotedList(lists.degraded).c_str(), nic.c_str());
  }
  tevdNet.dvPortDownInfo.erase(it);
}
