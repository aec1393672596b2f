// Self-test correlator: the one-time posting exercise, row checks, the
// corrupt window, and every way the run ends (end marker, 22nd row,
// time-out, failed alarm registration) as death tests on the exit status.
// The exiting statements send standard output to standard error first, so
// the death-test matcher sees the printed lines.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <unistd.h>

#include <cstdio>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "TevdTestSupport.h"
#include "tevdAlarm.h"
#include "tevdQprob.h"
#include "tevdTestCorrelator.h"

namespace {

using tevdtest::I;

// Death-test matcher: the child's standard error contains `text` verbatim.
class ContainsText : public ::testing::MatcherInterface<const std::string &> {
 public:
  explicit ContainsText(std::string text) : text_(std::move(text)) {}
  bool MatchAndExplain(const std::string &s, ::testing::MatchResultListener *) const override {
    return s.find(text_) != std::string::npos;
  }
  void DescribeTo(std::ostream *os) const override { *os << "contains \"" << text_ << "\""; }

 private:
  std::string text_;
};
::testing::Matcher<const std::string &> HasSubstr(const std::string &text) {
  return ::testing::MakeMatcher(new ContainsText(text));
}

void Feed(const std::string &id, const std::string &msg = "",
          const std::vector<MsgFmt_Value> &args = {}) {
  tevdtest::TevPtr tev = tevdtest::MakeTev(id, args, msg);
  ASSERT_TRUE(tev != nullptr);
  TevdTestCorrelatorHandleTev(tev.get());
}

// `n` rows that do not match theirs: each is still consumed (and counted as a
// failure), which is all the run-length checks need. The passing rows are the
// end-to-end self-test's.
void FeedRows(size_t n) {
  for (size_t i = 0; i < n; i++) {
    Feed("tev.tests.async.noData", "not the row's text");
  }
}

// The run's exit status is its failure count.
bool ExitedWithFailures(int status) { return WIFEXITED(status) && WEXITSTATUS(status) != 0; }

void StdoutToStderr() {
  fflush(stdout);
  dup2(2, 1);
}

class TevdTestCorrelatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    TevdTestCorrelator_ResetForTest(true);
  }
  void TearDown() override {
    TevdAlarm_ResetForTest();
    TevdTestCorrelator_ResetForTest(true);
  }
  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
};

TEST_F(TevdTestCorrelatorTest, FirstObservationPostsFiveEventsAndDropsTheHugeOnes) {
  TevdTestCorrelator_ResetForTest(false);
  tevdtest::EventCapture capture;
  ::testing::internal::CaptureStdout();
  Feed("tev.tests.marker.start");
  Feed("tev.tests.marker.corruptions.start");  // a second observation: no more posts
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(0u, out.find("INFO: Testing QProb_PostProblem.\n"
                         "INFO: Testing QProb_PostAudit.\n"
                         "INFO: Testing QProb_PostClear.\n"
                         "INFO: Qprob tests completed\n"
                         "INFO: Got tev: tev.tests.marker.start\n"
                         "INFO: Received 'test start' tev: tev.tests.marker.start\n"
                         "INFO: Alarm handler ready\n"))
      << out;
  std::vector<QprobMessage> sent = capture.Take();
  ASSERT_EQ(5u, sent.size());
  EXPECT_EQ("kos.problem.tevdtestcorrelator.test.0", sent[0].id);
  EXPECT_TRUE(sent[0].args.empty());
  EXPECT_EQ("kos.problem.tevdtestcorrelator.test.1d", sent[1].id);
  EXPECT_EQ(std::vector<std::string>({"I:1"}), tevdtest::ArgsText(sent[1].args));
  EXPECT_EQ("kos.problem.tevdtestcorrelator.test.1s", sent[2].id);
  EXPECT_EQ(std::vector<std::string>({"S:one"}), tevdtest::ArgsText(sent[2].args));
  EXPECT_EQ("kos.audit.tevdtestcorrelator.test", sent[3].id);
  EXPECT_EQ(std::vector<std::string>({"S:Two", "I:2"}), tevdtest::ArgsText(sent[3].args));
  EXPECT_EQ("kos.clear.tevdtestcorrelator.test", sent[4].id);
  EXPECT_EQ(std::vector<std::string>({"S:Three", "I:3", "S:arg"}),
            tevdtest::ArgsText(sent[4].args));
}

TEST_F(TevdTestCorrelatorTest, MismatchesAreCountedAndTheRowIsStillConsumed) {
  Feed("tev.tests.marker.start");
  ::testing::internal::CaptureStdout();
  Feed("tev.tests.async.noData", "other text", {I(4)});  // row 0: message, int arg
  Feed("tev.tests.async.withLog",
       "this is an observation with a complicated "
       "/a/fake/path${path} path.");  // row 1: id, no string
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos,
            out.find("FAIL: Expected msg = 'this is an observation with no data'; Got "
                     "'other text'\n"));
  EXPECT_NE(std::string::npos, out.find("FAIL: Tev_GetIntArg(tev.tests.async.noData) failed: 0\n"));
  EXPECT_NE(std::string::npos, out.find("FAIL: Expected tevId = 'tev.tests.async.withPath'; Got "
                                        "'tev.tests.async.withLog'\n"));
  EXPECT_NE(std::string::npos, out.find("FAIL: Tev_GetStringArg returned 22 @ i = 0\n"));
  EXPECT_EQ(std::string::npos, out.find("PASS"));
  EXPECT_EQ(4, TevdTestCorrelator_FailuresForTest());
  EXPECT_EQ(2u, TevdTestCorrelator_ReceivedForTest());
}

