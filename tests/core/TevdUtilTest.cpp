#include <gtest/gtest.h>

#include "TevdTestSupport.h"
#include "tevdNotify.h"
#include "tevdUtil.h"

using namespace tevdtest;

TEST(TevdUtilTest, FormatsReduceToBareConversionListsOrAreRefused) {
  const char *formats[] = {"no conversions at all",
                           "100%% sure",
                           "Link %s is down on %d ports",
                           "%-08lX",
                           "%+ #10.3hhx and %X",
                           "%lld %llu %hd %c %i %o",
                           "%Lu"};
  const char *compact[] = {"", "", "%p%d", "%lx", "%hhx%x", "%lld%llu%hd%c%i%o", "%Lu"};
  char out[64];
  for (size_t i = 0; i < sizeof formats / sizeof formats[0]; i++) {
    ASSERT_EQ(0, TevdUtil_CompactFormat(formats[i], out, sizeof out)) << formats[i];
    EXPECT_STREQ(compact[i], out) << formats[i];
  }
  char small[2] = {'x', 'x'};  // no room for the terminator (found by fuzzing): refused
  EXPECT_EQ(22, TevdUtil_CompactFormat("", small, 0));
  EXPECT_EQ('x', small[0]);
  EXPECT_EQ(22, TevdUtil_CompactFormat("%d", small, 2));
  EXPECT_EQ(22, TevdUtil_CompactFormat(nullptr, out, sizeof out));
  for (const char *f :
       {"%f", "value %g", "%p", "%n", "ends inside %", "ends inside %-08l", "%10.2e"}) {
    EXPECT_EQ(22, TevdUtil_CompactFormat(f, out, sizeof out)) << f;
  }
}

TEST(TevdUtilTest, ReadsArgumentsByTheMessageFormat) {
  TevPtr tev = MakeTev("tev.x.y", {U(0x1234), I(77), S("fru-7")});
  unsigned page = 0;
  int vm = 0;
  const char *fru = nullptr;
  ASSERT_EQ(0, TevdUtil_GetArgs(tev.get(), "PPN %x into VM %d, FRU %s.", &page, &vm, &fru));
  EXPECT_EQ(0x1234u, page);
  EXPECT_EQ(77, vm);
  EXPECT_STREQ("fru-7", fru);
  int more = 0;  // one conversion too many fails in the library
  EXPECT_NE(0, TevdUtil_GetArgs(tev.get(), "%x %d %s %d", &page, &vm, &fru, &more));
}

// The keep-alive schedule: due at once, then every interval; a clock stepped
// back makes it due rather than postponing it.
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
