// Event posting (wire bytes, rate window, size limits, retry list) and the trace server.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "Harness.h"
#include "tevdAlarm.h"
#include "tevdMetrics.h"
#include "tevdQprob.h"
#include "tevdTrace.h"

using namespace tevdtest;

namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

struct Wire {
  std::vector<Bytes> sent;
  int attempts = 0;
  bool fail = false;
  int err = 0;  // errno of a failure: EAGAIN is a time-out
  static int Hook(const void *message, size_t length, void *ctx) {
    Wire *w = static_cast<Wire *>(ctx);
    w->attempts++;
    const uint8_t *p = static_cast<const uint8_t *>(message);
    if (!w->fail) w->sent.emplace_back(p, p + length);
    errno = w->fail ? w->err : 0;
    return w->fail ? -1 : 0;
  }
};

template <typename T>
T At(const Bytes &b, size_t off) {
  T v;
  memcpy(&v, b.data() + off, sizeof v);
  return v;
}
std::string Text(const Bytes &b, size_t off) { return reinterpret_cast<const char *>(&b[off]); }

class TevdQprobTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(log_.ok());
    VThreadBase_SetName("qprobTest");
    root_.Write("platform/nodes/system/systemUuid", "0123abcd-4567-89ef-0123-456789abcdef");
    TevdAlarm_ResetForTest();
    TevdQprob_ResetForTest();
    TevdQprob_Init();  // the retry alarm gets identifier 0
    TevdQprob_SetSendHookForTest(Wire::Hook, &wire_);
    log_.Take();
  }
  void TearDown() override {
    TevdQprob_SetSendHookForTest(nullptr, nullptr);
    TevdQprob_ResetForTest();
    TevdAlarm_ResetForTest();
  }
  void PostMany(int n, const char *format) {
    for (int i = 0; i < n; i++) TevdQprob_Post(0, Problem, format, i);
    log_.Take();
  }
  // The trace's newest `n` lines.
  static Lines Newest(size_t n) {
    Lines all = TraceHistory();
    return Lines(all.end() - static_cast<long>(std::min(n, all.size())), all.end());
  }
  // Events waiting in the retry list, by the daemon's counters.
  size_t Waiting() const { return Queued() - waitingBefore_; }
  static size_t Queued() {
    const TevdMetrics &m = gTevdMetrics;
    return m.eventsQueued - m.eventsRetryDelivered - m.eventsAbandoned;
  }
  size_t waitingBefore_ = Queued();  // left by earlier tests' resets

  ScratchRoot root_;
  FakeClock clock_;
  LogLines log_{root_};
  Wire wire_;
};

TEST_F(TevdQprobTest, OneStringEventHasExactBytesLogLineAndTrace) {
  TevdQprob_Post(0, Problem,
                 "@&!*@*@(kos.problem.net.hwnic.linkstate.down)Physical NIC %s linkstate is down",
                 "hwnic1");
  ASSERT_EQ(1u, wire_.sent.size());
  const Bytes &m = wire_.sent[0];
  ASSERT_EQ(132u, m.size());
  const uint64_t stamp = At<uint64_t>(m, 0);
  // 8 NULs, host, length, argument count, identifier, block, 4 NULs.
  EXPECT_EQ(std::string("\0\0\0\0\0\0\0\0"
                        "0123abcd-4567-89ef-0123-456789abcdef\0\0\0\0"
                        "\x84\0\0\0\x01\0\0\0\x25\0\0\0"
                        "kos.problem.net.hwnic.linkstate.down\0"
                        "\x06\0\0\0\x06\0\0\0\x10\0\0\0\0\0\0\0hwnic1\0\0\0\0\0",
                        124),
            std::string(m.begin() + 8, m.end()));
  const std::string line = "us: [kos.problem.net.hwnic.linkstate.down] Physical NIC hwnic1";
  EXPECT_EQ(Lines{"[qprobTest] " + std::to_string(stamp) + line + " linkstate is down"},
            log_.Take());
  EXPECT_EQ(Lines{"1700000000.000000000,OUT," + std::to_string(stamp) +
                  ",kos.problem.net.hwnic.linkstate.down,,\"hwnic1\"\n"},
            Newest(1));
}

