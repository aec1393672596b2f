// SCSI correlator: the "scsi" agent. Its map is built from kScsiRows, the 33
// SCSI observation identifiers in registration order. The stateless
// translations are rows of the translation engine (tevdTranslate.h): each
// names how the observation's arguments are read, which line is logged when
// they cannot be, the event class and the template. The stateful handlers
// (path state, counters, permanent loss) live in tevdScsiPathTracker.cpp. All
// handlers run on the agent thread, one observation at a time.
#include "tevdScsiCorrelator.h"

#include "tevdLog.h"
#include "tevdQprob.h"
#include "tevdTranslate.h"

namespace {

#define SCSI_CORRELATE_FAILED "Failed to correlate %s: %d\n"
#define SCSI_DEVICE_NAME_FAILED "Failed to get device name: %d\n"

// Registration order of the "scsi" map; rows without a template belong to
// the stateful handlers (tevdScsiPathTracker.cpp) and the bad-path handler.
constexpr TevdRow kScsiRows[] = {
    {"tev.scsi.scsipath.pathstate.dead", TevdScsiCorrelatorDoPathDown},
    {"tev.scsi.scsipath.pathstate.off", TevdScsiCorrelatorDoPathDown},
    {"tev.scsi.scsipath.pathstate.on", TevdScsiCorrelatorDoPathUp},
    {"tev.scsi.scsipath.pathstate.standby", TevdScsiCorrelatorDoPathUp},
    {"tev.scsi.device.thinprov.atquota", TevdScsiCorrelatorDoThinProvAtQuota},
    // Integer 0 is the limit, string 1 the plugin or path; each has its line.
    {"tev.scsi.device.limitreached",
     TevdScsiCorrelatorDoDeviceLimit,
     Problem,
     TevdRead::ByIndex,
     "ds",
     "",
     "@&!*@*@(kos.problem.scsi.device.limitreached)The maximum number of supported devices of %d "
     "has been reached. A device from plugin %s could not be created.",
     {"Failed to get device limit reached device count: %d\n",
      "Failed to get device limit reached plugin name: %d\n"}},
    {"tev.scsi.scsipath.limitreached",
     TevdScsiCorrelatorDoPathLimit,
     Problem,
     TevdRead::ByIndex,
     "ds",
     "",
     "@&!*@*@(kos.problem.scsi.scsipath.limitreached)The maximum number of supported paths of %d "
     "has been reached. Path %s could not be added.",
     {"Failed to get path limit reached path count: %d\n",
      "Failed to get path limit reached path name: %d\n"}},
    {"tev.scsi.scsipath.badpath.unsafepe", TevdScsiCorrelatorDoBadPePath},
    {"tev.scsi.scsipath.badpath.unreachpe", TevdScsiCorrelatorDoBadPePath},
    {"tev.scsi.scsipath.add", TevdScsiCorrelatorDoPathAddRemove},
    {"tev.scsi.scsipath.remove", TevdScsiCorrelatorDoPathAddRemove},
    {"tev.scsi.scsipath.por", TevdScsiCorrelatorDoPowerOnReset},
    {"tev.scsi.device.state.permanentloss.noopens", TevdScsiCorrelatorDoPermanentLoss},
    {"tev.scsi.device.state.permanentloss", TevdScsiCorrelatorDoPermanentLoss},
    {"tev.scsi.device.state.permanentloss.withreservationheld", TevdScsiCorrelatorDoPermanentLoss},
    {"tev.scsi.device.state.permanentloss.pluggedback",
     TevdScsiCorrelatorDoPluggedBack,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     "@&!*@*@(kos.problem.scsi.device.state.permanentloss.pluggedback)Device: %s has been plugged "
     "back in after being marked permanently inaccessible. No data consistency guarantees.",
     {SCSI_DEVICE_NAME_FAILED}},
    {"tev.scsi.device.state.permanentloss.deviceonline",
     TevdScsiCorrelatorDoDeviceOnline,
     Clear,
     TevdRead::ByIndex,
     "s",
     "",
     "@&!*@*@(kos.clear.scsi.device.state.permanentloss.deviceonline)Device: %s, that was "
     "permanently inaccessible, is now online. No data consistency guarantees.",
     {SCSI_DEVICE_NAME_FAILED}},
    // The two blanks after "Device: %s" belong to these two texts.
    {"tev.scsi.device.state.off",
     TevdScsiCorrelatorDoDeviceOff,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     "@&!*@*@(kos.problem.scsi.device.state.off)Device: %s  has been turned off "
     "administratively",
     {SCSI_DEVICE_NAME_FAILED}},
    {"tev.scsi.device.state.on",
     TevdScsiCorrelatorDoDeviceOn,
     Clear,
     TevdRead::ByIndex,
     "s",
     "",
     "@&!*@*@(kos.clear.scsi.device.state.on)Device: %s  has been turned on administratively",
     {SCSI_DEVICE_NAME_FAILED}},
    // QErr now set, device, QErr supported; both values print as "0x%x".
    {"tev.scsi.device.io.qerr.change.config",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "dsd",
     "",
     "@&!*@*@(kos.problem.scsi.device.io.qerr.change.config)QErr set to 0x%x for device %s. This "
     "may cause unexpected behavior. The system is not configured to change the Qerr setting of "
     "device. The Qerr value supported by system is 0x%x. Please check the SCSI "
     "ChangeQErrSetting configuration value for KOS.",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.io.qerr.changed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "dsd",
     "",
     "@&!*@*@(kos.problem.scsi.device.io.qerr.changed)QErr set to 0x%x for device %s. This may "
     "cause unexpected behavior. The device was originally configured to the supported QErr "
     "setting of 0x%x, but this has been changed and could not be reset.",
     {SCSI_CORRELATE_FAILED}},
    // Device, plugin.
    {"tev.scsi.device.io.bad.plugin.type",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     "@&!*@*@(kos.problem.scsi.device.io.bad.plugin.type)Bad Plugin type for device %s, plugin "
     "%s",
     {SCSI_CORRELATE_FAILED}},
    // Only this text spells "Plugin" with a capital letter.
    {"tev.scsi.device.io.inquiry.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     "@&!*@*@(kos.problem.scsi.device.io.inquiry.failed)Failed to get standard inquiry for device "
     "%s from Plugin %s.",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.is.pseudo.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     "@&!*@*@(kos.problem.scsi.device.is.pseudo.failed)Failed to verify if the device %s from "
     "plugin %s is a pseudo device",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.is.ssd.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     "@&!*@*@(kos.problem.scsi.device.is.ssd.failed)Failed to verify if the device %s from plugin "
     "%s is a Solid State Disk device",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.is.local.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     "@&!*@*@(kos.problem.scsi.device.is.local.failed)Failed to verify if the device %s from "
     "plugin %s is a local - not shared - device",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.close.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     "@&!*@*@(kos.problem.scsi.device.close.failed)Failed to close the device %s properly, plugin "
     "%s",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.filter.attach.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     "@&!*@*@(kos.problem.scsi.device.filter.attach.failed)Failed to attach filters to device "
     "'%s' during registration. Plugin load failed or the filter rules are incorrect.",
     {"Failed to get params for correlation %s: %d\n"}},
    // " :%s" (blank before the colon, none after) is the text's own.
    {"tev.scsi.device.detach.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     "@&!*@*@(kos.problem.scsi.device.detach.failed)Detach failed for device :%s. Exceeded the "
     "number of devices that can be detached, please cleanup stale detach entries.",
     {"Failed to get params for correlation %s: %d\n"}},
    {"tev.scsi.unsupported.plugin.type",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::ByIndex,
     "d",
     "",
     "@&!*@*@(kos.problem.scsi.unsupported.plugin.type)Scsi Device Allocation not supported for "
     "plugin type %x",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.apd.event.descriptor.alloc.failed", TevdScsiCorrelatorDoTranslation, Problem,
     TevdRead::ByIndex, "", "",
     "@&!*@*@(kos.problem.scsi.apd.event.descriptor.alloc.failed)No memory to allocate APD (All "
     "Paths Down) event subsystem"},
    // Device, first and second latency in microseconds. The kernel decides
    // when latency is high or improved; the values are passed on as
    // received, never compared here.
    {"tev.scsi.device.io.latency.high",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "sll",
     "",
     "@&!*@*@(kos.problem.scsi.device.io.latency.high)Device %s performance has deteriorated. I/O "
     "latency increased from average value of %ld microseconds to %ld microseconds.",
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.io.latency.improved",
     TevdScsiCorrelatorDoTranslation,
     Clear,
     TevdRead::OneCall,
     "sll",
     "",
     "@&!*@*@(kos.clear.scsi.device.io.latency.improved)Device %s performance has improved. I/O "
     "latency reduced from %ld microseconds to %ld microseconds.",
     {SCSI_CORRELATE_FAILED}},
};
static_assert(sizeof(kScsiRows) / sizeof(kScsiRows[0]) == 33, "the scsi map has 33 rows");
static_assert(TevdTranslate_FirstBadRow(kScsiRows) == -1, "a SCSI row does not fit its template");

#undef SCSI_CORRELATE_FAILED
#undef SCSI_DEVICE_NAME_FAILED

}  // namespace

