// Path and device connectivity tracking of the SCSI correlator. Path state
// observations become connectivity/redundancy problems and their clears;
// frequent path state changes and power-on resets are counted per name; device
// loss and thin-provisioning reports carry the device's datastores.
//
// State: three tables that only the "scsi" agent thread touches, so they have
// no lock, and that live until the process ends:
//   - reported-down devices: a path-down problem was posted for the device, so
//     the next path up from "off"/"dead" may clear it (once);
//   - path-state change counters and power-on reset counters, each with its
//     own 600-second period and 60-second sweep, read from the wall clock.
// Host-model look-ups are in tevdScsiStorageQuery.cpp.
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TevClock.h"
#include "tevdLog.h"
#include "tevdPanicTags.h"
#include "tevdQprob.h"
#include "tevdScsiCorrelator.h"
#include "tevdUtil.h"

namespace {

struct CounterTable {
  std::map<std::string, uint32_t> counters;
  int64_t periodStart = 0;
  int64_t lastSweep = 0;
};

std::map<std::string, bool> gReportedDown;
CounterTable gPathStateCounters;
CounterTable gPorCounters;

// Counts one observation for `name` and returns the counter afterwards (0 when
// the name has no entry any more). `add` creates a fresh entry at 0, `remove`
// erases it, neither counts a state change.
uint32_t CountChange(CounterTable *table, const std::string &name, bool add, bool remove) {
  const int64_t now = TevClock_NowSeconds();
  if (now - table->periodStart > TEVD_SCSI_COUNT_PERIOD) {
    table->counters.clear();
    table->periodStart = now;
  }
  auto it = table->counters.find(name);
  if (it == table->counters.end()) {
    if (add) {
      table->counters[name] = 0;
    } else if (!remove) {
      table->counters[name] = 1;
    }
  } else if (remove) {
    table->counters.erase(it);
  } else {
    it->second++;
  }
  // The sweep runs after this observation was counted, so a counter that just
  // reached the report count survives it.
  if (now - table->lastSweep > TEVD_SCSI_SWEEP_INTERVAL) {
    for (auto &entry : table->counters) {
      if (entry.second <= TEVD_SCSI_SWEEP_CEILING) {
        entry.second = 0;
      }
    }
    table->lastSweep = now;
  }
  it = table->counters.find(name);
  return it == table->counters.end() ? 0 : it->second;
}

// Datastores as the path and counter events print them: the list or "Unknown".
std::string DatastoresOrUnknown(const std::string &device) {
  std::string text;
  if (!TevdScsiCorrelator_GetDatastores(device, &text)) {
    return "Unknown";
  }
  return text;
}

// Datastores as the device-loss events print them: the list, "None" for a
// successful look-up without names, "Unknown" for a failed one.
std::string DatastoresOrNone(const std::string &device) {
  std::string text;
  if (!TevdScsiCorrelator_GetDatastores(device, &text)) {
    return "Unknown";
  }
  return text.empty() ? "None" : text;
}

// Posts "pathstatechanges" for a path whose counter just reached the report count.
void ReportFrequentPathStateChanges(const std::string &path) {
  std::string device;
  uint32_t status = 0;
  if (!TevdScsiCorrelator_GetPathDevice(path, &device) ||
      !TevdScsiCorrelator_GetDeviceStatus(device, &status)) {
    return;
  }
  const std::string datastores = status == 0 ? "Unknown" : DatastoresOrUnknown(device);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemStorageConnectivityPathstatechanges, path.c_str(),
                 device.c_str(), datastores.c_str());
}

void CountPathStateChange(const std::string &path, bool add, bool remove) {
  if (CountChange(&gPathStateCounters, path, add, remove) == TEVD_SCSI_REPORT_COUNT) {
    ReportFrequentPathStateChanges(path);
  }
}

// Path name and the state it left; false when either is missing.
bool GetPathTransition(Tev *tev, const char **path, const char **state) {
  return TevdUtil_GetNameArg(tev, 0, path) == 0 && TevdUtil_GetNameArg(tev, 1, state) == 0;
}

}  // namespace

int TevdScsiCorrelatorDoPathDown(Tev *tev) {
  const char *path = nullptr;
  const char *leftState = nullptr;
  if (!GetPathTransition(tev, &path, &leftState)) {
    return 0;
  }
  CountPathStateChange(path, false, false);
  // A path that was already off or dead takes no redundancy away.
  if (strcmp(leftState, "on") != 0 && strcmp(leftState, "standby") != 0) {
    return 0;
  }
  std::string device;
  uint32_t status = 0;
  if (!TevdScsiCorrelator_GetPathDevice(path, &device) ||
      !TevdScsiCorrelator_GetDeviceStatus(device, &status) || status == 0) {
    return 0;
  }
  const std::string datastores = DatastoresOrUnknown(device);
  switch (status) {
    case 2:
      TevdQprob_Post(0, Problem, tevd_ev::ProblemStorageRedundancyLost, device.c_str(), path,
                     datastores.c_str());
      break;
    case 3:
      TevdQprob_Post(0, Problem, tevd_ev::ProblemStorageRedundancyDegraded, device.c_str(), path,
                     datastores.c_str());
      break;
    case 1:
      TevdQprob_Post(0, Problem, tevd_ev::ProblemStorageConnectivityLost, device.c_str(), path,
                     datastores.c_str());
      break;
    default: break;
  }
  gReportedDown[device] = true;
  return 0;
}

