// Faults around the real daemon while observations flow: a context flooded past the 131072-byte buffer ceiling, SIGTERM in a burst and a storm of SIGPIPE. Each
// test states what may be lost and checks that nothing else is.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "Harness.h"

using namespace tevdtest;

namespace {

const int kWait = 60000;  // generous: CI runs sanitizer builds two at a time on two cores

std::vector<uint8_t> Record(const std::string &id, const std::string &msg, size_t payload = 0) {
  std::vector<MsgFmt_Value> args;
  if (payload > 0) args.push_back(MsgFmt_Value::Str(std::string(payload, 'p')));
  return TevRecord_Encode(id, msg, 1, args);
}

// Every text in `expected` handled exactly once, nothing else.
void ExpectEachOnce(const std::map<std::string, int> &got,
                    const std::vector<std::string> &expected) {
  std::map<std::string, int> want;
  for (const std::string &e : expected) want[e] = 1;
  auto diff = std::mismatch(want.begin(), want.end(), got.begin(), got.end());
  EXPECT_TRUE(got == want) << got.size() << " distinct of " << want.size() << "; first difference: "
                           << (diff.first != want.end() ? diff.first->first : "(end)");
}

using SurroundingsFaultsE2ETest = DaemonTest;

}  // namespace

// A flood past the ceiling loses nothing; a record above it resets its context, which costs
// only what was pending at the reset.
TEST_F(SurroundingsFaultsE2ETest, ContextFloodedPastTheBufferCeilingLosesOnlyWhatAResetDrops) {
  ASSERT_TRUE(Start()) << tevd_->Stderr();
  // Four producers on one context with records of 100 bytes to 100 KiB: ten of them pending
  // are far more than the 131072-byte buffer takes at once.
  const int producers = 4, each = std::max(Scaled(150), 20);
  std::vector<std::string> texts;
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    for (int i = 0; i < each; ++i) texts.push_back(std::to_string(p) + "/" + std::to_string(i));
    threads.emplace_back([&, p] {
      int fd = ConnectAsync(root_, 9);
      unsigned seed = 7u + static_cast<unsigned>(p);
      for (int i = 0; i < each; ++i) {
        failed += !SendRecord(
            fd, Record("tev.hardware.flood", std::to_string(p) + "/" + std::to_string(i),
                       100 + rand_r(&seed) % 100000));
      }
      close(fd);
    });
  }
  for (std::thread &t : threads) t.join();
  ASSERT_EQ(0, failed.load());
  ASSERT_TRUE(log_->WaitCount("[tev.hardware.flood] ", texts.size(), kWait));
  ExpectEachOnce(HandledTexts(*log_, "tev.hardware.flood"), texts);

  int fd = ConnectAsync(root_, 11);
  int sndbuf = 4 << 20;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  const int n = std::max(Scaled(400), 40);
  texts.clear();
  auto send = [&](const std::string &phase) {
    for (int i = 0; i < n; ++i) {
      texts.push_back(phase + std::to_string(i));
      ASSERT_TRUE(SendRecord(fd, Record("tev.swap.flood", texts.back(), 5000)));
    }
  };
  send("before ");
  ASSERT_TRUE(SendRecord(fd, Record("tev.swap.flood", "huge", 131200)));
  // Probes go on until one is handled: from then on the reset is over.
  for (int probe = 0; log_->Count("[tev.swap.probe] ") == 0; ++probe) {
    ASSERT_LT(probe, kWait / 5) << "no probe came through after the reset";
    SendRecord(fd, Record("tev.swap.probe", std::to_string(probe)));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  send("after ");
  ASSERT_TRUE(log_->WaitCount("[tev.swap.flood] after ", static_cast<size_t>(n), kWait));
  ExpectEachOnce(HandledTexts(*log_, "tev.swap.flood"), texts);  // never the huge one
  for (const auto &probe : HandledTexts(*log_, "tev.swap.probe")) EXPECT_EQ(1, probe.second);
  close(fd);
  ExpectCleanExit(*tevd_, kWait);
}

