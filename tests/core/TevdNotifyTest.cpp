// The keep-alive schedule against a hand-moved clock: due at once, then every
// interval; the poll timeout counts down to the next one; a clock stepped
// back makes it due rather than postponing it.
#include <gtest/gtest.h>

#include "tevdNotify.h"

TEST(TevdWatchdogTest, KeepAliveScheduleFollowsTheClock) {
  struct Step {
    uint64_t now;
    bool due;
    int timeoutAfter;
  };
  const uint64_t t0 = 1700000000000000;
  TevdWatchdog w = {100000, 0};  // every 100 ms; nothing sent yet
  const Step steps[] = {
      {t0, true, 100},       // first pass sends at once
      {t0 + 1, false, 100},  // 99.999 ms left, rounded up
      {t0 + 40000, false, 60},   {t0 + 99999, false, 1}, {t0 + 100000, true, 100},
      {t0 + 350000, true, 100},  // late: one keep-alive, schedule restarts
      {t0 + 300000, true, 100},  // clock stepped back: due at once
      {t0 + 300500, false, 100},
  };
  for (const Step &s : steps) {
    EXPECT_EQ(s.due, TevdWatchdog_Due(&w, s.now)) << s.now - t0;
    EXPECT_EQ(s.timeoutAfter, TevdWatchdog_TimeoutMs(&w, s.now)) << s.now - t0;
  }
}

TEST(TevdWatchdogTest, WithoutWatchdogNothingIsDueAndPollWaitsForever) {
  TevdWatchdog w = {0, 0};
  EXPECT_FALSE(TevdWatchdog_Due(&w, 5));
  EXPECT_EQ(-1, TevdWatchdog_TimeoutMs(&w, 5));
}