int TevdScsiCorrelatorDoTranslation(Tev *tev) {
  return TevdTranslate_ById(tev, kScsiRows, TevdScsiCorrelatorDoTranslation, true);
}

// The device-state and limit handlers serve one observation each and read no
// identifier.
int TevdScsiCorrelatorDoDeviceOn(Tev *tev) {
  return TevdTranslate_Only(tev, kScsiRows, TevdScsiCorrelatorDoDeviceOn);
}
int TevdScsiCorrelatorDoDeviceOff(Tev *tev) {
  return TevdTranslate_Only(tev, kScsiRows, TevdScsiCorrelatorDoDeviceOff);
}
int TevdScsiCorrelatorDoDeviceOnline(Tev *tev) {
  return TevdTranslate_Only(tev, kScsiRows, TevdScsiCorrelatorDoDeviceOnline);
}
int TevdScsiCorrelatorDoPluggedBack(Tev *tev) {
  return TevdTranslate_Only(tev, kScsiRows, TevdScsiCorrelatorDoPluggedBack);
}
int TevdScsiCorrelatorDoPathLimit(Tev *tev) {
  return TevdTranslate_Only(tev, kScsiRows, TevdScsiCorrelatorDoPathLimit);
}
int TevdScsiCorrelatorDoDeviceLimit(Tev *tev) {
  return TevdTranslate_Only(tev, kScsiRows, TevdScsiCorrelatorDoDeviceLimit);
}

