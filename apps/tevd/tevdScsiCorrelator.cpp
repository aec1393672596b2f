// SCSI correlator: the "scsi" agent. Its map sends the 33 SCSI observation
// identifiers to their handlers. The stateless translations are rows of
// kTranslations walked by one handler: a row names how the observation's
// arguments are read (and which line is logged when they cannot be), the
// event class and the template. The stateful handlers (path state, counters,
// permanent loss) live in tevdScsiPathTracker.cpp. All handlers run on the
// agent thread, one observation at a time.
#include "tevdScsiCorrelator.h"


#include "tevdLog.h"
#include "tevdQprob.h"

namespace {

// How a translation reads its arguments; each shape has its own failure line.
enum class ScsiArgs {
  DevicePlugin,   // "%p %p": device, plugin
  QErr,           // "%d %p %d": QErr now set, device, QErr supported
  ParamsName,     // string 0, "Failed to get params for correlation ..."
  PluginType,     // integer 0
  DeviceName,     // string 0, "Failed to get device name ..."
  PathLimit,      // integer 0 = limit, string 1 = path
  DeviceLimit,    // integer 0 = limit, string 1 = plugin
  Latency,        // "%p %lu %lu": device, first and second latency (us)
};

struct ScsiTranslation {
  const char *id;
  EventClass cls;
  ScsiArgs args;
  const char *templ;
};

const ScsiTranslation kTranslations[] = {
    {"tev.scsi.device.limitreached", Problem, ScsiArgs::DeviceLimit,
     "@&!*@*@(kos.problem.scsi.device.limitreached)The maximum number of supported devices of %d "
     "has been reached. A device from plugin %s could not be created."},
    {"tev.scsi.scsipath.limitreached", Problem, ScsiArgs::PathLimit,
     "@&!*@*@(kos.problem.scsi.scsipath.limitreached)The maximum number of supported paths of %d "
     "has been reached. Path %s could not be added."},
    {"tev.scsi.device.state.permanentloss.pluggedback", Problem, ScsiArgs::DeviceName,
     "@&!*@*@(kos.problem.scsi.device.state.permanentloss.pluggedback)Device: %s has been plugged "
     "back in after being marked permanently inaccessible. No data consistency guarantees."},
    {"tev.scsi.device.state.permanentloss.deviceonline", Clear, ScsiArgs::DeviceName,
     "@&!*@*@(kos.clear.scsi.device.state.permanentloss.deviceonline)Device: %s, that was "
     "permanently inaccessible, is now online. No data consistency guarantees."},
    // The two blanks after "Device: %s" belong to these two texts.
    {"tev.scsi.device.state.off", Problem, ScsiArgs::DeviceName,
     "@&!*@*@(kos.problem.scsi.device.state.off)Device: %s  has been turned off administratively"},
    {"tev.scsi.device.state.on", Clear, ScsiArgs::DeviceName,
     "@&!*@*@(kos.clear.scsi.device.state.on)Device: %s  has been turned on administratively"},
    {"tev.scsi.device.io.qerr.change.config", Problem, ScsiArgs::QErr,
     "@&!*@*@(kos.problem.scsi.device.io.qerr.change.config)QErr set to 0x%x for device %s. This "
     "may cause unexpected behavior. The system is not configured to change the Qerr setting of "
     "device. The Qerr value supported by system is 0x%x. Please check the SCSI "
     "ChangeQErrSetting configuration value for KOS."},
    {"tev.scsi.device.io.qerr.changed", Problem, ScsiArgs::QErr,
     "@&!*@*@(kos.problem.scsi.device.io.qerr.changed)QErr set to 0x%x for device %s. This may "
     "cause unexpected behavior. The device was originally configured to the supported QErr "
     "setting of 0x%x, but this has been changed and could not be reset."},
    {"tev.scsi.device.io.bad.plugin.type", Problem, ScsiArgs::DevicePlugin,
     "@&!*@*@(kos.problem.scsi.device.io.bad.plugin.type)Bad Plugin type for device %s, plugin "
     "%s"},
    // Only this text spells "Plugin" with a capital letter.
    {"tev.scsi.device.io.inquiry.failed", Problem, ScsiArgs::DevicePlugin,
     "@&!*@*@(kos.problem.scsi.device.io.inquiry.failed)Failed to get standard inquiry for device "
     "%s from Plugin %s."},
    {"tev.scsi.device.is.pseudo.failed", Problem, ScsiArgs::DevicePlugin,
     "@&!*@*@(kos.problem.scsi.device.is.pseudo.failed)Failed to verify if the device %s from "
     "plugin %s is a pseudo device"},
    {"tev.scsi.device.is.ssd.failed", Problem, ScsiArgs::DevicePlugin,
     "@&!*@*@(kos.problem.scsi.device.is.ssd.failed)Failed to verify if the device %s from plugin "
     "%s is a Solid State Disk device"},
    {"tev.scsi.device.is.local.failed", Problem, ScsiArgs::DevicePlugin,
     "@&!*@*@(kos.problem.scsi.device.is.local.failed)Failed to verify if the device %s from "
     "plugin %s is a local - not shared - device"},
    {"tev.scsi.device.close.failed", Problem, ScsiArgs::DevicePlugin,
     "@&!*@*@(kos.problem.scsi.device.close.failed)Failed to close the device %s properly, plugin "
     "%s"},
    {"tev.scsi.device.filter.attach.failed", Problem, ScsiArgs::ParamsName,
     "@&!*@*@(kos.problem.scsi.device.filter.attach.failed)Failed to attach filters to device "
     "'%s' during registration. Plugin load failed or the filter rules are incorrect."},
    // " :%s" (blank before the colon, none after) is the text's own.
    {"tev.scsi.device.detach.failed", Problem, ScsiArgs::ParamsName,
     "@&!*@*@(kos.problem.scsi.device.detach.failed)Detach failed for device :%s. Exceeded the "
     "number of devices that can be detached, please cleanup stale detach entries."},
    {"tev.scsi.unsupported.plugin.type", Problem, ScsiArgs::PluginType,
     "@&!*@*@(kos.problem.scsi.unsupported.plugin.type)Scsi Device Allocation not supported for "
     "plugin type %x"},
    {"tev.scsi.device.io.latency.high", Problem, ScsiArgs::Latency,
     "@&!*@*@(kos.problem.scsi.device.io.latency.high)Device %s performance has deteriorated. I/O "
     "latency increased from average value of %ld microseconds to %ld microseconds."},
    {"tev.scsi.device.io.latency.improved", Clear, ScsiArgs::Latency,
     "@&!*@*@(kos.clear.scsi.device.io.latency.improved)Device %s performance has improved. I/O "
     "latency reduced from %ld microseconds to %ld microseconds."},
};

const ScsiTranslation *FindTranslation(const char *id) {
  for (const ScsiTranslation &row : kTranslations) {
    if (Tev_IsID(id, row.id)) {
      return &row;
    }
  }
  return nullptr;
}

// Reads the row's arguments and posts its event; logs the row's failure line
// and posts nothing when an argument cannot be read.
int PostTranslation(Tev *tev, const char *id, const ScsiTranslation &row) {
  int rc = 0;
  switch (row.args) {
    case ScsiArgs::DevicePlugin: {
      const char *device = nullptr;
      const char *plugin = nullptr;
      if ((rc = Tev_GetArgs(tev, 0, "%p %p", &device, &plugin)) != 0) {
        TevdLog("Failed to correlate %s: %d\n", id, rc);
        return rc;
      }
      TevdQprob_Post(0, row.cls, row.templ, device, plugin);
      return 0;
    }
    case ScsiArgs::QErr: {
      int32_t qerrNow = 0;
      const char *device = nullptr;
      int32_t qerrSupported = 0;
      if ((rc = Tev_GetArgs(tev, 0, "%d %p %d", &qerrNow, &device, &qerrSupported)) != 0) {
        TevdLog("Failed to correlate %s: %d\n", id, rc);
        return rc;
      }
      TevdQprob_Post(0, row.cls, row.templ, static_cast<unsigned>(qerrNow), device,
                     static_cast<unsigned>(qerrSupported));
      return 0;
    }
    case ScsiArgs::ParamsName: {
      const char *device = nullptr;
      if ((rc = Tev_GetStringArg(tev, 0, &device)) != 0) {
        TevdLog("Failed to get params for correlation %s: %d\n", id, rc);
        return rc;
      }
      TevdQprob_Post(0, row.cls, row.templ, device);
      return 0;
    }
    case ScsiArgs::PluginType: {
      int32_t type = 0;
      if ((rc = Tev_GetIntArg(tev, 0, &type)) != 0) {
        TevdLog("Failed to correlate %s: %d\n", id, rc);
        return rc;
      }
      TevdQprob_Post(0, row.cls, row.templ, static_cast<unsigned>(type));
      return 0;
    }
    case ScsiArgs::DeviceName: {
      const char *device = nullptr;
      if ((rc = Tev_GetStringArg(tev, 0, &device)) != 0) {
        TevdLog("Failed to get device name: %d\n", rc);
        return rc;
      }
      TevdQprob_Post(0, row.cls, row.templ, device);
      return 0;
    }
    case ScsiArgs::PathLimit:
    case ScsiArgs::DeviceLimit: {
      const bool path = row.args == ScsiArgs::PathLimit;
      int32_t limit = 0;
      const char *name = nullptr;
      if ((rc = Tev_GetIntArg(tev, 0, &limit)) != 0) {
        if (path) {
          TevdLog("Failed to get path limit reached path count: %d\n", rc);
        } else {
          TevdLog("Failed to get device limit reached device count: %d\n", rc);
        }
        return rc;
      }
      if ((rc = Tev_GetStringArg(tev, 1, &name)) != 0) {
        if (path) {
          TevdLog("Failed to get path limit reached path name: %d\n", rc);
        } else {
          TevdLog("Failed to get device limit reached plugin name: %d\n", rc);
        }
        return rc;
      }
      TevdQprob_Post(0, row.cls, row.templ, limit, name);
      return 0;
    }
    case ScsiArgs::Latency: {
      // The kernel decides when latency is high or improved; the two values
      // are passed on as received, never compared here.
      const char *device = nullptr;
      unsigned long first = 0;
      unsigned long second = 0;
      if ((rc = Tev_GetArgs(tev, 0, "%p %lu %lu", &device, &first, &second)) != 0) {
        TevdLog("Failed to correlate %s: %d\n", id, rc);
        return rc;
      }
      TevdQprob_Post(0, row.cls, row.templ, device, static_cast<long>(first),
                     static_cast<long>(second));
      return 0;
    }
  }
  return 0;
}

int TevdScsiCorrelatorDoApdDescriptorAlloc(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  TevdQprob_Post(0, Problem,
                 "@&!*@*@(kos.problem.scsi.apd.event.descriptor.alloc.failed)No memory to "
                 "allocate APD (All Paths Down) event subsystem");
  return 0;
}

struct ScsiMapRow {
  const char *id;
  TevHandler handler;
};

// Registration order of the "scsi" map.
const ScsiMapRow kScsiMap[] = {
    {"tev.scsi.scsipath.pathstate.dead", TevdScsiCorrelatorDoPathDown},
    {"tev.scsi.scsipath.pathstate.off", TevdScsiCorrelatorDoPathDown},
    {"tev.scsi.scsipath.pathstate.on", TevdScsiCorrelatorDoPathUp},
    {"tev.scsi.scsipath.pathstate.standby", TevdScsiCorrelatorDoPathUp},
    {"tev.scsi.device.thinprov.atquota", TevdScsiCorrelatorDoThinProvAtQuota},
    {"tev.scsi.device.limitreached", TevdScsiCorrelatorDoDeviceLimit},
    {"tev.scsi.scsipath.limitreached", TevdScsiCorrelatorDoPathLimit},
    {"tev.scsi.scsipath.badpath.unsafepe", TevdScsiCorrelatorDoBadPePath},
    {"tev.scsi.scsipath.badpath.unreachpe", TevdScsiCorrelatorDoBadPePath},
    {"tev.scsi.scsipath.add", TevdScsiCorrelatorDoPathAddRemove},
    {"tev.scsi.scsipath.remove", TevdScsiCorrelatorDoPathAddRemove},
    {"tev.scsi.scsipath.por", TevdScsiCorrelatorDoPowerOnReset},
    {"tev.scsi.device.state.permanentloss.noopens", TevdScsiCorrelatorDoPermanentLoss},
    {"tev.scsi.device.state.permanentloss", TevdScsiCorrelatorDoPermanentLoss},
    {"tev.scsi.device.state.permanentloss.withreservationheld", TevdScsiCorrelatorDoPermanentLoss},
    {"tev.scsi.device.state.permanentloss.pluggedback", TevdScsiCorrelatorDoPluggedBack},
    {"tev.scsi.device.state.permanentloss.deviceonline", TevdScsiCorrelatorDoDeviceOnline},
    {"tev.scsi.device.state.off", TevdScsiCorrelatorDoDeviceOff},
    {"tev.scsi.device.state.on", TevdScsiCorrelatorDoDeviceOn},
    {"tev.scsi.device.io.qerr.change.config", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.io.qerr.changed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.io.bad.plugin.type", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.io.inquiry.failed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.is.pseudo.failed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.is.ssd.failed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.is.local.failed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.close.failed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.filter.attach.failed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.detach.failed", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.unsupported.plugin.type", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.apd.event.descriptor.alloc.failed", TevdScsiCorrelatorDoApdDescriptorAlloc},
    {"tev.scsi.device.io.latency.high", TevdScsiCorrelatorDoTranslation},
    {"tev.scsi.device.io.latency.improved", TevdScsiCorrelatorDoTranslation},
};
static_assert(sizeof(kScsiMap) / sizeof(kScsiMap[0]) == 33, "the scsi map has 33 rows");

}  // namespace

