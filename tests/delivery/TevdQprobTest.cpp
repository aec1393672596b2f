// Event posting: wire bytes decoded field by field against literal values,
// the rate window, the identifier limit, growth of the working buffer, the
// retry list and its log lines, and delivery over a real socket.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "Harness.h"
#include "Str.h"
#include "TevClock.h"
#include "TevdTestSupport.h"
#include "tevdAlarm.h"
#include "tevdQprob.h"
#include "tevdTrace.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Wire {
  std::vector<Bytes> sent;
  int attempts = 0;
  bool fail = false;
};

int RecordingHook(const void *message, size_t length, void *ctx) {
  Wire *w = static_cast<Wire *>(ctx);
  w->attempts++;
  if (w->fail) {
    return -1;
  }
  const uint8_t *p = static_cast<const uint8_t *>(message);
  w->sent.emplace_back(p, p + length);
  return 0;
}

uint32_t U32At(const Bytes &b, size_t off) {
  uint32_t v;
  memcpy(&v, b.data() + off, sizeof v);
  return v;
}
uint64_t U64At(const Bytes &b, size_t off) {
  uint64_t v;
  memcpy(&v, b.data() + off, sizeof v);
  return v;
}

class TevdQprobTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(log_.ok());
    VThreadBase_SetName("qprobTest");
    TevdAlarm_ResetForTest();
    TevdQprob_ResetForTest();
    TevdTrace_ResetForTest();
    TevdQprob_Init();  // retry alarm gets identifier 0
    TevdQprob_SetSendHookForTest(RecordingHook, &wire_);
    log_.Take();
  }
  void TearDown() override {
    TevdQprob_SetSendHookForTest(nullptr, nullptr);
    TevdQprob_ResetForTest();
    TevdAlarm_ResetForTest();
  }

  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
  tevdtest::LogLines log_{root_};
  Wire wire_;
};

TEST_F(TevdQprobTest, OneStringEventHasExactHeaderIdentifierAndBlock) {
  TevdQprob_Post(0, Problem,
                 "@&!*@*@(kos.problem.net.hwnic.linkstate.down)Physical NIC %s linkstate is down",
                 "hwnic1");
  ASSERT_EQ(1u, wire_.sent.size());
  const Bytes &m = wire_.sent[0];
  // 68 header + 37 identifier (36 + NUL) + 23 block (16 slot + "hwnic1\0") + 4.
  ASSERT_EQ(132u, m.size());
  EXPECT_NE(0u, U64At(m, 0));
  EXPECT_EQ(0u, U64At(m, 8));
  EXPECT_EQ(132u, U32At(m, 56));
  EXPECT_EQ(1u, U32At(m, 60));
  EXPECT_EQ(37u, U32At(m, 64));
  EXPECT_EQ(std::string("kos.problem.net.hwnic.linkstate.down") + '\0',
            std::string(reinterpret_cast<const char *>(&m[68]), 37));
  const uint8_t block[23] = {6, 0, 0, 0, 6,   0,   0,   0,   16,  0,   0, 0,
                             0, 0, 0, 0, 'h', 'w', 'n', 'i', 'c', '1', 0};
  EXPECT_EQ(Bytes(block, block + 23), Bytes(m.begin() + 105, m.begin() + 128));
  EXPECT_EQ(Bytes(4, 0), Bytes(m.begin() + 128, m.end()));
}

TEST_F(TevdQprobTest, MixedArgumentsSerialiseAsTypedSlots) {
  const char *none = getenv("TEVD_QPROB_TEST_UNSET_VARIABLE");  // a null string
  TevdQprob_Post(0, Clear, "@&!*@*@(kos.clear.x.y)%d %u %ld %lu %s %s", -3, 7u, -5L, 9UL, "a\"b",
                 none);
  ASSERT_EQ(1u, wire_.sent.size());
  const Bytes &m = wire_.sent[0];
  EXPECT_EQ(14u, U32At(m, 64));  // "kos.clear.x.y" + NUL
  EXPECT_EQ(6u, U32At(m, 60));
  const size_t b = 68 + 14;
  // Six slots (96 bytes) then "a\"b\0" (4 bytes); the null string has no bytes.
  ASSERT_EQ(72u + 14u + 100u, U32At(m, 56));
  ASSERT_EQ(72u + 14u + 100u, m.size());
  const uint32_t types[6] = {1, 3, 2, 4, 6, 6};
  const uint32_t lengths[6] = {0, 0, 0, 0, 3, 0xFFFFFFFFu};
  const uint64_t values[6] = {0xFFFFFFFFFFFFFFFDull, 7, 0xFFFFFFFFFFFFFFFBull, 9, 96, 0};
  for (int i = 0; i < 6; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(types[i], U32At(m, b + 16 * i));
    EXPECT_EQ(lengths[i], U32At(m, b + 16 * i + 4));
    EXPECT_EQ(values[i], U64At(m, b + 16 * i + 8));
  }
  EXPECT_EQ(std::string("a\"b", 4), std::string(reinterpret_cast<const char *>(&m[b + 96]), 4));
}

