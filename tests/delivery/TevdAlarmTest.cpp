// Alarm service: registration limit, setting and remaining time, firing order
// and re-arming, all on the fake clock through TevdAlarm_RunDueForTest; one
// death test runs the real alarm thread.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "TevClock.h"
#include "TevdTestSupport.h"
#include "tevdAlarm.h"

namespace {

std::vector<int> fired;   // alarm identifiers in the order their handlers ran
int selfRearmId = -1;
int selfRearmCount = 0;

template <int N>
void Record() {
  fired.push_back(N);
}

void SlowPeriodic() {
  fired.push_back(0);
  TevClock_Advance(2 * 1000000);   // the handler takes two seconds
}

void RearmOnce() {
  fired.push_back(selfRearmId);
  if (++selfRearmCount == 1) {
    TevdAlarm_Set(selfRearmId, 0, 10, nullptr);
  }
}

class TevdAlarmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    fired.clear();
    selfRearmCount = 0;
  }
  void TearDown() override { TevdAlarm_ResetForTest(); }
  tevdtest::FakeClock clock_;
};

TEST_F(TevdAlarmTest, SeventeenthRegistrationIsRefused) {
  for (int i = 0; i < 16; i++) {
    EXPECT_EQ(i, TevdAlarm_Register(Record<0>));
  }
  EXPECT_EQ(-1, TevdAlarm_Register(Record<0>));
  EXPECT_EQ(-1, TevdAlarm_Register(Record<0>));
}

TEST_F(TevdAlarmTest, NewAlarmIsNotArmed) {
  int id = TevdAlarm_Register(Record<0>);
  clock_.Advance(100000);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  unsigned remaining = 99;
  EXPECT_EQ(0, TevdAlarm_Set(id, 0, 0, &remaining));
  EXPECT_EQ(0u, remaining);
}

TEST_F(TevdAlarmTest, BadModeFailsWithoutTouchingRemaining) {
  int id = TevdAlarm_Register(Record<0>);
  unsigned remaining = 77;
  EXPECT_EQ(1, TevdAlarm_Set(id, 2, 5, &remaining));
  EXPECT_EQ(77u, remaining);
  clock_.Advance(10);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
}

TEST_F(TevdAlarmTest, UnregisteredIdFailsAndReportsZeroRemaining) {
  unsigned remaining = 77;
  EXPECT_EQ(1, TevdAlarm_Set(3, 0, 5, &remaining));
  EXPECT_EQ(0u, remaining);
  EXPECT_EQ(1, TevdAlarm_Set(-1, 0, 5, nullptr));
}

TEST_F(TevdAlarmTest, DisarmReportsSecondsLeftOfOldDeadline) {
  int id = TevdAlarm_Register(Record<0>);
  ASSERT_EQ(0, TevdAlarm_Set(id, 0, 30, nullptr));
  clock_.Advance(10);
  unsigned remaining = 0;
  ASSERT_EQ(0, TevdAlarm_Set(id, 0, 0, &remaining));
  EXPECT_EQ(20u, remaining);
  clock_.Advance(1000);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  EXPECT_TRUE(fired.empty());
}

TEST_F(TevdAlarmTest, RemainingIsZeroOncePassedDeadline) {
  int id = TevdAlarm_Register(Record<0>);
  ASSERT_EQ(0, TevdAlarm_Set(id, 0, 5, nullptr));
  clock_.Advance(7);
  unsigned remaining = 99;
  ASSERT_EQ(0, TevdAlarm_Set(id, 0, 5, &remaining));
  EXPECT_EQ(0u, remaining);
}

TEST_F(TevdAlarmTest, OneShotFiresOnceAtItsDeadlineNotBefore) {
  int id = TevdAlarm_Register(Record<5>);
  ASSERT_EQ(0, TevdAlarm_Set(id, 0, 5, nullptr));
  clock_.Advance(4);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  clock_.Advance(1);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  clock_.Advance(500);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  EXPECT_EQ(std::vector<int>({5}), fired);
  unsigned remaining = 99;
  TevdAlarm_Set(id, 0, 0, &remaining);
  EXPECT_EQ(0u, remaining);
}

TEST_F(TevdAlarmTest, TiedAlarmsFireInAscendingIdentifierOrder) {
  int a = TevdAlarm_Register(Record<0>);
  int b = TevdAlarm_Register(Record<1>);
  int c = TevdAlarm_Register(Record<2>);
  TevdAlarm_Set(c, 0, 3, nullptr);
  TevdAlarm_Set(a, 0, 3, nullptr);
  TevdAlarm_Set(b, 0, 3, nullptr);
  clock_.Advance(3);
  EXPECT_EQ(3, TevdAlarm_RunDueForTest());
  EXPECT_EQ(std::vector<int>({0, 1, 2}), fired);
}

TEST_F(TevdAlarmTest, LowestDueIdentifierRunsFirstEvenWithLaterDeadline) {
  int a = TevdAlarm_Register(Record<0>);
  int b = TevdAlarm_Register(Record<1>);
  TevdAlarm_Set(b, 0, 1, nullptr);
  TevdAlarm_Set(a, 0, 4, nullptr);
  clock_.Advance(5);
  EXPECT_EQ(2, TevdAlarm_RunDueForTest());
  EXPECT_EQ(std::vector<int>({0, 1}), fired);
}

TEST_F(TevdAlarmTest, PeriodicAlarmCountsNextFiringFromWhenItWasNoticed) {
  int id = TevdAlarm_Register(SlowPeriodic);
  ASSERT_EQ(0, TevdAlarm_Set(id, 1, 60, nullptr));
  clock_.Advance(60);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());   // noticed at 60, handler ends at 62
  clock_.Advance(57);                        // 119
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  clock_.Advance(1);                         // 120 = 60 + 60
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  clock_.Advance(63);                        // late: noticed at 185
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  clock_.Advance(57);                        // 244: not yet, 180 + 60 would be due
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  clock_.Advance(1);                         // 245 = 185 + 60
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  EXPECT_EQ(4u, fired.size());
}

TEST_F(TevdAlarmTest, OneShotReArmedFromItsOwnHandlerFiresAgain) {
  selfRearmId = TevdAlarm_Register(RearmOnce);
  ASSERT_EQ(0, TevdAlarm_Set(selfRearmId, 0, 2, nullptr));
  clock_.Advance(2);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  clock_.Advance(9);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  clock_.Advance(1);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  clock_.Advance(100);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  EXPECT_EQ(2, selfRearmCount);
}

void ExitSeven() {
  _exit(7);
}

TEST_F(TevdAlarmTest, AlarmThreadRunsHandlerWhenClockReachesDeadline) {
  EXPECT_EXIT(
      {
        int id = TevdAlarm_Register(ExitSeven);
        TevdAlarm_StartThread();
        TevdAlarm_Set(id, 0, 60, nullptr);
        clock_.Advance(60);
        for (;;) {
          pause();
        }
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
