// All-paths-down correlator ("APD", subscribed to "storage.apd"): one row per
// observation, walked by one handler. It keeps no record of which devices are
// in the all-paths-down state, so exit and timeout are posted even without an
// earlier start. Arguments are read one by one; a missing one drops the
// observation without a log line.
#include "tevdApdCorrelator.h"

#include "tevdLog.h"
#include "tevdQprob.h"

namespace {

struct ApdTranslation {
  const char *id;
  EventClass cls;
  bool withSeconds;   // integer 1 = seconds spent in the all-paths-down state
  const char *templ;
};

const ApdTranslation kApdTranslations[] = {
    {"tev.storage.apd.start", Problem, false,
     "@&!*@*@(kos.problem.storage.apd.start)Device or filesystem with identifier [%s] has "
     "entered the All Paths Down state."},
    {"tev.storage.apd.exit", Clear, false,
     "@&!*@*@(kos.clear.storage.apd.exit)Device or filesystem with identifier [%s] has exited "
     "the All Paths Down state."},
    {"tev.storage.apd.timeout", Problem, true,
     "@&!*@*@(kos.problem.storage.apd.timeout)Device or filesystem with identifier [%s] has "
     "entered the All Paths Down Timeout state after being in the All Paths Down state for %d "
     "seconds. I/Os will now be fast failed."},
};

}  // namespace

int TevdApdCorrelatorDoTranslation(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  for (const ApdTranslation &row : kApdTranslations) {
    if (!Tev_IsID(id, row.id)) {
      continue;
    }
    const char *identifier = nullptr;
    if (Tev_GetStringArg(tev, 0, &identifier) != 0) {
      return 0;
    }
    if (!row.withSeconds) {
      TevdQprob_Post(0, row.cls, row.templ, identifier);
      return 0;
    }
    int32_t seconds = 0;
    if (Tev_GetIntArg(tev, 1, &seconds) != 0) {
      return 0;
    }
    TevdQprob_Post(0, row.cls, row.templ, identifier, seconds);
    return 0;
  }
  return 0;
}

int TevdApdCorrelatorDoDefault(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return -1;
  }
  TevdLog("No correlator for %s \n", id);
  return 0;
}

TevHandlerMap TevdApdCorrelator_BuildMap(void) {
  TevHandlerMap map;
  for (const ApdTranslation &row : kApdTranslations) {
    map[row.id] = TevdApdCorrelatorDoTranslation;
  }
  return map;
}

void TevdCorrelator_StartAPD(void) {
  TevdCorrelator_Start("APD", "storage.apd", TevdApdCorrelatorDoDefault,
                       TevdApdCorrelator_BuildMap());
}