TEST_F(TevdQprobTest, HostIdentityTravelsAtOffsetSixteen) {
  root_.Write("platform/nodes/system/systemUuid", "0123abcd-4567-89ef-0123-456789abcdef");
  TevdAlarm_ResetForTest();
  TevdQprob_Init();
  TevdQprob_Post(0, Audit, "@&!*@*@(kos.audit.a)x");
  ASSERT_EQ(1u, wire_.sent.size());
  const Bytes &m = wire_.sent[0];
  EXPECT_EQ("0123abcd-4567-89ef-0123-456789abcdef",
            std::string(reinterpret_cast<const char *>(&m[16]), 36));
  EXPECT_EQ(Bytes(4, 0), Bytes(m.begin() + 52, m.begin() + 56));
}

TEST_F(TevdQprobTest, ClassPrefixAndSuffixAreCutAtTheRightPlace) {
  TevdQprob_Post(0, Audit, "@&!*@*@(kos.audit.tevdtestcorrelator.test)%s (%d) args", "Two", 2);
  TevdQprob_Post(0, Clear, "@&!*@*@(kos.clear.a.b)text");
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.c)t)ext");
  ASSERT_EQ(3u, wire_.sent.size());
  auto idOf = [](const Bytes &m) { return std::string(reinterpret_cast<const char *>(&m[68])); };
  EXPECT_EQ("kos.audit.tevdtestcorrelator.test", idOf(wire_.sent[0]));
  EXPECT_EQ("kos.clear.a.b", idOf(wire_.sent[1]));
  EXPECT_EQ("kos.problem.c", idOf(wire_.sent[2]));
}

TEST_F(TevdQprobTest, LocalLogLineCarriesThreadStampIdentifierAndText) {
  TevdQprob_Post(0, Problem,
                 "@&!*@*@(kos.problem.net.hwnic.linkstate.down)Physical NIC %s linkstate is down",
                 "hwnic1");
  ASSERT_EQ(1u, wire_.sent.size());
  std::string expected = "[qprobTest] " + std::to_string(U64At(wire_.sent[0], 0)) +
                         "us: [kos.problem.net.hwnic.linkstate.down] Physical NIC hwnic1 "
                         "linkstate is down";
  EXPECT_EQ(std::vector<std::string>({expected}), log_.Take());
}

TEST_F(TevdQprobTest, PostedEventIsTracedAsOut) {
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.p.q)%s %d", "a\"b", 4);
  ASSERT_EQ(1u, wire_.sent.size());
  auto history = TevdTrace_HistoryForTest();
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ("1700000000.000000000,OUT," + std::to_string(U64At(wire_.sent[0], 0)) +
                ",kos.problem.p.q,,\"a\"\"b\",4\n",
            history[0]);
}

TEST_F(TevdQprobTest, ThousandAndFirstEventOfWindowIsDropped) {
  for (int i = 0; i < 999; i++) {
    TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.rate.a)n %d", i);
    log_.Take();
  }
  clock_.Advance(59);
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.rate.a)n %d", 999);  // 1000th passes
  log_.Take();
  EXPECT_EQ(1000u, wire_.sent.size());
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.rate.b)n %d", 1000);  // 1001st
  EXPECT_EQ(1000u, wire_.sent.size());
  EXPECT_EQ(std::vector<std::string>({"Event rate limit reached. Dropping qprob: "
                                      "kos.problem.rate.b"}),
            log_.Take());
  // 60 s after the window's start a new one opens with a count of 1.
  clock_.Advance(1);
  for (int i = 0; i < 1000; i++) {
    TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.rate.c)n %d", i);
    log_.Take();
  }
  EXPECT_EQ(2000u, wire_.sent.size());
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.rate.d)n");
  EXPECT_EQ(2000u, wire_.sent.size());
  EXPECT_EQ(std::vector<std::string>({"Event rate limit reached. Dropping qprob: "
                                      "kos.problem.rate.d"}),
            log_.Take());
}

