// The CPU correlator's two periodic alarms: their place in the alarm budget
// and what they report, on the fake clock.
#include <gtest/gtest.h>

#include "Harness.h"
#include "TevClock.h"
#include "TevdTestSupport.h"
#include "tevdAlarm.h"
#include "tevdMiscCorrelators.h"

namespace {

class TevdCpuAlarmsTest : public ::testing::Test {
 protected:
  void SetUp() override { TevdAlarm_ResetForTest(); }
  void TearDown() override { TevdAlarm_ResetForTest(); }
  tevdtest::FakeClock clock_;
};

TEST_F(TevdCpuAlarmsTest, TwoPeriodicAlarmsReportTheObservationsOfTheirPeriod) {
  tevdtest::ScratchRoot root;
  tevdtest::LogLines log(root);
  TevdCpuCorrelator_SetAlarms();
  ASSERT_EQ(2u, tevdAlarmMap.size());
  EXPECT_EQ(1u, tevdAlarmMap[0].mode);
  EXPECT_EQ(TEVD_CPU_LONG_ALARM_SECONDS, tevdAlarmMap[0].interval);
  EXPECT_EQ(1u, tevdAlarmMap[1].mode);
  EXPECT_EQ(TEVD_CPU_SHORT_ALARM_SECONDS, tevdAlarmMap[1].interval);

  tevdtest::TevPtr tev = tevdtest::MakeTev("tev.cpu.mce.corrected");
  TevdCpuCorrelator_Handle(tev.get());
  EXPECT_NE(std::string::npos, log.Next().find("[tev.cpu.mce.corrected]"));
  TevClock_Advance(30 * 1000000LL);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  EXPECT_NE(std::string::npos, log.Next().find("cpu: 1 observations in the last 30 seconds"));
  // Nothing new: the next short period passes without a line, and the long
  // alarm still counts the observation of its own period.
  TevClock_Advance(30 * 1000000LL);
  EXPECT_EQ(2, TevdAlarm_RunDueForTest());
  std::string line = log.Next();
  EXPECT_NE(std::string::npos, line.find("cpu: 1 observations in the last 60 seconds")) << line;
  EXPECT_EQ("", log.Next());
}

TEST_F(TevdCpuAlarmsTest, SpentBudgetLeavesTheAlarmsUnused) {
  for (int i = 0; i < TEVD_ALARM_MAX - 1; i++) {
    ASSERT_EQ(i, TevdAlarm_Register([] {}));
  }
  TevdCpuCorrelator_SetAlarms();
  ASSERT_EQ(static_cast<size_t>(TEVD_ALARM_MAX), tevdAlarmMap.size());
  EXPECT_EQ(TEVD_CPU_LONG_ALARM_SECONDS, tevdAlarmMap[TEVD_ALARM_MAX - 1].interval);
}

}  // namespace
