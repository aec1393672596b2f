// Shared by the "net" correlator's sources only (tevdNet*.cpp): the uplink
// tracker's state and the steps of the tracking and link-flap detection. All
// of it belongs to the "net" agent thread (tevdNetCorrelator.h).
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "tevdNetCorrelator.h"

// ---- uplink redundancy tracking ------------------------------------------------
typedef uint32_t HwnicStateType;
enum : HwnicStateType {
  HWNIC_PG_DOWN = 0x01,
  HWNIC_PG_UP = 0x02,
  HWNIC_DVPORT_DOWN = 0x04,
  HWNIC_DVPORT_UP = 0x08,
  HWNIC_LINK_DOWN = 0x10,
  HWNIC_LINK_UP = 0x20,
  HWNIC_WATCHDOG = 0x40,
};

struct HwnicAlarmInfo {
  uint32_t state;    // exactly one HWNIC_* bit
  uint32_t timeout;  // seconds
  uint64_t start;    // wall-clock seconds when scheduled
};

struct PortgroupInfo {
  std::string name;
  int32_t extra;    // carried, never consulted
  int32_t uplinks;  // active uplinks left
};

struct DvPortInfo {
  std::string first;
  std::string second;
  int32_t extra;  // carried, never consulted
  int32_t uplinks;
};

// The tracker's state: used on the "net" agent thread only (the alarm
// callback only writes to the wake-up pipe), hence no lock.
struct TevdNetTracker {
  std::map<std::string, HwnicStateType> hwnicStates;
  std::map<std::string, std::vector<HwnicAlarmInfo>> hwnicAlarms;
  std::map<std::string, std::vector<PortgroupInfo>> pgDownInfo;
  std::map<std::string, std::vector<PortgroupInfo>> pgUpInfo;
  std::map<std::string, std::vector<DvPortInfo>> dvPortDownInfo;
  std::map<std::string, std::vector<DvPortInfo>> dvPortUpInfo;
  int tevdNetAlarmId = -1;     // alarm slot armed by the tracker; -1 = none
  uint64_t alarmDuration = 0;  // seconds the alarm was last armed for
  uint64_t alarmArmedAt = 0;   // when (wall-clock seconds)
  // Link flapping: link-down times per NIC, oldest first.
  std::map<std::string, std::deque<int64_t>> hwnicFlapHistory;
};
extern TevdNetTracker tevdNet;

int TevdNetCorrelatorPgUplinkDown(Tev *tev);
int TevdNetCorrelatorPgUplinkUp(Tev *tev);
int TevdNetCorrelatorDvportUplinkDown(Tev *tev);
int TevdNetCorrelatorDvportUplinkUp(Tev *tev);
int TevdNetCorrelatorLinkUp(Tev *tev);
int TevdNetCorrelatorLinkDown(Tev *tev);
int TevdNetCorrelatorWatchdog(Tev *tev);

void TevdNetCorrelatorSchedule(uint32_t timeout, const std::string &nic, HwnicStateType bit);
// Whether the NIC has any of `bits` set; an unknown NIC has none.
bool TevdNetCorrelatorHasAny(const std::string &nic, HwnicStateType bits);
void TevdNetCorrelatorReportPortgroupDown(const std::string &nic);
void TevdNetCorrelatorReportDvportDown(const std::string &nic);
// Switch of a port group, or "" when the host model does not know it.
std::string TevdNetCorrelatorSwitchName(const std::string &portGroup);

// ---- link flapping -------------------------------------------------------------
void TevdNetCorrelatorNoteLinkDown(const std::string &nic);
