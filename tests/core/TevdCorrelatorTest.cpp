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

std::vector<std::string> calls;

int Record(const char *who, Tev *tev) {
  const char *id = nullptr;
  Tev_GetID(tev, &id);
  calls.push_back(std::string(who) + ":" + id);
  return 0;
}
int Known(Tev *tev) { return Record("known", tev); }
int Fallback(Tev *tev) { return Record("default", tev); }

}  // namespace

TEST(TevdCorrelatorTest, DispatchIsByExactCaseSensitiveIdWithDefaultForAbsentOrNull) {
  TevHandlerMap map = {{"tev.net.known", Known}, {"tev.net.null", nullptr}};
  struct Row {
    const char *id;
    const char *expected;
  } rows[] = {
      {"tev.net.known", "known:tev.net.known"},
      {"tev.net.KNOWN", "default:tev.net.KNOWN"},
      {"tev.net.null", "default:tev.net.null"},
      {"tev.net.known.more", "default:tev.net.known.more"},
  };
  for (const Row &r : rows) {
    calls.clear();
    TevPtr tev = MakeTev(r.id);
    TevdCorrelator_Dispatch(Fallback, map, tev.get());
    ASSERT_EQ(1u, calls.size()) << r.id;
    EXPECT_EQ(r.expected, calls[0]);
  }
  // Lookups of unknown identifiers never add to the registered map.
  EXPECT_EQ(2u, map.size());
}

namespace {

std::atomic<int> handledAfterThrow{0};

int ThrowRuntime(Tev *) { throw std::runtime_error("lost observation"); }
int ThrowInt(Tev *) { throw 7; }
int CountOk(Tev *) {
  ++handledAfterThrow;
  return 0;
}
void StartThrower() {
  TevHandlerMap map = {{"tev.thrower.runtime", ThrowRuntime},
                       {"tev.thrower.int", ThrowInt},
                       {"tev.thrower.ok", CountOk}};
  TevdCorrelator_Start("thrower", "thrower", nullptr, map);
}

void Post(const char *id) {
  std::vector<uint8_t> r = TevRecord_Encode(id, "", 1, {});
  ASSERT_EQ(0, TevdAgent_Distribute(r.data(), r.size()));
}

std::atomic<int> wakeups{0};
void OnWakeup() { ++wakeups; }

}  // namespace

// Runs first: it owns the stream list and the thread table of this binary.
TEST(TevdCorrelatorThreadTest, RuntimeErrorLosesOneObservationIntEndsTheAgent) {
  signal(SIGPIPE, SIG_IGN);
  ScratchRoot root;
  LogLines log(root);
  static bool init = (TevdAgent_InitStreamList() == 0);
  ASSERT_TRUE(init);
  TevdAgent_Start(StartThrower);
  // Wait for the agent's stream to exist: its init logs nothing, so poll by posting.
  for (int i = 0; i < 200 && handledAfterThrow == 0; ++i) {
    Post("tev.thrower.ok");
    usleep(10000);
  }
  ASSERT_GT(handledAfterThrow.load(), 0);
  int before = handledAfterThrow;
  Post("tev.thrower.runtime");
  Post("tev.thrower.ok");
  for (int i = 0; i < 200 && handledAfterThrow == before; ++i) {
    usleep(10000);
  }
  EXPECT_EQ(before + 1, handledAfterThrow.load());
  Post("tev.thrower.int");
  EXPECT_NE("", log.WaitFor("Unknown exception in agent function(0x"));
}

TEST(TevdCorrelatorThreadTest, ThirtyThirdAgentIsRefused) {
  ScratchRoot root;
  LogLines log(root);
  while (TevdAgent_NumStarted() < TEVD_MAX_AGENTS) {
    TevdAgent_Start([] {});
  }
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
  TevdAgent_Start(
      [] { TevdCorrelator_StartWithWakeup("waker", "waker", nullptr, {}, OnWakeup, &wakeFd, 1); });
  for (int i = 0; i < 200 && wakeups == 0; ++i) {
    usleep(10000);
  }
  usleep(50000);  // a second callback would have come by now
  EXPECT_EQ(1, wakeups.load());
  TevdAgent_StopAll();
  close(fds[0]);
  close(fds[1]);
}