int TevdScsiCorrelatorDoTranslation(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  const ScsiTranslation *row = FindTranslation(id);
  if (row == nullptr) {
    return 0;   // an identifier this handler does not know: nothing to post
  }
  return PostTranslation(tev, id, *row);
}

// The device-state and limit handlers read no identifier: each serves one
// observation, so its row is fixed and a record without an identifier is
// translated all the same.
namespace {
int PostFixedRow(Tev *tev, const char *id) {
  const ScsiTranslation *row = FindTranslation(id);
  if (row == nullptr) {
    Panic("NOT_REACHED %s:%d\n", "apps/tevd/tevdScsiCorrelator", __LINE__);
  }
  return PostTranslation(tev, id, *row);
}
}  // namespace

int TevdScsiCorrelatorDoDeviceOn(Tev *tev) { return PostFixedRow(tev, "tev.scsi.device.state.on"); }
int TevdScsiCorrelatorDoDeviceOff(Tev *tev) { return PostFixedRow(tev, "tev.scsi.device.state.off"); }
int TevdScsiCorrelatorDoDeviceOnline(Tev *tev) {
  return PostFixedRow(tev, "tev.scsi.device.state.permanentloss.deviceonline");
}
int TevdScsiCorrelatorDoPluggedBack(Tev *tev) {
  return PostFixedRow(tev, "tev.scsi.device.state.permanentloss.pluggedback");
}
int TevdScsiCorrelatorDoPathLimit(Tev *tev) { return PostFixedRow(tev, "tev.scsi.scsipath.limitreached"); }
int TevdScsiCorrelatorDoDeviceLimit(Tev *tev) { return PostFixedRow(tev, "tev.scsi.device.limitreached"); }

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

TevHandlerMap TevdScsiCorrelator_BuildMap(void) {
  TevHandlerMap map;
  for (const ScsiMapRow &row : kScsiMap) {
    map[row.id] = row.handler;
  }
  return map;
}

void TevdCorrelator_StartScsi(void) {
  TevdCorrelator_Start("scsi", "scsi", TevdScsiCorrelatorDoDefault, TevdScsiCorrelator_BuildMap());
}
