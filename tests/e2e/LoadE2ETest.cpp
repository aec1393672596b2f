// Load on the real daemon: eight user-level connections and four asynchronous
// contexts post at once. Every observation must be traced "IN" once and
// handled once (the VM and hardware correlators log each one), the daemon must
// not crash, and its resident size must stay bounded.
//
// The size bound: what the daemon holds per observation is freed when the
// observation is handled; what grows with traffic is bounded by design (the
// read buffer at 131072 bytes, the trace history at 131072 bytes of text plus
// its deque overhead, one reassembly buffer per agent). Pipes and socket
// queues are kernel memory, not resident size. So the growth over the idle
// daemon must stay far below the volume that went through (20,000 records of
// about 200 bytes, 4 MB, plus as much again in trace lines): 24 MiB, which
// leaves room for malloc's per-thread arenas. Sanitizer runtimes keep freed
// memory in quarantine and shadow memory, so there the bound is looser.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Harness.h"

using namespace tevdtest;
using tevdtest::DaemonProcess;

namespace {

const int kWait = 120000;

long GrowthLimitKb() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return 512 * 1024;
#else
  return 24 * 1024;
#endif
}

// "tev.vm.load" → how often each quoted first argument appears in the IN lines.
std::map<std::string, int> TracedArgs(LineStore &trace, const std::string &id) {
  std::map<std::string, int> out;
  std::string mark = ",IN,1," + id + ",,\"";
  for (const std::string &l : trace.Matching(mark)) {
    size_t at = l.find(mark) + mark.size();
    ++out[l.substr(at, l.find('"', at) - at)];
  }
  return out;
}

}  // namespace

TEST(LoadE2ETest, EightConnectionsAndFourContextsLoseNothingAndStayBounded) {
  ScratchRoot root;
  MakeHost(root);
  LogLines log(root);
  DaemonProcess d(root);
  ASSERT_TRUE(d.WaitReady(20000)) << d.Stderr();
  TraceReader trace(root);
  ASSERT_TRUE(trace.WaitLive(kWait));
  long idleKb = ProcStatus(d.pid(), "VmRSS");
  ASSERT_GT(idleKb, 0);

  const int users = 8;
  const int contexts = 4;
  const int producers = users + contexts;
  const int each = Scaled(20000) / producers;
  std::atomic<int> failed{0};
  std::atomic<bool> done{false};
  std::atomic<long> peakKb{idleKb};
  std::thread sampler([&] {
    while (!done) {
      long kb = ProcStatus(d.pid(), "VmRSS");
      if (kb > peakKb) {
        peakKb = kb;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  // All connections first: a ninth would be refused, eight must all be served.
  std::vector<int> fds;
  for (int p = 0; p < producers; ++p) {
    int fd = p < users ? ConnectUser(root) : ConnectAsync(root, p - users);
    ASSERT_GE(fd, 0) << p;
    fds.push_back(fd);
  }
  auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      const char *id = p < users ? "tev.vm.load" : "tev.hardware.load";
      for (int i = 0; i < each; ++i) {
        std::string key = std::to_string(p) + "/" + std::to_string(i);
        if (!SendRecord(fds[p], TevRecord_Encode(id, key, 1,
                                                 {MsgFmt_Value::Str(key), MsgFmt_Value::I32(i)}))) {
          ++failed;
        }
      }
    });
  }
  for (std::thread &t : threads) {
    t.join();
  }
  const size_t total = static_cast<size_t>(producers) * static_cast<size_t>(each);
  bool handled = log.WaitCount(".load] ", total, kWait);
  bool traced = trace.WaitCount(".load,,\"", total, kWait);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  done = true;
  sampler.join();
  EXPECT_EQ(0, failed.load());
  EXPECT_TRUE(handled) << log.Count(".load] ") << " of " << total;
  EXPECT_TRUE(traced) << trace.Count(".load,,\"") << " of " << total;

  std::map<std::string, int> want;
  for (int p = 0; p < producers; ++p) {
    for (int i = 0; i < each; ++i) {
      want[std::to_string(p) + "/" + std::to_string(i)] = 1;
    }
  }
  std::map<std::string, int> gotHandled = HandledTexts(log, "tev.vm.load");
  for (const auto &kv : HandledTexts(log, "tev.hardware.load")) {
    gotHandled[kv.first] += kv.second;
  }
  EXPECT_TRUE(want == gotHandled) << gotHandled.size() << " distinct handled of " << want.size();
  std::map<std::string, int> gotTraced = TracedArgs(trace, "tev.vm.load");
  for (const auto &kv : TracedArgs(trace, "tev.hardware.load")) {
    gotTraced[kv.first] += kv.second;
  }
  EXPECT_TRUE(want == gotTraced) << gotTraced.size() << " distinct traced of " << want.size();

  EXPECT_TRUE(d.Running());
  long endKb = ProcStatus(d.pid(), "VmRSS");
  printf("%zu observations in %.2f s (%.0f/s); VmRSS idle %ld KiB, peak %ld KiB, after %ld KiB\n",
         total, seconds, static_cast<double>(total) / seconds, idleKb, peakKb.load(), endKb);
  EXPECT_LT(peakKb.load() - idleKb, GrowthLimitKb());
  EXPECT_LT(seconds, kWait / 1000.0);

  for (int fd : fds) {
    close(fd);
  }
  trace.Close();
  d.Signal(SIGTERM);
  ASSERT_TRUE(d.Wait(kWait));
  ASSERT_TRUE(WIFEXITED(d.status())) << d.Stderr();
  EXPECT_EQ(0, WEXITSTATUS(d.status()));
  EXPECT_EQ("", SanitizerReport(d.Stderr()));
}
