// The log path's shortcuts (time cache, stack buffers, shared socket, batches) must not show.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <thread>

#include "Harness.h"
#include "PlatformLog.h"
#include "tevdLog.h"

using namespace tevdtest;

namespace {

void SetZone(const char *zone) {
  zone != nullptr ? setenv("TZ", zone, 1) : unsetenv("TZ");
  tzset();
}

const std::string kHead = "<14>Nov 14 22:13:";  // the fake clock's start in UTC
const std::string kLine = kHead + "20 tevd: 2023-11-14T22:13:20.000Z: ";

class TevdLogTest : public ::testing::Test {
 protected:
  void SetUp() override { SetZone("UTC0"); }
  void TearDown() override { SetZone(nullptr); }
  ScratchRoot root_;
  std::optional<LogLines> log_{std::in_place, root_};
  FakeClock clock_;
};

}  // namespace

TEST_F(TevdLogTest, SyslogHeaderFollowsTheNextSecondAndAZoneChange) {
  TevdLog("a %d\n", 42);
  EXPECT_EQ(kLine + "a 42\n", log_->Next());
  clock_.AdvanceUs(999999);  // milliseconds cut, not rounded
  TevdLog("x\n");
  EXPECT_EQ(kHead + "20 tevd: 2023-11-14T22:13:20.999Z: x\n", log_->Next());
  clock_.AdvanceUs(1);
  TevdLog("y\n");
  EXPECT_EQ(kHead + "21 tevd: 2023-11-14T22:13:21.000Z: y\n", log_->Next());
  SetZone("XST-3");
  TevdLog("b\n");
  EXPECT_EQ("<14>Nov 15 01:13:21 tevd: 2023-11-15T01:13:21.000Z: b\n", log_->Next());
  char buf[32];  // the prefix alone, without milliseconds
  EXPECT_EQ(22, TevdLog_TimePrefix(buf, sizeof buf, false));
  EXPECT_STREQ("2023-11-15T01:13:21Z: ", buf);
}

// Around both stack buffers (1024 bytes in TevdLog, 2048 in the sink).
TEST_F(TevdLogTest, LinesLongerThanTheStackBuffersArriveWhole) {
  for (size_t size : {0u, 990u, 1000u, 1100u, 1990u, 2020u, 2100u, 9000u}) {
    std::string body(size, 'q');
    TevdLog("%s|%d\n", body.c_str(), 7);
    EXPECT_EQ(kLine + body + "|7\n", log_->Next()) << "body of " << size;
  }
}

TEST_F(TevdLogTest, CollectorReplacedAtTheSamePathGetsTheNextLine) {
  TevdLog("to the first\n");
  EXPECT_TRUE(Contains(log_->Next(), "Z: to the first\n"));
  log_.reset();
  TevdLog("to nobody\n");  // dropped silently
  log_.emplace(root_);
  TevdLog("to the second\n");
  EXPECT_TRUE(Contains(log_->Next(), "Z: to the second\n"));
}

// Batched lines wait for the flush, or a full queue, and arrive as unbatched
// ones would: same bytes and order, each with the time it was logged.
TEST_F(TevdLogTest, BatchedLinesArriveAtTheFlushOrAFullQueueUnchanged) {
  const std::string longBody(20000, 'L');
  const std::string next = kHead + "21 tevd: 2023-11-14T22:13:21.000Z: ";
  std::thread([&] {
    PlatformLog_BatchLines();
    TevdLog("first %d\n", 1);
    clock_.Advance(1);
    TevdLog("second\n");
    EXPECT_TRUE(log_->Take().empty()) << "a line left before the flush";
    TevdLog("%s\n", longBody.c_str());  // too long for the queue: sent in its place
    PlatformLog_Flush();
    EXPECT_EQ(kLine + "first 1\n", log_->Next());
    EXPECT_EQ(next + "second\n", log_->Next());
    EXPECT_TRUE(next + longBody + "\n" == log_->Next());
    for (int i = 0; i < 40; i++) TevdLog("line %d\n", i);
    EXPECT_EQ(next + "line 0\n", log_->Next());  // the queue holds fewer than 40
    PlatformLog_Unbatch();
  }).join();
  for (int i = 1; i < 40; i++) EXPECT_EQ(next + "line " + std::to_string(i) + "\n", log_->Next());
}

TEST_F(TevdLogTest, PanicWritesStandardErrorLogsTwoLinesAndAborts) {
  EXPECT_EXIT(Panic("x %d", 5), ::testing::KilledBySignal(SIGABRT), "^Tevd - Panic: x 5$");
  EXPECT_TRUE(Contains(log_->Next(), "Z: Tevd - Panic: "));
  // The log copy leaves the value out; standard error alone carries it.
  EXPECT_EQ(kLine + "x ", log_->Next());
}

// Defects: lines of a batching thread waited in its own queue without bound and reached the
// collector after later lines of other threads (time prefixes going back); a Panic sent only
// its own thread's queue, so the other threads' last lines were lost.
TEST_F(TevdLogTest, QueuedLinesKeepCallOrderWaitAtMostFiveMsAndPanicSendsEveryThreadsLines) {
  std::thread([&] {
    PlatformLog_BatchLines();
    TevdLog("batched first\n");
  }).join();
  clock_.AdvanceUs(1000);
  TevdLog("unbatched second\n");
  EXPECT_EQ(kLine + "batched first\n", log_->Next());
  EXPECT_EQ(kLine.substr(0, kLine.size() - 6) + "001Z: unbatched second\n", log_->Next());
  log_->Take();
  std::thread([&] {
    PlatformLog_BatchLines();
    TevdLog("waits\n");
  }).join();
  EXPECT_TRUE(log_->Take().empty()) << "sent before its time was up";
  clock_.AdvanceUs(5000);  // no flush: the queue's age alone sends it
  EXPECT_TRUE(Contains(log_->Next(), "Z: waits\n"));
  // Another thread's line waits in the queue when the panic comes (the child of the death test
  // starts no thread: ThreadSanitizer does not allow it).
  std::thread([] {
    PlatformLog_BatchLines();
    TevdLog("last words\n");
  }).join();
  EXPECT_EXIT(Panic("x"), ::testing::KilledBySignal(SIGABRT), "Panic");
  EXPECT_TRUE(Contains(log_->Next(), "Z: last words\n"));
  EXPECT_TRUE(Contains(log_->Next(), "Z: Tevd - Panic: "));
}
