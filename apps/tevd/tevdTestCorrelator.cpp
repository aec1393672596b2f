// Self-test correlator.
//
// A user-space test program posts a fixed sequence of "tests" observations
// between start and end markers; each one is checked against kExpected, in
// order. The handler runs on the "TevdTest" agent thread; the time-out
// handler runs on the alarm thread and only touches the failure count, which
// is therefore atomic. Every line goes to standard output and is flushed at
// once, because the run always ends by exit().
#include "tevdTestCorrelator.h"

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tevdAlarm.h"
#include "tevdQprob.h"

namespace {

struct ExpectedTev {
  const char *id;
  const char *msg;
  int32_t stringArgs;
  int32_t intArgs;
};

const ExpectedTev kExpected[] = {
    {"tev.tests.async.noData", "this is an observation with no data", 0, 0},
    {"tev.tests.async.withPath",
     "this is an observation with a complicated /a/fake/path${path} path.", 1, 0},
    {"tev.tests.async.withLog", "this is an ob with an associated Log message.", 0, 0},
    {"tev.tests.async.withWarn", "this is an ob with an associated Warn message.", 0, 0},
    {"tev.tests.async.withIntParams",
     "this is an observation with integer parameters. -559038737, deadbeef, -2401053088876216593",
     0, 3},
    {"tev.tests.async.withUintParams",
     "this is an observation with unsigned integer parameters. 3735928559, deadbeef, "
     "16045690984833335023",
     0, 3},
    {"tev.tests.async.withStringParams",
     "this is an observation with a string parameter: some string", 1, 0},
    {"tev.tests.async.withLongStringParam",
     "this is an observation with a string parameter: some looong long long long long long string",
     1, 0},
    {"tev.tests.async.withLongStringParams",
     "this is an observation with a string parameter: some looong long long long long long string "
     "and another: some string",
     2, 0},
    {"tev.tests.corrupt.format.empty", "", 0, 0},
    {"tev.tests.corrupt.format.doublepercent", "%", 0, 0},
    {"tev.tests.corrupt.format.s.zeros", "", 1, 0},
    {"tev.tests.corrupt.format.s.zero3", "000", 1, 0},
    {"tev.tests.corrupt.format.tag.invalid1", "0${", 0, 1},
    {"tev.tests.corrupt.format.tag.invalid2", "0${asdf", 0, 1},
    {"tev.tests.corrupt.format.tag.nestedInval", "0${a0{df}", 0, 2},
    {"tev.tests.corrupt.format.tag.ugly", "0${009__.asdf}", 0, 1},
    {"tev.tests.corrupt.format.tag.vugly", "0${009__.asdf=bar=baz=foof}", 0, 1},
    {"tev.tests.corrupt.format.tag.assign.inval", "0${=invalid}", 0, 1},
    {"tev.tests.corrupt.format.tag.notreally", "%${ignore}", 0, 0},
    {"tev.tests.corrupt.format.tag.notreally2", "%${=ignore}", 0, 0},
};
constexpr size_t kNumExpected = sizeof kExpected / sizeof kExpected[0];
static_assert(kNumExpected == 21, "21 expected observations");

constexpr unsigned kTimeoutSeconds = 5;
constexpr size_t kHugeSize = 10485760;

bool qprobTestsDone = false;
bool started = false;
bool corruptWindow = false;
uint32_t received = 0;
std::atomic<int32_t> failures{0};
int timeoutAlarm = -1;

void Out(const char *format, ...) TEV_PRINTF(1, 2);
void Out(const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vprintf(format, ap);
  va_end(ap);
  fflush(stdout);
}

void Line(const char *text) {
  puts(text);
  fflush(stdout);
}

// The run ends the process from an agent thread while the reader still
// works: _exit, so that no static object is destroyed under its feet.
[[noreturn]] void Finish() {
  fflush(stdout);
  _exit(failures.load());
}

bool IsId(const char *id, const char *expected) { return id != nullptr && Tev_IsID(id, expected); }

char *HugeString() {
  char *s = static_cast<char *>(malloc(kHugeSize));
  if (s == nullptr) {
    Out("FAIL: Unable to allocate %zu bytes for 'hugestr'\n", kHugeSize);
    failures++;
    return nullptr;
  }
  memset(s, 'x', kHugeSize - 1);
  s[kHugeSize - 1] = '\0';
  return s;
}

// Exercises event posting once: five events that must arrive, and two
// oversized ones that the posting code must drop.
void RunQprobTests() {
  Line("INFO: Testing QProb_PostProblem.");
  TevdQprob_Post(0, Problem, tevd_ev::ProblemTevdtestcorrelatorTest0);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemTevdtestcorrelatorTest1d, 1);
  TevdQprob_Post(0, Problem, tevd_ev::ProblemTevdtestcorrelatorTest1s, "one");
  char *huge = HugeString();
  if (huge != nullptr) {
    TevdQprob_Post(0, Problem, tevd_ev::ProblemTevdtestcorrelatorTestHugestr, huge);
    free(huge);
  }
  char *hugeId = HugeString();
  if (hugeId != nullptr) {
    Tevd_PostProblem(hugeId, "Huge ID");
    free(hugeId);
  }
  Line("INFO: Testing QProb_PostAudit.");
  TevdQprob_Post(0, Audit, tevd_ev::AuditTevdtestcorrelatorTest, "Two", 2);
  Line("INFO: Testing QProb_PostClear.");
  TevdQprob_Post(0, Clear, tevd_ev::ClearTevdtestcorrelatorTest, "Three", 3, "arg");
  Line("INFO: Qprob tests completed");
  qprobTestsDone = true;
}

