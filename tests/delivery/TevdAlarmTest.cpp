// Alarm service: registration limit, setting and remaining time, firing order
// and re-arming, all on the fake clock through TevdAlarm_RunDueForTest; one
// death test runs the real alarm thread.
#include <gtest/gtest.h>

#include <unistd.h>

#include <vector>

#include "TevClock.h"
#include "TevdTestSupport.h"
#include "tevdAlarm.h"

namespace {

std::vector<int> fired;  // alarm identifiers in the order their handlers ran
int selfRearmId = -1;

template <int N>
void Record() {
  fired.push_back(N);
}

void SlowPeriodic() {
  fired.push_back(0);
  TevClock_Advance(2 * 1000000);  // the handler takes two seconds
}

void RearmOnce() {
  fired.push_back(selfRearmId);
  if (fired.size() == 1) TevdAlarm_Set(selfRearmId, 0, 10, nullptr);
}

class TevdAlarmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    fired.clear();
  }
  void TearDown() override { TevdAlarm_ResetForTest(); }
  // Advances the clock by each step in turn; returns how many alarms ran at each.
  std::vector<int> Run(const std::vector<int> &steps) {
    std::vector<int> ran;
    for (int s : steps) {
      clock_.Advance(s);
      ran.push_back(TevdAlarm_RunDueForTest());
    }
    return ran;
  }
  tevdtest::FakeClock clock_;
};

TEST_F(TevdAlarmTest, SeventeenthRegistrationIsRefused) {
  for (int i = 0; i < 16; i++) EXPECT_EQ(i, TevdAlarm_Register(Record<0>));
  EXPECT_EQ(-1, TevdAlarm_Register(Record<0>));
}

TEST_F(TevdAlarmTest, SetReportsTheSecondsLeftOfTheOldDeadline) {
  struct Row {
    const char *what;
    int id;  // -1: the registered alarm
    unsigned mode;
    unsigned armFor;  // 0: left unarmed
    int wait;
    unsigned remaining;  // reported by a disarming Set
    int result;
  } rows[] = {
      {"never armed", -1, 0, 0, 100000, 0, 0},
      {"armed", -1, 0, 30, 10, 20, 0},
      {"deadline passed", -1, 0, 5, 7, 0, 0},
      {"bad mode", -1, 2, 30, 10, 77, 1},  // remaining untouched
      {"unregistered", 3, 0, 30, 10, 0, 1},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.what);
    TevdAlarm_ResetForTest();
    int id = TevdAlarm_Register(Record<0>);
    if (r.armFor > 0) {
      ASSERT_EQ(0, TevdAlarm_Set(id, 0, r.armFor, nullptr));
    }
    clock_.Advance(r.wait);
    unsigned remaining = 77;
    EXPECT_EQ(r.result, TevdAlarm_Set(r.id < 0 ? id : r.id, r.mode, 0, &remaining));
    EXPECT_EQ(r.remaining, remaining);
    clock_.Advance(1000);  // a failed Set leaves the alarm armed
    EXPECT_EQ(r.result != 0 && r.armFor > 0 ? 1 : 0, TevdAlarm_RunDueForTest());
  }
  EXPECT_EQ(1, TevdAlarm_Set(-1, 0, 5, nullptr));
}

TEST_F(TevdAlarmTest, OneShotFiresOnceAtItsDeadlineNotBefore) {
  int id = TevdAlarm_Register(Record<5>);
  ASSERT_EQ(0, TevdAlarm_Set(id, 0, 5, nullptr));
  EXPECT_EQ((std::vector<int>{0, 1, 0}), Run({4, 1, 500}));
  EXPECT_EQ(std::vector<int>({5}), fired);
}

TEST_F(TevdAlarmTest, DueAlarmsFireInAscendingIdentifierOrderWhateverTheirDeadlines) {
  int a = TevdAlarm_Register(Record<0>);
  int b = TevdAlarm_Register(Record<1>);
  int c = TevdAlarm_Register(Record<2>);
  TevdAlarm_Set(c, 0, 3, nullptr);
  TevdAlarm_Set(b, 0, 1, nullptr);
  TevdAlarm_Set(a, 0, 3, nullptr);
  EXPECT_EQ(std::vector<int>{3}, Run({3}));
  EXPECT_EQ(std::vector<int>({0, 1, 2}), fired);
}

TEST_F(TevdAlarmTest, PeriodicAlarmCountsNextFiringFromWhenItWasNoticed) {
  int id = TevdAlarm_Register(SlowPeriodic);
  ASSERT_EQ(0, TevdAlarm_Set(id, 1, 60, nullptr));
  // Noticed at 60 (the handler ends at 62), due at 120; noticed late at 185,
  // so due at 245, not at 240.
  EXPECT_EQ((std::vector<int>{1, 0, 1, 1, 0, 1}), Run({60, 57, 1, 63, 57, 1}));
}

TEST_F(TevdAlarmTest, OneShotReArmedFromItsOwnHandlerFiresAgain) {
  selfRearmId = TevdAlarm_Register(RearmOnce);
  ASSERT_EQ(0, TevdAlarm_Set(selfRearmId, 0, 2, nullptr));
  EXPECT_EQ((std::vector<int>{1, 0, 1, 0}), Run({2, 9, 1, 100}));
}

void ExitSeven() { _exit(7); }

TEST_F(TevdAlarmTest, AlarmThreadRunsHandlerWhenClockReachesDeadline) {
  EXPECT_EXIT(
      {
        int id = TevdAlarm_Register(ExitSeven);
        TevdAlarm_StartThread();
        TevdAlarm_Set(id, 0, 60, nullptr);
        clock_.Advance(60);
        for (;;) pause();
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