TEST_F(TevdQprobTest, MixedArgumentsSerialiseAsTypedSlotsAndTheIdentifierEndsAtTheFirstParen) {
  const char *none = getenv("TEVD_QPROB_TEST_UNSET_VARIABLE");  // a null string
  TevdQprob_Post(0, Clear, "@&!*@*@(kos.clear.x.y)%d %u %ld %lu %s %s", -3, 7u, -5L, 9UL, "a\"b",
                 none);
  ASSERT_EQ(1u, wire_.sent.size());
  const Bytes &m = wire_.sent[0];
  EXPECT_EQ(72u + 14u + 6 * 16u + 4u, m.size());  // the null string has no bytes
  QprobMessage msg;
  std::string why;
  ASSERT_TRUE(Qprob_Decode(m.data(), m.size(), &msg, &why)) << why;
  EXPECT_EQ("kos.clear.x.y", msg.id);
  EXPECT_EQ(Lines({"I:-3", "U:7", "L:-5", "UL:9", "S:a\"b", "S:(null)"}), ArgsText(msg.args));
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.c)t)ext");
  Tevd_PostProblem("old.style", "value %d", 3);
  ASSERT_EQ(3u, wire_.sent.size());
  EXPECT_EQ("kos.problem.c", Text(wire_.sent[1], 68));
  EXPECT_EQ("kos.problem.old.style", Text(wire_.sent[2], 68));
  EXPECT_EQ("Using discouraged \"Tevd_PostProblem\" interface for qprob: old.style",
            log_.Take().at(2));
}

TEST_F(TevdQprobTest, ThousandAndFirstEventOfWindowIsDropped) {
  PostMany(999, "@&!*@*@(kos.problem.rate.a)n %d");
  clock_.Advance(59);
  PostMany(1, "@&!*@*@(kos.problem.rate.a)n %d");  // the 1000th passes
  EXPECT_EQ(1000u, wire_.sent.size());
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.rate.b)n");
  EXPECT_EQ(1000u, wire_.sent.size());
  EXPECT_EQ(Lines{"Event rate limit reached. Dropping qprob: kos.problem.rate.b"}, log_.Take());
  clock_.Advance(1);  // 60 s after the window's start a new one opens with a count of 1
  PostMany(1000, "@&!*@*@(kos.problem.rate.c)n %d");
  EXPECT_EQ(2000u, wire_.sent.size());
  clock_.Advance(-3600);  // a clock gone backwards stays in the window
  PostMany(1, "@&!*@*@(kos.problem.rate.d)n %d");
  EXPECT_EQ(2000u, wire_.sent.size());
}

// 128 identifier characters are sent, 129 dropped; a block is built in a buffer
// doubled up to four times (to 18736 bytes, with 18650 for the block).
TEST_F(TevdQprobTest, OversizedIdentifierOrArgumentsAreDroppedSilently) {
  TevdQprob_Post(0, Problem, ("@&!*@*@(kos.problem." + std::string(116, 'a') + ")%s").c_str(), "v");
  ASSERT_EQ(1u, wire_.sent.size());
  EXPECT_EQ(129u, At<uint32_t>(wire_.sent[0], 64));
  EXPECT_EQ("kos.problem." + std::string(116, 'a'), Text(wire_.sent[0], 68));
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.g)%s", std::string(18650 - 17, 'r').c_str());
  ASSERT_EQ(2u, wire_.sent.size());
  EXPECT_EQ(72u + 14u + 18650u, At<uint32_t>(wire_.sent[1], 56));
  log_.Take();
  TevdQprob_Post(0, Problem, ("@&!*@*@(kos.problem." + std::string(117, 'b') + ")%s").c_str(), "v");
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.g)%s", std::string(18650 - 16, 'z').c_str());
  EXPECT_EQ(2, wire_.attempts);
  EXPECT_TRUE(log_.Take().empty());
  EXPECT_EQ(0u, Waiting());
}

