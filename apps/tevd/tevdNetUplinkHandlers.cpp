// The uplink observations' handlers for the "net" correlator: each gathers
// its record into the NIC's episode and schedules the settling time-out that
// tevdNetUplinkTracker.cpp turns into summaries.
#include <cstdint>
#include <string>

#include "tevdNetInternal.h"
#include "tevdUtil.h"

int TevdNetCorrelatorPgUplinkDown(Tev *tev) {
  const char *nic = nullptr;
  const char *pg = nullptr;
  int32_t uplinks = 0;
  int32_t extra = 0;
  if (TevdUtil_GetNameArg(tev, 0, &nic) != 0 || TevdUtil_GetNameArg(tev, 1, &pg) != 0 ||
      Tev_GetIntArg(tev, 2, &uplinks) != 0 || Tev_GetIntArg(tev, 3, &extra) != 0) {
    return 0;
  }
  if (tevdNet.pgDownInfo.find(nic) == tevdNet.pgDownInfo.end()) {
    TevdNetCorrelatorSchedule(2, nic, HWNIC_PG_DOWN);
  }
  tevdNet.pgDownInfo[nic].push_back(PortgroupInfo{pg, extra, uplinks});
  return 0;
}

int TevdNetCorrelatorPgUplinkUp(Tev *tev) {
  const char *nic = nullptr;
  const char *pg = nullptr;
  int32_t uplinks = 0;
  if (TevdUtil_GetNameArg(tev, 0, &nic) != 0 || TevdUtil_GetNameArg(tev, 1, &pg) != 0 ||
      Tev_GetIntArg(tev, 2, &uplinks) != 0) {
    return 0;
  }
  if (tevdNet.pgUpInfo.find(nic) == tevdNet.pgUpInfo.end()) {
    TevdNetCorrelatorSchedule(2, nic, HWNIC_PG_UP);
  }
  tevdNet.pgUpInfo[nic].push_back(PortgroupInfo{pg, 0, uplinks});
  return 0;
}

int TevdNetCorrelatorDvportUplinkDown(Tev *tev) {
  const char *nic = nullptr;
  const char *first = nullptr;
  const char *second = nullptr;
  int32_t uplinks = 0;
  int32_t extra = 0;
  if (TevdUtil_GetNameArg(tev, 0, &nic) != 0 || TevdUtil_GetNameArg(tev, 1, &first) != 0 ||
      TevdUtil_GetNameArg(tev, 2, &second) != 0 || Tev_GetIntArg(tev, 3, &uplinks) != 0 ||
      Tev_GetIntArg(tev, 4, &extra) != 0) {
    return 0;
  }
  if (tevdNet.dvPortDownInfo.find(nic) == tevdNet.dvPortDownInfo.end()) {
    TevdNetCorrelatorSchedule(2, nic, HWNIC_DVPORT_DOWN);
  }
  tevdNet.dvPortDownInfo[nic].push_back(DvPortInfo{first, second, extra, uplinks});
  return 0;
}

int TevdNetCorrelatorDvportUplinkUp(Tev *tev) {
  const char *nic = nullptr;
  const char *first = nullptr;
  const char *second = nullptr;
  int32_t uplinks = 0;
  if (TevdUtil_GetNameArg(tev, 0, &nic) != 0 || TevdUtil_GetNameArg(tev, 1, &first) != 0 ||
      TevdUtil_GetNameArg(tev, 2, &second) != 0 || Tev_GetIntArg(tev, 3, &uplinks) != 0) {
    return 0;
  }
  if (tevdNet.dvPortUpInfo.find(nic) == tevdNet.dvPortUpInfo.end()) {
    TevdNetCorrelatorSchedule(2, nic, HWNIC_DVPORT_UP);
  }
  tevdNet.dvPortUpInfo[nic].push_back(DvPortInfo{first, second, 0, uplinks});
  return 0;
}

int TevdNetCorrelatorLinkDown(Tev *tev) {
  const char *nic = nullptr;
  if (TevdUtil_GetNameArg(tev, 0, &nic) != 0) {
    return 0;
  }
  TevdNetCorrelatorNoteLinkDown(nic);
  // The port reports will cover this failure.
  if (TevdNetCorrelatorHasAny(nic, HWNIC_PG_DOWN | HWNIC_DVPORT_DOWN)) {
    return 0;
  }
  TevdNetCorrelatorSchedule(1, nic, HWNIC_LINK_DOWN);
  return 0;
}

int TevdNetCorrelatorLinkUp(Tev *tev) {
  const char *nic = nullptr;
  if (TevdUtil_GetNameArg(tev, 0, &nic) != 0) {
    return 0;
  }
  if (TevdNetCorrelatorHasAny(nic, HWNIC_PG_UP | HWNIC_DVPORT_UP)) {
    return 0;
  }
  TevdNetCorrelatorSchedule(1, nic, HWNIC_LINK_UP);
  return 0;
}

int TevdNetCorrelatorWatchdog(Tev *tev) {
  const char *nic = nullptr;
  if (TevdUtil_GetNameArg(tev, 0, &nic) != 0) {
    return 0;
  }
  TevdNetCorrelatorSchedule(7, nic, HWNIC_WATCHDOG);
  return 0;
}