int GetArgsFailed(const char *id, int rc) {
  Out("FAIL: Tev_GetArgs failed for TEV %s: %s\n", id, strerror(rc));
  return 1;
}

// The Tev_GetArgs checks of the rows that have them; returns the errors.
int CheckGetArgs(Tev *tev, const char *id) {
  int n = 0;
  if (Tev_IsID(id, "tev.tests.async.withIntParams")) {
    int32_t d = 0;
    uint32_t x = 0;
    long l = 0;
    int rc = Tev_GetArgs(tev, 0, "%d %x %ld", &d, &x, &l);
    if (rc == 0) {
      Out("PASS: Tev_GetArgs succeeded for TEV %s. Args: %d, %x, %ld\n", id, d, x, l);
    } else {
      n += GetArgsFailed(id, rc);
    }
    rc = Tev_GetArgs(tev, 0, "%10d %10x %10ld", &d, &x, &l);
    if (rc == 0) {
      Out("PASS: Tev_GetArgs (with field width specifiers) succeeded for TEV %s. Args: %d, %x, "
          "%ld\n",
          id, d, x, l);
    } else {
      n += GetArgsFailed(id, rc);
    }
  } else if (Tev_IsID(id, "tev.tests.async.withUintParams")) {
    uint32_t u = 0;
    uint32_t x = 0;
    unsigned long lu = 0;
    int rc = Tev_GetArgs(tev, 0, "%u %x %lu", &u, &x, &lu);
    if (rc == 0) {
      // The same PASS line as the signed row: the values print as signed.
      Out("PASS: Tev_GetArgs succeeded for TEV %s. Args: %d, %x, %ld\n", id, u, x, lu);
    } else {
      n += GetArgsFailed(id, rc);
    }
  } else if (Tev_IsID(id, "tev.tests.async.withStringParams") ||
             Tev_IsID(id, "tev.tests.async.withLongStringParam")) {
    const char *s = nullptr;
    int rc = Tev_GetArgs(tev, 0, "%p", &s);
    if (rc == 0) {
      Out("PASS: Tev_GetArgs succeeded for TEV %s. Args: %s\n", id, s);
    } else {
      n += GetArgsFailed(id, rc);
    }
  } else if (Tev_IsID(id, "tev.tests.async.withLongStringParams")) {
    const char *s0 = nullptr;
    const char *s1 = nullptr;
    int rc0 = Tev_GetArgs(tev, 0, "%p", &s0);
    if (rc0 != 0) {
      n += GetArgsFailed(id, rc0);
    }
    int rc1 = Tev_GetArgs(tev, 1, "%p", &s1);
    if (rc1 != 0) {
      n += GetArgsFailed(id, rc1);
    }
    if (rc0 == 0 && rc1 == 0) {
      Out("PASS: Tev_GetArgs succeeded for TEV %s. Args: %s, %s\n", id, s0, s1);
    }
  }
  return n;
}