TEST_F(TevdQprobTest, ClockGoingBackwardsStaysInTheWindow) {
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.r)x");
  clock_.Advance(-3600);
  for (int i = 0; i < 999; i++) {
    TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.r)x");
    log_.Take();
  }
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.r)x");
  EXPECT_EQ(1000u, wire_.sent.size());
}

TEST_F(TevdQprobTest, IdentifierOf128CharactersIsSentAnd129IsDroppedSilently) {
  // "kos.problem." is 12 characters.
  std::string ok = "@&!*@*@(kos.problem." + std::string(116, 'a') + ")%s";
  std::string tooLong = "@&!*@*@(kos.problem." + std::string(117, 'b') + ")%s";
  TevdQprob_Post(0, Problem, ok.c_str(), "v");
  ASSERT_EQ(1u, wire_.sent.size());
  EXPECT_EQ(129u, U32At(wire_.sent[0], 64));
  EXPECT_EQ("kos.problem." + std::string(116, 'a'),
            std::string(reinterpret_cast<const char *>(&wire_.sent[0][68])));
  log_.Take();
  TevdQprob_Post(0, Problem, tooLong.c_str(), "v");
  EXPECT_EQ(1u, wire_.sent.size());
  EXPECT_EQ(1, wire_.attempts);
  EXPECT_TRUE(log_.Take().empty());
  EXPECT_EQ(1u, TevdTrace_HistoryForTest().size());
}

TEST_F(TevdQprobTest, BufferGrowsByDoublingUntilTheArgumentsFit) {
  // 9368 - 72 - 14 = 9282 bytes of block room: a 9000-byte string fits only
  // in the fourth buffer; 18736 - 86 = 18650 is the last chance.
  std::string big(9000, 'q');
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.g)%s", big.c_str());
  ASSERT_EQ(1u, wire_.sent.size());
  EXPECT_EQ(72u + 14u + 16u + 9001u, wire_.sent[0].size());
  std::string last(18650 - 17, 'r');
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.g)%s", last.c_str());
  ASSERT_EQ(2u, wire_.sent.size());
  EXPECT_EQ(72u + 14u + 18650u, U32At(wire_.sent[1], 56));
}

TEST_F(TevdQprobTest, ArgumentsTooLargeForFifthBufferAreDroppedSilently) {
  std::string huge(18650 - 16, 'z');  // one byte more than the last buffer holds
  log_.Take();
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.g)%s", huge.c_str());
  EXPECT_EQ(0, wire_.attempts);
  EXPECT_TRUE(log_.Take().empty());
  EXPECT_TRUE(TevdTrace_HistoryForTest().empty());
  EXPECT_EQ(0u, TevdQprob_RetryListLengthForTest());
}

TEST_F(TevdQprobTest, FailedSendQueuesAndFirstRetrySucceeds) {
  wire_.fail = true;
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.r.one)v %d", 5);
  EXPECT_EQ(1u, TevdQprob_RetryListLengthForTest());
  auto lines = log_.Take();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(
      "An event (kos.problem.r.one) could not be sent immediately to marshd; queueing for "
      "retry.",
      lines[1]);
  wire_.fail = false;
  clock_.Advance(179);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  clock_.Advance(1);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  EXPECT_EQ(std::vector<std::string>({"Successfully sent event (kos.problem.r.one) after 1 "
                                      "failure."}),
            log_.Take());
  ASSERT_EQ(1u, wire_.sent.size());
  EXPECT_EQ(std::string("kos.problem.r.one"),
            std::string(reinterpret_cast<const char *>(&wire_.sent[0][68])));
  EXPECT_EQ(0u, TevdQprob_RetryListLengthForTest());
  clock_.Advance(1000);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());  // nothing left: not re-armed
}

TEST_F(TevdQprobTest, EventIsAbandonedAfterFifthFailedRetry) {
  wire_.fail = true;
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.r.gone)x");
  log_.Take();
  const char *expected[] = {
      "Failed to send event (kos.problem.r.gone); 2 failures so far.",
      "Failed to send event (kos.problem.r.gone); 3 failures so far.",
      "Failed to send event (kos.problem.r.gone); 4 failures so far.",
      "Failed to send event (kos.problem.r.gone); 5 failures so far.",
      "Abandoned event (kos.problem.r.gone) after 6 failures.",
  };
  for (const char *line : expected) {
    clock_.Advance(180);
    EXPECT_EQ(1, TevdAlarm_RunDueForTest());
    EXPECT_EQ(std::vector<std::string>({line}), log_.Take());
  }
  EXPECT_EQ(6, wire_.attempts);
  EXPECT_EQ(0u, TevdQprob_RetryListLengthForTest());
  clock_.Advance(180);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
}

