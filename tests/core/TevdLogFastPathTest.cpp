// The log path's shortcuts must not show: the per-second caches of the local
// time, the stack buffers with their long-line fallback and the one shared
// log socket. Each test names what would go wrong if a shortcut leaked.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Harness.h"
#include "PlatformRoot.h"
#include "TevClock.h"
#include "TevdTestSupport.h"
#include "tevdLog.h"

using namespace tevdtest;

namespace {

// Sets TZ for the test's duration, restoring the old value afterwards.
class ZoneGuard {
 public:
  ZoneGuard() : had_(getenv("TZ") != nullptr), old_(had_ ? getenv("TZ") : "") {}
  ~ZoneGuard() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  void Set(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

 private:
  bool had_;
  std::string old_;
};

}  // namespace

TEST(TevdLogFastPathTest, ZoneChangeWithinOneSecondShowsInTheVeryNextPrefix) {
  ZoneGuard zone;
  FakeClock clock(1700000000);  // 2023-11-14 22:13:20 UTC
  char buf[32];
  zone.Set("UTC0");
  TevdLog_TimePrefix(buf, sizeof buf, true);
  EXPECT_STREQ("2023-11-14T22:13:20.000Z: ", buf);
  zone.Set("XST-3");  // three hours east, same second
  TevdLog_TimePrefix(buf, sizeof buf, true);
  EXPECT_STREQ("2023-11-15T01:13:20.000Z: ", buf);
  TevdLog_TimePrefix(buf, sizeof buf, false);
  EXPECT_STREQ("2023-11-15T01:13:20Z: ", buf);
}

TEST(TevdLogFastPathTest, ZoneChangeWithinOneSecondShowsInTheSyslogHeader) {
  ZoneGuard zone;
  ScratchRoot root;
  LogLines log(root);
  ASSERT_TRUE(log.ok());
  FakeClock clock(1700000000);
  zone.Set("UTC0");
  TevdLog("a\n");
  EXPECT_EQ("<14>Nov 14 22:13:20 tevd: 2023-11-14T22:13:20.000Z: a\n", log.Next());
  zone.Set("XST-3");
  TevdLog("b\n");
  EXPECT_EQ("<14>Nov 15 01:13:20 tevd: 2023-11-15T01:13:20.000Z: b\n", log.Next());
}

TEST(TevdLogFastPathTest, NextSecondIsNotServedFromTheCache) {
  ZoneGuard zone;
  zone.Set("UTC0");
  ScratchRoot root;
  LogLines log(root);
  ASSERT_TRUE(log.ok());
  FakeClock clock(1700000000);
  clock.AdvanceUs(999999);
  TevdLog("x\n");
  EXPECT_EQ("<14>Nov 14 22:13:20 tevd: 2023-11-14T22:13:20.999Z: x\n", log.Next());
  clock.AdvanceUs(1);
  TevdLog("y\n");
  EXPECT_EQ("<14>Nov 14 22:13:21 tevd: 2023-11-14T22:13:21.000Z: y\n", log.Next());
}

// Lines around both stack buffers (1024 bytes in TevdLog, 2048 in the sink)
// must arrive whole, as one datagram, byte for byte.
TEST(TevdLogFastPathTest, LinesLongerThanTheStackBuffersArriveWhole) {
  ZoneGuard zone;
  zone.Set("UTC0");
  ScratchRoot root;
  LogLines log(root);
  ASSERT_TRUE(log.ok());
  FakeClock clock(1700000000);
  for (size_t size : {0u, 990u, 1000u, 1100u, 1990u, 2020u, 2100u, 9000u}) {
    std::string body(size, 'q');
    TevdLog("%s|%d\n", body.c_str(), 7);
    EXPECT_EQ("<14>Nov 14 22:13:20 tevd: 2023-11-14T22:13:20.000Z: " + body + "|7\n", log.Next())
        << "body of " << size;
  }
}

TEST(TevdLogFastPathTest, CollectorReplacedAtTheSamePathGetsTheNextLine) {
  ScratchRoot root;
  {
    LogLines first(root);
    TevdLog("to the first\n");
    EXPECT_NE(std::string::npos, first.Next().find("Z: to the first\n"));
  }
  TevdLog("to nobody\n");  // dropped silently
  LogLines second(root);
  TevdLog("to the second\n");
  EXPECT_NE(std::string::npos, second.Next().find("Z: to the second\n"));
}

TEST(TevdLogFastPathTest, ConcurrentLinesArriveWholeAndEachOnce) {
  ScratchRoot root;
  LogLines log(root);
  const int threads = 6;
  const int perThread = 200;
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([t] {
      for (int i = 0; i < perThread; ++i) {
        TevdLog("worker %d line %d end\n", t, i);
      }
    });
  }
  for (auto &w : workers) {
    w.join();
  }
  std::set<std::string> seen;
  for (int i = 0; i < threads * perThread; ++i) {
    std::string line = log.Next();
    ASSERT_FALSE(line.empty()) << "after " << i << " lines";
    size_t at = line.find("Z: worker ");
    ASSERT_NE(std::string::npos, at) << line;
    std::string text = line.substr(at + 3);
    ASSERT_EQ("\n", text.substr(text.size() - 1)) << line;
    EXPECT_TRUE(seen.insert(text).second) << "twice: " << text;
  }
  EXPECT_EQ(static_cast<size_t>(threads * perThread), seen.size());
}

// A batching thread's lines wait for its flush (or a full queue) and then
// arrive exactly as unbatched ones would: same bytes, same order, the time
// of each taken when it was logged, a line too long for the queue in its place.
TEST(TevdLogFastPathTest, BatchedLinesArriveAtTheFlushUnchangedAndInOrder) {
  ZoneGuard zone;
  zone.Set("UTC0");
  ScratchRoot root;
  LogLines log(root);
  ASSERT_TRUE(log.ok());
  FakeClock clock(1700000000);
  const std::string head = "<14>Nov 14 22:13:";
  const std::string longBody(20000, 'L');
  std::thread([&] {
    PlatformLog_BatchLines();
    TevdLog("first %d\n", 1);
    clock.Advance(1);
    TevdLog("second\n");
    EXPECT_TRUE(log.Take().empty()) << "a line left before the flush";
    TevdLog("%s\n", longBody.c_str());
    TevdLog("after\n");
    PlatformLog_Flush();
    PlatformLog_Unbatch();
  }).join();
  EXPECT_EQ(head + "20 tevd: 2023-11-14T22:13:20.000Z: first 1\n", log.Next());
  EXPECT_EQ(head + "21 tevd: 2023-11-14T22:13:21.000Z: second\n", log.Next());
  EXPECT_EQ(head + "21 tevd: 2023-11-14T22:13:21.000Z: " + longBody + "\n", log.Next());
  EXPECT_EQ(head + "21 tevd: 2023-11-14T22:13:21.000Z: after\n", log.Next());
}

TEST(TevdLogFastPathTest, FullBatchIsSentWithoutWaitingForTheFlush) {
  ScratchRoot root;
  LogLines capture(root);
  std::thread([&] {
    PlatformLog_BatchLines();
    for (int i = 0; i < 40; i++) TevdLog("line %d\n", i);
    // The queue holds fewer than 40: the first lines left when it filled.
    EXPECT_NE("", capture.WaitFor("line 0\n"));
    PlatformLog_Unbatch();
  }).join();
  for (int i = 1; i < 40; i++) {
    EXPECT_NE(std::string::npos, capture.Next().find("line " + std::to_string(i) + "\n")) << i;
  }
}
