// Alarms on the fake clock (one death test runs the real thread); the CPU alarms.
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "Harness.h"
#include "tevdAlarm.h"
#include "tevdMiscCorrelators.h"

using namespace tevdtest;

namespace {

std::vector<int> fired;  // alarm identifiers in the order their handlers ran
int selfRearmId = -1;

template <int N>
void Record() {
  fired.push_back(N);
}

class TevdAlarmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    fired.clear();
  }
  void TearDown() override { TevdAlarm_ResetForTest(); }
  // How many alarms ran after each step of the clock.
  std::vector<int> Run(const std::vector<int> &steps) {
    std::vector<int> ran;
    for (int s : steps) {
      clock_.Advance(s);
      ran.push_back(TevdAlarm_RunDueForTest());
    }
    return ran;
  }
  FakeClock clock_;
};

TEST_F(TevdAlarmTest, SetReportsTheSecondsLeftOfTheOldDeadline) {
  struct Row {
    const char *what;
    int id;                 // -1: the registered alarm
    unsigned mode, armFor;  // armFor 0: left unarmed
    int wait;
    unsigned remaining;  // reported by a disarming Set
    int result;
  } rows[] = {
      {"never armed", -1, 0, 0, 100000, 0, 0}, {"armed", -1, 0, 30, 10, 20, 0},
      {"deadline passed", -1, 0, 5, 7, 0, 0},  {"bad mode", -1, 2, 30, 10, 77, 1},
      {"unregistered", 3, 0, 30, 10, 0, 1},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.what);
    TevdAlarm_ResetForTest();
    int id = TevdAlarm_Register(Record<0>);
    ASSERT_EQ(0, r.armFor > 0 ? TevdAlarm_Set(id, 0, r.armFor, nullptr) : 0);
    clock_.Advance(r.wait);
    unsigned remaining = 77;
    EXPECT_EQ(r.result, TevdAlarm_Set(r.id < 0 ? id : r.id, r.mode, 0, &remaining));
    EXPECT_EQ(r.remaining, remaining);
    clock_.Advance(1000);  // a failed Set leaves the alarm armed
    EXPECT_EQ(r.result != 0 && r.armFor > 0 ? 1 : 0, TevdAlarm_RunDueForTest());
  }
  EXPECT_EQ(1, TevdAlarm_Set(-1, 0, 5, nullptr));
}

TEST_F(TevdAlarmTest, OneShotsFireOnceAtTheirDeadlineInAscendingIdentifierOrder) {
  int a = TevdAlarm_Register(Record<0>);
  int b = TevdAlarm_Register(Record<1>);
  int c = TevdAlarm_Register(Record<2>);
  TevdAlarm_Set(b, 0, 2, nullptr);
  EXPECT_EQ((std::vector<int>{0, 1}), Run({1, 1}));
  TevdAlarm_Set(c, 0, 1, nullptr);  // due before a, runs after it
  TevdAlarm_Set(a, 0, 3, nullptr);
  EXPECT_EQ((std::vector<int>{2, 0}), Run({3, 500}));
  EXPECT_EQ(std::vector<int>({1, 0, 2}), fired);
}

TEST_F(TevdAlarmTest, PeriodicAlarmCountsNextFiringFromWhenItWasNoticed) {
  int id = TevdAlarm_Register([] { TevClock_Advance(2 * 1000000); });  // takes two seconds
  ASSERT_EQ(0, TevdAlarm_Set(id, 1, 60, nullptr));
  // Noticed at 60 (the handler ends at 62), due at 120; noticed late at 185,
  // so due at 245, not at 240.
  EXPECT_EQ((std::vector<int>{1, 0, 1, 1, 0, 1}), Run({60, 57, 1, 63, 57, 1}));
}

TEST_F(TevdAlarmTest, OneShotReArmedFromItsOwnHandlerFiresAgain) {
  selfRearmId = TevdAlarm_Register([] {
    fired.push_back(selfRearmId);
    if (fired.size() == 1) TevdAlarm_Set(selfRearmId, 0, 10, nullptr);
  });
  ASSERT_EQ(0, TevdAlarm_Set(selfRearmId, 0, 2, nullptr));
  EXPECT_EQ((std::vector<int>{1, 0, 1, 0}), Run({2, 9, 1, 100}));
}

TEST_F(TevdAlarmTest, AlarmThreadRunsHandlerWhenClockReachesDeadline) {
  EXPECT_EXIT(
      {
        int id = TevdAlarm_Register([] { _exit(7); });
        TevdAlarm_StartThread();
        TevdAlarm_Set(id, 0, 60, nullptr);
        clock_.Advance(60);
        for (;;) pause();
      },
      ::testing::ExitedWithCode(7), "");
}

TEST_F(TevdAlarmTest, CpuAlarmsReportTheObservationsOfTheirPeriod) {
  ScratchRoot root;
  LogLines log(root);
  TevdCpuCorrelator_SetAlarms();  // every 30 and every 60 seconds
  TevdCpuCorrelator_Handle(MakeTev("tev.cpu.mce.corrected").get());
  EXPECT_EQ((std::vector<int>{0, 1}), Run({29, 1}));
  EXPECT_NE("", log.WaitFor("cpu: 1 observations in the last 30 seconds"));
  // Nothing new: the short alarm stays quiet, the long one counts its own period.
  EXPECT_EQ(std::vector<int>{2}, Run({30}));
  EXPECT_NE("", log.WaitFor("cpu: 1 observations in the last 60 seconds"));
  EXPECT_EQ((std::vector<int>{0, 1}), Run({29, 1}));  // both periodic
  EXPECT_EQ("", log.Next());
}

// 15 taken: the CPU correlator gets one alarm (armed for its long period)
// and the seventeenth is refused.
TEST_F(TevdAlarmTest, SpentBudgetLeavesTheCpuAlarmsUnused) {
  for (int i = 0; i < TEVD_ALARM_MAX - 1; i++) ASSERT_EQ(i, TevdAlarm_Register([] {}));
  TevdCpuCorrelator_SetAlarms();
  EXPECT_EQ(-1, TevdAlarm_Register([] {}));
  unsigned left = 0;
  ASSERT_EQ(0, TevdAlarm_Set(TEVD_ALARM_MAX - 1, 1, TEVD_CPU_LONG_ALARM_SECONDS, &left));
  EXPECT_EQ(TEVD_CPU_LONG_ALARM_SECONDS, left);
}

}  // namespace