int TevdScsiCorrelatorDoBadPePath(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  const char *path = nullptr;
  int rc = Tev_GetStringArg(tev, 0, &path);
  if (rc != 0) {
    TevdLog("Failed to get path name: %d\n", rc);
    return rc;
  }
  if (Tev_IsID(id, "tev.scsi.scsipath.badpath.unsafepe")) {
    TevdQprob_Post(0, Problem,
                   "@&!*@*@(kos.problem.scsi.scsipath.badpath.unsafepe)Sanity check failed for "
                   "path %s. Could not safely determine if the path is to a QVol PE. Path "
                   "dropped.",
                   path);
  } else if (Tev_IsID(id, "tev.scsi.scsipath.badpath.unreachpe")) {
    const char *adapter = nullptr;
    if ((rc = Tev_GetStringArg(tev, 1, &adapter)) != 0) {
      TevdLog("Failed to get PE-incapable adapter name for path %s : %d\n", path, rc);
      return rc;
    }
    TevdQprob_Post(0, Problem,
                   "@&!*@*@(kos.problem.scsi.scsipath.badpath.unreachpe)Sanity check failed for "
                   "path %s. The path is to a QVol PE, but it goes out of adapter %s which is not "
                   "PE capable. Path dropped.",
                   path, adapter);
  } else {
    TevdLog("Unknown TEV ID: %s\n", id);
  }
  return 0;
}

int TevdScsiCorrelatorDoDefault(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  TevdLog("No correlator for %s \n", id);
  return 0;
}

TevHandlerMap TevdScsiCorrelator_BuildMap(void) { return TevdTranslate_BuildMap(kScsiRows); }

void TevdCorrelator_StartScsi(void) {
  TevdCorrelator_Start("scsi", "scsi", TevdScsiCorrelatorDoDefault, TevdScsiCorrelator_BuildMap());
}
