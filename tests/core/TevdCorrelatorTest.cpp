#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "Harness.h"
#include "TevdTestSupport.h"
#include "tevdAgent.h"
#include "tevdCorrelator.h"

using namespace tevdtest;

namespace {

std::string called;
int Known(Tev *) { return called = "known", 0; }
int Fallback(Tev *) { return called = "default", 0; }

std::atomic<int> handled{0};
std::atomic<int> wakeups{0};
int ThrowRuntime(Tev *) { throw std::runtime_error("lost observation"); }
int ThrowInt(Tev *) { throw 7; }
int CountOk(Tev *) { return ++handled, 0; }

void Post(const char *id) {
  std::vector<uint8_t> r = TevRecord_Encode(id, "", 1, {});
  ASSERT_EQ(0, TevdAgent_Distribute(r.data(), r.size()));
}

}  // namespace

TEST(TevdCorrelatorTest, DispatchIsByExactCaseSensitiveIdWithDefaultForAbsentOrNull) {
  TevHandlerMap map = {{"tev.net.known", Known}, {"tev.net.null", nullptr}};
  const std::pair<const char *, const char *> rows[] = {{"tev.net.known", "known"},
                                                        {"tev.net.KNOWN", "default"},
                                                        {"tev.net.null", "default"},
                                                        {"tev.net.known.more", "default"}};
  for (const auto &r : rows) {
    called.clear();
    TevdCorrelator_Dispatch(Fallback, map, MakeTev(r.first).get());
    EXPECT_EQ(r.second, called) << r.first;
  }
  EXPECT_EQ(2u, map.size());  // lookups of unknown identifiers add nothing
}

// Runs first: it owns the stream list and the thread table of this binary.
TEST(TevdCorrelatorThreadTest, RuntimeErrorLosesOneObservationIntEndsTheAgent) {
  signal(SIGPIPE, SIG_IGN);
  ScratchRoot root;
  LogLines log(root);
  static bool init = (TevdAgent_InitStreamList() == 0);
  ASSERT_TRUE(init);
  TevdAgent_Start([] {
    TevdCorrelator_Start("thrower", "thrower", nullptr,
                         {{"tev.thrower.runtime", ThrowRuntime},
                          {"tev.thrower.int", ThrowInt},
                          {"tev.thrower.ok", CountOk}});
  });
  // The agent's stream exists once a post reaches it.
  ASSERT_TRUE(Eventually([] { return Post("tev.thrower.ok"), handled > 0; }, 5000));
  int before = handled;
  Post("tev.thrower.runtime");
  Post("tev.thrower.ok");
  EXPECT_TRUE(Eventually([&] { return handled > before; }, 5000)) << "the agent ended";
  Post("tev.thrower.int");
  EXPECT_NE("", log.WaitFor("Unknown exception in agent function(0x"));
}

TEST(TevdCorrelatorThreadTest, ThirtyThirdAgentIsRefused) {
  ScratchRoot root;
  LogLines log(root);
  while (TevdAgent_NumStarted() < TEVD_MAX_AGENTS) TevdAgent_Start([] {});
  TevdAgent_Start([] {});
  EXPECT_EQ(TEVD_MAX_AGENTS, TevdAgent_NumStarted());
  EXPECT_NE("", log.WaitFor("Failed to start agent. Already reached max limit of 32 agents."));
  TevdAgent_StopAll();
  EXPECT_EQ(0, TevdAgent_NumStarted());
}

TEST(TevdCorrelatorThreadTest, ThreeWakeupBytesGiveOneCallback) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  ASSERT_EQ(3, write(fds[1], "abc", 3));
  static int wakeFd;
  wakeFd = fds[0];
  TevdAgent_Start([] {
    TevdCorrelator_StartWithWakeup(
        "waker", "waker", nullptr, {}, [] { ++wakeups; }, &wakeFd, 1);
  });
  ASSERT_TRUE(Eventually([] { return wakeups > 0; }, 5000));
  usleep(50000);  // a second callback would have come by now
  EXPECT_EQ(1, wakeups.load());
  TevdAgent_StopAll();
  close(fds[0]);
  close(fds[1]);
}