// Agents stopped in the middle of handling a burst must not abort or hang the exit.
TEST_F(SurroundingsFaultsE2ETest, SigtermDuringABurstExitsWithStatusZero) {
  ASSERT_TRUE(Start()) << tevd_->Stderr();
  std::atomic<bool> stop{false};
  std::atomic<long> sent{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < 6; ++p) {
    producers.emplace_back([&, p] {
      int fd = p < 3 ? ConnectUser(root_) : ConnectAsync(root_, p);
      struct timeval tv = {2, 0};
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
      // Until the daemon is gone.
      for (int i = 0;
           !stop && SendRecord(fd, Record(p % 2 ? "tev.vm.burst" : "tev.hardware.burst",
                                          std::to_string(p) + "/" + std::to_string(i), 64));
           ++i) {
        ++sent;
      }
      close(fd);
    });
  }
  ASSERT_TRUE(log_->WaitCount(".burst] ", static_cast<size_t>(Scaled(2000)), kWait));
  ExpectCleanExit(*tevd_, kWait);
  stop = true;
  for (std::thread &t : producers) t.join();
  EXPECT_TRUE(log_->WaitCount("Exiting due to signal.", 1, kWait));
  EXPECT_TRUE(log_->WaitCount("Exiting. rc:0", 1, kWait));
  EXPECT_LE(log_->Count(".burst] "), static_cast<size_t>(sent.load()));
}

TEST_F(SurroundingsFaultsE2ETest, SigpipeStormWhileTrafficFlowsLosesNothing) {
  AgentStandIn agent(root_, AgentStandIn::Read);
  ASSERT_TRUE(Start()) << tevd_->Stderr();
  TraceReader reader(root_);
  ASSERT_TRUE(reader.WaitLive(kWait));
  std::atomic<bool> stop{false};
  std::atomic<long> signals{0};
  std::thread storm([&] {
    for (; !stop; ++signals) {
      tevd_->Signal(SIGPIPE);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  int user = ConnectUser(root_), async = ConnectAsync(root_, 4);
  const int n = std::max(Scaled(1000), 100);
  const size_t events = 50;
  std::vector<std::string> texts;
  for (int i = 0; i < n; ++i) {
    texts.push_back("storm " + std::to_string(i));
    // Large records split across pipe writes, so agents also block mid-record.
    ASSERT_TRUE(SendRecord(i % 2 ? user : async,
                           Record("tev.vm.storm", texts.back(), i % 7 ? 100 : 20000)));
    if (i < static_cast<int>(events)) {
      ASSERT_TRUE(
          SendRecord(user, TevRecord_Encode("tev.user.test.test2", "two", 1,
                                            {MsgFmt_Value::I32(i), MsgFmt_Value::Str("s")})));
    }
  }
  bool handled = log_->WaitCount("[tev.vm.storm] ", static_cast<size_t>(n), kWait);
  bool traced = reader.WaitCount(",IN,1,tev.vm.storm,,", static_cast<size_t>(n), kWait);
  bool delivered = Eventually([&] { return agent.Messages().size() >= events; }, kWait);
  stop = true;
  storm.join();
  EXPECT_TRUE(handled && traced && delivered)
      << log_->Count("[tev.vm.storm] ") << " handled, " << reader.Count(",IN,1,tev.vm.storm,,")
      << " traced of " << n << "; " << agent.Messages().size() << " events of " << events;
  ExpectEachOnce(HandledTexts(*log_, "tev.vm.storm"), texts);
  EXPECT_EQ(events, agent.Messages().size());
  for (const char *never :
       {"could not be sent immediately", "Failed to get Tev", "Unexpected write error"}) {
    EXPECT_EQ(0u, log_->Count(never)) << never;
  }
  // A few dozen signals during the traffic are enough to cross every read and write.
  EXPECT_GT(signals.load(), 10);
  close(user);
  close(async);
  reader.Close();
  ExpectCleanExit(*tevd_, kWait);
}