int TevdScsiCorrelatorDoPathUp(Tev *tev) {
  const char *path = nullptr;
  const char *previousState = nullptr;
  if (!GetPathTransition(tev, &path, &previousState)) {
    return 0;
  }
  CountPathStateChange(path, false, false);
  if (strcmp(previousState, "off") != 0 && strcmp(previousState, "dead") != 0) {
    return 0;
  }
  std::string device;
  if (!TevdScsiCorrelator_GetPathDevice(path, &device)) {
    return 0;
  }
  auto down = gReportedDown.find(device);
  if (down == gReportedDown.end() || !down->second) {
    return 0;  // no clear without an earlier problem
  }
  // The entry goes first: whatever the status now, the problem is answered.
  gReportedDown.erase(down);
  uint32_t status = 0;
  if (!TevdScsiCorrelator_GetDeviceStatus(device, &status) || status == 0) {
    return 0;
  }
  const std::string datastores = DatastoresOrUnknown(device);
  switch (status) {
    case 2:
      TevdQprob_Post(0, Clear, tevd_ev::ClearStorageConnectivityRestored, device.c_str(),
                     datastores.c_str(), path);
      break;
    case 3:
      TevdQprob_Post(0, Clear, tevd_ev::ClearStorageRedundancyRestored, device.c_str(),
                     datastores.c_str(), path);
      break;
    case 1: break;  // still no path: nothing to clear yet
    default: TevdNotReached(tevd_tag::kScsiUnknownPathStatus);
  }
  return 0;
}

int TevdScsiCorrelatorDoPathAddRemove(Tev *tev) {
  const char *path = nullptr;
  int rc = TevdUtil_GetNameArg(tev, 0, &path);
  if (rc != 0) {
    TevdLog("Failed to get path add remove path name: %d\n", rc);
    return rc;
  }
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  if (Tev_IsID(id, "tev.scsi.scsipath.add")) {
    CountPathStateChange(path, true, false);
  } else if (Tev_IsID(id, "tev.scsi.scsipath.remove")) {
    CountPathStateChange(path, false, true);
  } else {
    TevdLog("Unknown TEV ID: %s\n", id);
  }
  return 0;
}

int TevdScsiCorrelatorDoPowerOnReset(Tev *tev) {
  const char *name = nullptr;
  if (TevdUtil_GetNameArg(tev, 0, &name) != 0) {
    return 0;
  }
  if (CountChange(&gPorCounters, name, false, false) != TEVD_SCSI_REPORT_COUNT) {
    return 0;
  }
  // The name is a path when the host knows it as one, else a device.
  std::string device;
  const bool isPath = TevdScsiCorrelator_GetPathDevice(name, &device);
  if (!isPath) {
    device = name;
  }
  uint32_t status = 0;
  if (!TevdScsiCorrelator_GetDeviceStatus(device, &status)) {
    return 0;
  }
  const std::string datastores = status == 0 ? "Unknown" : DatastoresOrUnknown(device);
  if (isPath) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemStorageConnectivityPathpor, name, device.c_str(),
                   datastores.c_str());
  } else {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemStorageConnectivityDevicepor, device.c_str(),
                   datastores.c_str());
  }
  return 0;
}

int TevdScsiCorrelatorDoPermanentLoss(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  const char *device = nullptr;
  int rc = TevdUtil_GetNameArg(tev, 0, &device);
  if (rc != 0) {
    TevdLog("Failed to get device name: %d\n", rc);
    return rc;
  }
  const std::string datastores = DatastoresOrNone(device);
  if (Tev_IsID(id, "tev.scsi.device.state.permanentloss")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemScsiDeviceStatePermanentloss, device,
                   datastores.c_str());
  } else if (Tev_IsID(id, "tev.scsi.device.state.permanentloss.withreservationheld")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemScsiDeviceStatePermanentlossWithreservationheld,
                   device, datastores.c_str());
  } else if (Tev_IsID(id, "tev.scsi.device.state.permanentloss.noopens")) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemScsiDeviceStatePermanentlossNoopens, device,
                   datastores.c_str());
  }
  return 0;
}

int TevdScsiCorrelatorDoThinProvAtQuota(Tev *tev) {
  const char *device = nullptr;
  int rc = TevdUtil_GetNameArg(tev, 0, &device);
  if (rc != 0) {
    TevdLog("Failed to get thin provisioned device name: %d\n", rc);
    return rc;
  }
  const std::string datastores = DatastoresOrNone(device);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemScsiDeviceThinprovAtquota, device, datastores.c_str());
  return 0;
}