TEST_F(TevdQprobTest, RetryPassHandlesOldestFirstAndKeepsOnlyFailures) {
  wire_.fail = true;
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.q.a)x");
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.q.b)x");
  EXPECT_EQ(2u, TevdQprob_RetryListLengthForTest());
  wire_.fail = false;
  log_.Take();
  clock_.Advance(180);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  EXPECT_EQ(
      std::vector<std::string>({"Successfully sent event (kos.problem.q.a) after 1 failure.",
                                "Successfully sent event (kos.problem.q.b) after 1 failure."}),
      log_.Take());
}

TEST_F(TevdQprobTest, NonZeroFlagsQueueWithoutAnAttemptButStillLog) {
  TevdQprob_Post(1, Problem, "@&!*@*@(kos.problem.later)x");
  EXPECT_EQ(0, wire_.attempts);
  EXPECT_EQ(1u, TevdQprob_RetryListLengthForTest());
  auto lines = log_.Take();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(
      "An event (kos.problem.later) could not be sent immediately to marshd; queueing for "
      "retry.",
      lines[1]);
  clock_.Advance(180);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  EXPECT_EQ(std::vector<std::string>({"Successfully sent event (kos.problem.later) after 1 "
                                      "failure."}),
            log_.Take());
  // Only the low byte counts: 0x100 sends at once.
  TevdQprob_Post(0x100, Problem, "@&!*@*@(kos.problem.now)x");
  EXPECT_EQ(2u, wire_.sent.size());
  EXPECT_EQ(0u, TevdQprob_RetryListLengthForTest());
}

TEST_F(TevdQprobTest, DiscouragedEntryPointLogsAndPostsProblem) {
  Tevd_PostProblem("old.style", "value %d", 3);
  ASSERT_EQ(1u, wire_.sent.size());
  EXPECT_EQ(std::string("kos.problem.old.style"),
            std::string(reinterpret_cast<const char *>(&wire_.sent[0][68])));
  auto lines = log_.Take();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("Using discouraged \"Tevd_PostProblem\" interface for qprob: old.style", lines[0]);
}

TEST_F(TevdQprobTest, UnknownClassPanicsWithItsSourceLine) {
  EXPECT_DEATH(TevdQprob_Post(0, 3, "@&!*@*@(kos.problem.x)y"),
               "Tevd - Panic: NOT_REACHED apps/tevd/tevdQprob:608");
}

// Real delivery: the agent's socket under the scratch root.
class TevdQprobSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TevdAlarm_ResetForTest();
    TevdQprob_ResetForTest();
    TevdQprob_Init();
  }
  void TearDown() override {
    TevdQprob_ResetForTest();
    TevdAlarm_ResetForTest();
  }
  tevdtest::ScratchRoot root_;
  tevdtest::FakeClock clock_;
};

TEST_F(TevdQprobSocketTest, MessageArrivesWholeOnOneConnection) {
  tevdtest::AgentStandIn agent(root_, tevdtest::AgentStandIn::Read);
  ASSERT_TRUE(agent.ok());
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.sock.test)%s", "abc");
  EXPECT_EQ(0u, TevdQprob_RetryListLengthForTest());
  // The stand-in decodes a connection's bytes only once the sender closed it,
  // and refuses a message whose length field is not the bytes it read.
  ASSERT_TRUE(tevdtest::Eventually(
      [&] { return agent.Accepted() == 1 && agent.Messages().size() + agent.Bad() == 1; }, 5000));
  ASSERT_EQ(1u, agent.Messages().size());
  EXPECT_EQ("kos.problem.sock.test", agent.Messages()[0].id);
  EXPECT_EQ(std::vector<std::string>{"S:abc"}, tevdtest::ArgsText(agent.Messages()[0].args));
}

TEST_F(TevdQprobSocketTest, AbsentAgentSocketFailsSendAndQueues) {
  const uint8_t msg[4] = {1, 2, 3, 4};
  EXPECT_EQ(-1, TevdQprob_Send(msg, sizeof msg));
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.nobody)x");
  EXPECT_EQ(1u, TevdQprob_RetryListLengthForTest());
}

}  // namespace
