// Clock correction correlator. Design: each of the three handlers owns its
// own suppression table (identifier -> second it was last handled), touched
// only on the "Clock" agent thread, so no lock. The one-hour test is a signed
// difference: after the clock is stepped back, an identifier stays
// suppressed until the clock passes its last time plus an hour again. Each
// row posts its catalogue template by name, never through a variable, so the
// printf attribute checks its arguments.
#include "tevdClockCorrelator.h"

#include <sys/time.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "TevClock.h"
#include "tevdLog.h"
#include "tevdQprob.h"

namespace {

typedef std::map<std::string, int64_t> SuppressionTable;

SuppressionTable gSyncTable;
SuppressionTable gDeltaTable;
SuppressionTable gSetValueTable;

const char kIdStepUnsync[] = "tev.clock.correction.step.unsync";
const char kIdAdjSync[] = "tev.clock.correction.adjtime.sync";
const char kIdAdjUnsync[] = "tev.clock.correction.adjtime.unsync";
const char kIdAdjLostSync[] = "tev.clock.correction.adjtime.lostsync";

// Common opening: the identifier when the handler goes on, nullptr when the
// observation has none or was handled less than an hour ago. An absent
// identifier enters its table with 0, so its first occurrence passes.
const char *OpenHandler(Tev *tev, SuppressionTable &table, int64_t *now) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    return nullptr;
  }
  int64_t last = table[id];
  *now = TevClock_NowSeconds();
  if (*now - last < TEVD_CLOCK_SUPPRESS_SEC) {
    return nullptr;
  }
  return id;
}

struct SetValueRow {
  const char *id;
  bool hasValue;  // reads one "%d"
  void (*post)(int32_t value);
};

const SetValueRow kSetValueRows[] = {
    {"tev.clock.state.reset", false,
     [](int32_t) { TevdQprob_Post(0, Problem, tevd_ev::ProblemClockStateReset); }},
    {"tev.clock.parameter.set.maxNegPhaseCorrection", true,
     [](int32_t v) {
       TevdQprob_Post(0, Problem, tevd_ev::ProblemClockParameterSetMaxNegPhaseCorrection, v);
     }},
    {"tev.clock.parameter.set.maxPosPhaseCorrection", true,
     [](int32_t v) {
       TevdQprob_Post(0, Problem, tevd_ev::ProblemClockParameterSetMaxPosPhaseCorrection, v);
     }},
    {"tev.clock.parameter.set.numLargeCorrections", true,
     [](int32_t v) {
       TevdQprob_Post(0, Problem, tevd_ev::ProblemClockParameterSetNumLargeCorrections, v);
     }},
    {"tev.clock.parameter.set.maxLargeCorrections", true,
     [](int32_t v) {
       TevdQprob_Post(0, Problem, tevd_ev::ProblemClockParameterSetMaxLargeCorrections, v);
     }},
};

// The three correction-delta observations carry a suffix of the same six
// values: the message's conversions fill the last ones, from `first` on.
struct DeltaRow {
  const char *id;
  const char *format;
  int first;  // index of the first value filled (0-based)
  void (*post)(const int32_t v[6]);
};

const DeltaRow kDeltaRows[] = {
    {"tev.clock.correction.delta.warning", "%d %d %d %d %d %d", 0,
     [](const int32_t v[6]) {
       TevdQprob_Post(0, Problem, tevd_ev::ProblemClockCorrectionDeltaWarning, v[0], v[1], v[2],
                      v[3], v[4], v[5]);
     }},
    {"tev.clock.correction.delta.failed", "%d %d %d %d %d", 1,
     [](const int32_t v[6]) {
       TevdQprob_Post(0, Problem, tevd_ev::ProblemClockCorrectionDeltaFailed, v[1], v[2], v[3],
                      v[4], v[5]);
     }},
    {"tev.clock.correction.delta.allowed", "%d %d %d %d", 2,
     [](const int32_t v[6]) {
       TevdQprob_Post(0, Problem, tevd_ev::ProblemClockCorrectionDeltaAllowed, v[2], v[3], v[4],
                      v[5]);
     }},
};

}  // namespace

