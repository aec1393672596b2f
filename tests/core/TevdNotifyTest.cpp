// The keep-alive schedule: due at once, then every interval; a clock stepped
// back makes it due rather than postponing it.
#include <gtest/gtest.h>

#include "tevdNotify.h"

TEST(TevdWatchdogTest, KeepAliveScheduleFollowsTheClock) {
  const uint64_t t0 = 1700000000000000;
  TevdWatchdog w = {100000, 0};  // every 100 ms; nothing sent yet
  const struct {
    uint64_t now;
    bool due;
    int timeoutAfter;
  } steps[] = {
      {t0, true, 100},           {t0 + 1, false, 100},     {t0 + 40000, false, 60},
      {t0 + 99999, false, 1},    {t0 + 100000, true, 100}, {t0 + 350000, true, 100},  // late
      {t0 + 300000, true, 100},  // stepped back
      {t0 + 300500, false, 100},
  };
  for (const auto &s : steps) {
    EXPECT_EQ(s.due, TevdWatchdog_Due(&w, s.now)) << s.now - t0;
    EXPECT_EQ(s.timeoutAfter, TevdWatchdog_TimeoutMs(&w, s.now)) << s.now - t0;
  }
  TevdWatchdog off = {0, 0};  // no watchdog: nothing due, poll waits forever
  EXPECT_FALSE(TevdWatchdog_Due(&off, 5));
  EXPECT_EQ(-1, TevdWatchdog_TimeoutMs(&off, 5));
}