// Compares the observation with row `row`; returns the number of errors.
int CompareWithRow(Tev *tev, const char *id, const ExpectedTev &row) {
  if (id == nullptr) {
    Line("FAIL: Received NULL tevID");
    return 1;
  }
  char *msg = nullptr;
  size_t msgLen = 0;
  if (Tev_GetMsg(tev, &msg, &msgLen) != 0 || msg == nullptr) {
    free(msg);
    Out("FAIL: Received NULL tevMsg for tevID = '%s'\n", id);
    return 1;
  }
  int n = 0;
  if (!Tev_IsID(id, row.id)) {
    Out("FAIL: Expected tevId = '%s'; Got '%s'\n", row.id, id);
    n++;
  }
  if (strcmp(msg, row.msg) != 0) {
    Out("FAIL: Expected msg = '%s'; Got '%s'\n", row.msg, msg);
    n++;
  }
  free(msg);

  const char *str = nullptr;
  if (row.stringArgs >= 1) {
    for (int i = 0; i < row.stringArgs; i++) {
      int rc = Tev_GetStringArg(tev, i, &str);
      if (rc != 0) {
        Out("FAIL: Tev_GetStringArg returned %d @ i = %d\n", rc, i);
        n++;
      }
    }
  } else if (Tev_GetStringArg(tev, 0, &str) == 0) {
    Out("FAIL: Tev_GetStringArg (%s) failed: %d!\n", id, 0);
    n++;
  }

  int32_t value = 0;
  if (row.intArgs >= 1) {
    for (int i = 0; i < row.intArgs; i++) {
      int rc = Tev_GetIntArg(tev, i, &value);
      if (rc != 0) {
        Out("FAIL: Tev_GetIntArg returned %d @ i = %d\n", rc, i);
        n++;
      }
    }
  } else if (Tev_GetIntArg(tev, 0, &value) == 0) {
    Out("FAIL: Tev_GetIntArg(%s) failed: %d\n", id, 0);
    n++;
  }
  return n + CheckGetArgs(tev, id);
}

void ArmTimeout() { TevdAlarm_Set(timeoutAlarm, 0, kTimeoutSeconds, nullptr); }

}  // namespace

void TevdTestCorrelatorTimeout(void) {
  Out("FAIL: Timeout.  Waited %u seconds, but got no tevs.\n", kTimeoutSeconds);
  failures++;
  Finish();
}

namespace {

void OnStartMarker(const char *id) {
  if (started) {
    Line("FAILURE: Duplicate test start tevs?!");
    failures++;
  } else {
    Out("INFO: Received 'test start' tev: %s\n", id);
    started = true;
    received = 0;
  }
  timeoutAlarm = TevdAlarm_Register(TevdTestCorrelatorTimeout);
  if (timeoutAlarm == -1) {
    Line("FAIL: Failed to set alarm handler");
    failures++;
    Finish();
  }
  Line("INFO: Alarm handler ready");
  ArmTimeout();
}

void OnEndMarker() {
  if (!started) {
    Line("FAILURE: Received END without matching start!");
  }
  started = false;
  if (received != kNumExpected) {
    Out("FAIL: No. of tests = %zu, but received only %u tevs.\n", kNumExpected, received);
    failures++;
  }
  Out("INFO: Tests completed. Failures = %d\n", failures.load());
  Finish();
}

}  // namespace

int TevdTestCorrelatorHandleTev(Tev *tev) {
  if (!qprobTestsDone) {
    RunQprobTests();
  }
  const char *id = nullptr;
  if (Tev_GetID(tev, &id) != 0) {
    id = nullptr;
  }
  Out("INFO: Got tev: %s\n", id != nullptr ? id : "(null)");
  TevdAlarm_Set(timeoutAlarm, 0, 0, nullptr);

  if (IsId(id, "tev.tests.marker.start")) {
    OnStartMarker(id);
    return 0;
  }
  if (IsId(id, "tev.tests.marker.end")) {
    OnEndMarker();
  }
  if (IsId(id, "tev.tests.marker.corruptions.start")) {
    Line("INFO: Start corrupt TEVs window.");
    corruptWindow = true;
    return 0;
  }
  if (IsId(id, "tev.tests.marker.corruptions.end")) {
    Line("INFO: End corrupt TEVs window.");
    corruptWindow = false;
    return 0;
  }
  if (!started) {
    Out("WARNING: received tev %s before test 'START' tev. (Ignoring.)",
        id != nullptr ? id : "(null)");
    return 0;
  }
  if (received > kNumExpected - 1) {
    Out("FAIL: More TEVs receieved than expected! tevId = '%s'.  Did more get added to the "
        "testworld?\n",
        id != nullptr ? id : "(null)");
    failures++;
    Finish();
  }
  if (corruptWindow) {
    Out("FAIL: Tev %s received, but should get nothing during the corrupt tev window.  "
        "Dropping.\n",
        id != nullptr ? id : "(null)");
    failures++;
    ArmTimeout();
    return 0;
  }
  int n = CompareWithRow(tev, id, kExpected[received]);
  if (n == 0) {
    Out("PASS: [%u]: %s\n", received, id);
  } else {
    failures += n;
  }
  received++;
  ArmTimeout();
  return 0;
}

TevHandlerMap TevdTestCorrelator_Map(void) { return TevHandlerMap(); }

void TevdCorrelator_StartTest(void) {
  TevdCorrelator_Start("TevdTest", "tests", TevdTestCorrelatorHandleTev, TevdTestCorrelator_Map());
}