int TevdClockCorrelator_SetValue(Tev *tev) {
  int64_t now = 0;
  const char *id = OpenHandler(tev, gSetValueTable, &now);
  if (id == nullptr) {
    return 0;
  }
  for (const SetValueRow &row : kSetValueRows) {
    if (strcmp(row.id, id) != 0) {
      continue;
    }
    int32_t value = 0;
    if (row.hasValue && Tev_GetArgs(tev, 0, "%d", &value) != 0) {
      return 0;
    }
    row.post(value);
    gSetValueTable[id] = now;
    return 0;
  }
  return 0;
}

int TevdClockCorrelator_CorrectionDelta(Tev *tev) {
  int64_t now = 0;
  const char *id = OpenHandler(tev, gDeltaTable, &now);
  if (id == nullptr) {
    return 0;
  }
  for (const DeltaRow &row : kDeltaRows) {
    if (strcmp(row.id, id) != 0) {
      continue;
    }
    int32_t values[6] = {0, 0, 0, 0, 0, 0};
    int32_t read[6] = {0, 0, 0, 0, 0, 0};
    // Conversions beyond the format's count leave their pointers unused.
    if (Tev_GetArgs(tev, 0, row.format, &read[0], &read[1], &read[2], &read[3], &read[4],
                    &read[5]) != 0) {
      return 0;
    }
    for (int i = row.first; i < 6; i++) {
      values[i] = read[i - row.first];
    }
    row.post(values);
    gDeltaTable[id] = now;
    return 0;
  }
  return 0;
}

int TevdClockCorrelator_Sync(Tev *tev) {
  int64_t now = 0;
  const char *id = OpenHandler(tev, gSyncTable, &now);
  if (id == nullptr) {
    return 0;
  }
  // Every loss of synchronisation clears the sync entry, so the next
  // "synchronised" report passes at once.
  if (strcmp(id, kIdStepUnsync) == 0) {
    int32_t sec = 0;
    int32_t nsec = 0;
    if (Tev_GetArgs(tev, 0, "%d %d", &sec, &nsec) == 0) {
      TevdQprob_Post(0, Problem, tevd_ev::ProblemClockCorrectionStepUnsync, sec, nsec);
      gSyncTable[kIdAdjSync] = 0;
    }
  } else if (strcmp(id, kIdAdjSync) == 0) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemClockCorrectionAdjtimeSync);
  } else if (strcmp(id, kIdAdjUnsync) == 0) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemClockCorrectionAdjtimeUnsync);
    gSyncTable[kIdAdjSync] = 0;
  } else if (strcmp(id, kIdAdjLostSync) == 0) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemClockCorrectionAdjtimeLostsync);
    gSyncTable[kIdAdjSync] = 0;
  }
  // Also after a step whose arguments could not be read.
  gSyncTable[id] = now;
  return 0;
}

int TevdClockCorrelatorHandleOther(Tev *tev) {
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0 || id == nullptr) {
    TevdLog("FAIL: Received NULL tevID\n");
    return 0;
  }
  TevdLog("No system clock correlator for %s\n", id);
  return 0;
}

TevHandlerMap TevdClockCorrelator_BuildMap(void) {
  static const struct {
    const char *id;
    TevHandler handler;
  } kRows[] = {
      {kIdStepUnsync, TevdClockCorrelator_Sync},
      {kIdAdjSync, TevdClockCorrelator_Sync},
      {kIdAdjUnsync, TevdClockCorrelator_Sync},
      {kIdAdjLostSync, TevdClockCorrelator_Sync},
      {"tev.clock.correction.delta.warning", TevdClockCorrelator_CorrectionDelta},
      {"tev.clock.correction.delta.failed", TevdClockCorrelator_CorrectionDelta},
      {"tev.clock.correction.delta.allowed", TevdClockCorrelator_CorrectionDelta},
      {"tev.clock.state.reset", TevdClockCorrelator_SetValue},
      {"tev.clock.parameter.set.maxNegPhaseCorrection", TevdClockCorrelator_SetValue},
      {"tev.clock.parameter.set.maxPosPhaseCorrection", TevdClockCorrelator_SetValue},
      {"tev.clock.parameter.set.numLargeCorrections", TevdClockCorrelator_SetValue},
      {"tev.clock.parameter.set.maxLargeCorrections", TevdClockCorrelator_SetValue},
  };
  TevHandlerMap map;
  for (const auto &row : kRows) {
    map[row.id] = row.handler;
  }
  return map;
}

void TevdCorrelator_StartClock(void) {
  TevdCorrelator_Start("Clock", "clock", TevdClockCorrelatorHandleOther,
                       TevdClockCorrelator_BuildMap());
}
