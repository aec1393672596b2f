// Self-test correlator: row checks, the corrupt window, how a run ends.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "TevdTestSupport.h"
#include "tevdAlarm.h"
#include "tevdTestCorrelator.h"

using namespace tevdtest;

namespace {

void Feed(const std::string &id, const std::string &msg = "",
          const std::vector<MsgFmt_Value> &args = {}) {
  TevdTestCorrelatorHandleTev(MakeTev(id, args, msg).get());
}
const char kRow0[] = "this is an observation with no data";

// Runs `run` in a child, so every run starts as a fresh process's (this one
// never feeds the correlator): it must exit as `status` says, its output
// holding `lines` in this order.
void ExpectRun(const std::function<void()> &run, const std::function<bool(int)> &status,
               const std::vector<std::string> &lines) {
  std::string re;  // each line quoted for the matcher, anything between
  for (const std::string &line : lines) {
    re += re.empty() ? "" : ".*";
    for (char c : line)
      re += (strchr(".[]{}()\\*+?^$|", c) != nullptr ? "\\" : "") + std::string(1, c);
  }
  EXPECT_EXIT(
      {
        fflush(stdout);
        dup2(2, 1);  // the matcher reads standard error
        run();
      },
      status, re);
}
bool Failed(int status) { return WIFEXITED(status) && WEXITSTATUS(status) != 0; }

class TevdTestCorrelatorTest : public ::testing::Test {
 protected:
  ScratchRoot root_;
  FakeClock clock_;
  EventCapture events_;  // of the one-time posting exercise
};

TEST_F(TevdTestCorrelatorTest, MismatchesAndASecondStartAreCountedAndTheRowIsStillConsumed) {
  ExpectRun(
      [] {
        Feed("tev.tests.marker.start");
        Feed("tev.tests.async.noData", "other text", {I(4)});  // row 0: message, int
        Feed("tev.tests.async.withLog",                        // row 1: id, no string
             "this is an observation with a complicated /a/fake/path${path} path.");
        Feed("tev.tests.marker.start");
        Feed("tev.tests.marker.end");
      },
      // Two rows consumed; the short run adds a sixth failure, the exit status.
      ::testing::ExitedWithCode(6),
      {"FAIL: Expected msg = 'this is an observation with no data'; Got 'other text'\n",
       "FAIL: Tev_GetIntArg(tev.tests.async.noData) failed: 0\n",
       "FAIL: Expected tevId = 'tev.tests.async.withPath'; Got 'tev.tests.async.withLog'\n",
       "FAIL: Tev_GetStringArg returned 22 @ i = 0\n", "FAILURE: Duplicate test start tevs?!\n",
       "received only 2 tevs.\nINFO: Tests completed. Failures = 6\n"});
}

// The corrupt window's start disarms the 5-second time-out; each observation restarts it.
// An alarm run too early would end the run before the later lines.
TEST_F(TevdTestCorrelatorTest, CorruptWindowDropsWithoutConsumingARowAndQuietSecondsEndTheRun) {
  ExpectRun(
      [this] {
        Feed("tev.tests.async.noData", kRow0);
        Feed("tev.tests.marker.start");
        Feed("tev.tests.marker.corruptions.start");
        clock_.Advance(60);
        TevdAlarm_RunDueForTest();
        Feed("tev.tests.async.noData", kRow0);
        clock_.Advance(4);
        Feed("tev.tests.marker.corruptions.end");
        clock_.Advance(4);
        Feed("tev.tests.async.noData", kRow0);
        clock_.Advance(4);
        TevdAlarm_RunDueForTest();
        clock_.Advance(1);
        TevdAlarm_RunDueForTest();
      },
      ::testing::ExitedWithCode(2),
      {"INFO: Testing QProb_PostProblem.\n"  // a fresh process's first observation, only
       "INFO: Testing QProb_PostAudit.\n"
       "INFO: Testing QProb_PostClear.\n"
       "INFO: Qprob tests completed\n"
       "INFO: Got tev: tev.tests.async.noData\n"
       "WARNING: received tev tev.tests.async.noData before test 'START' tev. (Ignoring.)"
       "INFO: Got tev: tev.tests.marker.start\n"
       "INFO: Received 'test start' tev: tev.tests.marker.start\n"
       "INFO: Alarm handler ready\n"
       "INFO: Got tev: tev.tests.marker.corruptions.start\n"
       "INFO: Start corrupt TEVs window.\n"
       "INFO: Got tev: tev.tests.async.noData\n"
       "FAIL: Tev tev.tests.async.noData received, but should get nothing during the "
       "corrupt tev window.  Dropping.\n"
       "INFO: Got tev: tev.tests.marker.corruptions.end\n"
       "INFO: End corrupt TEVs window.\n"
       "INFO: Got tev: tev.tests.async.noData\n"
       "PASS: [0]: tev.tests.async.noData\n"  // the dropped one consumed no row
       "FAIL: Timeout.  Waited 5 seconds, but got no tevs.\n"});
}

// Rows that do not match theirs are still consumed, which is all a run length needs.
TEST_F(TevdTestCorrelatorTest, ShortOrLongRunOrNoAlarmEndsTheRunWithItsLine) {
  auto rows = [](int n) {
    Feed("tev.tests.marker.start");
    for (int i = 0; i < n; i++) Feed("tev.tests.async.noData", "not the row's text");
  };
  ExpectRun([&] { rows(20), Feed("tev.tests.marker.end"); }, Failed,
            {"FAIL: No. of tests = 21, but received only 20 tevs.\n"});
  ExpectRun([&] { rows(21), Feed("tev.tests.extra.one"); }, Failed,
            {"FAIL: More TEVs receieved than expected! tevId = 'tev.tests.extra.one'.  Did more "
             "get added to the testworld?\n"});
  ExpectRun(
      [] {
        while (TevdAlarm_Register(nullptr) != -1) {}
        Feed("tev.tests.marker.start");
      },
      ::testing::ExitedWithCode(1), {"FAIL: Failed to set alarm handler\n"});
}

}  // namespace