TEST_F(TevdTestCorrelatorTest, ObservationInsideCorruptWindowFailsWithoutConsumingRow) {
  Feed("tev.tests.marker.start");
  ::testing::internal::CaptureStdout();
  Feed("tev.tests.marker.corruptions.start");
  Feed("tev.tests.async.noData", "this is an observation with no data");
  Feed("tev.tests.marker.corruptions.end");
  Feed("tev.tests.async.noData", "this is an observation with no data");
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(
      "INFO: Got tev: tev.tests.marker.corruptions.start\n"
      "INFO: Start corrupt TEVs window.\n"
      "INFO: Got tev: tev.tests.async.noData\n"
      "FAIL: Tev tev.tests.async.noData received, but should get nothing during the corrupt "
      "tev window.  Dropping.\n"
      "INFO: Got tev: tev.tests.marker.corruptions.end\n"
      "INFO: End corrupt TEVs window.\n"
      "INFO: Got tev: tev.tests.async.noData\n"
      "PASS: [0]: tev.tests.async.noData\n",
      out);
  EXPECT_EQ(1, TevdTestCorrelator_FailuresForTest());
  EXPECT_EQ(1u, TevdTestCorrelator_ReceivedForTest());
}

TEST_F(TevdTestCorrelatorTest, ObservationBeforeStartOnlyWarns) {
  ::testing::internal::CaptureStdout();
  Feed("tev.tests.async.noData", "this is an observation with no data");
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(
      "INFO: Got tev: tev.tests.async.noData\n"
      "WARNING: received tev tev.tests.async.noData before test 'START' tev. (Ignoring.)",
      out);
  EXPECT_EQ(0, TevdTestCorrelator_FailuresForTest());
  EXPECT_EQ(0u, TevdTestCorrelator_ReceivedForTest());
  clock_.Advance(60);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
}

TEST_F(TevdTestCorrelatorTest, DuplicateStartCountsOneFailure) {
  Feed("tev.tests.marker.start");
  ::testing::internal::CaptureStdout();
  Feed("tev.tests.marker.start");
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(std::string::npos,
            out.find("FAILURE: Duplicate test start tevs?!\nINFO: Alarm handler ready\n"));
  EXPECT_EQ(1, TevdTestCorrelator_FailuresForTest());
}

TEST_F(TevdTestCorrelatorTest, EndMarkerAfterTwentyRowsReportsShortRun) {
  EXPECT_EXIT(
      {
        StdoutToStderr();
        Feed("tev.tests.marker.start");
        FeedRows(20);
        Feed("tev.tests.marker.end");
      },
      ExitedWithFailures, HasSubstr("FAIL: No. of tests = 21, but received only 20 tevs.\n"));
}

TEST_F(TevdTestCorrelatorTest, TwentySecondRowEndsTheRun) {
  EXPECT_EXIT(
      {
        StdoutToStderr();
        Feed("tev.tests.marker.start");
        FeedRows(21);
        Feed("tev.tests.extra.one");
      },
      ExitedWithFailures,
      HasSubstr("FAIL: More TEVs receieved than expected! tevId = 'tev.tests.extra.one'.  Did more "
                "get added to the testworld?\n"));
}

TEST_F(TevdTestCorrelatorTest, FiveQuietSecondsEndTheRunWithTimeoutLine) {
  Feed("tev.tests.marker.start");
  Feed("tev.tests.async.noData", "wrong message");  // one failure so far
  clock_.Advance(4);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  EXPECT_EXIT(
      {
        StdoutToStderr();
        clock_.Advance(1);
        TevdAlarm_RunDueForTest();
      },
      ::testing::ExitedWithCode(2),
      HasSubstr("FAIL: Timeout.  Waited 5 seconds, but got no tevs.\n"));
}

TEST_F(TevdTestCorrelatorTest, EachObservationRestartsTheTimeout) {
  Feed("tev.tests.marker.start");
  clock_.Advance(4);
  Feed("tev.tests.async.noData", "this is an observation with no data");
  clock_.Advance(4);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());  // 8 s after start, 4 s after the last one
}

TEST_F(TevdTestCorrelatorTest, ObservationDroppedInCorruptWindowStillArmsTimeout) {
  Feed("tev.tests.marker.start");
  Feed("tev.tests.marker.corruptions.start");  // disarms and leaves it disarmed
  clock_.Advance(60);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  Feed("tev.tests.async.noData", "this is an observation with no data");
  clock_.Advance(4);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  EXPECT_EXIT(
      {
        StdoutToStderr();
        clock_.Advance(1);
        TevdAlarm_RunDueForTest();
      },
      ::testing::ExitedWithCode(2),
      HasSubstr("FAIL: Timeout.  Waited 5 seconds, but got no tevs.\n"));
}

TEST_F(TevdTestCorrelatorTest, FailedAlarmRegistrationEndsTheRun) {
  for (int i = 0; i < TEVD_ALARM_MAX; i++) {
    ASSERT_EQ(i, TevdAlarm_Register(nullptr));
  }
  EXPECT_EXIT(
      {
        StdoutToStderr();
        Feed("tev.tests.marker.start");
      },
      ::testing::ExitedWithCode(1), HasSubstr("FAIL: Failed to set alarm handler\n"));
}

}  // namespace
