#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "Harness.h"
#include "TevClock.h"
#include "TevdTestSupport.h"
#include "tevdLog.h"

using namespace tevdtest;

namespace {

// Epoch seconds of a local time on 2024-05-06.
int64_t LocalEpoch(int h, int m, int s) {
  struct tm t = {};
  t.tm_year = 124;
  t.tm_mon = 4;
  t.tm_mday = 6;
  t.tm_hour = h;
  t.tm_min = m;
  t.tm_sec = s;
  t.tm_isdst = -1;
  return static_cast<int64_t>(mktime(&t));
}

}  // namespace

TEST(TevdLogTest, TimePrefixShowsLocalTimeWithMillisecondsAndTheZLabel) {
  FakeClock clock(LocalEpoch(7, 8, 9));
  clock.AdvanceUs(123);  // 07:08:09.000123 -> .000
  char buf[32];
  int n = TevdLog_TimePrefix(buf, sizeof buf, true);
  EXPECT_STREQ("2024-05-06T07:08:09.000Z: ", buf);
  EXPECT_EQ(26, n);
  clock.AdvanceUs(456789);  // .456912 -> .456
  TevdLog_TimePrefix(buf, sizeof buf, true);
  EXPECT_STREQ("2024-05-06T07:08:09.456Z: ", buf);
  TevdLog_TimePrefix(buf, sizeof buf, false);
  EXPECT_STREQ("2024-05-06T07:08:09Z: ", buf);
}

TEST(TevdLogTest, LinesReachTheRootsLogCaptureInSyslogForm) {
  ScratchRoot root;
  LogLines log(root);
  FakeClock clock(LocalEpoch(7, 8, 9));
  TevdLog("hello %d\n", 42);
  std::string line = log.Next();
  ASSERT_EQ(0u, line.rfind("<14>", 0)) << line;
  EXPECT_NE(std::string::npos, line.find(" tevd: 2024-05-06T07:08:09.000Z: hello 42")) << line;
}

TEST(TevdLogTest, ObservationLineCarriesThreadNameStampIdAndMessage) {
  ScratchRoot root;
  LogLines log(root);
  VThreadBase_SetName("netCorrelator");
  TevPtr tev = MakeTev("tev.net.hwnic.linkstate.down", {S("hwnic1")}, "m", 1234);
  TevdLog_Tev(tev.get());
  std::string line = log.Next();
  EXPECT_NE(std::string::npos,
            line.find("Z: [netCorrelator] 1234us: [tev.net.hwnic.linkstate.down] m"))
      << line;
}

TEST(TevdLogDeathTest, PanicWritesStandardErrorLogsTwoLinesAndAborts) {
  ScratchRoot root;
  LogLines log(root);
  EXPECT_EXIT(Panic("x %d", 5), ::testing::KilledBySignal(SIGABRT), "^Tevd - Panic: x 5$");
  std::string first = log.Next();
  std::string second = log.Next();
  EXPECT_NE(std::string::npos, first.find("Z: Tevd - Panic: ")) << first;
  // The log copy leaves the value out; standard error alone carries it.
  EXPECT_EQ("x ", second.substr(second.find("Z: ") + 3)) << second;
}