// A failed send, or non-zero flags (the low byte), queue the event for the
// retry pass 180 s later, which sends the oldest first.
TEST_F(TevdQprobTest, FailedSendOrFlagsQueueAndTheNextPassSendsOldestFirst) {
  wire_.fail = true;
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.q.a)v %d", 5);
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.q.b)x");
  wire_.fail = false;
  TevdQprob_Post(1, Problem, "@&!*@*@(kos.problem.q.c)x");
  EXPECT_EQ(2, wire_.attempts);
  TevdQprob_Post(0x100, Problem, "@&!*@*@(kos.problem.now)x");
  EXPECT_EQ(3u, Waiting());
  Lines lines = log_.Take();  // each event's own line, then the queueing line
  ASSERT_EQ(7u, lines.size());
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(std::string("An event (kos.problem.q.") + "abc"[i] +
                  ") could not be sent immediately to marshd; queueing for retry.",
              lines[2 * i + 1]);
  }
  clock_.Advance(179);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());
  clock_.Advance(1);
  EXPECT_EQ(1, TevdAlarm_RunDueForTest());
  EXPECT_EQ(Lines({"Successfully sent event (kos.problem.q.a) after 1 failure.",
                   "Successfully sent event (kos.problem.q.b) after 1 failure.",
                   "Successfully sent event (kos.problem.q.c) after 1 failure."}),
            log_.Take());
  ASSERT_EQ(4u, wire_.sent.size());
  EXPECT_EQ("kos.problem.now", Text(wire_.sent[0], 68));
  EXPECT_EQ("kos.problem.q.a", Text(wire_.sent[1], 68));
  EXPECT_EQ(0u, Waiting());
  clock_.Advance(1000);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());         // nothing left: not re-armed
  TevdQprob_SetSendHookForTest(nullptr, nullptr);  // the root has no agent socket
  const uint8_t msg[4] = {1, 2, 3, 4};
  EXPECT_EQ(-1, TevdQprob_Send(msg, sizeof msg));
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.nobody)x");
  EXPECT_EQ(1u, Waiting());
}

// Defect: after a time-out to a stuck agent, the later entries of the pass counted a failure
// without an attempt, and reached "Abandoned ... after 6 failures." tried once or never.
TEST_F(TevdQprobTest, EntriesBehindATimeOutAreNotCountedUntilTriedAndEachGetsSixAttempts) {
  wire_.fail = true;
  wire_.err = ECONNREFUSED;
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.r.a)x");
  TevdQprob_Post(0, Problem, "@&!*@*@(kos.problem.r.b)x");
  log_.Take();
  wire_.err = EAGAIN;  // stuck from now on: every attempt times out
  wire_.attempts = 0;
  Lines all;
  for (int pass = 0; pass < 10; ++pass) {  // each 180 s after the last
    clock_.Advance(180);
    EXPECT_EQ(1, TevdAlarm_RunDueForTest());
    for (const std::string &l : log_.Take()) all.push_back(l);
  }
  // One attempt per pass; a gets its five retries, then b gets its five.
  EXPECT_EQ(10, wire_.attempts);
  Lines expected;
  for (const char *id : {"a", "b"}) {
    for (int n = 2; n <= 5; ++n) {
      expected.push_back(std::string("Failed to send event (kos.problem.r.") + id + "); " +
                         std::to_string(n) + " failures so far.");
    }
    expected.push_back(std::string("Abandoned event (kos.problem.r.") + id + ") after 6 failures.");
  }
  std::vector<std::string> got;
  for (const std::string &l : all)
    if (l.find("kos.problem.r.") != std::string::npos) got.push_back(l);
  EXPECT_EQ(expected, got);
  EXPECT_EQ(0u, Waiting());
  clock_.Advance(180);
  EXPECT_EQ(0, TevdAlarm_RunDueForTest());  // both abandoned: not re-armed
}

using V = MsgFmt_Value;

V Raw(uint32_t type, uint64_t bits) {  // a type the block format does not know
  V v = V::U64(bits);
  v.type = type;
  return v;
}

void Record(const char *dir, uint64_t stamp, const std::string &id,
            const std::vector<V> &args = {}) {
  std::vector<uint8_t> block = MsgFmt_EncodeBlock(args);
  TevdTrace_Record(dir, stamp, id.c_str(), block.data(), block.size(),
                   static_cast<int>(args.size()));
}

