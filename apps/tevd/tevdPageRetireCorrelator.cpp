// Page retirement correlator. Design: every handler runs on the "pageretire"
// agent thread, so the module state below is plain globals without locks.
// T and I are read once at start (their absence is fatal), while
// "ApeiLoggingEnabled" is read on every firmware request so an operator can
// switch forwarding on and off without a restart. The injection table keeps,
// per virtual machine, the injections of the last 60 seconds ordered by guest
// page; a run of 50 on one page spanning 2 seconds or more means the guest
// keeps touching a bad page, and the virtual machine is killed once.
#include "tevdPageRetireCorrelator.h"

#include <cstring>
#include <ctime>
#include <map>
#include <memory>

#include "HostCtl.h"
#include "KNO.h"
#include "MtlCtl.h"
#include "PlatformModel.h"
#include "TevClock.h"
#include "tevdLog.h"
#include "tevdPanicTags.h"
#include "tevdQprob.h"
#include "tevdUtil.h"

namespace {

const char kIdThreshold[] = "tev.pageretire.selectedmpnthreshold.host.exceeded";
const char kIdNotRetired[] = "tev.pageretire.selectedbutnotretired.high";
const char kIdPlatformRequest[] = "tev.pageretire.platform.retire.request";
const char kIdMceInjected[] = "tev.pageretire.mce.injected";

}  // namespace

struct TevdPRInjectedMCEsPerVM {
  int32_t vmId = 0;
  bool killed = false;
  // Guest physical page -> injection time (seconds). A multimap inserts after
  // the entries with an equal key, so a page's run stays in arrival order.
  std::multimap<uint32_t, time_t> entries;
};

namespace {

uint64_t gThreshold;         // T
int32_t gThresholdInterval;  // I, a percentage of T
uint64_t gLastReported;      // N of the last threshold event
bool gNotRetiredReported;
std::map<int32_t, TevdPRInjectedMCEsPerVM> gInjected;

// Current value of the integer option PageRetire/NAME; throws when absent.
int32_t ReadPageRetireOption(const char *name) {
  MtlCtl::Util::Sysinfo info(KNO_NODE_config_intOpts);
  info.AddInstancePath("PageRetire");
  info.AddInstancePath(name);
  KNO_IntOptRecord rec;
  memset(&rec, 0, sizeof rec);
  info.Get(&rec, sizeof rec);
  return rec.curValue;
}

void PruneInjections(time_t now) {
  for (auto vm = gInjected.begin(); vm != gInjected.end();) {
    auto &entries = vm->second.entries;
    for (auto e = entries.begin(); e != entries.end();) {
      e = e->second + TEVD_PR_WINDOW_SEC < now ? entries.erase(e) : std::next(e);
    }
    vm = entries.empty() ? gInjected.erase(vm) : std::next(vm);
  }
}

// Reports and kills the virtual machine of `rec`. A throw before the post
// leaves the record not killed so a later entry tries again; a throw after
// it leaves the record killed.
void KillVirtualMachine(TevdPRInjectedMCEsPerVM &rec, int count, uint32_t page) {
  try {
    MtlCtl::Resource::ResourceInfoImpl resources;
    std::unique_ptr<MtlCtl::Resource::VirtualMachine> vm =
        resources.GetVirtualMachineByWorldId(rec.vmId);
    std::string name = vm->GetName();
    TevdQprob_Post(0, Problem, tevd_ev::ProblemPageretireMceInjected2, name.c_str(), count, page);
    rec.killed = true;
    vm->Kill(0);
  } catch (...) {
    // Library failures skip the action; the handler goes on with the next entry.
  }
}

// Walks a record's entries in page order, one run per page.
void EvaluateRecord(TevdPRInjectedMCEsPerVM &rec) {
  bool inRun = false;
  uint32_t page = 0;
  int count = 0;
  time_t smallest = 0;
  time_t largest = 0;
  for (const auto &entry : rec.entries) {
    if (!inRun || entry.first != page) {
      inRun = true;
      page = entry.first;
      count = 1;
      smallest = largest = entry.second;
      continue;
    }
    count++;
    if (entry.second < smallest) {
      smallest = entry.second;
    }
    if (entry.second > largest) {
      largest = entry.second;
    }
    if (!rec.killed && count >= TEVD_PR_KILL_COUNT &&
        static_cast<int64_t>(largest - smallest) >= TEVD_PR_KILL_SPAN_SEC) {
      KillVirtualMachine(rec, count, page);
    }
  }
}

// The panic that follows names a source line only: an operator on a first
// install needs the file and the command that makes it (docs/pageretire.md).
void LogMissingModel(const char *relative) {
  TevdLog(
      "Cannot read the host model's %s: the page-retirement settings are needed at start; "
      "'tevctl host init' makes a complete host model.\n",
      PlatformModel_Path(relative).c_str());
}

}  // namespace

