// SCSI correlator: the "scsi" agent's handler table, its direct translations
// (tevdScsiCorrelator.cpp), its stateful path/device tracking
// (tevdScsiPathTracker.cpp) and its host-model look-ups
// (tevdScsiStorageQuery.cpp). Everything here runs on the "scsi" agent thread
// only; the tracking tables carry no lock for that reason.
#pragma once

#include <cstdint>
#include <string>

#include "tevdCorrelator.h"

// The 33 registered identifiers with their handlers, in registration order.
TevHandlerMap TevdScsiCorrelator_BuildMap(void);
// Fallback for identifiers without a handler: logs "No correlator for %s \n".
int TevdScsiCorrelatorDoDefault(Tev *tev);

// ---- direct translations (tevdScsiCorrelator.cpp) ----------------------------
// One row-driven handler serves every stateless translation.
int TevdScsiCorrelatorDoTranslation(Tev *tev);
// One observation each; they read no identifier.
int TevdScsiCorrelatorDoDeviceOn(Tev *tev);
int TevdScsiCorrelatorDoDeviceOff(Tev *tev);
int TevdScsiCorrelatorDoDeviceOnline(Tev *tev);
int TevdScsiCorrelatorDoPluggedBack(Tev *tev);
int TevdScsiCorrelatorDoPathLimit(Tev *tev);
int TevdScsiCorrelatorDoDeviceLimit(Tev *tev);
int TevdScsiCorrelatorDoBadPePath(Tev *tev);

// ---- stateful handlers (tevdScsiPathTracker.cpp) -----------------------------
int TevdScsiCorrelatorDoPathDown(Tev *tev);
int TevdScsiCorrelatorDoPathUp(Tev *tev);
int TevdScsiCorrelatorDoPathAddRemove(Tev *tev);
int TevdScsiCorrelatorDoPowerOnReset(Tev *tev);
int TevdScsiCorrelatorDoPermanentLoss(Tev *tev);
int TevdScsiCorrelatorDoThinProvAtQuota(Tev *tev);

// Host-model queries (tevdScsiStorageQuery.cpp). Each returns false when the entry is absent (the
// host-control exception is swallowed).
bool TevdScsiCorrelator_GetPathDevice(const std::string &path, std::string *device);
bool TevdScsiCorrelator_GetDeviceStatus(const std::string &device, uint32_t *status);
// The affected-datastores text of a device: each volume name quoted, joined by
// ", ", partition 0 skipped, duplicates dropped. True only when not empty.
bool TevdScsiCorrelator_GetDatastores(const std::string &device, std::string *text);

// Counting periods of the path-state and power-on-reset tables.
constexpr int64_t TEVD_SCSI_COUNT_PERIOD = 600;
constexpr int64_t TEVD_SCSI_SWEEP_INTERVAL = 60;
constexpr uint32_t TEVD_SCSI_SWEEP_CEILING = 9;
constexpr uint32_t TEVD_SCSI_REPORT_COUNT = 10;