TEST_F(TevdQprobTest, TraceLineCarriesTimeDirectionStampIdentifierAndTypedArguments) {
  const uint64_t u64max = std::numeric_limits<uint64_t>::max();
  // Each row's arguments and what follows "<time>,IN,<stamp>,tev.a.b,".
  const std::pair<std::vector<V>, const char *> rows[] = {
      {{V::I32(INT32_MIN), V::I32(INT32_MAX), V::I32(0), V::I64(INT64_MIN), V::I64(INT64_MAX)},
       ",-2147483648,2147483647,0,-9223372036854775808,9223372036854775807"},
      {{V::U32(UINT32_MAX), V::U64(0), V::U64(u64max), V::U32(10)},
       ",4294967295,0,18446744073709551615,10"},
      {{V::Str("say \"hi\""), V::NullStr(), V::Str(""), V::Str("hwnic0")},
       ",\"say \"\"hi\"\"\",\"(null)\",\"\",\"hwnic0\""},
      {{Raw(0, 1), V::Dbl(1.0), Raw(7, 2), V::I32(8)}, ",???,???,???,8"}};
  for (const auto &r : rows) {
    Record("IN", u64max, "tev.a.b", r.first);
    EXPECT_EQ(Lines{"1700000000.000000000,IN,18446744073709551615,tev.a.b," +
                    std::string(r.second) + "\n"},
              Newest(1));
  }
  FakeClock whole(1);  // nine digits of nanoseconds
  Record("IN", 0, "tev.a.b");
  whole.AdvanceUs(999999);
  Record("IN", 0, "tev.a.b");
  EXPECT_EQ((Lines{"1.000000000,IN,0,tev.a.b,\n", "1.999999000,IN,0,tev.a.b,\n"}), Newest(2));
}

// Lines of exactly 1 KiB: 26 bytes of "1700000000.000000000,IN,0,", the
// identifier and ",\n".
TEST_F(TevdQprobTest, TraceHistoryKeepsNewest128KiBDroppingOldestLines) {
  for (int i = 0; i < 128; i++) Record("IN", 0, std::string(1024 - 28, 'A' + i % 26));
  Lines history = TraceHistory();
  ASSERT_EQ(128u, history.size());  // exactly 131072 bytes: nothing dropped
  Record("IN", 0, std::string(1024 - 28, 'z'));
  history = TraceHistory();
  ASSERT_EQ(128u, history.size());
  EXPECT_EQ('B', history.front()[26]);  // the line of 'A' went first
  EXPECT_EQ('z', history.back()[26]);
  Record("IN", 0, std::string(200000, 'g'));  // alone larger than the bound: stays alone
  history = TraceHistory();
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ(26u + 200000u + 2u, history[0].size());
  Record("IN", 0, "tev.small.three");
  EXPECT_EQ(Lines{"1700000000.000000000,IN,0,tev.small.three,\n"}, TraceHistory());
}

TEST_F(TevdQprobTest, TraceClientGetsHistoryThenBlankLineThenLiveLines) {
  int listenFd = TevdTrace_Open(nullptr);
  ASSERT_GE(listenFd, 0) << strerror(errno);
  size_t earlier = TraceHistory().size();  // of the tests before
  Record("IN", 1, "tev.one.a");
  Record("OUT", 2, "kos.problem.two", {V::I32(2)});
  TraceReader client(root_);
  TevdTrace_Accept(listenFd);
  while (earlier-- > 0) client.Next();
  EXPECT_EQ("1700000000.000000000,IN,1,tev.one.a,", client.Next());
  EXPECT_EQ("1700000000.000000000,OUT,2,kos.problem.two,,2", client.Next());
  EXPECT_EQ("\x01", client.Next());  // the blank line
  Record("OUT", 4, "kos.clear.four");
  EXPECT_EQ("1700000000.000000000,OUT,4,kos.clear.four,", client.Next());
  client.Close();
  close(listenFd);
  EXPECT_TRUE(Eventually([] { return TevdTrace_ClientCount() == 0; }, 5000));
}

}  // namespace