void TevdPageRetireCorrelator_Init(void) {
  gLastReported = 0;
  try {
    uint64_t threshold = 0;
    MtlCtl::Util::Sysinfo(KNO_NODE_system_pageRetire_threshold).Get(&threshold, sizeof threshold);
    gThreshold = threshold;
  } catch (...) {
    LogMissingModel("nodes/system/pageRetire/threshold");
    TevdNotReached(tevd_tag::kPageRetireNoThreshold);
  }
  try {
    gThresholdInterval = ReadPageRetireOption("ThresholdInterval");
  } catch (...) {
    LogMissingModel("options/PageRetire/ThresholdInterval");
    TevdNotReached(tevd_tag::kPageRetireNoInterval);
  }
  gNotRetiredReported = false;
  // Empty at process start; cleared so that a test's run starts fresh too.
  gInjected.clear();
}

int TevdPageRetireCorrelatorDefault(Tev *tev) {
  const char *id = nullptr;
  Tev_GetID(tev, &id);
  return 0;
}

int TevdPageRetireCorrelatorSelectedThreshold(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr || !Tev_IsID(id, kIdThreshold)) {
    return 0;
  }
  unsigned long selected = 0;
  if (TevdUtil_GetArgs(tev, "Number of MPNs selected for retirement is %lu", &selected) != 0) {
    return 0;
  }
  uint64_t n = selected;
  if (n <= gThreshold) {
    return 0;
  }
  // Unsigned on purpose: an interval step larger than N wraps and reports.
  uint64_t d = n - (gThreshold * static_cast<uint64_t>(gThresholdInterval)) / 100;
  if (d < gLastReported) {
    return 0;
  }
  TevdQprob_Post(0, Problem, tevd_ev::ProblemPageretireSelectedmpnthresholdHostExceeded,
                 static_cast<unsigned long>(n), static_cast<unsigned long>(gThreshold));
  gLastReported = n;
  return 0;
}

int TevdPageRetireCorrelatorSelectedNotRetired(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr || !Tev_IsID(id, kIdNotRetired)) {
    return 0;
  }
  unsigned long count = 0;
  if (TevdUtil_GetArgs(tev, "Number of selected but not retired MPNs is high: %lu.", &count) != 0) {
    return 0;
  }
  // Once per run: the flag is never cleared while the daemon lives.
  if (gNotRetiredReported) {
    return 0;
  }
  TevdQprob_Post(0, Problem, tevd_ev::ProblemPageretireSelectedbutnotretiredHigh, count);
  gNotRetiredReported = true;
  return 0;
}

int TevdPageRetireCorrelatorPlatformRequest(Tev *tev) {
  int32_t enabled = 0;
  try {
    enabled = ReadPageRetireOption("ApeiLoggingEnabled");
  } catch (const HostCtl::Lib::HostCtlException &) {
    TevdNotReached(tevd_tag::kPageRetireNoApeiOption);
  }
  if (enabled == 0) {
    return 0;
  }
  const char *fru = nullptr;
  const char *hwLog = nullptr;
  if (TevdUtil_GetArgs(tev,
                       "Memory page retirement requested by platform firmware. FRU ID: %s. Refer "
                       "to System Hardware Log: %s",
                       &fru, &hwLog) != 0) {
    return 0;
  }
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) == 0 && id != nullptr && strcmp(id, kIdPlatformRequest) == 0) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemPageretirePlatformRetireRequest, fru, hwLog);
  }
  return 0;
}

int TevdPageRetireCorrelatorMceInjected(Tev *tev) {
  time_t now = TevClock_Time();
  PruneInjections(now);

  const char *id = nullptr;
  if (Tev_GetID(tev, &id) == 0 && id != nullptr && strcmp(id, kIdMceInjected) == 0) {
    unsigned int page = 0;
    int vmId = 0;
    if (TevdUtil_GetArgs(tev, "Injected MCE for PPN %x into virtual machine %d.", &page, &vmId) !=
        0) {
      return 0;
    }
    auto found = gInjected.find(vmId);
    if (found == gInjected.end()) {
      found = gInjected.emplace(vmId, TevdPRInjectedMCEsPerVM()).first;
      found->second.vmId = vmId;
    }
    found->second.entries.emplace(static_cast<uint32_t>(page), now);
  }

  for (auto &vm : gInjected) {
    EvaluateRecord(vm.second);
  }
  return 0;
}

TevHandlerMap TevdPageRetireCorrelator_BuildMap(void) {
  static const struct {
    const char *id;
    TevHandler handler;
  } kRows[] = {
      {kIdThreshold, TevdPageRetireCorrelatorSelectedThreshold},
      {kIdNotRetired, TevdPageRetireCorrelatorSelectedNotRetired},
      {kIdPlatformRequest, TevdPageRetireCorrelatorPlatformRequest},
      {kIdMceInjected, TevdPageRetireCorrelatorMceInjected},
  };
  TevHandlerMap map;
  for (const auto &row : kRows) {
    map[row.id] = row.handler;
  }
  return map;
}

void TevdCorrelator_StartPageRetire(void) {
  TevdPageRetireCorrelator_Init();
  TevdCorrelator_Start("pageretire", "pageretire", TevdPageRetireCorrelatorDefault,
                       TevdPageRetireCorrelator_BuildMap());
}
