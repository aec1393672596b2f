// The management agent absent and back later (the 180-second retry pass run at 180 times the
// speed under libfaketime), and one that accepts connections without ever reading them.
#include <gtest/gtest.h>

#include "Harness.h"

using namespace tevdtest;

namespace {

const int kWait = 20000;  // real milliseconds; a retry pass comes every ~1 s

std::vector<uint8_t> Test0() { return TevRecord_Encode("tev.user.test.test0", "none", 1, {}); }
std::vector<uint8_t> Test2(int n) {
  return TevRecord_Encode("tev.user.test.test2", "two", 1,
                          {MsgFmt_Value::I32(n), MsgFmt_Value::Str("arg" + std::to_string(n))});
}

// How often the agent got each event, keyed "id/first argument".
std::map<std::string, int> Received(AgentStandIn &agent) {
  std::map<std::string, int> got;
  for (const QprobMessage &m : agent.Messages()) {
    ++got[m.id +
          (m.args.empty() ? "" : "/" + std::to_string(static_cast<int32_t>(m.args[0].bits)))];
  }
  return got;
}

std::string Queued(const char *id) {
  return std::string("An event (") + id +
         ") could not be sent immediately to marshd; queueing for retry.";
}
std::string Failures(const char *id, int n) {
  return std::string("Failed to send event (") + id + "); " + std::to_string(n) +
         " failures so far.";
}

using AgentFaultsE2ETest = DaemonTest;

}  // namespace

TEST_F(AgentFaultsE2ETest, AgentAbsentThenBackGetsEveryQueuedEventOnceAndTheOldestIsAbandoned) {
  if (!FastClockMissing().empty()) {
    GTEST_SKIP() << FastClockMissing()
                 << "; the retry pass runs under the fake clock in TevdQprobTest";
  }
  ASSERT_TRUE(Start({}, FastClockEnv())) << tevd_->Stderr();
  int user = ConnectUser(root_);
  const char *t0 = "kos.problem.test.test0", *t2 = "kos.problem.test.test2";
  // A is queued with the agent absent and retried until it is abandoned.
  ASSERT_TRUE(SendRecord(user, Test0()));
  ASSERT_TRUE(log_->WaitCount(Queued(t0), 1, kWait)) << tevd_->Stderr();
  ASSERT_TRUE(log_->WaitCount(Failures(t0, 2), 1, kWait));
  ASSERT_TRUE(log_->WaitCount(Failures(t0, 4), 1, kWait));
  // B1..B3 join the queue three passes later.
  for (int i = 1; i <= 3; ++i) ASSERT_TRUE(SendRecord(user, Test2(i)));
  ASSERT_TRUE(log_->WaitCount(Queued(t2), 3, kWait));
  ASSERT_TRUE(
      log_->WaitCount("Abandoned event (kos.problem.test.test0) after 6 failures.", 1, kWait));
  EXPECT_EQ(0u, log_->Count(Failures(t0, 6)));

  // The agent is back: the next pass delivers B1..B3, each once.
  AgentStandIn agent(root_, AgentStandIn::Read);
  const std::string sent2 = "Successfully sent event (kos.problem.test.test2) after ";
  ASSERT_TRUE(log_->WaitCount(sent2, 3, kWait));
  for (const std::string &l : log_->Matching(sent2)) {
    // Queued between the third and fourth pass and failed at the fourth and fifth: 3 counting
    // the first attempt, more if the agent's return missed the sixth pass on a slow machine.
    std::string n = LogLines::Text(l).substr(sent2.size());
    EXPECT_TRUE(n == "3 failures." || n == "4 failures." || n == "5 failures.") << l;
  }
  // C goes straight through.
  ASSERT_TRUE(SendRecord(user, Test2(4)));
  ASSERT_TRUE(Eventually([&] { return agent.Messages().size() >= 4; }, kWait));
  close(user);
  ExpectCleanExit(*tevd_, kWait);

  EXPECT_EQ((std::map<std::string, int>{{"kos.problem.test.test2/1", 1},
                                        {"kos.problem.test.test2/2", 1},
                                        {"kos.problem.test.test2/3", 1},
                                        {"kos.problem.test.test2/4", 1}}),
            Received(agent));
  EXPECT_EQ(1u, log_->Count("Abandoned event ("));
}

TEST_F(AgentFaultsE2ETest, AgentThatNeverReadsDoesNotStallTheDaemonAndAWorkingOneGetsLaterEvents) {
  ASSERT_TRUE(Start()) << tevd_->Stderr();
  int user = ConnectUser(root_);
  const size_t kEvents = 60;
  {
    AgentStandIn mute(root_, AgentStandIn::HoldUnread);
    for (size_t i = 0; i < kEvents; ++i) ASSERT_TRUE(SendRecord(user, Test2(static_cast<int>(i))));
    // Each event fits in the socket's buffer: the send completes unread.
    ASSERT_TRUE(log_->WaitCount("[kos.problem.test.test2] Test with both ", kEvents, kWait));
    ASSERT_TRUE(Eventually([&] { return mute.Accepted() >= kEvents; }, kWait));
    EXPECT_EQ(0u, log_->Count("could not be sent immediately"));
    // Observations of other domains are handled meanwhile.
    ASSERT_TRUE(SendRecord(user, TevRecord_Encode("tev.vm.during", "while mute", 1, {})));
    ASSERT_TRUE(log_->WaitCount("[tev.vm.during] while mute", 1, kWait));
  }
  AgentStandIn agent(root_, AgentStandIn::Read);
  std::map<std::string, int> expect;
  for (int i = 100; i < 105; ++i) {
    ASSERT_TRUE(SendRecord(user, Test2(i)));
    expect["kos.problem.test.test2/" + std::to_string(i)] = 1;
  }
  ASSERT_TRUE(Eventually([&] { return agent.Messages().size() >= 5; }, kWait));
  EXPECT_EQ(expect, Received(agent));
  EXPECT_EQ(0u, agent.Bad());
  close(user);
  ExpectCleanExit(*tevd_, kWait);
}
