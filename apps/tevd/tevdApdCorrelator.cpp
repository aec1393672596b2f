// All-paths-down correlator ("APD", subscribed to "storage.apd"): one row per
// observation, walked by one handler. It keeps no record of which devices are
// in the all-paths-down state, so exit and timeout are posted even without an
// earlier start. Arguments are read one by one; a missing one drops the
// observation without a log line.
#include "tevdApdCorrelator.h"

#include "tevdLog.h"
#include "tevdTranslate.h"

namespace {

// Registration order. String 0 is the identifier; integer 1 of the timeout
// is the seconds spent in the all-paths-down state.
constexpr TevdRow kApdRows[] = {
    {"tev.storage.apd.start", TevdApdCorrelatorDoTranslation, Problem, TevdRead::ByIndex, "s", "",
     tevd_ev::ProblemStorageApdStart},
    {"tev.storage.apd.exit", TevdApdCorrelatorDoTranslation, Clear, TevdRead::ByIndex, "s", "",
     tevd_ev::ClearStorageApdExit},
    {"tev.storage.apd.timeout", TevdApdCorrelatorDoTranslation, Problem, TevdRead::ByIndex, "sd",
     "", tevd_ev::ProblemStorageApdTimeout},
};
static_assert(TevdTranslate_FirstBadRow(kApdRows) == -1, "an APD row does not fit its template");

}  // namespace

int TevdApdCorrelatorDoTranslation(Tev *tev) {
  return TevdTranslate_ById(tev, kApdRows, TevdApdCorrelatorDoTranslation, true);
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

TevHandlerMap TevdApdCorrelator_BuildMap(void) { return TevdTranslate_BuildMap(kApdRows); }

void TevdCorrelator_StartAPD(void) {
  TevdCorrelator_Start("APD", "storage.apd", TevdApdCorrelatorDoDefault,
                       TevdApdCorrelator_BuildMap());
}
