// Load on the real daemon: eight user-level connections and four asynchronous contexts post at
// once. Every observation must be traced "IN" once and handled once, and the resident size must
// stay bounded: what grows with traffic is bounded by design (read buffer, trace history,
// reassembly buffers), so the growth must stay far below the 4 MB that went through, with room
// for malloc's per-thread arenas. Sanitizer runtimes keep freed memory in quarantine.
#include <gtest/gtest.h>

#include "Harness.h"

using namespace tevdtest;

namespace {

const int kWait = 120000;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const long kGrowthLimitKb = 512 * 1024;
#else
const long kGrowthLimitKb = 24 * 1024;
#endif

using LoadE2ETest = DaemonTest;

}  // namespace

TEST_F(LoadE2ETest, EightConnectionsAndFourContextsLoseNothingAndStayBounded) {
  ASSERT_TRUE(Start()) << tevd_->Stderr();
  TraceReader trace(root_);
  ASSERT_TRUE(trace.WaitLive(kWait));
  const long idleKb = ProcStatus(tevd_->pid(), "VmRSS");
  ASSERT_GT(idleKb, 0);
  const int users = 8, producers = users + 4, each = Scaled(20000) / producers;
  std::atomic<int> failed{0};
  std::atomic<bool> done{false};
  std::atomic<long> peakKb{idleKb};
  std::thread sampler([&] {
    for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
      peakKb = std::max(peakKb.load(), ProcStatus(tevd_->pid(), "VmRSS"));
    }
  });
  // All connections first: a ninth would be refused, eight must all be served.
  std::vector<int> fds;
  for (int p = 0; p < producers; ++p) {
    fds.push_back(p < users ? ConnectUser(root_) : ConnectAsync(root_, p - users));
    ASSERT_GE(fds.back(), 0) << p;
  }
  std::map<std::string, int> want;
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    for (int i = 0; i < each; ++i) want[std::to_string(p) + "/" + std::to_string(i)] = 1;
    threads.emplace_back([&, p] {
      const char *id = p < users ? "tev.vm.load" : "tev.hardware.load";
      for (int i = 0; i < each; ++i) {
        std::string key = std::to_string(p) + "/" + std::to_string(i);
        failed += !SendRecord(
            fds[p], TevRecord_Encode(id, key, 1, {MsgFmt_Value::Str(key), MsgFmt_Value::I32(i)}));
      }
    });
  }
  for (std::thread &t : threads) t.join();
  const size_t total = want.size();
  bool handled = log_->WaitCount(".load] ", total, kWait);
  bool traced = trace.WaitCount(".load,,\"", total, kWait);
  done = true;
  sampler.join();
  EXPECT_EQ(0, failed.load());
  EXPECT_TRUE(handled && traced) << log_->Count(".load] ") << " handled, "
                                 << trace.Count(".load,,\"") << " traced of " << total;
  std::map<std::string, int> gotHandled = HandledTexts(*log_, "tev.vm.load"), gotTraced;
  for (const auto &kv : HandledTexts(*log_, "tev.hardware.load")) gotHandled[kv.first] += kv.second;
  // The quoted first argument of each IN line.
  for (const std::string &l : trace.Matching(".load,,\"")) {
    size_t at = l.find(".load,,\"") + 8;
    ++gotTraced[l.substr(at, l.find('"', at) - at)];
  }
  EXPECT_TRUE(want == gotHandled) << gotHandled.size() << " distinct handled of " << total;
  EXPECT_TRUE(want == gotTraced) << gotTraced.size() << " distinct traced of " << total;
  RecordProperty("vmrss_growth_kb", static_cast<int>(peakKb.load() - idleKb));
  EXPECT_LT(peakKb.load() - idleKb, kGrowthLimitKb);
  for (int fd : fds) close(fd);
  trace.Close();
  ExpectCleanExit(*tevd_, kWait);
}
