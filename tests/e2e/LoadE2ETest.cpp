// Eight user-level connections and four asynchronous contexts post at once: every observation is
// traced and handled once, and the resident size grows far less than the 4 MB that went through
// (what grows with traffic is bounded by design; sanitizers keep freed memory in quarantine).
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
      for (int i = 0; i < each; ++i) {
        std::string key = std::to_string(p) + "/" + std::to_string(i);
        failed +=
            !SendRecord(fds[p], TevRecord_Encode("tev.vm.load", key, 1,
                                                 {MsgFmt_Value::Str(key), MsgFmt_Value::I32(i)}));
      }
    });
  }
  for (std::thread &t : threads) t.join();
  const size_t total = want.size();
  bool handled = log_->WaitCount("[tev.vm.load] ", total, kWait);
  bool traced = trace.WaitCount(",IN,1,tev.vm.load,", total, kWait);
  done = true;
  sampler.join();
  EXPECT_EQ(0, failed.load());
  EXPECT_TRUE(handled && traced);
  std::map<std::string, int> got = HandledTexts(*log_, "tev.vm.load");
  EXPECT_TRUE(want == got) << got.size() << " distinct handled of " << total;
  EXPECT_EQ(total, trace.Count(",IN,1,tev.vm.load,")) << "traced once each";
  RecordProperty("vmrss_growth_kb", static_cast<int>(peakKb.load() - idleKb));
  EXPECT_LT(peakKb.load() - idleKb, kGrowthLimitKb);
  for (int fd : fds) close(fd);
  trace.Close();
  ExpectCleanExit(*tevd_, kWait);
}
