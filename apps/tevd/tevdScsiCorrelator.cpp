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
     tevd_ev::ProblemScsiDeviceLimitreached,
     {"Failed to get device limit reached device count: %d\n",
      "Failed to get device limit reached plugin name: %d\n"}},
    {"tev.scsi.scsipath.limitreached",
     TevdScsiCorrelatorDoPathLimit,
     Problem,
     TevdRead::ByIndex,
     "ds",
     "",
     tevd_ev::ProblemScsiScsipathLimitreached,
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
     tevd_ev::ProblemScsiDeviceStatePermanentlossPluggedback,
     {SCSI_DEVICE_NAME_FAILED}},
    {"tev.scsi.device.state.permanentloss.deviceonline",
     TevdScsiCorrelatorDoDeviceOnline,
     Clear,
     TevdRead::ByIndex,
     "s",
     "",
     tevd_ev::ClearScsiDeviceStatePermanentlossDeviceonline,
     {SCSI_DEVICE_NAME_FAILED}},
    // The two blanks after "Device: %s" belong to these two texts.
    {"tev.scsi.device.state.off",
     TevdScsiCorrelatorDoDeviceOff,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     tevd_ev::ProblemScsiDeviceStateOff,
     {SCSI_DEVICE_NAME_FAILED}},
    {"tev.scsi.device.state.on",
     TevdScsiCorrelatorDoDeviceOn,
     Clear,
     TevdRead::ByIndex,
     "s",
     "",
     tevd_ev::ClearScsiDeviceStateOn,
     {SCSI_DEVICE_NAME_FAILED}},
    // QErr now set, device, QErr supported; both values print as "0x%x".
    {"tev.scsi.device.io.qerr.change.config",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "dsd",
     "",
     tevd_ev::ProblemScsiDeviceIoQerrChangeConfig,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.io.qerr.changed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "dsd",
     "",
     tevd_ev::ProblemScsiDeviceIoQerrChanged,
     {SCSI_CORRELATE_FAILED}},
    // Device, plugin.
    {"tev.scsi.device.io.bad.plugin.type",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     tevd_ev::ProblemScsiDeviceIoBadPluginType,
     {SCSI_CORRELATE_FAILED}},
    // Only this text spells "Plugin" with a capital letter.
    {"tev.scsi.device.io.inquiry.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     tevd_ev::ProblemScsiDeviceIoInquiryFailed,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.is.pseudo.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     tevd_ev::ProblemScsiDeviceIsPseudoFailed,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.is.ssd.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     tevd_ev::ProblemScsiDeviceIsSsdFailed,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.is.local.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     tevd_ev::ProblemScsiDeviceIsLocalFailed,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.close.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "ss",
     "",
     tevd_ev::ProblemScsiDeviceCloseFailed,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.filter.attach.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     tevd_ev::ProblemScsiDeviceFilterAttachFailed,
     {"Failed to get params for correlation %s: %d\n"}},
    // " :%s" (blank before the colon, none after) is the text's own.
    {"tev.scsi.device.detach.failed",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::ByIndex,
     "s",
     "",
     tevd_ev::ProblemScsiDeviceDetachFailed,
     {"Failed to get params for correlation %s: %d\n"}},
    {"tev.scsi.unsupported.plugin.type",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::ByIndex,
     "d",
     "",
     tevd_ev::ProblemScsiUnsupportedPluginType,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.apd.event.descriptor.alloc.failed", TevdScsiCorrelatorDoTranslation, Problem,
     TevdRead::ByIndex, "", "", tevd_ev::ProblemScsiApdEventDescriptorAllocFailed},
    // Device, first and second latency in microseconds. The kernel decides
    // when latency is high or improved; the values are passed on as
    // received, never compared here.
    {"tev.scsi.device.io.latency.high",
     TevdScsiCorrelatorDoTranslation,
     Problem,
     TevdRead::OneCall,
     "sll",
     "",
     tevd_ev::ProblemScsiDeviceIoLatencyHigh,
     {SCSI_CORRELATE_FAILED}},
    {"tev.scsi.device.io.latency.improved",
     TevdScsiCorrelatorDoTranslation,
     Clear,
     TevdRead::OneCall,
     "sll",
     "",
     tevd_ev::ClearScsiDeviceIoLatencyImproved,
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
    TevdQprob_Post(0, Problem, tevd_ev::ProblemScsiScsipathBadpathUnsafepe, path);
  } else if (Tev_IsID(id, "tev.scsi.scsipath.badpath.unreachpe")) {
    const char *adapter = nullptr;
    if ((rc = Tev_GetStringArg(tev, 1, &adapter)) != 0) {
      TevdLog("Failed to get PE-incapable adapter name for path %s : %d\n", path, rc);
      return rc;
    }
    TevdQprob_Post(0, Problem, tevd_ev::ProblemScsiScsipathBadpathUnreachpe, path, adapter);
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
